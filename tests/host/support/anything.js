// SPDX-License-Identifier: MIT
//
// A program that does anything to any object: members of this class and of
// others, with arguments of every kind, from inside of callbacks, loops and
// scopes. It prints as JSON what surprised it and what is left at its end. The
// same number as argument gives the same program.

'use strict';

const { inspect } = require('node:util');

const zirdb = require('zirdb');

const members = require('../../../hosts/node/members.json');

const STEPS = 20000;
const DEEPEST = 6;

const names = new Map(members.classes.map((each) => [
  `ZIRDB.${each.name}`, each.members.map((member) => member.name)]));
const everyName = [...names.values()].flat();

const TEXTS = [
  'Driver=SQLite3;Database=:memory:',
  "SELECT 1 AS a, 'x' AS b UNION ALL SELECT 2, 'y'",
  'SELECT ?',
  'SELECT ? AS a, ? AS a',
  'CREATE TABLE IF NOT EXISTS t (n INTEGER, b BLOB)',
  'INSERT INTO t VALUES (?, ?)',
  'SELECT * FROM t LIMIT 5',
  'UPDATE t SET n = 1 WHERE n = 77',
  'not SQL',
  'a',
];

let state = Number(process.argv[2]);
let depth = 0;
let pool = [];
const odd = [];

function below(limit) {
  state = (Math.imul(state, 1103515245) + 12345) >>> 0;
  return (state >>> 8) % limit;
}

const oneOf = (list) => list[below(list.length)];

function several(make) {
  return Array.from({ length: below(4) }, make);
}

const VALUES = [
  () => below(10),
  () => below(300) / -7,
  () => oneOf(TEXTS),
  () => oneOf(TEXTS),
  () => null,
  () => undefined,
  () => BigInt(below(9)),
  () => below(2) === 0,
  () => new Uint8Array(below(20)),
  () => oneOf(Object.values(zirdb.constants)),
  () => new Date(below(1e9) * 1000),
  () => zirdb.variantDate(new Date(below(1e9) * 1000)),
  () => '😀',
  () => ({}),
  // Not inside of others.
  () => several(() => value(13)),
  () => zirdb.out(value(13)),
  () => answer,
  () => oneOf(pool),
  () => oneOf(pool),
];

function value(kinds = VALUES.length) {
  return VALUES[below(kinds)]();
}

function keep(what) {
  if (Array.isArray(what)) what.forEach(keep);
  if (typeof what === 'function' && what !== answer) pool.push(what);
}

function deeper() {
  if (depth === DEEPEST) return;
  ++depth;
  try {
    step();
    step();
  } finally {
    --depth;
  }
}

// A callback that may do anything in turn.
function answer(...given) {
  keep(given);
  deeper();
  if (below(6) === 0) throw oneOf([new RangeError('mine'), undefined, 'x']);
  return value();
}

const ACTS = [
  (object, name) => keep(object[name]),
  (object, name) => {
    object[name] = value();
  },
  (object) => keep(object(...several(() => value()))),
  (object) => {
    for (const each of object) {
      keep(each);
      if (below(3) === 0) break;
      deeper();
    }
  },
  (object) => {
    if (below(4) === 0) object.release();
  },
  (object) => inspect(object, { showProxy: below(2) === 0 }),
  (object) => `${object}`,
  (object) => zirdb.scope(() => {
    deeper();
    return below(2) === 0 ? object : undefined;
  }),
];
// Calls are what there is most of.
const call = (object, name) => keep(object[name](...several(() => value())));
ACTS.push(call, call, call, call);

function isExpected(error) {
  if (!(error instanceof Error)) return error === undefined || error === 'x';
  if (error instanceof zirdb.ZirdbError) return true;
  if (error.code === 'ERR_ZIRDB_RELEASED') return true;
  // Those of a mistake in the host read otherwise.
  return ['TypeError', 'RangeError'].includes(error.name) &&
    !/Cannot read|Cannot set|a call of Node|unknown tag/.test(error.message);
}

function step() {
  if (pool.length < 3 || below(30) === 0) {
    const made = zirdb.createObject(
      oneOf(['ZIRDB.Connection', 'ZIRDB.Command', 'ZIRDB.Recordset']),
      below(2) === 0 ? { integers: 'bigint' } : undefined);
    if ('Open' in made && below(4) > 0) made.Open(TEXTS[0]);
    pool.push(made);
  }
  if (pool.length > 200) pool.splice(0, 100);
  const object = oneOf(pool);
  const tag = Object.prototype.toString.call(object).slice(8, -1);
  const own = below(20) > 0 ? names.get(tag) : undefined;
  try {
    oneOf(ACTS)(object, oneOf(own ?? everyName));
  } catch (error) {
    if (!isExpected(error)) odd.push(error?.stack ?? String(error));
  }
}

async function main() {
  for (let i = 1; i <= STEPS; ++i) {
    step();
    if (i % 1000 === 0) {
      if (below(3) === 0) global.gc();
      await new Promise((resolve) => {
        setImmediate(resolve);
      });
    }
  }
  pool = [];
  for (let i = 0; i < 20 && zirdb.liveObjects() > 0; ++i) {
    global.gc();
    await new Promise((resolve) => {
      setImmediate(resolve);
    });
  }
  console.log(JSON.stringify({ odd, live: zirdb.liveObjects() }));
}

main();
