#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# host_example.sh HOST: the smallest host does all that it sets out to do, and
# says why when it cannot.
set -euo pipefail
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
diff -u - <("$1") <<'END'
rows affected: 1
gift: no price
hülse: 0.25
saw: 14
gift, price no price
hülse, price 0.25
saw, price 14
80040712 from ZIRDB.Connection: HY000: [SQLite]no such table: nowhere (1)
END

# fails TEXT COMMAND...
fails() {
  local text=$1 errors
  shift
  if errors=$("$@" 2>&1 >/dev/null); then
    echo "$*: succeeded"
    exit 1
  fi
  grep -qF -- "$text" <<<"$errors" || {
    echo "$*: said \"$errors\", not \"$text\""
    exit 1
  }
}
fails 'host: IM002: ' "$1" 'DSN=no such data source'
fails 'host: creating ZIRDB.Connection' env -u REGISTRY "$1"
