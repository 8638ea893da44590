// SPDX-License-Identifier: MIT
//
// for-of over recordsets, fields, parameters and enumerators.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const ITEMS = 'SELECT id, name FROM item ORDER BY id';
const RELEASED = { code: 'ERR_ZIRDB_RELEASED' };

host.scoped('rows are plain objects by column name', () => {
  const rows = [...host.shop().Execute('SELECT * FROM item ORDER BY id')];
  assert.deepStrictEqual(rows.map((row) => Object.entries(row)), [
    [['id', 1], ['name', 'saw'], ['price', 12.5]],
    [['id', 2], ['name', 'nail'], ['price', 0.25]],
    [['id', 3], ['name', 'gift'], ['price', null]],
  ]);
  for (const row of rows) {
    assert.strictEqual(typeof row, 'object');
    assert.strictEqual(JSON.stringify(row), JSON.stringify({ ...row }));
  }
  rows[0].id = 9;
  assert.deepStrictEqual([rows[0].id, rows[1].id], [9, 2]);
});

host.scoped('rows from the current one on', () => {
  const rows = host.shop().Execute(ITEMS);
  rows.MoveNext();
  assert.deepStrictEqual(Array.from(rows, ({ id }) => id), [2, 3]);
  const atTheEnd = host.shop().Execute('SELECT 1 AS a');
  atTheEnd.MoveNext();
  assert.deepStrictEqual([...atTheEnd], []);
  assert.deepStrictEqual(
    [...host.shop().Execute('SELECT id FROM item WHERE 0')], []);
  assert.deepStrictEqual([...zirdb.createObject('ZIRDB.Recordset')], []);
});

host.scoped('of columns with the same name the first counts', () => {
  const connection = host.shop();
  const [row] = connection.Execute(
    'SELECT 1 AS a, 2 AS b, 3 AS a, 4 AS b, 5 AS c');
  assert.deepStrictEqual(
    Object.entries(row), [['a', 1], ['b', 2], ['c', 5]]);
});

host.scoped('columns may have the names of what objects have', () => {
  const names = ['__proto__', 'constructor', 'toString', 'hasOwnProperty',
    'valueOf', '__defineGetter__', 'then', 'length', 'a b', 'Zoë 漢字 😀'];
  const list = names.map((name, i) => `${i} AS "${name}"`).join(', ');
  const rows = host.shop().Execute(
    `SELECT ${list} UNION ALL SELECT ${names.map(() => '7').join(', ')}`);
  let number = 0;
  for (const row of rows) {
    assert.deepStrictEqual(Object.keys(row), names);
    for (const [i, name] of names.entries()) {
      const { value } = Object.getOwnPropertyDescriptor(row, name);
      assert.strictEqual(value, number === 0 ? i : 7, name);
    }
    ++number;
  }
  assert.strictEqual(number, 2);
  assert.strictEqual({}.constructor, Object);
});

host.scoped('columns named by numbers', () => {
  const [row] = host.shop().Execute('SELECT 7 AS "2", 8 AS "1", 9 AS x');
  assert.deepStrictEqual({ ...row }, { 1: 8, 2: 7, x: 9 });
});

host.scoped('at the end the recordset is closed and released', () => {
  const rows = host.shop().Execute(ITEMS);
  const before = zirdb.liveObjects();
  const field = rows('id');
  for (const { id } of rows) assert.ok(id > 0);
  assert.throws(() => rows.State, RELEASED);
  assert.throws(() => [...rows], RELEASED);
  // Closed, and not only let go of: this field held it.
  assert.throws(() => field.Value, { code: '0x800A0D5C' });
  field.release();
  assert.ok(zirdb.liveObjects() < before);
});

// Ways to leave a walk early, all from the second row.
const EXITS = {
  break: (rows) => {
    for (const { id } of rows) if (id === 2) break;
  },
  return: (rows) => {
    (() => {
      for (const { id } of rows) if (id === 2) return id;
      return 0;
    })();
  },
  throw: (rows) => {
    const mine = new Error('mine');
    const caught = host.thrownBy(() => {
      for (const { id } of rows) if (id === 2) throw mine;
    });
    assert.strictEqual(caught, mine);
  },
  destructuring: (rows) => {
    const [first, second] = rows;
    assert.deepStrictEqual([first.id, second.id], [1, 2]);
  },
  'destructuring nothing': (rows) => {
    const [] = rows;
  },
  'an outer loop': (rows) => {
    outer:
    for (;;) for (const { id } of rows) if (id === 2) break outer;
  },
  'return()': (rows) => {
    const iterator = rows[Symbol.iterator]();
    assert.strictEqual(iterator.next().value.id, 1);
    assert.strictEqual(iterator.return(7).done, true);
    assert.strictEqual(iterator.next().done, true);
  },
  'a failing map': (rows) => {
    assert.throws(() => Array.from(rows, () => {
      throw new RangeError('mine');
    }), RangeError);
  },
};

for (const [name, leave] of Object.entries(EXITS)) {
  host.scoped(`an early exit closes and releases: ${name}`, () => {
    const rows = host.shop().Execute(ITEMS);
    const field = rows('id');
    leave(rows);
    assert.throws(() => rows.State, RELEASED);
    assert.throws(() => field.Value, { code: '0x800A0D5C' });
  });
}

host.scoped('a recordset may be closed or let go of inside its walk', () => {
  const rows = host.shop().Execute(ITEMS);
  assert.throws(() => {
    for (const { id } of rows) {
      assert.strictEqual(id, 1);
      rows.Close();
    }
  }, { code: '0x800A0E78' });
  assert.throws(() => rows.State, RELEASED);

  const others = host.shop().Execute(ITEMS);
  assert.throws(() => {
    for (const { id } of others) {
      assert.strictEqual(id, 1);
      others.release();
    }
  }, RELEASED);
});

host.scoped("an error of the body is not lost to the closing's", () => {
  const mine = new Error('mine');
  const rows = host.shop().Execute(ITEMS);
  const caught = host.thrownBy(() => {
    for (const { id } of rows) {
      rows.Close();
      if (id) throw mine;
    }
  });
  assert.strictEqual(caught, mine);
});

host.scoped('leaving a walk whose recordset is closed is no error', () => {
  const connection = host.shop();
  for (const close of [
    (rows) => rows.Close(),
    (rows) => rows.release(),
    () => connection.Close(),
  ]) {
    const rows = connection.Execute(ITEMS);
    for (const { id } of rows) {
      assert.strictEqual(id, 1);
      close(rows);
      break;
    }
    assert.throws(() => rows.State, RELEASED);
  }
});

host.scoped('a closed recordset cannot be walked', () => {
  const rows = host.shop().Execute(ITEMS);
  rows.Close();
  assert.throws(() => [...rows], { code: '0x800A0E78' });
});

test('for await walks rows, too, and leaves early', async () => {
  const connection = host.shop();
  const seen = [];
  for await (const { id } of connection.Execute(ITEMS)) seen.push(id);
  const rows = connection.Execute(ITEMS);
  for await (const { id } of rows) {
    seen.push(id);
    if (id === 2) break;
  }
  assert.deepStrictEqual(seen, [1, 2, 3, 1, 2]);
  assert.throws(() => rows.State, RELEASED);
  connection.release();
});

host.scoped('iterators are iterable themselves', () => {
  const rows = host.shop().Execute(ITEMS);
  const iterator = rows[Symbol.iterator]();
  assert.strictEqual(iterator[Symbol.iterator](), iterator);
  iterator.next();
  assert.deepStrictEqual(Array.from(iterator, ({ id }) => id), [2, 3]);
});

host.scoped('many columns and many rows', () => {
  const connection = host.opened();
  const columns = Array.from({ length: 200 }, (unused, i) => `c${i}`);
  const [wide] = connection.Execute(
    `SELECT ${columns.map((name, i) => `${i} AS ${name}`).join(', ')}`);
  assert.deepStrictEqual(Object.keys(wide), columns);
  assert.strictEqual(wide.c199, 199);
  let sum = 0;
  for (const { n } of connection.Execute(
    'WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r' +
    ' LIMIT 20000) SELECT n FROM r')) sum += n;
  assert.strictEqual(sum, 200010000);
});

host.scoped('fields of a collection are those of its row for good', () => {
  const rows = host.shop().Execute(ITEMS);
  const fields = [...rows.Fields];
  const shown = () => fields.map((field) => `${field.Name}=${field.Value}`);
  assert.deepStrictEqual(shown(), ['id=1', 'name=saw']);
  rows.MoveNext();
  assert.deepStrictEqual(shown(), ['id=1', 'name=saw']);
  rows.Close();
  assert.deepStrictEqual(shown(), ['id=1', 'name=saw']);
  rows.release();
  assert.deepStrictEqual(shown(), ['id=1', 'name=saw']);
  assert.match(`${fields[0]}`, /^1$/);
});

host.scoped('fields can be walked again, and left early', () => {
  const rows = host.shop().Execute(ITEMS);
  const { Fields: fields } = rows;
  for (const field of fields) {
    assert.strictEqual(field.Name, 'id');
    break;
  }
  const [, name] = fields;
  assert.strictEqual(name.Value, 'saw');
  assert.deepStrictEqual(
    Array.from(fields, (field) => field.Name), ['id', 'name']);
  assert.strictEqual(rows.State, 1);
});

host.scoped('fields inside of forEach', () => {
  const seen = [];
  host.shop().Execute(ITEMS).forEach((fields) => {
    for (const field of fields) seen.push(field.Value);
  });
  assert.ok(seen.length === 6 && seen[0] === 1 && seen[1] === 'saw');
});

host.scoped('fields without a row', () => {
  const rows = host.shop().Execute('SELECT id FROM item WHERE 0');
  assert.throws(() => [...rows.Fields], { code: '0x800A0BCD' });
  assert.strictEqual(rows.Fields.Count, 1);
});

host.scoped('parameters', () => {
  const command = zirdb.createObject('ZIRDB.Command');
  assert.deepStrictEqual([...command.Parameters], []);
  for (const [i, name] of ['a', 'b', 'c'].entries()) {
    command.Parameters.Append(command.CreateParameter(name, 3, 1, 0, i));
  }
  const seen = [];
  for (const parameter of command.Parameters) {
    seen.push(`${parameter.Name}=${parameter.Value}`);
    parameter.Value = 9;
  }
  assert.deepStrictEqual(seen, ['a=0', 'b=1', 'c=2']);
  assert.deepStrictEqual(
    Array.from(command.Parameters, (each) => each.Value), [9, 9, 9]);
  for (const parameter of command.Parameters) {
    if (parameter.Name === 'b') break;
  }
  assert.strictEqual(command.Parameters.Count, 3);
});

host.scoped('enumerators', () => {
  const rows = host.shop().Execute(ITEMS);
  const { _NewEnum: fields } = rows.Fields;
  const [first] = fields;
  assert.strictEqual(first.Name, 'id');
  assert.deepStrictEqual(
    Array.from(rows.Fields._newenum, (field) => field.Value), [1, 'saw']);
  rows.MoveNext();
  const later = rows.Fields._NewEnum;
  rows.Close();
  rows.release();
  assert.deepStrictEqual(Array.from(later, (field) => field.Value),
    [2, 'nail']);
});

host.scoped('what cannot be iterated', () => {
  const connection = host.shop();
  const command = zirdb.createObject('ZIRDB.Command');
  for (const object of [connection, command, host.keeper(),
    connection.Execute(ITEMS)('id')]) {
    assert.throws(() => [...object], TypeError);
  }
});

host.leavesNothing();
