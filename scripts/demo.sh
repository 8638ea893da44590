#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# The demonstration: builds the library with its Node.js host and its command
# line, has a script load this machine's list of installed packages into an
# SQLite file and ask it three questions, and says what to try next.
# Usage: scripts/demo.sh [WORD]   (the word to look for; default "compiler")
set -euo pipefail
started_in=$PWD
# shellcheck source=scripts/common.sh
source "$(dirname "$0")/common.sh"

need "${build_packages[@]}" libcli11-dev
need_node

say "building"
quietly configure cmake --preset release -B build/demo \
  -DZIRDB_BUILD_TESTS=OFF -DZIRDB_BUILD_BENCH=OFF -DZIRDB_BUILD_EXAMPLES=OFF
quietly build cmake --build build/demo
[ -e build/demo/node_modules/zirdb/zirdb.node ] || {
  echo "the Node.js host was left out: $(grep 'host' build/configure.log)" >&2
  exit 1
}

say "examples/node/packages.js"
# The host keeps to a folder that somebody has set.
unset REGISTRY
export NODE_PATH=build/demo/node_modules
node examples/node/packages.js "${1:-compiler}"

where=
if [ "$started_in" != "$root" ]; then where=", in $root"; fi
cat <<END

== to try next$where:

  NODE_PATH=build/demo/node_modules node examples/node/first.js
END
# Without CLI11 the rest is built all the same.
if [ -x build/demo/zirdb ]; then
  cat <<'END'
  build/demo/zirdb query 'Driver=SQLite3;Database=:memory:' 'SELECT 6 * 7 AS answer'
  build/demo/zirdb doctor
END
fi
cat <<'END'
  scripts/test.sh
END
