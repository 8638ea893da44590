#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# packages_example.sh QUERY SCRIPT: the demonstration loads every installed
# package and its three answers agree with the package manager.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
output=$(bash "$2" "$1" "C++ compiler")
# shellcheck disable=SC2016  # dpkg-query's own variables
expected=$(dpkg-query -W -f '${db:Status-Status}\n' | grep -cx installed)
grep -qF "$expected rows affected by $expected lines" <<<"$output"
grep -q '^(10 rows)$' <<<"$output"
grep -qE '^g\+\+ +GNU C\+\+ compiler$' <<<"$output"
# shellcheck disable=SC2016
largest=$(dpkg-query -W \
  -f '${db:Status-Status} ${Installed-Size} ${binary:Package}\n' |
  sed -n 's/^installed //p' | sort -k1,1nr -k2,2 | awk 'NR == 1 { print $2 }')
first=$(sed -n '/^The ten largest/,/rows)$/p' <<<"$output" |
  awk '/^---/ { getline; print $1 }')
[ "$first" = "$largest" ] || {
  echo "largest package: $first, expected $largest"
  exit 1
}
