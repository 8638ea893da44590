#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# consumer.sh find_package|pkg-config TREE: a project that has nothing but the
# installed tree compiles, links, creates objects by name and asks SQLite.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
how=$1 tree=$(realpath "$2")
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$here/../build_checks/need_sqlite.sh"
libraries=$(library_folder "$tree")
unset REGISTRY
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp -r "$here/consumer" "$folder"
cd "$folder/consumer"

case $how in
  find_package)
    cmake -S . -B build -G Ninja "-DCMAKE_PREFIX_PATH=$tree" \
      -DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF -DCMAKE_CXX_FLAGS="-Wall -Werror"
    grep -xF "zirdb_DIR:PATH=$libraries/cmake/zirdb" build/CMakeCache.txt
    cmake --build build --target run | tee output
    grep -x 'answer = forty-two' output

    # Another minor version may be another interface.
    cat >version.cmake <<'END'
list(APPEND CMAKE_PREFIX_PATH "${TREE}")
foreach(version 0.0 0.2 1.0)
  find_package(zirdb ${version} QUIET CONFIG)
  if(zirdb_FOUND OR NOT zirdb_CONSIDERED_VERSIONS STREQUAL "0.1.0")
    message(FATAL_ERROR "${version}: ${zirdb_CONSIDERED_VERSIONS}")
  endif()
endforeach()
END
    triplet=${libraries#"$tree"/lib}
    cmake -D "TREE=$tree" -D "CMAKE_LIBRARY_ARCHITECTURE=${triplet#/}" \
      -P version.cmake
    ;;
  pkg-config)
    need pkg-config
    export PKG_CONFIG_PATH=$libraries/pkgconfig
    registry=$(pkg-config --variable=registrydir zirdb)
    [ "$(realpath "$registry")" = "$libraries/zirdb/registry" ] ||
      fail "registrydir is $registry"
    read -ra flags <<<"$(pkg-config --cflags --libs zirdb)"
    "${CXX:-g++}" -std=c++17 -Wall -Werror consumer.cpp "${flags[@]}" \
      -o consumer
    LD_LIBRARY_PATH=$libraries${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
      REGISTRY=$registry ./consumer >output
    diff - output <<END
answer = forty-two
END
    ;;
  *) fail "how?" ;;
esac
