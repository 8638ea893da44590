// SPDX-License-Identifier: MIT
//
// What JavaScript values are on their way to the database: as SQLite says it
// received them, through the connection itself, a command's parameters and
// arrays; and what is refused before anything is sent.

'use strict';

const assert = require('node:assert');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { out, variantDate } = zirdb;
const date = (...parts) => new Date(Date.UTC(...parts));
const inYear = (year) => {
  const first = new Date(Date.UTC(2000, 0, 1));
  first.setUTCFullYear(year);
  return first;
};

// A name, the value, what SQLite has then.
const SENT = [
  ['zero', 0, 'integer 0'],
  ['minus zero', -0, 'integer 0'],
  ['a small number', 7, 'integer 7'],
  ['a negative number', -7, 'integer -7'],
  ['2^31', 2147483648, 'integer 2147483648'],
  ['a large safe number', 9007199254740991, 'integer 9007199254740991'],
  ['a number that is whole, but not safe', 2 ** 62,
    'integer 4611686018427387904'],
  ['the least 64-bit number', -(2 ** 63), 'integer -9223372036854775808'],
  ['the largest double below 2^63', 9223372036854774784,
    'integer 9223372036854774784'],
  ['a BigInt', 7n, 'integer 7'],
  ['a BigInt that no double has', 9007199254740993n,
    'integer 9007199254740993'],
  ['the largest BigInt', 2n ** 63n - 1n, 'integer 9223372036854775807'],
  ['the least BigInt', -(2n ** 63n), 'integer -9223372036854775808'],
  ['a fraction', 0.5, 'real 0.5'],
  ['a negative fraction', -2.25, 'real -2.25'],
  ['true', true, 'integer 1'],
  ['false', false, 'integer 0'],
  ['a text', 'one', "text 'one'"],
  ['a text that looks like a number', '007', "text '007'"],
  ['an empty text', '', "text ''"],
  ['a text with a quote', "it's", "text 'it''s'"],
  ['text beyond ASCII', 'Zoë Ωμέγα 漢字', "text 'Zoë Ωμέγα 漢字'"],
  ['astral characters', '😀𝄞', "text '😀𝄞'"],
  ['the last character', '\u{10ffff}', "text '\u{10ffff}'"],
  ['null', null, 'null NULL'],
  ['a date', date(2024, 1, 29, 18, 5, 6, 70),
    "text '2024-02-29 18:05:06.070'"],
  ['midnight', date(2024, 0, 2), "text '2024-01-02 00:00:00.000'"],
  ['just before 1970', new Date(-1), "text '1969-12-31 23:59:59.999'"],
  ['the first year', inYear(0), "text '0000-01-01 00:00:00.000'"],
  ['an early year', inYear(33), "text '0033-01-01 00:00:00.000'"],
  ['the last moment', new Date(date(10000, 0, 1) - 1),
    "text '9999-12-31 23:59:59.999'"],
  ['bytes', Uint8Array.of(0, 1, 255), "blob X'0001FF'"],
  ['a buffer', Buffer.from([7, 8]), "blob X'0708'"],
  ['a part of a buffer', Buffer.from([1, 2, 3, 4]).subarray(1, 3),
    "blob X'0203'"],
];

// A function gives its value when it is asked for one, and an object the value
// of its default member: as texts, because a text is what is asked for.
const INDIRECT = [
  ['a VT_DATE', () => variantDate(date(2024, 0, 2, 18)),
    "text '2024/01/02 18:00:00'"],
  ['a VT_DATE of long ago', () => variantDate(date(1850, 4, 5, 6)),
    "text '1850/05/05 06:00:00'"],
  ['a function', () => () => 'from a callback', "text 'from a callback'"],
  ['a function that gives a number', () => () => 7, "text '7'"],
  ['a field', () => host.shop().Execute('SELECT name FROM item')('name'),
    "text 'saw'"],
  ['a parameter', () => {
    const parameter = host.keeper();
    parameter.Value = 'kept';
    return parameter;
  }, "text 'kept'"],
  ['an out() with a value', () => out('given'), "text 'given'"],
  ['an out() with a number', () => out(7), 'integer 7'],
];

// Any function that makes a value of a row.
const ALL = [
  ...SENT.map(([name, value, sent]) => [name, () => value, sent]),
  ...INDIRECT,
];

host.scoped('values for the markers of a statement', () => {
  const connection = host.keeping();
  for (const [name, value, sent] of ALL) {
    assert.strictEqual(
      connection('INSERT INTO kept VALUES (?)', value()), undefined);
    assert.deepStrictEqual(host.kept(connection), [sent], name);
  }
});

host.scoped('an array of values for the markers of a statement', () => {
  const connection = host.keeping();
  for (const [name, value, sent] of ALL) {
    connection('INSERT INTO kept SELECT ? UNION ALL SELECT ?', [value(), 1]);
    assert.deepStrictEqual(
      host.kept(connection).sort(), [sent, 'integer 1'].sort(), name);
  }
});

host.scoped('an array of values for a command', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  for (const [name, value, sent] of ALL) {
    command.Execute(out(), [value()]);
    assert.deepStrictEqual(host.kept(connection), [sent], name);
    command.Execute([value()]);
    assert.deepStrictEqual(host.kept(connection), [sent], name);
  }
});

host.scoped("a command's parameters", () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  const parameter = command.CreateParameter('v', 0, 1, 0);
  command.Parameters.Append(parameter);
  for (const [name, value, sent] of ALL) {
    // Of no declared type, a text travels with 8 bits, and this driver takes an
    // empty one for none.
    const expected = sent === "text ''" ? 'null NULL' : sent;
    parameter.Value = value();
    command.Execute();
    assert.deepStrictEqual(host.kept(connection), [expected], name);
  }
});

host.scoped('a value for CreateParameter', () => {
  const connection = host.keeping();
  for (const [name, value, sent] of ALL) {
    if (sent === "text ''") continue;
    const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
    command.Parameters.Append(
      command.CreateParameter('v', 0, 1, 0, value()));
    command.Execute();
    assert.deepStrictEqual(host.kept(connection), [sent], name);
  }
});

host.scoped('an out() without a value', () => {
  // As an argument it is the number 0, in an array it is nothing.
  const connection = host.keeping();
  connection('INSERT INTO kept VALUES (?)', out());
  connection('INSERT INTO kept VALUES (?)', [out()]);
  assert.deepStrictEqual(host.kept(connection), ['integer 0', 'null NULL']);
});

host.scoped('nothing comes back through the values for a statement', () => {
  const connection = host.keeping();
  const slot = out();
  const values = ['x', variantDate(date(2024, 0, 2)), slot];
  const before = [...values];
  connection('SELECT ?, ?, ?', values);
  assert.deepStrictEqual(values, before);
  assert.strictEqual(slot.value, undefined);
});

host.scoped('whole numbers beyond 64 bits are doubles', () => {
  const connection = host.opened();
  connection.Execute('CREATE TABLE t (v DOUBLE)');
  for (const number of [2 ** 63, -(2 ** 63) - 2048, 1e30, -1e300]) {
    connection('INSERT INTO t VALUES (?)', number);
    assert.strictEqual(
      host.one(connection, 'SELECT typeof(v) FROM t'), 'real');
    // The driver keeps 15 digits.
    const kept = host.one(connection, 'SELECT v FROM t');
    assert.ok(Math.abs(kept / number - 1) < 1e-14, `${number}: ${kept}`);
    connection('DELETE FROM t');
    assert.strictEqual(host.echoed(number), number);
  }
});

// Not a number, infinities and small numbers, which SQLite would change.
host.scoped('doubles arrive to the last bit', () => {
  for (const number of [NaN, Infinity, -Infinity, 0.1, Number.MIN_VALUE,
    Number.MAX_VALUE, Math.PI, 2 ** 63, -1e-300]) {
    assert.deepStrictEqual(host.echoed(number), number);
  }
});

host.scoped('bytes without any', () => {
  // This driver takes them for none.
  const connection = host.keeping();
  connection('INSERT INTO kept VALUES (?)', new Uint8Array(0));
  assert.deepStrictEqual(host.kept(connection), ['null NULL']);
  assert.deepStrictEqual(host.echoed(new Uint8Array(0)), new Uint8Array(0));
});

host.scoped('bytes are copied when they are sent', () => {
  const parameter = host.keeper();
  const bytes = Uint8Array.of(1, 2);
  parameter.Value = bytes;
  bytes[0] = 9;
  assert.deepStrictEqual(parameter.Value, Uint8Array.of(1, 2));
});

host.scoped('several values, in their order', () => {
  const connection = host.keeping();
  connection(
    'INSERT INTO kept VALUES (?), (?), (?), (?)', 1, 'two', null, 0.5);
  assert.deepStrictEqual(
    host.kept(connection),
    ['integer 1', "text 'two'", 'null NULL', 'real 0.5']);
});

host.scoped('a hundred values', () => {
  const connection = host.opened();
  const numbers = Array.from({ length: 100 }, (unused, i) => i);
  const sum = `SELECT ${numbers.map(() => '?').join('+')} AS total`;
  assert.strictEqual(connection(sum, ...numbers)('total').Value, 4950);
  assert.strictEqual(connection(sum, numbers)('total').Value, 4950);
});

host.scoped('long texts and many bytes', () => {
  const connection = host.opened();
  connection.Execute('CREATE TABLE t (t TEXT, b BLOB)');
  const text = 'é😀x'.repeat(50000);
  const bytes = new Uint8Array(1000003).map((unused, i) => i % 251);
  connection('INSERT INTO t VALUES (?, ?)', text, bytes);
  assert.strictEqual(
    host.one(connection, "SELECT length(t) || ' ' || length(b) AS n FROM t"),
    '150000 1000003');
  const [row] = connection.Execute('SELECT t, b FROM t');
  assert.strictEqual(row.t === text, true);
  assert.strictEqual(Buffer.compare(row.b, bytes), 0);
});

// Values that there is no way to send, and with which error.
const REFUSED = [
  ['a BigInt too large', 2n ** 63n, RangeError],
  ['a BigInt too small', -(2n ** 63n) - 1n, RangeError],
  ['a NUL at the end', 'a\0', TypeError],
  ['a NUL inside', 'a\0b', TypeError],
  ['a NUL alone', '\0', TypeError],
  ['a year before 0', inYear(-1), RangeError],
  ['a year after 9999', inYear(10000), RangeError],
  ['no date', new Date(NaN), /^(TypeError|RangeError)$/],
  ['other numbers in memory', Uint16Array.of(1), TypeError],
  ['clamped bytes', Uint8ClampedArray.of(1), TypeError],
  ['signed bytes', Int8Array.of(1), TypeError],
  ['doubles in memory', Float64Array.of(1), TypeError],
  ['large numbers in memory', BigInt64Array.of(1n), TypeError],
  ['memory', new ArrayBuffer(2), TypeError],
  ['shared memory', new SharedArrayBuffer(2), TypeError],
  ['a view', new DataView(new ArrayBuffer(2)), TypeError],
  ['a plain object', { a: 1 }, TypeError],
  ['an object without a prototype', Object.create(null), TypeError],
  ['an object that has a value', { valueOf: () => 1 }, TypeError],
  ['an object with a text', { toString: () => 'x' }, TypeError],
  ['a boxed number', Object(1), TypeError],
  ['a boxed text', Object('x'), TypeError],
  ['a map', new Map(), TypeError],
  ['a regular expression', /x/, TypeError],
  ['an error', new Error('x'), TypeError],
  ['a promise', Promise.resolve(1), TypeError],
  ['a symbol', Symbol('x'), TypeError],
  ['an iterator', [1].values(), TypeError],
];

function expectRefused(act, kind, name) {
  const error = host.thrownBy(act);
  if (kind instanceof RegExp) {
    assert.match(error.constructor.name, kind, name);
  } else {
    assert.strictEqual(error.constructor, kind, `${name}: ${error.stack}`);
  }
  return error;
}

host.scoped('what cannot be sent is refused before anything is', () => {
  const connection = host.keeping();
  const insert = 'INSERT INTO kept VALUES (1)';
  const command = host.commandOf(connection, insert);
  const parameter = host.keeper();
  parameter.Value = 'before';
  for (const [name, value, kind] of REFUSED) {
    for (const act of [
      () => connection(insert, value),
      () => connection(insert, 1, value),
      () => connection(insert, [value]),
      () => connection(insert, [1, [value]]),
      () => connection(insert, out(value)),
      () => connection(insert, [out(value)]),
      () => command.Execute(out(), [value]),
      () => command.Execute(value),
      () => connection.Execute(insert, value),
      () => command.CreateParameter('', 0, 0, 0, value),
      () => {
        parameter.Value = value;
      },
    ]) {
      expectRefused(act, kind, `${name}, ${act}`);
    }
    assert.deepStrictEqual(host.kept(connection), [], name);
    assert.strictEqual(parameter.Value, 'before', name);
  }
});

host.scoped('what is no value is told by its position', () => {
  const connection = host.opened();
  for (const stranger of [{}, Symbol('s'), new Map()]) {
    for (const [position, values] of [
      [1, [stranger]],
      [2, ['SELECT 1', stranger]],
      [4, ['SELECT 1', 1, 2, stranger, 3]],
    ]) {
      const error = host.thrownBy(() => connection(...values));
      assert.strictEqual(error.constructor, TypeError);
      assert.match(error.message, new RegExp(`\\b${position}\\b`));
    }
  }
});

host.scoped('a zero character is refused in every text', () => {
  const connection = host.keeping();
  const parameter = host.keeper();
  const other = zirdb.createObject('ZIRDB.Connection');
  const command = zirdb.createObject('ZIRDB.Command');
  const rows = connection.Execute('SELECT 1 AS a');
  for (const act of [
    () => connection.Execute('INSERT INTO kept VALUES (1)\0'),
    () => connection('INSERT INTO kept VALUES (1)\0'),
    () => other.Open('Driver=SQLite3;Database=:memory:\0'),
    () => {
      other.ConnectionString = 'a\0b';
    },
    () => {
      command.CommandText = 'a\0b';
    },
    () => {
      parameter.Name = 'a\0b';
    },
    () => rows('a\0'),
    () => zirdb.createObject('ZIRDB.Connection\0'),
  ]) {
    expectRefused(act, TypeError, String(act));
  }
  assert.deepStrictEqual(host.kept(connection), []);
  assert.strictEqual(other.State, 0);
  assert.strictEqual(other.ConnectionString, '');
});

// UTF-16 has them, and so have files that were cut in the middle.
host.scoped('half characters stay what they are', () => {
  for (const text of ['\ud800', '\udc00', 'a\ud83d', '\ude00b',
    '\udc00\ud800', '\ud800\ud800\udc00', '😀\ud83d😀', '\udfff\ud800x']) {
    assert.strictEqual(host.echoed(text), text, JSON.stringify(text));
  }
  for (const text of ['\ufffe\uffff', '\ufeffx', '\u{10000}', '\u{fffff}']) {
    assert.strictEqual(host.echoed(text), text, JSON.stringify(text));
  }
});

host.scoped('every plane of Unicode arrives', () => {
  const connection = host.opened();
  for (const point of [0x7f, 0x80, 0x7ff, 0x800, 0xd7ff, 0xe000, 0xffff,
    0x10000, 0x1f600, 0x10ffff]) {
    const text = `<${String.fromCodePoint(point)}>`;
    const bytes = Buffer.from(text, 'utf8').toString('hex').toUpperCase();
    const rows = connection(
      'SELECT hex(t) AS bytes, t FROM (SELECT CAST(? AS TEXT) AS t)', text);
    assert.strictEqual(rows('bytes').Value, bytes, point.toString(16));
    assert.strictEqual(rows('t').Value, text, point.toString(16));
  }
});

// What parameters hold afterwards is what was bound. Of type, value: value.
host.scoped('what parameters hold afterwards', () => {
  const connection = host.opened();
  for (const [type, before, after] of [
    [0, 7, 7],
    [0, 0.5, 0.5],
    [0, true, true],
    [0, false, false],
    [0, 'text', 'text'],
    [0, null, null],
    [0, Uint8Array.of(1, 2), Uint8Array.of(1, 2)],
    [0, date(2024, 0, 2), '2024-01-02 00:00:00.000'],
    [0, variantDate(date(2024, 0, 2)), '2024/01/02'],
    [0, 2n ** 60n, 2n ** 60n],
    [3, '  42abc', 42],
    [3, 3000000000.9, -1294967296],
    [3, 4294967297, 1],
    [3, true, -1],
    [20, '7', 7],
    [20, 2.9, 2],
    [11, 5, true],
    [11, 0, false],
    [11, 'true', true],
    [200, 7, '7'],
    [202, 7, '7'],
    [202, 'é😀', 'é😀'],
    [202, () => 'called', 'called'],
    [204, Uint8Array.of(7), Uint8Array.of(7)],
    [3, null, null],
    [202, null, null],
  ]) {
    const command = host.commandOf(connection, 'SELECT ?');
    const parameter = command.CreateParameter('', type, 1, 0, before);
    command.Parameters.Append(parameter);
    command.Execute();
    assert.deepStrictEqual(parameter.Value, after, `${type}: ${before}`);
  }
});

host.scoped('a parameter without a value is sent as none', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  const parameter = command.CreateParameter();
  assert.deepStrictEqual(
    [parameter.Name, parameter.Type, parameter.Direction, parameter.Size,
      parameter.Value],
    ['', 0, 0, 0, undefined]);
  command.Parameters.Append(parameter);
  command.Execute();
  assert.deepStrictEqual(host.kept(connection), ['null NULL']);
  assert.strictEqual(parameter.Value, null);
});

host.scoped('an object is sent as itself', () => {
  const connection = host.opened();
  const command = zirdb.createObject('ZIRDB.Command');
  command.ActiveConnection = connection;
  assert.strictEqual(command.ActiveConnection, connection);
  const parameter = command.CreateParameter('p', 3, 1, 0, 7);
  command.Parameters.Append(parameter);
  command.Parameters(0).Value = 8;
  assert.strictEqual(parameter.Value, 8);
  assert.throws(
    () => command.Parameters.Append(connection), { code: '0x80020005' });
  assert.throws(() => {
    command.ActiveConnection = parameter;
  }, { code: '0x80020005' });
});

host.scoped('variantDate takes dates alone', () => {
  for (const stranger of ['2024-01-02', 0, null, undefined, {}]) {
    assert.throws(() => host.echoed(variantDate(stranger)), TypeError);
  }
  assert.throws(
    () => host.echoed(variantDate(new Date(NaN))),
    (error) => /^(TypeError|RangeError)$/.test(error.constructor.name));
});

host.leavesNothing();
