#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# node_declarations.sh NODE ROOT BUILD: the examples for Node.js agree with the
# package's declarations, what they do not allow is refused, and the example in
# TypeScript prints what it should.
set -euo pipefail
node=$1 root=$2 package=$3/node_modules/zirdb
examples=$root/examples/node
compiler=$root/hosts/node/node_modules/.bin/tsc
[ -e "$compiler" ] || {
  echo "skipped: no $compiler; npm ci --prefix hosts/node brings it"
  exit 77
}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# A fault a line, and what the compiler calls it.
cat >"$folder/wrong.ts" <<'END'
import { constants, createObject, out, ZirdbError } from 'zirdb';
const connection = createObject('ZIRDB.Connection');
const rows = connection.Execute('SELECT 1');
const command = createObject('ZIRDB.Command');
connection.Opne('DSN=shop'); // TS2339
connection.State = 1; // TS2540
rows.EOF = false; // TS2540
rows('name').Value = 'saw'; // TS2540
rows('name').Name = 'name'; // TS2540
rows.MoveNext(1); // TS2554
connection('SELECT ?', {}); // TS2769
connection('SELECT ?', undefined); // TS2769
connection.Execute('DELETE FROM item').EOF; // TS2532
command(); // TS2349
for (const each of connection) each; // TS2488
constants.ZIRDB_STATE_OPEN = 2; // TS2540
new ZirdbError(1); // TS2673
out<number>('text'); // TS2345
END
cat >"$folder/tsconfig.json" <<END
{
  "extends": "$examples/tsconfig.json",
  "compilerOptions": {
    "paths": { "zirdb": ["$package"] },
    "noEmit": false,
    "outDir": "made"
  },
  "include": ["$examples/*.js", "$examples/*.ts", "wrong.ts"]
}
END
# One run, which costs seconds.
diff -u --label "the faults" --label "what the compiler finds" \
  <(
    grep -n '// TS' "$folder/wrong.ts" |
      sed -E 's,^([0-9]+):.*// (.*),wrong.ts:\1:\2,'
  ) \
  <(
    "$node" "$compiler" -p "$folder" |
      sed -nE 's,^(.*/)?([^/(]+)\(([0-9]+)\,.*error (TS[0-9]+):.*,\2:\3:\4,p' |
      sort -t: -k1,1 -k2,2n
  )

# shellcheck source=tests/build_checks/need_sqlite.sh
source "$(dirname "$0")/need_sqlite.sh"
unset REGISTRY NODE_OPTIONS
made=$(find "$folder/made" -name typed.js)
diff -u - <(NODE_PATH=$3/node_modules "$node" "$made") <<'END'
raised: 1
raised: 0
gift: no price
nail: 0.25
saw: 14.00
total: 14.25
big: 9007199254740993 is a bigint
small: 1 is a number
0x80040712 HY000 ZIRDB.Connection
END
