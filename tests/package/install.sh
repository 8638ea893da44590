#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# install.sh BUILD TREE: installs the build, then moves what came out to TREE,
# where the other checks find it: whatever remembers the first place is lost.
set -euo pipefail
here=$(dirname "$0")
build=$1 tree=$2
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
rm -rf "$tree" "$tree.first"
cmake --install "$build" --prefix "$tree.first"
mv "$tree.first" "$tree"

# For /usr, into a root that is not the machine's: the library alone, whose
# links must not need what belongs to those who compile.
root=$tree.root
rm -rf "$root"
DESTDIR=$root cmake --install "$build" --prefix /usr --component runtime
diff <(cd "$root/usr" && find . ! -type d | LC_ALL=C sort) \
  <(cd "$tree" && find . \( -name 'libzirdb.so.*' -o -path '*/registry/*' \) |
    LC_ALL=C sort)
links_stay_inside "$root"
rm -rf "$root"
