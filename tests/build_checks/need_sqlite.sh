# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Sourced by what asks SQLite through ODBC: skips where its driver is missing.
if ! odbcinst -q -d -n SQLite3 >/dev/null 2>&1; then
  echo "skipped: no ODBC driver named SQLite3"
  exit 77
fi
