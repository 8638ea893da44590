#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# query_errors.sh QUERY: every way to fail says why on standard error, prints no
# table, and has its exit status.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
query=$1
memory='Driver=SQLite3;Database=:memory:'

# fails STATUS TEXT ARGUMENT...
fails() {
  local status=$1 text=$2 got=0 errors
  shift 2
  errors=$("$query" "$@" 2>&1 >/dev/null </dev/null) || got=$?
  [ "$got" -eq "$status" ] || { echo "$*: status $got, not $status"; exit 1; }
  grep -qF -- "$text" <<<"$errors" || {
    echo "$*: said \"$errors\", not \"$text\""
    exit 1
  }
  [ -z "$("$query" "$@" 2>/dev/null </dev/null || true)" ] || {
    echo "$*: printed something beside the error"
    exit 1
  }
}

fails 2 'usage: query'
fails 2 'usage: query' "$memory"
fails 2 'usage: query' --bind-lines "$memory" 'SELECT 1' surplus
fails 1 'query: IM002: ' 'DSN=no such data source' 'SELECT 1'
fails 1 'query: 01000: ' 'Driver=no such driver' 'SELECT 1'
fails 1 'query: HY000: ' "$memory" 'SELEC 1'
fails 1 'query: a text is not UTF-8' "$memory" 'SELECT ?' $'\xff'

if "$query" "$memory" 'SELECT 1' >/dev/full 2>/dev/null; then
  echo "output that could not be written went unnoticed"
  exit 1
fi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
file="Driver=SQLite3;Database=$folder/t.db"
"$query" "$file" 'CREATE TABLE t (a PRIMARY KEY, b)' >/dev/null
if printf '1\tx\n2\ty\n1\tz\n' | "$query" --bind-lines "$file" \
  'INSERT INTO t VALUES (?, ?)' >/dev/null 2>"$folder/errors"; then
  echo "a refused line went through"
  exit 1
fi
grep -qF 'query: line 3: ' "$folder/errors"
# One line refused: none of them stays.
"$query" "$file" 'SELECT COUNT(*) AS n FROM t' | sed -n 3p | grep -qx ' *0'
