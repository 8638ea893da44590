#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Everything long: what scripts/test.sh runs in short forms or for seconds, and
# what it does not run at all. docs/reliability.md has what came of it.
# Usage: scripts/reliability.sh [PART...]   (default: all parts, one by one)
#        load      the long forms of load, soak, sizes, dying servers and hosts
#        fuzz      every fuzz target, two at a time, FUZZ_SECONDS each (600)
#        valgrind  every test program under memcheck
#        coverage  lines and branches of src/, against the reviewed list
#        lint      clang-tidy over everything, tests included
#        threads   the thread tests under ThreadSanitizer, REPETITIONS times (5)
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}" ccache libgtest-dev libbenchmark-dev \
  odbc-postgresql postgresql odbc-mariadb mariadb-server

build() {
  local preset=$1
  shift
  quietly configure cmake --preset "$preset" -DZIRDB_BUILD_TESTS=ON
  cmake --build --preset "$preset" "$@"
}

load() {
  build release
  ctest --preset release -L slow -R '^long/'
}

fuzz() {
  scripts/fuzz.sh all "${FUZZ_SECONDS:-600}"
}

valgrind() {
  need valgrind
  build release
  bash tests/build_checks/valgrind.sh build/release all
}

coverage() {
  scripts/coverage.sh
}

lint() {
  need clang-tidy python3
  build release
  bash tests/build_checks/clang_tidy.sh . build/release all
}

threads() {
  build tsan
  ctest --preset tsan --repeat "until-fail:${REPETITIONS:-5}"
}

parts=("$@")
if [ "${#parts[@]}" -eq 0 ]; then
  parts=(load fuzz valgrind coverage lint threads)
fi
for part in "${parts[@]}"; do
  case $part in
    load | fuzz | valgrind | coverage | lint | threads) ;;
    *)
      echo "no part named $part" >&2
      exit 1
      ;;
  esac
done
for part in "${parts[@]}"; do
  say "$part"
  "$part"
done
