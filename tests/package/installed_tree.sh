#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# installed_tree.sh SOURCE BUILD TREE: what is installed is the reviewed list of
# files, finds its parts inside the tree, and does not tell where it was built.
set -euo pipefail
here=$(dirname "$0")
source=$1 build=$2 tree=$3
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
libraries=$(library_folder "$tree")

# The lists name the library folder LIBDIR. Pages and examples are those that
# the sources have, without how these are built there; the command and the Node.js host may be left out.
expected() {
  cat "$here/installed.txt"
  (cd "$source" && find docs examples -type f ! -name CMakeLists.txt \
    ! -name tsconfig.json |
    sed 's,^,share/doc/zirdb/,')
  if [ -e "$tree/bin/zirdb" ]; then cat "$here/installed_tools.txt"; fi
  if [ -e "$libraries/nodejs" ]; then cat "$here/installed_node.txt"; fi
}
diff -u <(expected | LC_ALL=C sort) <(cd "$tree" && find . ! -type d |
  sed -e 's,^\./,,' -e "s,^${libraries#"$tree"/}/,LIBDIR/," \
    -e 's,-\(release\|debug\|relwithdebinfo\|noconfig\)\.cmake$,-CONFIG.cmake,' |
  LC_ALL=C sort)

links_stay_inside "$tree"
diff -u <(cd "$build/registry" && ls) <(cd "$libraries/zirdb/registry" && ls)
library=$(realpath "$libraries/libzirdb.so")
for link in "$libraries/zirdb/registry"/*.so; do
  [ "$(realpath "$link")" = "$library" ] || fail "$link: another library"
done
for file in "$libraries/zirdb/registry"/*.clsid; do
  cmp "$file" "$build/registry/$(basename "$file")"
done
readelf -d "$library" | grep -q 'SONAME.*\[libzirdb\.so\.0\]' ||
  fail "unexpected SONAME"

while IFS= read -r file; do
  path=$(run_path "$file")
  if [ -z "$path" ]; then
    [ "$file" = "$library" ] || fail "$file: does not find the library"
    continue
  fi
  [[ $path == "\$ORIGIN"* && $path != *:* ]] || fail "$file looks in $path"
  [ "$(realpath "${path/"\$ORIGIN"/$(dirname "$file")}")" = \
    "$(realpath "$libraries")" ] || fail "$file looks in $path"
done < <(binaries "$tree")

clean_of_build_paths "$tree" "$build" "$source" "$tree.first"
