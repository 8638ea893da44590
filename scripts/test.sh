#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# All tests: under AddressSanitizer and UndefinedBehaviorSanitizer, the thread
# tests under ThreadSanitizer, and everything once more as it is released.
# Usage: scripts/test.sh [PRESET...]   (default: asan tsan release)
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}" ccache libgtest-dev libbenchmark-dev \
  odbc-postgresql postgresql odbc-mariadb mariadb-server \
  clang libclang-rt-dev clang-format clang-tidy cppcheck valgrind shellcheck \
  python3 libcli11-dev groff-base dpkg-dev file fakeroot pkgconf doxygen
need_node
need_node_packages || say "npm fails: the declarations are not checked"

# Warnings are errors where somebody looks at every change, and only there: a
# newer compiler's new warning must not keep a stranger from building.
werror=OFF
if [ -n "${CI:-}" ]; then werror=ON; fi

presets=("$@")
if [ "${#presets[@]}" -eq 0 ]; then presets=(asan tsan release); fi
for preset in "${presets[@]}"; do
  say "building $preset"
  # Said outright, because a tree may have been configured without them.
  quietly configure cmake --preset "$preset" -DZIRDB_WERROR=$werror \
    -DZIRDB_BUILD_TESTS=ON -DZIRDB_BUILD_BENCH=ON -DZIRDB_BUILD_EXAMPLES=ON \
    -DZIRDB_BUILD_TOOLS=ON -DZIRDB_BUILD_NODE=ON
  cmake --build --preset "$preset"
  say "testing $preset"
  ctest --preset "$preset"
done
