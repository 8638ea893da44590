#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# parent_project.sh SOURCE: a project that takes the sources in gets the library
# to link, and nothing that it did not ask for: no tests, no package rules, no
# files in its installation.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
source=$1
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cat >"$folder/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(parent LANGUAGES CXX)
include(CTest)
add_subdirectory("${SOURCE}" zirdb)
add_executable(program program.cpp)
target_link_libraries(program zirdb::zirdb)
foreach(target query fetch_bench thread_tests zirdb_tool zirdb_node)
  if(TARGET ${target})
    message(FATAL_ERROR "brings ${target} along")
  endif()
endforeach()
END
printf '#include "zirdb.h"\nint main() { return DllCanUnloadNow(); }\n' \
  >"$folder/program.cpp"
cd "$folder"
cmake -S . -B build -G Ninja -D "SOURCE=$source"
[ ! -e build/CPackConfig.cmake ] || fail "configures packages"
rules=build/zirdb/cmake_install.cmake
if grep 'libzirdb\.so' "$rules"; then fail "puts files into an installation"; fi
# The program compiles against it; the library itself is built often enough.
cmake --build build --target CMakeFiles/program.dir/program.cpp.o
cmake -S . -B build -D ZIRDB_INSTALL=ON
grep -q 'libzirdb\.so' "$rules" || fail "cannot be installed when asked to"
