#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# The demonstration: loads this machine's list of installed packages into an
# SQLite file through the scriptable objects, then asks three questions in SQL.
# Usage: scripts/demo.sh [WORD]   (the word to look for; default "compiler")
set -euo pipefail
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}"

say "building"
quietly configure cmake --preset release -B build/demo \
  -DZIRDB_BUILD_TESTS=OFF -DZIRDB_BUILD_BENCH=OFF
cmake --build build/demo --target query

# Where objects are found by name.
export REGISTRY=build/demo/registry
examples/packages.sh build/demo/examples/query "${1:-compiler}"
