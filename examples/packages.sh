#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# packages.sh QUERY WORD: the list of installed packages as an SQLite database,
# loaded with bound parameters and asked three questions, by the program QUERY.
set -euo pipefail

query=$1
word=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
connection="Driver=SQLite3;Database=$folder/packages.db"

heading() { printf '\n%s\n\n' "$*"; }

heading "Loading the installed packages"
"$query" "$connection" "
  CREATE TABLE package (
    name TEXT PRIMARY KEY, version TEXT, section TEXT, kib INTEGER,
    description TEXT)"
# shellcheck disable=SC2016  # dpkg-query's own variables, not the shell's
format='${db:Status-Status}\t${binary:Package}\t${Version}\t${Section}\t'
# shellcheck disable=SC2016
format+='${Installed-Size}\t${binary:Summary}\n'
dpkg-query -W -f "$format" | sed -n 's/^installed\t//p' |
  "$query" --bind-lines "$connection" \
    "INSERT INTO package VALUES (?, ?, ?, CAST(? AS INTEGER), ?)"

heading "The ten largest packages"
"$query" "$connection" "
  SELECT name, version, section, kib / 1024 AS mib
  FROM package ORDER BY kib DESC, name LIMIT 10"

heading "Installed size by section"
"$query" "$connection" "
  SELECT section, COUNT(*) AS packages, SUM(kib) / 1024 AS mib,
         ROUND(AVG(kib), 1) AS mean_kib
  FROM package GROUP BY section ORDER BY SUM(kib) DESC, section"

heading "Packages that speak of \"$word\""
"$query" "$connection" "
  SELECT name, description FROM package
  WHERE description LIKE ? ORDER BY name" "%$word%"
