#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# What the tests reach of the library: builds it with counters, runs all tests,
# and prints for each file of src/ the share of its lines and branches. Fails
# below 97 % of the lines or 90 % of the branches, and where a line without a
# test is not among those that tests/build_checks/uncovered.txt explains.
# Usage: scripts/coverage.sh
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}" gcovr ccache libgtest-dev \
  odbc-postgresql postgresql odbc-mariadb mariadb-server python3 libcli11-dev
need_node

say "building"
# Threads lose counts that are not atomic, and gcovr stops at those below zero.
quietly configure cmake --preset coverage -DZIRDB_BUILD_TESTS=ON \
  -DCMAKE_CXX_FLAGS=-fprofile-update=atomic \
  -DZIRDB_BUILD_BENCH=OFF -DZIRDB_BUILD_EXAMPLES=ON -DZIRDB_BUILD_TOOLS=ON \
  -DZIRDB_BUILD_NODE=ON
cmake --build --preset coverage
# What an earlier run has counted, of sources that may have changed since.
find build/coverage -name '*.gcda' -delete
say "testing"
ctest --preset coverage
say "measuring"
tests/build_checks/coverage.sh . build/coverage
