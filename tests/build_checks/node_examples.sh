#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# node_examples.sh NODE EXAMPLES BUILD: the examples for Node.js print what they
# should, the answers about packages agree with the package manager, nothing is
# left behind, and what goes wrong is said on standard error.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
node=$(command -v "$1") examples=$2
export NODE_PATH=$3/node_modules
# The host finds its folder by itself.
unset REGISTRY NODE_OPTIONS
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() {
  echo "$*"
  exit 1
}

diff -u - <("$node" "$examples/first.js") <<'END'
saw: 12.5
nail: 0.25
ZirdbError: HY000: [SQLite]near "SELEC": syntax error (1)
END

# fails TEXT COMMAND...: says so on standard error, with status 1.
fails() {
  local text=$1 errors status=0
  shift
  errors=$("$@" 2>&1 >/dev/null) || status=$?
  [ "$status" -eq 1 ] || fail "$*: status $status"
  grep -qF -- "$text" <<<"$errors" || fail "$*: said \"$errors\", not \"$text\""
}
# A machine that has no packages, and one without the driver.
fails 'packages: no list of packages: this needs dpkg-query' \
  env PATH=/nonexistent TMPDIR="$folder" "$node" "$examples/packages.js"
mkdir "$folder/no_drivers"
fails "packages: 01000: [unixODBC][Driver Manager]Can't open lib 'SQLite3'" \
  env ODBCSYSINI="$folder/no_drivers" HOME="$folder/no_drivers" \
  TMPDIR="$folder" "$node" "$examples/packages.js"
rm -r "$folder/no_drivers"

command -v dpkg-query >/dev/null || {
  echo "skipped: the questions need dpkg-query"
  exit 77
}
TMPDIR=$folder "$node" "$examples/packages.js" 'C++ compiler' \
  >"$folder/output" 2>"$folder/errors"
[ ! -s "$folder/errors" ] || fail "said $(cat "$folder/errors")"
output=$(cat "$folder/output")
rm "$folder/output" "$folder/errors"
[ -z "$(ls -A "$folder")" ] || fail "left behind: $(ls -A "$folder")"

# shellcheck disable=SC2016  # dpkg-query's own variables
expected=$(dpkg-query -W -f '${db:Status-Status}\n' | grep -cx installed)
grep -qE "^$expected installed packages, loaded in [0-9]+ ms$" <<<"$output" ||
  fail "not the $expected packages: $(head -n 1 <<<"$output")"
[ "$(grep -cx '(10 rows)' <<<"$output")" -eq 2 ] || fail "$output"
grep -qE '^g\+\+ +GNU C\+\+ compiler$' <<<"$output" || fail "$output"

# first HEADING: the first cell of the first row below it.
first() {
  sed -n "/^$1/,/rows\\?)$/p" <<<"$output" | awk '/^---/ { getline; print $1 }'
}
# shellcheck disable=SC2016
largest=$(dpkg-query -W \
  -f '${db:Status-Status} ${Installed-Size} ${binary:Package}\n' |
  sed -n 's/^installed //p' | LC_ALL=C sort -k1,1nr -k2,2 |
  awk 'NR == 1 { print $2 }')
[ "$(first 'The ten largest')" = "$largest" ] ||
  fail "largest package: $(first 'The ten largest'), not $largest"
# shellcheck disable=SC2016
section=$(dpkg-query -W -f '${db:Status-Status}\t${Installed-Size}\t${Section}\n' |
  awk -F '\t' '$1 == "installed" { kib[$3] += $2 }
    END { for (name in kib) print kib[name], name }' |
  sort -nr | awk 'NR == 1 { print $2 }')
[ "$(first 'The ten sections')" = "$section" ] ||
  fail "largest section: $(first 'The ten sections'), not $section"
