// SPDX-License-Identifier: MIT
//
// The members of the objects: what is a property and what a method, in any
// case, what can be written, how many arguments there may be, and what calling
// the object itself means.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const members = require('../../hosts/node/members.json');
const host = require('./support/host.js');

// Of each class: how an object of it is had, and its members. A "w" is a
// property that can be set, an "r" one that cannot, an "m" a method.
const CLASSES = [
  {
    name: 'Connection',
    make: () => host.shop(),
    members: {
      ConnectionString: 'w', State: 'r', Open: 'm', Close: 'm', Execute: 'm',
    },
  },
  {
    name: 'Command',
    make: () => zirdb.createObject('ZIRDB.Command'),
    members: {
      ActiveConnection: 'w',
      CommandText: 'w',
      Execute: 'm',
      CreateParameter: 'm',
      Parameters: 'r',
      CommandType: 'w',
    },
  },
  {
    name: 'Recordset',
    make: () => host.shop().Execute('SELECT * FROM item'),
    members: {
      Fields: 'r',
      State: 'r',
      EOF: 'r',
      BOF: 'r',
      RecordCount: 'r',
      MoveFirst: 'm',
      MoveLast: 'm',
      MovePrevious: 'm',
      MoveNext: 'm',
      Close: 'm',
      forEach: 'm',
    },
  },
  {
    name: 'Fields',
    make: () => host.shop().Execute('SELECT * FROM item').Fields,
    members: { Item: 'm', Count: 'r', _NewEnum: 'r' },
  },
  {
    name: 'Field',
    make: () => host.shop().Execute('SELECT * FROM item')('id'),
    members: { Value: 'r', Name: 'r' },
  },
  {
    name: 'Parameters',
    make: () => zirdb.createObject('ZIRDB.Command').Parameters,
    members: { Item: 'm', Count: 'r', Append: 'm' },
  },
  {
    name: 'Parameter',
    make: () => host.keeper(),
    members: { Value: 'w', Name: 'w', Type: 'w', Direction: 'w', Size: 'w' },
  },
];

// Upper case, lower case, and every second letter of the other.
function spellings(name) {
  const mixed = Array.from(
    name,
    (letter, i) => (i % 2 ? letter.toUpperCase() : letter.toLowerCase()));
  return [name, name.toUpperCase(), name.toLowerCase(), mixed.join('')];
}

test('the table of members is that of the reference', () => {
  const expected = CLASSES.map(({ name, members: own }) => [
    name,
    Object.keys(own).sort().map((member) => `${member} ${own[member]}`),
  ]);
  const kind = ({ kind: what, writable }) => {
    if (what === 'method') return 'm';
    return writable ? 'w' : 'r';
  };
  const found = members.classes.map(({ name, members: own }) => [
    name,
    own.map((member) => `${member.name} ${kind(member)}`).sort(),
  ]);
  assert.deepStrictEqual(
    found, expected.map(([name, list]) => [name, list.slice().sort()]));
});

for (const { name, make, members: own } of CLASSES) {
  const title = `ZIRDB.${name}`;

  host.scoped(`${title}: members are found in any case`, () => {
    const object = make();
    for (const [member, kind] of Object.entries(own)) {
      for (const spelling of spellings(member)) {
        assert.strictEqual(spelling in object, true, spelling);
        const value = object[spelling];
        if (kind === 'm') {
          assert.strictEqual(typeof value, 'function', spelling);
          assert.strictEqual(value, object[member], spelling);
        }
      }
    }
  });

  host.scoped(`${title}: an unknown member is told, with those there are`,
    () => {
      const object = make();
      for (const act of [
        () => object.Foo,
        () => {
          object.Foo = 1;
        },
        () => object.Foo(1),
      ]) {
        const error = host.thrownBy(act);
        assert.strictEqual(error.constructor, TypeError);
        assert.ok(
          error.message.startsWith(`${title} has no member 'Foo'; it has `),
          error.message);
        for (const member of Object.keys(own)) {
          assert.ok(error.message.includes(member), error.message);
        }
      }
    });

  host.scoped(`${title}: what functions and plain objects have is unknown`,
    () => {
      const object = make();
      for (const stranger of [
        'apply', 'call', 'bind', 'length', 'prototype', 'arguments', 'caller',
        'hasOwnProperty', '__proto__', '0', '-1', '', 'Value2', ' State',
      ]) {
        assert.throws(() => object[stranger], TypeError, stranger);
        assert.strictEqual(Reflect.has(object, stranger), false, stranger);
      }
    });

  host.scoped(`${title}: what cannot be written says so`, () => {
    const object = make();
    for (const [member, kind] of Object.entries(own)) {
      if (kind === 'w') continue;
      for (const spelling of spellings(member)) {
        const error = host.thrownBy(() => {
          object[spelling] = 1;
        });
        assert.strictEqual(error.constructor, TypeError);
        assert.match(
          error.message, kind === 'm' ? /is a method/ : /is read-only/);
        assert.ok(
          error.message.toLowerCase().includes(member.toLowerCase()),
          error.message);
      }
    }
  });

  host.scoped(`${title}: members are neither deleted nor defined`, () => {
    const object = make();
    for (const member of [...Object.keys(own), 'Foo', 'release', 'then']) {
      assert.throws(() => delete object[member], TypeError, member);
      assert.throws(
        () => Object.defineProperty(object, member, { value: 1 }), TypeError,
        member);
    }
    for (const fixed of [
      'release', 'then', 'toJSON', 'toString', Symbol.iterator, Symbol('mine'),
    ]) {
      const error = host.thrownBy(() => {
        object[fixed] = 1;
      });
      assert.strictEqual(error.constructor, TypeError);
      assert.ok(error.message.includes(title), error.message);
    }
    for (const [member, kind] of Object.entries(own)) {
      if (kind === 'm') assert.strictEqual(typeof object[member], 'function');
    }
  });

  host.scoped(`${title}: a method is the same function each time`, () => {
    const object = make();
    for (const [member, kind] of Object.entries(own)) {
      if (kind !== 'm') continue;
      assert.strictEqual(typeof object[member], 'function');
      assert.strictEqual(object[member], object[member], member);
    }
    const methods = Object.keys(own).filter((member) => own[member] === 'm');
    assert.strictEqual(
      new Set(methods.map((member) => object[member])).size, methods.length);
  });
}

host.scoped('properties that can be set are what they were set to', () => {
  const connection = host.shop();
  const other = zirdb.createObject('ZIRDB.Connection');
  const command = zirdb.createObject('ZIRDB.Command');
  const parameter = host.keeper();
  for (const [object, member, values] of [
    [other, 'ConnectionString', ['DSN=x', '']],
    [command, 'ActiveConnection', [connection, null, other]],
    [command, 'CommandText', ['SELECT 1', '', 'é😀']],
    [command, 'CommandType', [-1, 1, 4, 8]],
    [parameter, 'Value', [1, 'x', null, true, 0.5]],
    [parameter, 'Name', ['n', '']],
    [parameter, 'Type', [0, 3, 11, 20, 72, 200, 202, 204]],
    [parameter, 'Direction', [0, 1, 2, 3, 4]],
    [parameter, 'Size', [0, 7, -1]],
  ]) {
    for (const value of values) {
      for (const spelling of spellings(member)) {
        object[spelling] = value;
        assert.strictEqual(object[member], value, member);
      }
    }
  }
});

host.scoped('properties have the values of the reference', () => {
  const connection = host.shop();
  const rows = connection.Execute('SELECT id, name AS label FROM item');
  const closed = zirdb.createObject('ZIRDB.Connection');
  const command = zirdb.createObject('ZIRDB.Command');
  const parameter = command.CreateParameter('p', 200, 3, 9, 'v');
  assert.deepStrictEqual(
    [connection.State, closed.State, closed.ConnectionString,
      connection.ConnectionString],
    [1, 0, '', host.MEMORY]);
  assert.deepStrictEqual(
    [rows.State, rows.EOF, rows.BOF, rows.RecordCount], [1, false, false, -1]);
  assert.deepStrictEqual(
    [rows.Fields.Count, rows.Fields(1).Name, rows('LABEL').Value],
    [2, 'label', 'saw']);
  assert.deepStrictEqual(
    [command.ActiveConnection, command.CommandText, command.CommandType,
      command.Parameters.Count],
    [null, '', 8, 0]);
  assert.deepStrictEqual(
    [parameter.Name, parameter.Type, parameter.Direction, parameter.Size,
      parameter.Value],
    ['p', 200, 3, 9, 'v']);
  const empty = zirdb.createObject('ZIRDB.Recordset');
  assert.deepStrictEqual(
    [empty.State, empty.EOF, empty.BOF, empty.Fields.Count],
    [1, true, true, 0]);
});

host.scoped('a walk with MoveNext and EOF', () => {
  const rows = host.shop().Execute('SELECT name FROM item ORDER BY id');
  const names = [];
  for (; !rows.eof; rows.moveNext()) names.push(rows('name').value);
  assert.deepStrictEqual(names, ['saw', 'nail', 'gift']);
  assert.strictEqual(rows.MoveFirst(), undefined);
  assert.strictEqual(rows.FIELDS('NAME').VALUE, 'saw');
  assert.strictEqual(rows.Close(), undefined);
  assert.strictEqual(rows.State, 0);
});

host.scoped('reading a method does not run it', () => {
  const connection = host.shop();
  const rows = connection.Execute('SELECT id FROM item ORDER BY id');
  for (const method of ['MoveNext', 'MoveLast', 'Close', 'forEach']) {
    assert.strictEqual(typeof rows[method], 'function');
  }
  assert.deepStrictEqual([rows.State, rows.EOF, rows('id').Value],
    [1, false, 1]);
  assert.strictEqual(typeof connection.Close, 'function');
  assert.strictEqual(connection.State, 1);
});

host.scoped('a method can be taken off its object', () => {
  const connection = host.shop();
  const { Execute } = connection;
  const rows = Execute('SELECT id FROM item ORDER BY id');
  const { MoveNext } = rows;
  MoveNext();
  MoveNext.call(null);
  MoveNext.apply({ State: 0 }, []);
  assert.strictEqual(rows.EOF, true);
  const another = Execute('SELECT id FROM item ORDER BY id');
  MoveNext.bind(another);
  assert.strictEqual(another('id').Value, 1);
  assert.notStrictEqual(another.MoveNext, MoveNext);
});

host.scoped('calling an object is its default member', () => {
  const connection = host.shop();
  const rows = connection('SELECT * FROM item WHERE id >= ? AND id < ?', 2, 9);
  assert.strictEqual(rows('name').Value, 'nail');
  assert.strictEqual(rows(0).Value, 2);
  const { Fields: fields } = rows;
  assert.strictEqual(fields('Name').Value, 'nail');
  assert.strictEqual(fields(2).Value, 0.25);
  assert.strictEqual(fields.Item('id').Value, 2);
  const field = rows('id');
  assert.strictEqual(field(), 2);
  const command = zirdb.createObject('ZIRDB.Command');
  const parameter = command.CreateParameter('first', 3, 1, 0, 7);
  command.Parameters.Append(parameter);
  assert.strictEqual(command.Parameters('FIRST').Value, 7);
  assert.strictEqual(command.Parameters(0).Name, 'first');
  assert.strictEqual(command.Parameters.Item(0).Value, 7);
  assert.strictEqual(parameter(), 7);
});

host.scoped('a command is not called', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (1)');
  for (const values of [[], [1], [[1]]]) {
    assert.throws(() => command(...values), TypeError);
  }
  assert.deepStrictEqual(host.kept(connection), []);
});

host.scoped('objects are functions, and no constructors', () => {
  for (const { make } of CLASSES) {
    const object = make();
    assert.strictEqual(typeof object, 'function');
    assert.throws(() => Reflect.construct(object, []), TypeError);
  }
});

// What is called with how many arguments, and takes another number of them.
host.scoped("a wrong number of arguments is the library's own error", () => {
  const connection = host.shop();
  const rows = connection.Execute('SELECT * FROM item');
  const command = zirdb.createObject('ZIRDB.Command');
  const parameter = host.keeper();
  const calls = {
    'connection()': () => connection(),
    'Open of 5': () => connection.Open('', '', '', 0, 0),
    'Close of 1': () => connection.Close(1),
    'Connection.Execute of 0': () => connection.Execute(),
    'Connection.Execute of 4': () => connection.Execute('SELECT 1', 0, 0, 0),
    'Command.Execute of 4': () => command.Execute(0, 0, 0, 0),
    'CreateParameter of 6': () => command.CreateParameter('', 0, 0, 0, 1, 2),
    'Append of 0': () => command.Parameters.Append(),
    'Append of 2': () => command.Parameters.Append(parameter, parameter),
    'Parameters.Item of 0': () => command.Parameters.Item(),
    'parameters()': () => command.Parameters(),
    'parameters of 2': () => command.Parameters(0, 1),
    'MoveFirst of 1': () => rows.MoveFirst(1),
    'MoveLast of 1': () => rows.MoveLast(1),
    'MovePrevious of 1': () => rows.MovePrevious(1),
    'MoveNext of 1': () => rows.MoveNext(1),
    'Recordset.Close of 1': () => rows.Close(1),
    'forEach of 0': () => rows.forEach(),
    'forEach of 2': () => rows.forEach(() => {}, 1),
    'recordset of 2': () => rows(0, 1),
    'Fields.Item of 0': () => rows.Fields.Item(),
    'Fields.Item of 2': () => rows.Fields.Item(0, 1),
    'fields()': () => rows.Fields(),
    'fields of 2': () => rows.Fields(0, 1),
    'field of 1': () => rows(0)(1),
    'parameter of 1': () => parameter(1),
  };
  for (const [name, call] of Object.entries(calls)) {
    const error = host.thrownBy(call);
    assert.ok(error instanceof zirdb.ZirdbError, `${name}: ${error}`);
    assert.strictEqual(error.code, '0x8002000E', name);
  }
  assert.deepStrictEqual([connection.State, rows.State, rows(0).Value],
    [1, 1, 1]);
});

test('the constants are those of the reference, and fixed', () => {
  assert.deepStrictEqual({ ...zirdb.constants }, {
    ZIRDB_STATE_CLOSED: 0,
    ZIRDB_STATE_OPEN: 1,
    ZIRDB_AD_EMPTY: 0,
    ZIRDB_AD_INTEGER: 3,
    ZIRDB_AD_BOOLEAN: 11,
    ZIRDB_AD_BIGINT: 20,
    ZIRDB_AD_GUID: 72,
    ZIRDB_AD_VARCHAR: 200,
    ZIRDB_AD_VARWCHAR: 202,
    ZIRDB_AD_VARBINARY: 204,
    ZIRDB_AD_PARAM_UNKNOWN: 0,
    ZIRDB_AD_PARAM_INPUT: 1,
    ZIRDB_AD_PARAM_OUTPUT: 2,
    ZIRDB_AD_PARAM_INPUT_OUTPUT: 3,
    ZIRDB_AD_PARAM_RETURN_VALUE: 4,
    ZIRDB_AD_CMD_UNSPECIFIED: -1,
    ZIRDB_AD_CMD_TEXT: 1,
    ZIRDB_AD_CMD_STORED_PROC: 4,
    ZIRDB_AD_CMD_UNKNOWN: 8,
  });
  assert.strictEqual(Object.isFrozen(zirdb.constants), true);
});

host.leavesNothing();
