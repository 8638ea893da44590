#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Runs test programs under memcheck, a process each: no invalid access, no
# decision upon memory that nobody wrote, nothing leaked.
#
#   valgrind.sh PROGRAM [FILTER]
#   valgrind.sh BUILD all
#
# FILTER is GoogleTest's. "all" runs every program of the list that the build
# tree has (valgrind.cmake), with the database servers: a line
# "program<tab>filter<tab>environment" each, the environment as words NAME=VALUE.
set -euo pipefail
tests=$(cd "$(dirname "$0")/.." && pwd)
command -v valgrind >/dev/null || { echo "skipped: no valgrind" && exit 77; }

# Prints what the program and memcheck said.
check() {
  local program=$1 filter=$2 environment=$3
  # Long forms repeat what short ones do; drivers keep their names when they are
  # unloaded.
  # shellcheck disable=SC2086  # words
  env -u ZIRDB_LONG $environment valgrind --quiet --error-exitcode=99 \
    --leak-check=full --show-leak-kinds=definite \
    --errors-for-leak-kinds=definite --num-callers=25 --keep-debuginfo=yes \
    --suppressions="$tests/support/valgrind.supp" \
    "$program" --gtest_brief=1 --gtest_filter="$filter"
}

output=$(mktemp)
trap 'rm -f "$output"' EXIT
if [ "${2:-}" != all ]; then
  status=0
  check "$1" "${2:-*}" "" >"$output" 2>&1 || status=$?
  cat "$output"
  # A filter that fits nothing would pass.
  if grep -q '^\[==========\] 0 tests' "$output"; then exit 1; fi
  if [ "$status" -eq 0 ] && grep -q '^\[  SKIPPED \]' "$output"; then exit 77; fi
  exit "$status"
fi

servers=$1/tests/servers
started=()
stop_servers() {
  rm -f "$output"
  for server in "${started[@]}"; do
    bash "$tests/support/servers.sh" stop "$server" "$servers"
  done
}
trap stop_servers EXIT
for server in postgres mariadb; do
  if bash "$tests/support/servers.sh" start "$server" "$servers"; then
    started+=("$server")
  fi
done

failed=()
while IFS=$'\t' read -r program filter environment; do
  name=$(basename "$program") began=$SECONDS status=0
  check "$program" "$filter" "$environment" </dev/null >"$output" 2>&1 ||
    status=$?
  skipped=$(grep -c '^\[  SKIPPED \]' "$output" || true)
  echo "$name: status $status, $skipped skipped, $((SECONDS - began)) seconds"
  if [ "$status" -ne 0 ]; then
    cat "$output"
    failed+=("$name")
  fi
done <"$1/tests/valgrind_programs"
[ "${#failed[@]}" -eq 0 ] || { echo "failed: ${failed[*]}" && exit 1; }
