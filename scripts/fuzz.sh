#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Fuzzes the library: one target or all of them in turn, for so many seconds
# each. Knows what earlier runs learned; a find is left in
# build/dev/tests/fuzz/finds/TARGET, and running the target's program on that
# file repeats it.
# Usage: scripts/fuzz.sh [TARGET [SECONDS]]   (default: all, 60 seconds each)
#        TARGET "all" is all of them
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}" libgtest-dev clang libclang-rt-dev

wanted=${1:-all} seconds=${2:-60}
targets=()
for seeds in tests/fuzz/seeds/*/; do
  target=$(basename "$seeds")
  if [ "$wanted" = all ] || [ "$wanted" = "$target" ]; then
    targets+=("$target")
  fi
done
[ "${#targets[@]}" -gt 0 ] || {
  echo "no fuzz target named $wanted" >&2
  exit 1
}

say "building"
quietly configure cmake --preset dev -DZIRDB_BUILD_TESTS=ON
cmake --build --preset dev --target fuzz_programs

folder=build/dev/tests/fuzz
for target in "${targets[@]}"; do
  say "$target, $seconds seconds"
  tests/fuzz/run.sh "$folder/fuzz_$target" "tests/fuzz/seeds/$target" \
    "$folder/finds/$target" "$seconds" "$folder/corpus/$target"
done
