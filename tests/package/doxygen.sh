#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# doxygen.sh DOXYFILE: the headers are documented without a warning.
set -euo pipefail
here=$(dirname "$0")
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
need doxygen
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
{
  cat "$1"
  echo "OUTPUT_DIRECTORY = $folder"
} >"$folder/Doxyfile"
doxygen "$folder/Doxyfile"
for entry in zir_8h:SysAllocString zirdb_8h:DllGetClassObject \
  zirdb__odbc_8h:zirdb_odbc_open; do
  grep -q "${entry#*:}" "$folder/html/${entry%:*}.html" ||
    fail "${entry#*:} is not documented"
done

# What the run above would say if there were something to say.
cat >"$folder/careless.h" <<'END'
// Careless.

#ifndef CARELESS_H
#define CARELESS_H
/// \param nothing is not what it is called.
int counted(int all);
#endif
END
echo "INPUT += $folder/careless.h" >>"$folder/Doxyfile"
if doxygen "$folder/Doxyfile" 2>"$folder/warnings"; then
  fail "a warning went unnoticed"
fi
grep -q careless "$folder/warnings"
