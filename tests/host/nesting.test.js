// SPDX-License-Identifier: MIT
//
// One thing in the middle of another: walks that leave the scope they began
// in, calls inside callbacks, outs in outs, values of another realm.

'use strict';

const assert = require('node:assert');
const test = require('node:test');
const v8 = require('node:v8');
const vm = require('node:vm');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { out, scope } = zirdb;

host.scoped('a walk goes on behind the scope that it was first moved in', () => {
  const connection = host.shop();
  const walk = connection.Execute(
    'SELECT id, name FROM item ORDER BY id')[Symbol.iterator]();
  const first = scope(() => walk.next());
  // Takes the places of whatever the scope has let go of.
  const others = connection.Execute("SELECT 'x' AS id, 'y' AS name");
  const fields = [others.Fields, others('id'), others('name')];
  assert.deepStrictEqual(first.value, { id: 1, name: 'saw' });
  assert.deepStrictEqual(walk.next().value, { id: 2, name: 'nail' });
  assert.strictEqual(fields[1].Value, 'x');
  walk.return();
});

// Time for the collector. Nothing looks at a WeakRef meanwhile: that would keep
// what it leads to.
async function collections() {
  for (let i = 0; i < 10; ++i) {
    global.gc();
    await host.turn();
  }
}

host.scoped('what a running scope releases early, it does not keep', () => {
  const rows = host.shop().Execute('SELECT id FROM item');
  const used = () => {
    global.gc();
    return v8.getHeapStatistics().used_heap_size;
  };
  const grown = scope(() => {
    rows('id').release();
    const before = used();
    for (let i = 0; i < 50000; ++i) rows('id').release();
    return used() - before;
  });
  assert.ok(grown < 2e6, `${grown} bytes`);
});

// A recordset without its connection is closed.
async function staysOpen(makeRows) {
  const rows = makeRows();
  await collections();
  assert.strictEqual(rows.State, 1);
  rows.release();
}

const keeping = [
  ['a recordset', () => host.opened().Execute('SELECT 1')],
  ['a recordset of a statement with values',
    () => host.opened()('SELECT ?', 1)],
  ['a recordset of a command', () => {
    const command = host.commandOf(host.opened(), 'SELECT 1');
    return command.Execute();
  }],
  ['a recordset whose statement used the connection', () => {
    const connection = host.opened();
    return connection('SELECT ?', () => connection.State);
  }],
  ['a recordset that was made inside a callback', () => {
    const connection = host.opened();
    let rows;
    connection.Execute('SELECT 1').forEach(() => {
      rows = connection.Execute('SELECT 2');
    });
    return rows;
  }],
];
for (const [what, make] of keeping) {
  test(`${what} keeps its connection from the collector`,
    () => staysOpen(make));
}

test('a field keeps its connection from the collector', async () => {
  const field = (() => host.opened().Execute('SELECT 7 AS n')('n'))();
  await collections();
  assert.strictEqual(field.Value, 7);
  field.release();
});

test('a connection that is released closes its recordsets', () => {
  const connection = host.opened();
  const rows = connection.Execute('SELECT 1');
  connection.release();
  assert.strictEqual(rows.State, 0);
  rows.release();
});

test('what a callback creates does not keep what called it', async () => {
  let created;
  let called;
  (() => {
    const connection = host.opened();
    const rows = connection.Execute('SELECT 1');
    called = new WeakRef(rows);
    rows.forEach(() => {
      created = zirdb.createObject('ZIRDB.Recordset');
    });
  })();
  await collections();
  assert.strictEqual(called.deref(), undefined);
  assert.strictEqual(created.State, 1);
  created.release();
});

host.scoped('an out() in an out() is refused', () => {
  const connection = host.opened();
  let nested = out(1);
  for (let i = 0; i < 20000; ++i) nested = out(nested);
  for (const value of [nested, out(out()), [out(out())]]) {
    const error = host.thrownBy(() => connection('SELECT ?', value));
    assert.ok(error instanceof TypeError);
    assert.match(error.message, /argument 2.* is an out\(\) in an out\(\)/);
  }
});

host.scoped('outs and arrays in each other have an end', () => {
  const connection = host.opened();
  let nested = [];
  for (let i = 0; i < 20000; ++i) nested = [out([nested])];
  assert.throws(() => connection('SELECT ?', nested), TypeError);
  const circle = out();
  circle.value = [circle];
  assert.throws(() => connection('SELECT ?', circle), TypeError);
});

host.scoped('values of another realm are values', () => {
  const connection = host.keeping();
  const context = vm.createContext();
  const cases = [
    ['new Date(0)', "text '1970-01-01 00:00:00.000'"],
    ['new Uint8Array([1, 255])', "blob X'01FF'"],
    ['[7]', 'integer 7'],
  ];
  for (const [source, sent] of cases) {
    connection('INSERT INTO kept VALUES (?)', vm.runInContext(source, context));
    assert.deepStrictEqual(host.kept(connection), [sent], source);
  }
});

host.scoped('what only looks like bytes or a date is refused', () => {
  const connection = host.opened();
  for (const prototype of [Date.prototype, Uint8Array.prototype]) {
    const error = host.thrownBy(
      () => connection('SELECT ?', Object.create(prototype)));
    assert.ok(error instanceof TypeError);
    assert.match(error.message, /^ZIRDB\.Connection: argument 2 is an object/);
  }
});

host.scoped('a function that has every property is a function', () => {
  const connection = host.opened();
  let calls = 0;
  const mock = new Proxy(() => {
    ++calls;
  }, { get: () => () => undefined });
  connection.Execute('SELECT 1').forEach(mock);
  assert.strictEqual(calls, 1);
});

host.scoped('complaints name what they are about', () => {
  const connection = host.opened();
  const command = zirdb.createObject('ZIRDB.Command');
  const cases = [
    [() => connection('SELECT ?, ?', 1, 'a\0'),
      'ZIRDB.Connection: argument 3 holds U+0000'],
    [() => connection('SELECT ?', 2n ** 70n),
      'ZIRDB.Connection: argument 2 does not fit into 64 bits'],
    [() => connection('SELECT ?', [1, 'a\0']),
      'ZIRDB.Connection: argument 2, element 1, holds U+0000'],
    [() => {
      command.CommandText = 'a\0';
    }, 'ZIRDB.Command.CommandText holds U+0000'],
  ];
  for (const [fails, text] of cases) {
    const { message } = host.thrownBy(fails);
    assert.ok(message.startsWith(text), message);
  }
});

host.scoped('members are called and read by name whatever their kind', () => {
  const connection = host.shop();
  assert.strictEqual(zirdb.call(connection, 'State'), 1);
  const rows = zirdb.call(connection, 'execute', 'SELECT name FROM item');
  assert.strictEqual(zirdb.call(rows, 'Fields', 'name').Value, 'saw');
  for (const use of [zirdb.call, zirdb.get, zirdb.put]) {
    const error = host.thrownBy(() => use(connection, 5, 1));
    assert.ok(error instanceof TypeError);
    assert.match(error.message, /named by texts/);
  }
});

test('libraryIdle is not taken in by a library that is not found', () => {
  const connection = host.opened();
  const before = process.env.REGISTRY;
  process.env.REGISTRY = '/nonexistent';
  try {
    assert.strictEqual(zirdb.libraryIdle(), false);
  } finally {
    if (before === undefined) delete process.env.REGISTRY;
    else process.env.REGISTRY = before;
  }
  connection.release();
});

host.leavesNothing();
