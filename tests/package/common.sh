# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the checks of the package share. The scripts that source this set
# "here" to their folder.

# need COMMAND...: skips where one is missing.
need() {
  local command
  for command in "$@"; do
    command -v "$command" >/dev/null || {
      echo "skipped: no $command"
      exit 77
    }
  done
}

fail() {
  echo "$*"
  exit 1
}

# mentions PATH FOLDER: the files that contain the path. A path in a longer
# relative one does not count.
mentions() {
  LC_ALL=C grep -rlaP "(?<![\\w./-])\\Q$1\\E(?![\\w.-])" "$2" || true
}

# clean_of_build_paths TREE BUILD PATH...: nothing in the tree tells where it
# was built. A path is known to be found where it does stand.
clean_of_build_paths() {
  local tree=$1 build=$2 path found
  shift 2
  [ -n "$(mentions "$build" "$build/CMakeCache.txt")" ] ||
    fail "the search finds nothing"
  for path in "$build" "$@"; do
    found=$(mentions "$path" "$tree")
    [ -z "$found" ] || fail "$path stands in:"$'\n'"$found"
  done
}

# links_stay_inside TREE: no link is broken, and none needs its place in the
# file system.
links_stay_inside() {
  local tree link target
  tree=$(realpath "$1")
  while IFS= read -r -d '' link; do
    target=$(realpath -e "$link") || fail "$link leads nowhere"
    [[ $(readlink "$link") != /* && $target == "$tree"/* ]] ||
      fail "$link leads to $(readlink "$link")"
  done < <(find "$tree" -type l -print0)
}

# binaries TREE: the programs and libraries in it.
binaries() {
  find "$1" -type f \( -path '*/bin/*' -o -name '*.so.*' -o -name '*.node' \)
}

# run_path FILE: where it looks for libraries by itself.
run_path() {
  readelf -d "$1" | sed -nE 's/.*\((RPATH|RUNPATH)\).*\[(.*)\]/\2/p'
}

# The library folder of a tree, whatever the machine calls it.
library_folder() {
  local library
  library=$(find "$1" -name 'libzirdb.so.*.*')
  dirname "${library:?nothing in $1}"
}
