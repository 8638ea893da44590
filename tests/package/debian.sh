#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# debian.sh SOURCE BUILD: the Debian packages depend on what they need, install
# with dpkg into a root of their own, and work from there. The machine's own
# packages are asked for, and never touched.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
source=$1 build=$2
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
need dpkg dpkg-shlibdeps file
if [ "$(id -u)" -ne 0 ]; then
  need fakeroot
  [ -n "${FAKEROOTKEY:-}" ] || exec fakeroot bash "$0" "$@"
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
mkdir "$folder/contents"

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$folder/made"
cd "$folder/made"
version=$(sed -nE 's/^set\(CPACK_PACKAGE_VERSION "(.*)"\)$/\1/p' \
  "$build/CPackConfig.cmake")
packages=(libzirdb0 libzirdb-dev)
components=$(sed -nE 's/^set\(CPACK_COMPONENTS_ALL "(.*)"\)$/;\1;/p' \
  "$build/CPackConfig.cmake")
if [[ $components == *";tools;"* ]]; then packages+=(zirdb-tools); fi
if [[ $components == *";node;"* ]]; then packages+=(node-zirdb); fi
diff -u <(printf "%s_${version}_amd64.deb\n" "${packages[@]}" | LC_ALL=C sort) \
  <(LC_ALL=C ls -- *.deb)

# ---------------------------------------------------------------------------
# What they say
# ---------------------------------------------------------------------------

# depends PACKAGE PATTERN...: each pattern fits one dependency.
depends() {
  local list pattern package=$1
  list=$(dpkg-deb -f "${package}"_*.deb Depends | sed 's/, */\n/g')
  shift
  for pattern in "$@"; do
    grep -qxE -- "$pattern" <<<"$list" ||
      fail "$package: none of its dependencies is $pattern:"$'\n'"$list"
  done
}
own="libzirdb0 \\(= ${version//./\\.}\\)"
depends libzirdb0 'libodbc[12](t64)? .*' 'libuuid1(t64)? .*' 'libc6 .*' \
  'libstdc\+\+6 .*'
depends libzirdb-dev "$own"
for package in "${packages[@]}"; do
  case $package in
    zirdb-tools) depends zirdb-tools "$own" 'libodbcinst[12](t64)? .*' ;;
    node-zirdb) depends node-zirdb "$own" 'nodejs \(>= 18\)' ;;
  esac

  deb=$(echo "${package}"_*.deb)
  contents=$folder/contents/$package
  dpkg-deb -x "$deb" "$contents"
  dpkg-deb -e "$deb" "$contents.control"
  cmp "$source/LICENSE" "$contents/usr/share/doc/$package/copyright"
  gzip -t "$contents/usr/share/doc/$package/changelog.gz"
  while IFS= read -r file; do
    [ -z "$(run_path "$file")" ] || fail "$file looks in $(run_path "$file")"
  done < <(binaries "$contents")
  clean_of_build_paths "$contents" "$build" "$source" "$folder"
  [ -z "$(find "$contents" ! -type l -perm /022)" ] ||
    fail "$package: files that others may write"
  # Nothing runs when it is installed: the triggers of the system do it.
  for script in preinst postinst prerm postrm; do
    [ ! -e "$contents.control/$script" ] || fail "$package: has a $script"
  done
done
# By itself, without what belongs to those who compile.
links_stay_inside "$folder/contents/libzirdb0"
grep -qx 'activate-noawait ldconfig' "$folder/contents/libzirdb0.control/triggers"
grep -qx "libzirdb 0 libzirdb0 (>= $version)" \
  "$folder/contents/libzirdb0.control/shlibs"

# ---------------------------------------------------------------------------
# Installed into a root whose system is this machine's
# ---------------------------------------------------------------------------

root=$folder/root
database=$root/var/lib/dpkg
mkdir -p "$database/info" "$database/updates"
touch "$database/status"
installing=()
for package in "${packages[@]}"; do
  if [ "$package" = node-zirdb ] && ! dpkg-query -s nodejs >/dev/null 2>&1; then
    echo "node-zirdb is left out: nodejs is not a package on this machine"
    continue
  fi
  installing+=("$PWD/${package}_${version}_amd64.deb")
done
# dpkg sees whether this machine has what the packages depend on, in the
# versions that they ask for.
for deb in "${installing[@]}"; do
  dpkg-deb -f "$deb" Depends | sed 's/, */\n/g; s/ *([^)]*)//g'
done | grep -v '^libzirdb0$' | LC_ALL=C sort -u >"$folder/system"
while IFS= read -r package; do
  dpkg-query -s "$package" >>"$database/status"
  echo >>"$database/status"
  architecture=$(dpkg-query -W -f '${Architecture}\n' "$package" | head -n 1)
  touch "$database/info/$package.list" \
    "$database/info/$package:$architecture.list"
done <"$folder/system"
PATH=$PATH:/usr/sbin:/sbin
dpkg=(dpkg "--root=$root" --log=/dev/null)
"${dpkg[@]}" -i "${installing[@]}"
"${dpkg[@]}" --audit "${packages[@]}" | (! grep .)

links_stay_inside "$root/usr"
"$here/consumer.sh" pkg-config "$root/usr"
"$here/consumer.sh" find_package "$root/usr"
LD_LIBRARY_PATH=$(library_folder "$root")${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} \
  "$here/programs.sh" "$root/usr"

"${dpkg[@]}" --purge "${packages[@]}"
left=$(find "$root" -path "$root/var" -prune -o ! -type d -print)
[ -z "$left" ] || fail "stays behind:"$'\n'"$left"
