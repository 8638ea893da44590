#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# archive.sh SOURCE BUILD: the archive works wherever it is unpacked.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
source=$1 build=$2
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cpack -G TGZ --config "$build/CPackConfig.cmake" -B "$folder/made"
mkdir "$folder/a place"
tar -xzf "$folder"/made/*.tar.gz -C "$folder/a place" --strip-components=1
tree=$folder/anywhere
mv "$folder/a place" "$tree"

links_stay_inside "$tree"
clean_of_build_paths "$tree" "$build" "$source" "$folder"
"$here/consumer.sh" pkg-config "$tree"
"$here/consumer.sh" find_package "$tree"
"$here/programs.sh" "$tree"
