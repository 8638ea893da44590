#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# headers.sh ROOT: every public header compiles alone, twice in a row, and
# before and after the ODBC headers, under every standard it promises.
set -euo pipefail
cd "$1/src"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
flags=(-fsyntax-only -I. -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual
  -Werror)
compilers=("${CXX:-g++}")
if command -v clang++ >/dev/null; then compilers+=(clang++); fi
for header in *.h; do
  printf '#include "%s"\n#include "%s"\n' "$header" "$header" >"$folder/twice.cpp"
  printf '#include <sql.h>\n#include <sqlext.h>\n#include "%s"\n' "$header" \
    >"$folder/after.cpp"
  printf '#include "%s"\n#include <sql.h>\n#include <sqlext.h>\n' "$header" \
    >"$folder/before.cpp"
  for compiler in "${compilers[@]}"; do
    for standard in c++17 c++20; do
      for source in twice after before; do
        "$compiler" -std=$standard "${flags[@]}" "$folder/$source.cpp"
      done
    done
  done
done
