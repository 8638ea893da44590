// SPDX-License-Identifier: MIT
//
// What comes back: columns of every type, properties, results in variants that
// no database gives, and all of them with every integer as a BigInt.

'use strict';

const assert = require('node:assert');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { out, variantDate } = zirdb;
const BIG = { integers: 'bigint' };
const date = (...parts) => new Date(Date.UTC(...parts));

// What a column is declared as, what is in it, what comes back; then what does
// with integers as BigInts, if it differs.
const COLUMNS = [
  ['TINYINT', '7', 7, 7n],
  ['SMALLINT', '-7', -7, -7n],
  ['INTEGER', '2147483648', 2147483648, 2147483648n],
  ['BIGINT', '9007199254740991', 9007199254740991, 9007199254740991n],
  ['BIGINT', '-9007199254740991', -9007199254740991, -9007199254740991n],
  ['BIGINT', '9007199254740992', 9007199254740992n],
  ['BIGINT', '-9007199254740992', -9007199254740992n],
  ['BIGINT', '9223372036854775807', 9223372036854775807n],
  ['BIGINT', '-9223372036854775808', -9223372036854775808n],
  ['BIGINT', '0', 0, 0n],
  ['DOUBLE', '0.5', 0.5],
  ['DOUBLE', '3', 3],
  ['FLOAT', '-2.25', -2.25],
  ['REAL', '1e300', 1e300],
  ['NUMERIC(10,2)', '1.5', 1.5],
  ['BIT', '1', true],
  ['BIT', '0', false],
  ['TEXT', "'seven'", 'seven'],
  ['TEXT', "''", ''],
  ['TEXT', "'Zoë 漢字 😀'", 'Zoë 漢字 😀'],
  ['VARCHAR(20)', "'x'", 'x'],
  ['DATE', "'2024-02-29'", '2024-02-29'],
  ['BLOB', "x'0700FF'", Uint8Array.of(7, 0, 255)],
  ['BLOB', "x''", new Uint8Array(0)],
  ['VARBINARY(9)', "x'01'", Uint8Array.of(1)],
  ['INTEGER', 'NULL', null],
  ['DOUBLE', 'NULL', null],
  ['BIT', 'NULL', null],
  ['TEXT', 'NULL', null],
  ['BLOB', 'NULL', null],
];

function column(options, [type, literal]) {
  const connection = host.opened(options);
  connection.Execute(`CREATE TABLE t (v ${type})`);
  connection.Execute(`INSERT INTO t VALUES (${literal})`);
  return connection.Execute('SELECT v FROM t');
}

host.scoped('columns of every type', () => {
  for (const row of COLUMNS) {
    const rows = column(undefined, row);
    assert.deepStrictEqual(rows('v').Value, row[2], row.join(' '));
    assert.deepStrictEqual(rows('v')(), row[2], row.join(' '));
    const [{ v }] = rows;
    assert.deepStrictEqual(v, row[2], row.join(' '));
  }
});

host.scoped('columns of every type, with BigInts', () => {
  for (const row of COLUMNS) {
    const expected = row[row.length - 1];
    const rows = column(BIG, row);
    assert.deepStrictEqual(rows('v').Value, expected, row.join(' '));
    const [{ v }] = rows;
    assert.deepStrictEqual(v, expected, row.join(' '));
  }
});

host.scoped('integers as numbers can be asked for, too', () => {
  const rows = column({ integers: 'number' }, ['BIGINT', '7']);
  assert.strictEqual(rows('v').Value, 7);
});

host.scoped('bytes are a copy of their own', () => {
  const rows = column(undefined, ['BLOB', "x'0102'"]);
  const first = rows('v').Value;
  first[0] = 9;
  assert.deepStrictEqual(rows('v').Value, Uint8Array.of(1, 2));
  assert.strictEqual(first.constructor, Uint8Array);
  rows.Close();
  assert.deepStrictEqual(first, Uint8Array.of(9, 2));
});

// Parameters keep any variant: [sent, back, back with BigInts if it differs].
const ECHOES = [
  [7, 7, 7n],
  [2n ** 53n - 1n, 9007199254740991, 9007199254740991n],
  [2n ** 53n, 2n ** 53n],
  [-(2n ** 63n), -(2n ** 63n)],
  [0.5, 0.5],
  [1e300, 1e300],
  [true, true],
  [false, false],
  ['', ''],
  ['text', 'text'],
  ['é😀', 'é😀'],
  [null, null],
  [Uint8Array.of(1), Uint8Array.of(1)],
  [date(2024, 0, 2, 3, 4, 5, 6), '2024-01-02 03:04:05.006'],
  [[], []],
  [[1, 'a', null, true, 0.5], [1, 'a', null, true, 0.5],
    [1n, 'a', null, true, 0.5]],
  [[1, [2, ['x', Uint8Array.of(3)]], []],
    [1, [2, ['x', Uint8Array.of(3)]], []],
    [1n, [2n, ['x', Uint8Array.of(3)]], []]],
  [out(), undefined],
  [out(5), 5, 5n],
  [out('x'), 'x'],
  [[out(), out('x')], [undefined, 'x']],
];

host.scoped('what a parameter keeps', () => {
  for (const [sent, back] of ECHOES) {
    assert.deepStrictEqual(host.echoed(sent), back);
  }
});

host.scoped('what a parameter keeps, with BigInts', () => {
  for (const row of ECHOES) {
    assert.deepStrictEqual(host.echoed(row[0], BIG), row[row.length - 1]);
  }
});

host.scoped('dates come back to the millisecond', () => {
  for (const moment of [
    date(2024, 1, 29, 18),
    date(2024, 1, 29, 23, 59, 59, 999),
    date(2024, 1, 29, 0, 0, 0, 1),
    date(1970, 0, 1),
    new Date(-1),
    date(1899, 11, 30),
    date(1899, 11, 30, 6),
    date(1899, 11, 29, 18),
    date(1899, 11, 29, 6, 0, 0, 1),
    date(1850, 4, 5, 6, 7, 8, 9),
    date(1600, 1, 29, 12, 30),
    date(9999, 11, 31, 23, 59, 59, 999),
  ]) {
    const back = host.echoed(variantDate(moment));
    assert.ok(back instanceof Date);
    assert.strictEqual(back.toISOString(), moment.toISOString());
    assert.deepStrictEqual(host.echoed([variantDate(moment)]), [moment]);
  }
  for (let i = 0; i < 1000; ++i) {
    const moment = new Date(Date.UTC(2020, 0, 1) + i * 86400123);
    assert.strictEqual(
      host.echoed(variantDate(moment)).getTime(), moment.getTime());
  }
});

host.scoped('objects come back as the same proxy', () => {
  const connection = host.opened();
  const parameter = host.keeper();
  parameter.Value = connection;
  assert.strictEqual(parameter.Value, connection);
  parameter.Value = [connection, parameter];
  const back = parameter.Value;
  assert.strictEqual(back[0], connection);
  assert.strictEqual(back[1], parameter);
  // A parameter that keeps itself would never go.
  parameter.Value = null;
});

host.scoped('a null pointer is null', () => {
  const command = zirdb.createObject('ZIRDB.Command');
  assert.strictEqual(command.ActiveConnection, null);
});

host.scoped('a statement without columns gives undefined', () => {
  const connection = host.shop();
  assert.strictEqual(
    connection.Execute('DELETE FROM item WHERE id = 1'), undefined);
  assert.strictEqual(
    connection('DELETE FROM item WHERE id = ?', 2), undefined);
  const command = host.commandOf(connection, 'DELETE FROM item');
  assert.strictEqual(command.Execute().State, 0);
});

host.scoped('with BigInts every integer is one', () => {
  const connection = host.shop(BIG);
  const affected = out();
  connection.Execute('UPDATE item SET price = 1', affected);
  assert.strictEqual(affected.value, 3n);
  const rows = connection.Execute('SELECT id, name FROM item ORDER BY id');
  assert.strictEqual(connection.State, 1n);
  assert.strictEqual(rows.State, 1n);
  assert.strictEqual(rows.RecordCount, -1n);
  assert.strictEqual(rows.EOF, false);
  assert.strictEqual(rows.Fields.Count, 2n);
  assert.strictEqual(rows.Fields(0).Value, 1n);
  assert.strictEqual(`${rows(0)}`, '1');
  for (const field of rows.Fields) {
    assert.ok(['bigint', 'string'].includes(typeof field.Value));
  }
  const seen = [];
  rows.forEach((fields) => {
    seen.push(fields('id').Value, fields.Count);
  });
  assert.deepStrictEqual(seen, [1n, 2n, 2n, 2n, 3n, 2n]);
  assert.deepStrictEqual(
    Array.from(connection('SELECT id FROM item WHERE id > ?', 1),
      ({ id }) => id).sort(),
    [2n, 3n]);
});

host.scoped('with BigInts, commands and parameters too', () => {
  const connection = host.shop();
  const command = host.commandOf(
    connection, 'SELECT id FROM item WHERE id = ?', BIG);
  const parameter = command.CreateParameter('p', 3, 1, 0, 2);
  command.Parameters.Append(parameter);
  assert.deepStrictEqual(
    [command.CommandType, command.Parameters.Count, parameter.Type,
      parameter.Direction, parameter.Size, parameter.Value],
    [8n, 1n, 3n, 1n, 0n, 2n]);
  for (const each of command.Parameters) {
    assert.strictEqual(each.Value, 2n);
  }
  const affected = out();
  const values = ['2', true];
  const rows = command.Execute(affected);
  assert.deepStrictEqual([affected.value, rows('id').Value], [-1n, 2n]);
  assert.strictEqual(parameter.Value, 2n);
  command.CommandText = 'SELECT ?, ?';
  command.Execute(affected, values);
  assert.deepStrictEqual(values, ['2', true]);
});

host.scoped('an enumerator is iterable', () => {
  const rows = host.shop().Execute('SELECT id, name FROM item ORDER BY id');
  const names = [];
  for (const field of rows.Fields._NewEnum) {
    names.push(`${field.Name}=${field.Value}`);
  }
  assert.deepStrictEqual(names, ['id=1', 'name=saw']);
});

host.leavesNothing();
