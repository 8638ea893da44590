#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# document_program.sh ROOT LIBRARY DOCUMENT: the program in a document compiles,
# and prints what the document says it prints.
set -euo pipefail
document=$1/$3
if grep -q 'Driver=SQLite3' "$document"; then
  # shellcheck source=tests/build_checks/need_sqlite.sh
  source "$(dirname "$0")/need_sqlite.sh"
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
# shellcheck disable=SC2016  # the backticks are Markdown's
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$document" >"$folder/first.cpp"
# shellcheck disable=SC2016
sed -n '/^```text$/,/^```$/{/^```/d;p}' "$document" >"$folder/expected"
"${CXX:-g++}" -std=c++17 -Wall -Wextra -I"$1/src" "$folder/first.cpp" \
  "$2" -o "$folder/first"
LD_LIBRARY_PATH=$(dirname "$2") "$folder/first" >"$folder/printed"
diff -u "$folder/expected" "$folder/printed"
test -s "$folder/expected"
