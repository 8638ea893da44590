// SPDX-License-Identifier: MIT
//
// Errors: what the library says, property by property, and what creating an
// object that is not there says.

'use strict';

const assert = require('node:assert');
const test = require('node:test');
const { inspect } = require('node:util');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { ZirdbError, isNoRows } = zirdb;

// The signed number of a code in hexadecimal digits.
const signed = (code) => Number(code) | 0;

function check(error, { code, source, description, sqlState }) {
  assert.ok(error instanceof ZirdbError, String(error.stack));
  assert.ok(error instanceof Error);
  assert.strictEqual(Object.prototype.toString.call(error), '[object Error]');
  assert.strictEqual(error.name, 'ZirdbError');
  assert.strictEqual(error.code, code);
  assert.strictEqual(error.number, signed(code));
  assert.strictEqual(error.source, source);
  if (description instanceof RegExp) {
    assert.match(error.description, description);
  } else {
    assert.strictEqual(error.description, description);
  }
  assert.strictEqual(error.sqlState, sqlState);
  assert.strictEqual(typeof error.message, 'string');
  if (error.description !== '') {
    assert.strictEqual(error.message, error.description);
  } else {
    assert.notStrictEqual(error.message, '');
  }
  assert.match(error.stack, /ZirdbError/);
  assert.match(error.stack, /errors\.test\.js/);
}

// What is done with a connection, and the error of it.
const FAILURES = [
  ['no such table', (c) => c.Execute('SELECT * FROM nowhere'), {
    code: '0x80040712',
    source: 'ZIRDB.Connection',
    description: 'HY000: [SQLite]no such table: nowhere (1)',
    sqlState: 'HY000',
  }],
  ['a unique key', (c) => {
    c.Execute('CREATE TABLE u (id INTEGER PRIMARY KEY)');
    c('INSERT INTO u VALUES (?)', 1);
    c('INSERT INTO u VALUES (?)', 1);
  }, {
    code: '0x80040712',
    source: 'ZIRDB.Connection',
    description: 'HY000: [SQLite]UNIQUE constraint failed: u.id (19)',
    sqlState: 'HY000',
  }],
  ['no row', (c) => c.Execute('UPDATE item SET id = 1 WHERE id = 9'), {
    code: '0x80040712',
    source: 'ZIRDB.Connection',
    description: 'ODBC operation failed',
    sqlState: undefined,
  }],
  ['no driver', () => {
    zirdb.createObject('ZIRDB.Connection').Open('Driver=Nowhere');
  }, {
    code: '0x80040710',
    source: 'ZIRDB.Connection',
    description: /^01000: .*Nowhere/,
    sqlState: '01000',
  }],
  ['no data source', () => {
    zirdb.createObject('ZIRDB.Connection').Open('DSN=Nowhere');
  }, {
    code: '0x80040710',
    source: 'ZIRDB.Connection',
    description: /^IM002: /,
    sqlState: 'IM002',
  }],
  ['open already', (c) => c.Open(host.MEMORY), {
    code: '0x80040711',
    source: 'ZIRDB.Connection',
    description: 'Connection is already open',
    sqlState: undefined,
  }],
  ['no connection string', () => {
    zirdb.createObject('ZIRDB.Connection').Open();
  }, {
    code: '0x80070057',
    source: 'ZIRDB.Connection',
    description: 'ConnectionString is required',
    sqlState: undefined,
  }],
  ['a closed connection', (c) => {
    c.Close();
    c.Execute('SELECT 1');
  }, {
    code: '0x800A0E78',
    source: 'ZIRDB.Connection',
    description: 'Operation is not allowed when the object is closed.',
    sqlState: undefined,
  }],
  ['no such column', (c) => c.Execute('SELECT 1 AS a')('b'), {
    code: '0x800A0CC1',
    source: 'ZIRDB.Recordset',
    description: 'Item cannot be found in the collection corresponding to' +
      ' the requested name or ordinal.',
    sqlState: undefined,
  }],
  ['no such parameter', () => {
    zirdb.createObject('ZIRDB.Command').Parameters(0);
  }, {
    code: '0x800A0CC1',
    source: 'ZIRDB.Command',
    description: 'Item cannot be found in the collection corresponding to' +
      ' the requested name or ordinal.',
    sqlState: undefined,
  }],
  ['the last row', (c) => c.Execute('SELECT 1').MoveLast(), {
    code: '0x80040E24',
    source: 'ZIRDB.Recordset',
    description: 'Rowset does not support fetching backward.',
    sqlState: undefined,
  }],
  ['backward', (c) => c.Execute('SELECT 1').MovePrevious(), {
    code: '0x800A0C93',
    source: 'ZIRDB.Recordset',
    description: 'Operation is not allowed in this context.',
    sqlState: undefined,
  }],
  ['a property that refuses', () => {
    host.keeper().Type = 5;
  }, {
    code: '0x800A0BB9',
    source: 'ZIRDB.Command',
    description: 'Arguments are of the wrong type, are out of acceptable' +
      ' range, or are in conflict with one another.',
    sqlState: undefined,
  }],
  ['a value that does not fit', (c) => {
    const command = host.commandOf(c, 'SELECT ?');
    command.Parameters.Append(command.CreateParameter('', 3, 1, 0, 'x'));
    command.Execute();
  }, {
    code: '0x80070057',
    source: 'ZIRDB.Command',
    description: 'Parameter value is not compatible with parameter type.',
    sqlState: undefined,
  }],
  ["a command's statement", (c) => {
    host.commandOf(c, 'SELECT * FROM nowhere').Execute();
  }, {
    code: '0x80040712',
    source: 'ZIRDB.Connection',
    description: 'HY000: [SQLite]no such table: nowhere (1)',
    sqlState: 'HY000',
  }],
  ['too many arguments', (c) => c.Close(1), {
    code: '0x8002000E', source: '', description: '', sqlState: undefined,
  }],
  ['a property of the wrong type', () => {
    zirdb.createObject('ZIRDB.Connection').ConnectionString = 5;
  }, {
    code: '0x80020005', source: '', description: '', sqlState: undefined,
  }],
  ['an argument of the wrong type', (c) => {
    c.Execute('SELECT 1').forEach(5);
  }, {
    code: '0x80020005', source: '', description: '', sqlState: undefined,
  }],
];

for (const [name, act, expected] of FAILURES) {
  host.scoped(`an error, ${name}`, () => {
    const connection = host.shop();
    check(host.thrownBy(() => act(connection)), expected);
  });
}

host.scoped('a number out of the middle of a text is no SQLSTATE', () => {
  const connection = host.shop();
  const error = host.thrownBy(
    () => connection.Execute("SELECT * FROM \"12345: x\""));
  assert.strictEqual(error.sqlState, 'HY000');
});

host.scoped('a change that matched no row is recognised', () => {
  const connection = host.shop();
  for (const act of [
    () => connection.Execute('UPDATE item SET id = 1 WHERE id = 9'),
    () => connection('DELETE FROM item WHERE id = ?', 9),
    () => host.commandOf(connection, 'DELETE FROM item WHERE 0').Execute(),
  ]) {
    assert.strictEqual(isNoRows(host.thrownBy(act)), true, String(act));
  }
  for (const other of [
    host.thrownBy(() => connection.Execute('SELECT * FROM nowhere')),
    host.thrownBy(() => connection.Close(1)),
    new Error('ODBC operation failed'),
    'ODBC operation failed',
    undefined,
    null,
    7,
    {},
  ]) {
    assert.strictEqual(isNoRows(other), false, String(other));
  }
});

host.scoped('an error leaves the object usable', () => {
  const connection = host.shop();
  for (let i = 0; i < 100; ++i) {
    assert.throws(() => connection.Execute('SELECT'), ZirdbError);
  }
  assert.strictEqual(host.one(connection, 'SELECT COUNT(*) FROM item'), 3);
});

test('classes that are not there are named', () => {
  for (const name of [
    'Nowhere.Thing', 'ZIRDB.Nowhere', 'ZIRDB.', 'ZIRDB', 'Nowhere', '',
    'ZIRDB.Fields', 'ZIRDB.Connection2', '../ZIRDB.Connection', 'Ä.Ö',
  ]) {
    const error = host.thrownBy(() => zirdb.createObject(name));
    assert.ok(error instanceof ZirdbError, `${name}: ${error}`);
    assert.ok(error.message.includes(name), error.message);
    assert.match(error.message, /REGISTRY/);
    assert.ok(error.number < 0, String(error.number));
    assert.strictEqual(signed(error.code), error.number);
  }
  assert.strictEqual(zirdb.liveObjects(), 0);
});

test('what is no name creates nothing', () => {
  for (const name of [undefined, null, 7, {}, [], Symbol('x')]) {
    assert.throws(() => zirdb.createObject(name), Error);
  }
  assert.strictEqual(zirdb.liveObjects(), 0);
});

host.scoped('the three classes can be created', () => {
  for (const name of ['ZIRDB.Connection', 'ZIRDB.Command', 'ZIRDB.Recordset']) {
    assert.strictEqual(`${zirdb.createObject(name)}`, `[object ${name}]`);
  }
});

host.scoped('call, get and put name a member', () => {
  const connection = host.keeping();
  assert.strictEqual(zirdb.get(connection, 'State'), 1);
  assert.strictEqual(zirdb.get(connection, 'state'), 1);
  zirdb.call(connection, 'Execute', 'INSERT INTO kept VALUES (7)');
  const rows = zirdb.call(connection, 'Execute', 'SELECT 8 AS n');
  assert.strictEqual(rows('n').Value, 8);
  assert.deepStrictEqual(host.kept(connection), ['integer 7']);
  const affected = zirdb.out();
  zirdb.call(connection, 'Execute', 'INSERT INTO kept VALUES (1)', affected);
  assert.strictEqual(affected.value, 1);

  const command = host.commandOf(connection, '');
  zirdb.put(command, 'CommandText', 'SELECT 9 AS n');
  assert.strictEqual(command.CommandText, 'SELECT 9 AS n');

  for (const act of [
    () => zirdb.call(connection, 'Nowhere'),
    () => zirdb.get(connection, 'Nowhere'),
    () => zirdb.put(connection, 'Nowhere', 1),
    () => zirdb.call({}, 'State'),
    () => zirdb.get(undefined, 'State'),
    () => zirdb.put('text', 'State', 1),
  ]) {
    assert.throws(act, Error, String(act));
  }
});

// A function that comes back from the library is an object that the table of
// members does not have.
host.scoped('an object of an unknown class', () => {
  const parameter = host.keeper();
  parameter.Value = (...given) => given.length;
  const object = parameter.Value;
  assert.strictEqual(object(), 0);
  assert.strictEqual(object(1, 'x', null), 3);
  assert.strictEqual(object.then, undefined);
  for (const act of [
    () => zirdb.call(object, 'Nowhere'),
    () => zirdb.get(object, 'Nowhere'),
    () => zirdb.put(object, 'Nowhere', 1),
    () => object.Nowhere,
    () => {
      object.Nowhere = 1;
    },
  ]) {
    assert.throws(act, Error, String(act));
  }
  assert.doesNotThrow(() => inspect(object));
  parameter.Value = null;
});

host.leavesNothing();
