// SPDX-License-Identifier: MIT
//
// Programs that never return to the event loop: neither objects nor memory may
// pile up, whatever the garbage collector puts off.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { liveObjects, out } = zirdb;
// Sanitizers are slow, and keep what was freed: what memory there is, and which
// objects the collector has not come to yet, says nothing then.
const sanitized = process.env.HOST_IS_SANITIZED === '1';
const TIMES = sanitized ? 20000 : 200000;
const FEWER = TIMES / 10;
// More than the collector lets come together, and less than the 50,000 that are
// made while they are counted.
const MOST_OBJECTS = 40000;
// Less than one small block for each round; and where objects wait for the
// collector, which takes its time.
const MOST_GROWTH = 4 * 1048576;
const MOST_GROWTH_UNCOLLECTED = 12 * 1048576;

/**
 * Runs a step so many times without a pause, and again while counting objects:
 * counting them looks for those that are gone. How many there were at most;
 * fails if memory grew after the first tenth of the uncounted rounds.
 */
function piled(step, times = TIMES, mostGrowth = MOST_GROWTH) {
  let early = 0;
  for (let i = 0; i < times; ++i) {
    step(i);
    if (i === times / 10) {
      global.gc();
      early = process.memoryUsage.rss();
    }
  }
  checkGrowth(early, mostGrowth);
  let most = liveObjects();
  for (let i = 0; i < times / 4; ++i) {
    step(i);
    if (i % 100 === 0) most = Math.max(most, liveObjects());
  }
  return most;
}

function checkGrowth(early, mostGrowth) {
  global.gc();
  const growth = process.memoryUsage.rss() - early;
  if (!sanitized) assert.ok(growth < mostGrowth, `${growth} bytes more`);
}

function checkUncollected(most, limit) {
  if (!sanitized) assert.ok(most < limit, `${most} objects at once`);
}

// What makes a new object, or takes memory, each time.
const STEPS = {
  'a field': (connection, rows) => () => rows('name').Value,
  'a collection of fields': (connection, rows) => () => rows.Fields.Count,
  'an object by name': () =>
    () => zirdb.createObject('ZIRDB.Command').CommandType,
  'a parameter': (connection, rows, command) =>
    () => command.CreateParameter('p', 200, 1, 0, 'value').Value,
};

// The heap keeps what was once used, where a small leak would find room: what
// takes little comes first.

test('callbacks leave nothing', () => {
  const parameter = host.keeper();
  piled((i) => {
    parameter.Value = () => i;
  });
  parameter.release();
});

for (const [name, make] of Object.entries(STEPS)) {
  test(`many times ${name}, in one go`, () => {
    const connection = host.shop();
    const rows = connection.Execute('SELECT id, name FROM item');
    const command = zirdb.createObject('ZIRDB.Command');
    const most = piled(
      make(connection, rows, command), TIMES, MOST_GROWTH_UNCOLLECTED);
    checkUncollected(most, MOST_OBJECTS);
    for (const object of [connection, rows, command]) object.release();
  });
}

test('released objects leave nothing', () => {
  const connection = host.shop();
  const rows = connection.Execute('SELECT id, name FROM item');
  const before = liveObjects();
  const most = piled(() => rows('name').release());
  assert.ok(most <= before + 2, `${most} objects at once`);
  rows.release();
  connection.release();
});

test('scopes leave nothing', () => {
  const connection = host.shop();
  const most = piled(() => zirdb.scope(() => {
    const rows = connection('SELECT name FROM item WHERE id = ?', 2);
    assert.strictEqual(rows(0).Value, 'nail');
  }), 20000);
  assert.ok(most <= 3, `${most} objects at once`);
  connection.release();
});

test('walks leave nothing', () => {
  const connection = host.shop();
  const most = piled(() => {
    for (const { id } of connection.Execute('SELECT id FROM item')) {
      if (id === 2) break;
    }
    connection.Execute('SELECT id FROM item').forEach(() => {});
  }, FEWER);
  // Of two objects in each of the counted rounds.
  checkUncollected(most, 0.8 * FEWER / 2);
  connection.release();
});

test('a long forEach keeps its memory', () => {
  const connection = host.opened();
  const rows = connection.Execute(
    'WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r' +
    ` LIMIT ${TIMES}) SELECT n FROM r`);
  let sum = 0;
  let early = 0;
  let count = 0;
  rows.forEach((fields) => {
    sum += fields('n').Value;
    if (++count === TIMES / 10) {
      global.gc();
      early = process.memoryUsage.rss();
    }
  });
  checkGrowth(early, MOST_GROWTH);
  assert.strictEqual(sum, TIMES * (TIMES + 1) / 2);
  rows.release();
  connection.release();
});

test('values, arrays and errors leave nothing', () => {
  const connection = host.opened();
  const command = host.commandOf(connection, 'SELECT ?, ?, ?');
  const parameter = host.keeper();
  // A text of which one copy for each round is more than the heap's own ups and
  // downs, and bytes of the same size.
  const large = 'x'.repeat(1000);
  const bytes = new Uint8Array(4000);
  piled((i) => {
    zirdb.scope(() => command.Execute(out(), [large, bytes, i]));
    parameter.Value = [large, [bytes, large], out(i)];
    assert.strictEqual(parameter.Value.length, 3);
    assert.throws(() => connection.Execute('SELECT'), zirdb.ZirdbError);
  }, FEWER, FEWER * 2000);
  for (const object of [connection, command, parameter]) object.release();
});

test('recordsets that are not released do not pile up', () => {
  const connection = host.opened();
  const results = sanitized ? 2000 : 60000;
  const size = 4000;
  piled(
    () => connection.Execute(`SELECT zeroblob(${size}) AS b`)('b').Name,
    results, results * size / 2);
  connection.release();
});

// The collector sees small objects: it has to be told what they hold.
test('large results that are not released do not pile up', () => {
  const connection = host.opened();
  const size = 2 ** 20;
  const results = sanitized ? 50 : 400;
  let before = 0;
  let largest = 0;
  for (let i = 0; i < results; ++i) {
    const rows = connection.Execute(`SELECT zeroblob(${size}) AS b`);
    assert.strictEqual(rows.State, 1);
    if (i === 10) before = process.memoryUsage.rss();
    if (i > 10) largest = Math.max(largest, process.memoryUsage.rss());
  }
  const growth = largest - before;
  if (!sanitized) {
    assert.ok(growth < results * size / 2, `${growth} bytes more`);
  }
  connection.release();
});

host.leavesNothing();
