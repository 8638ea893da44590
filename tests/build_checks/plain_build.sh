#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# plain_build.sh ROOT: the library builds from its sources with one compiler
# command and no build system, and what comes out answers a query.
set -euo pipefail
root=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
"${CXX:-g++}" -std=c++17 -fPIC -shared "$root"/src/*.cpp -lodbc -luuid -ldl \
  -o libzirdb.so
"${CXX:-g++}" -std=c++17 -I"$root/src" "$root/examples/query.cpp" -L. -lzirdb \
  -o query
LD_LIBRARY_PATH=. ./query 'Driver=SQLite3;Database=:memory:' \
  'SELECT 6 * 7 AS answer' >table
diff -u - table <<'TABLE'
answer
------
    42
(1 row)
TABLE
