#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# programs.sh TREE [all]: the command line and the Node.js host, where they are
# installed, find the library and its registry without being told, and ask
# SQLite. With "all", skips when one of them is not installed.
set -euo pipefail
here=$(realpath "$(dirname "$0")")
tree=$(realpath "$1")
# shellcheck source=tests/package/common.sh
source "$here/common.sh"
# shellcheck source=tests/build_checks/need_sqlite.sh
source "$here/../build_checks/need_sqlite.sh"
libraries=$(library_folder "$tree")
unset REGISTRY
cd /

memory='Driver=SQLite3;Database=:memory:'
if [ -x "$tree/bin/zirdb" ]; then
  diff -u - <("$tree/bin/zirdb" query "$memory" 'SELECT 6 * 7 AS answer' \
    --format csv | tr -d '\r') <<'END'
answer
42
END
  # Its status also tells of drivers that this machine has and that do not load.
  report=$("$tree/bin/zirdb" doctor "$memory" || true)
  echo "$report"
  grep -qE "^  value +$libraries/zirdb/registry " <<<"$report"
  grep -qE "^  ZIRDB\.Connection +made by $libraries/libzirdb" <<<"$report"
  grep -qx '  connected' <<<"$report"
fi
if [ -e "$libraries/nodejs/zirdb" ]; then
  need node
  diff -u - <(NODE_PATH=$libraries/nodejs node -e "
    const { createObject } = require('zirdb');
    const connection = createObject('ZIRDB.Connection');
    connection.Open('$memory');
    const rows = connection.Execute(
        \"SELECT 1 AS id, 'saw' AS name UNION SELECT 2, 'nail' ORDER BY id\");
    for (const row of rows) console.log(row.id, row.name);") <<'END'
1 saw
2 nail
END
fi

if [ "${2:-}" = all ]; then
  for file in "$tree/bin/zirdb" "$libraries/nodejs/zirdb/zirdb.node"; do
    [ -e "$file" ] || {
      echo "skipped: no $(basename "$file")"
      exit 77
    }
  done
fi
