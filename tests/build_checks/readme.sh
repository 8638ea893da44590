#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# readme.sh ROOT LIBRARY: the program in the README compiles, and prints what
# the README says it prints.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
# shellcheck disable=SC2016  # the backticks are Markdown's
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$1/README.md" >"$folder/first.cpp"
# shellcheck disable=SC2016
sed -n '/^```text$/,/^```$/{/^```/d;p}' "$1/README.md" >"$folder/expected"
"${CXX:-g++}" -std=c++17 -I"$1/src" "$folder/first.cpp" "$2" -o "$folder/first"
LD_LIBRARY_PATH=$(dirname "$2") "$folder/first" >"$folder/printed"
diff -u "$folder/expected" "$folder/printed"
test -s "$folder/expected"
