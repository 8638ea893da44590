#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# run.sh PROGRAM SEEDS FINDS SECONDS [CORPUS]: fuzzes for so long, beginning
# with the seeds. What makes the target fail is left in the folder FINDS. What
# it learns is kept in the folder CORPUS, if one is named.
set -euo pipefail
program=$1 seeds=$2 finds=$3 seconds=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
# Temporary files of the target go where they cost least.
if [ -w /dev/shm ]; then
  shm=$(mktemp -d -p /dev/shm)
  trap 'rm -rf "$folder" "$shm"' EXIT
  export TMPDIR=$shm
fi
corpus=${5:-$folder}
mkdir -p "$corpus" "$finds"

options=(-max_total_time="$seconds" -max_len=2048 -timeout=10
  -rss_limit_mb=2048 -artifact_prefix="$finds/" -print_final_stats=1
  # What the runtime says on standard output about every unsupported pair.
  -close_fd_mask=1)
if [ -e "$seeds.dict" ]; then options+=(-dict="$seeds.dict"); fi
"$program" "${options[@]}" "$corpus" "$seeds"
