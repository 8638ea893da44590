#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Fuzzes the library: one target, or all of them, as many at a time as there are
# processors, for so many seconds each. Knows what earlier runs learned; a find
# is left in build/dev/tests/fuzz/finds/TARGET, and running the target's program
# on that file repeats it. What a target says goes to TARGET.log beside it.
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

export folder=build/dev/tests/fuzz seconds
fuzz() {
  local status=0
  tests/fuzz/run.sh "$folder/fuzz_$1" "tests/fuzz/seeds/$1" "$folder/finds/$1" \
    "$seconds" "$folder/corpus/$1" >"$folder/$1.log" 2>&1 || status=$?
  printf '%s: %s\n' "$1" "$(grep -a 'number_of_executed_units' \
    "$folder/$1.log" || tail -n 20 "$folder/$1.log")"
  return "$status"
}
export -f fuzz
say "$seconds seconds each: ${targets[*]}"
# shellcheck disable=SC2016  # the inner shell expands it
printf '%s\0' "${targets[@]}" |
  xargs -0 -n 1 -P "$(nproc)" bash -c 'fuzz "$1"' fuzz
