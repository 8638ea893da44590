#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# plain_build.sh ROOT: the library builds from its sources with one compiler
# command and no build system, and what comes out answers a query
# and keeps what is internal to itself.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
root=$1
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
"${CXX:-g++}" -std=c++17 -fPIC -shared "$root"/src/*.cpp -lodbc -luuid -ldl \
  -o libzirdb.so
"${CXX:-g++}" -std=c++17 -I"$root/src" "$root/examples/host.cpp" -L. -lzirdb \
  -o host
# Where objects are found by name takes no more than this.
mkdir registry
ln -s ../libzirdb.so registry/ZIRDB.so
REGISTRY=registry LD_LIBRARY_PATH=. ./host >said
grep -qx 'saw, price 14' said || {
  cat said
  exit 1
}
if nm -D --defined-only libzirdb.so | grep -q zirdb_odbc_execute_into; then
  echo "an internal function is exported"
  exit 1
fi
