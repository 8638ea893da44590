// SPDX-License-Identifier: MIT
//
// Arguments that something comes back through, and arguments that are not
// there: out(), arrays, undefined.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { out, variantDate } = zirdb;

host.scoped('the number of affected rows arrives in an out()', () => {
  const connection = host.shop();
  const affected = out();
  assert.strictEqual(affected.value, undefined);
  assert.strictEqual(
    connection.Execute('UPDATE item SET price = 2 WHERE id < 3', affected),
    undefined);
  assert.strictEqual(affected.value, 2);
  connection.Execute('SELECT 1', affected);
  assert.strictEqual(affected.value, -1);
  connection.Execute('UPDATE item SET price = 3', affected, 0);
  assert.strictEqual(affected.value, 3);

  const command = host.commandOf(connection, 'UPDATE item SET price = 4');
  const changed = out(7);
  assert.strictEqual(changed.value, 7);
  assert.strictEqual(command.Execute(changed).State, 0);
  assert.strictEqual(changed.value, 3);
});

host.scoped('a failed call leaves an out() alone', () => {
  const connection = host.shop();
  for (const initial of [undefined, 'before']) {
    const affected = initial === undefined ? out() : out(initial);
    assert.throws(
      () => connection.Execute('SELECT * FROM nowhere', affected),
      { code: '0x80040712' });
    assert.strictEqual(affected.value, initial);
    assert.throws(
      () => connection.Execute('SELECT 1', affected, 0, 0),
      { code: '0x8002000E' });
    assert.strictEqual(affected.value, initial);
  }
});

host.scoped('one out() serves any number of calls', () => {
  const connection = host.shop();
  const affected = out();
  const seen = [];
  for (const id of [1, 2, 3]) {
    connection.Execute(`UPDATE item SET price = 1 WHERE id <= ${id}`, affected);
    seen.push(affected.value);
  }
  assert.deepStrictEqual(seen, [1, 2, 3]);
});

host.scoped('an out() where nothing is written keeps its value', () => {
  const connection = host.keeping();
  const slot = out('x');
  connection('INSERT INTO kept VALUES (?)', slot);
  assert.strictEqual(slot.value, 'x');
  const name = out('n');
  const command = zirdb.createObject('ZIRDB.Command');
  assert.strictEqual(command.CreateParameter(name).Name, 'n');
  assert.strictEqual(name.value, 'n');
  const other = zirdb.createObject('ZIRDB.Connection');
  other.Open(out(host.MEMORY));
  assert.strictEqual(other.State, 1);
});

host.scoped("an array's changed elements are replaced", () => {
  const connection = host.opened();
  const command = host.commandOf(connection, 'SELECT ?, ?, ?');
  const values = [
    variantDate(new Date(Date.UTC(2024, 0, 2, 18))),
    () => 'called',
    'x',
  ];
  const affected = out();
  command.Execute(affected, values);
  assert.strictEqual(affected.value, -1);
  assert.deepStrictEqual(values, ['2024/01/02 18:00:00', 'called', 'x']);

  const alone = [() => 'alone'];
  command.CommandText = 'SELECT ?';
  command.Execute(alone);
  assert.deepStrictEqual(alone, ['alone']);
});

host.scoped('elements that are what they were stay the same', () => {
  const connection = host.opened();
  const bytes = Uint8Array.of(1, 2);
  const buffer = Buffer.from([3]);
  const date = new Date(Date.UTC(2024, 0, 2));
  const values = [7, -0, 7n, 0.5, true, 'x', 'é😀', '', null, date, bytes,
    buffer, NaN, Infinity];
  const before = [...values];
  const sql = `SELECT ${values.map(() => '?').join(', ')}`;
  host.commandOf(connection, sql).Execute(out(), values);
  assert.strictEqual(values.length, before.length);
  for (const [i, value] of values.entries()) {
    assert.strictEqual(value, before[i], `element ${i}`);
  }
  assert.strictEqual(date.getTime(), Date.UTC(2024, 0, 2));
});

host.scoped('they do, too, when integers come back as BigInts', () => {
  const command = host.commandOf(
    host.opened(), 'SELECT ?, ?, ?, ?', { integers: 'bigint' });
  const values = [7, 7n, 0.5, true];
  const affected = out();
  command.Execute(affected, values);
  assert.strictEqual(affected.value, -1n);
  assert.deepStrictEqual(values, [7, 7n, 0.5, true]);
});

host.scoped('out() in an array is an empty slot', () => {
  const connection = host.shop();
  const command = host.commandOf(
    connection, 'INSERT INTO item (id, name) SELECT ?, ?');
  const empty = out();
  const filled = out('file');
  command.Execute(out(), [empty, filled]);
  // An input-output comes back from SQLite as it was sent.
  assert.strictEqual(empty.value, null);
  assert.strictEqual(filled.value, 'file');
  assert.deepStrictEqual(
    Array.from(
      connection.Execute("SELECT id FROM item WHERE name = 'file'"),
      ({ id }) => id),
    [null]);

  const dated = out(variantDate(new Date(Date.UTC(2024, 0, 2))));
  command.CommandText = 'SELECT ?';
  command.Execute([dated]);
  assert.strictEqual(dated.value, '2024/01/02');
});

host.scoped('a failed call leaves an array alone', () => {
  const connection = host.opened();
  const command = host.commandOf(connection, 'SELECT ? FROM nowhere');
  const slot = out();
  const stamp = variantDate(new Date(0));
  for (const values of [[stamp], [slot], [() => 'called']]) {
    const before = [...values];
    assert.throws(
      () => command.Execute(out(), values), { code: '0x80040712' });
    assert.strictEqual(values[0], before[0]);
  }
  assert.strictEqual(slot.value, undefined);
});

host.scoped('the same array serves again', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  const values = [1];
  for (const value of [1, 'two', null]) {
    values[0] = value;
    command.Execute(out(), values);
  }
  assert.deepStrictEqual(
    host.kept(connection), ['integer 1', "text 'two'", 'null NULL']);
});

host.scoped('an array without elements', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (1)');
  const none = [];
  command.Execute(out(), none);
  connection('INSERT INTO kept VALUES (2)', none);
  assert.deepStrictEqual(host.kept(connection), ['integer 1', 'integer 2']);
  assert.deepStrictEqual(none, []);
});

host.scoped('an array that contains itself is refused', () => {
  const connection = host.opened();
  const values = [1];
  values.push(values);
  assert.throws(
    () => connection('SELECT ?', values),
    (error) => error instanceof TypeError || error instanceof RangeError);
});

host.scoped('undefined at the end is as if it was not written', () => {
  const connection = zirdb.createObject('ZIRDB.Connection');
  connection.Open(host.MEMORY, undefined, undefined);
  assert.strictEqual(connection.ConnectionString, host.MEMORY);
  connection.Close();
  connection.Open(undefined);
  assert.strictEqual(connection.State, 1);
  connection.Execute('CREATE TABLE kept (v)', undefined, undefined);
  assert.strictEqual(
    connection.Execute('SELECT 7 AS n', undefined)('n').Value, 7);
  assert.strictEqual(connection.Close(undefined), undefined);
  const command = zirdb.createObject('ZIRDB.Command');
  assert.strictEqual(
    command.CreateParameter('p', 3, undefined, undefined, undefined).Value,
    undefined);
});

host.scoped('undefined in between is the default', () => {
  const other = zirdb.createObject('ZIRDB.Connection');
  other.Open(host.MEMORY, undefined, 'secret');
  assert.strictEqual(other.ConnectionString, `${host.MEMORY};PWD=secret;`);
  const command = zirdb.createObject('ZIRDB.Command');
  const parameter = command.CreateParameter(
    undefined, 3, undefined, undefined, 7);
  assert.deepStrictEqual(
    [parameter.Name, parameter.Type, parameter.Direction, parameter.Size,
      parameter.Value],
    ['', 3, 0, 0, 7]);
  const typeless = command.CreateParameter('p', undefined, 1, 9);
  assert.deepStrictEqual(
    [typeless.Name, typeless.Type, typeless.Direction, typeless.Size,
      typeless.Value],
    ['p', 0, 1, 9, undefined]);

  const connection = host.keeping();
  connection.Execute('INSERT INTO kept VALUES (1)', undefined, 0);
  command.ActiveConnection = connection;
  command.CommandText = 'INSERT INTO kept VALUES (?)';
  command.Execute(undefined, [2]);
  command.Execute(undefined, undefined, [3]);
  assert.deepStrictEqual(
    host.kept(connection), ['integer 1', 'integer 2', 'integer 3']);
});

host.scoped('undefined where there is no default is refused', () => {
  const connection = host.keeping();
  const insert = 'INSERT INTO kept VALUES (1)';
  const rows = connection.Execute('SELECT 1 AS a');
  const command = host.commandOf(connection, insert);
  const parameter = command.CreateParameter('p', 0, 1, 0, 'before');
  const acts = [
    () => connection(undefined, 1),
    () => connection(insert, undefined, 1),
    () => connection(insert, 1, undefined, 2),
    () => connection(insert, [undefined]),
    () => connection(insert, [1, undefined]),
    () => connection(insert, [1, [undefined]]),
    () => connection(insert, [, 1]),
    () => connection.Execute(undefined, zirdb.out()),
    () => command.Execute(out(), [undefined]),
    () => command.Execute([1, undefined]),
    () => {
      parameter.Value = undefined;
    },
    () => {
      parameter.Name = undefined;
    },
    () => {
      command.ActiveConnection = undefined;
    },
    () => {
      command.CommandText = undefined;
    },
  ];
  for (const act of acts) {
    const error = host.thrownBy(act);
    assert.strictEqual(error.constructor, TypeError, String(act));
    assert.match(error.message, /null/, String(act));
    assert.match(error.message, /out\(\)/, String(act));
  }
  assert.deepStrictEqual(host.kept(connection), []);
  assert.strictEqual(parameter.Value, 'before');
  assert.strictEqual(rows.State, 1);
  assert.strictEqual(command.ActiveConnection, connection);
});

host.scoped('a missing value is not sent as none', () => {
  // A mistyped property must not become a row without values.
  const connection = host.keeping();
  const rows = connection.Execute('SELECT 1 AS a');
  const typo = {}.nowhere;
  for (const act of [
    () => connection('INSERT INTO kept VALUES (?)', typo),
    () => connection('INSERT INTO kept SELECT ? + ?', 1, typo),
    () => connection(typo),
    () => connection.Execute(typo),
    () => rows(typo),
    () => rows.Fields(typo),
    () => rows.Fields.Item(typo),
    () => rows.forEach(typo),
  ]) {
    assert.throws(act, TypeError, String(act));
  }
  assert.deepStrictEqual(host.kept(connection), []);
});

// Elements can be computed, and so do anything.
host.scoped('objects may be let go of while arguments are read', () => {
  const connection = host.keeping();
  const rows = host.shop().Execute('SELECT name FROM item ORDER BY id');
  for (const released of ['command', 'field']) {
    rows.MoveFirst();
    const objects = {
      command: host.commandOf(connection, 'INSERT INTO kept VALUES (?), (?)'),
      field: [...rows.Fields][0],
    };
    rows.MoveNext();
    const values = [objects.field];
    Object.defineProperty(values, 1, {
      enumerable: true,
      get() {
        objects[released].release();
        // Others take the place that has become free.
        for (let i = 0; i < 9; ++i) assert.strictEqual(rows(0).Value, 'nail');
        return 1;
      },
    });
    let code = 'none';
    try {
      objects.command.Execute(out(), values);
    } catch (error) {
      ({ code } = error);
    }
    // Refused or done, but never with another object.
    const kept = host.kept(connection);
    if (code === 'none') {
      assert.deepStrictEqual(kept, ["text 'saw'", 'integer 1'], released);
    } else {
      assert.deepStrictEqual(
        [code, kept], ['ERR_ZIRDB_RELEASED', []], released);
    }
  }
});

test('an Out is told from other objects', () => {
  const slot = out(1);
  assert.deepStrictEqual(Object.keys(slot), ['value']);
  const lookalike = { value: 1 };
  zirdb.scope(() => {
    assert.throws(() => host.echoed(lookalike), TypeError);
  });
});

host.leavesNothing();
