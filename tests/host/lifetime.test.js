// SPDX-License-Identifier: MIT
//
// How long objects live: release and dispose, scopes, the garbage collector,
// and what is left of an object that was let go.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { liveObjects, libraryIdle, scope } = zirdb;
const ITEMS = 'SELECT id, name FROM item ORDER BY id';

// What an object of this class throws once it was let go of.
function released(name) {
  return (error) => {
    assert.strictEqual(error.constructor, Error);
    assert.strictEqual(error.code, 'ERR_ZIRDB_RELEASED');
    assert.strictEqual(
      error.message, `ZIRDB.${name}: this object was released`);
    return true;
  };
}

host.scoped('there is one proxy for an object', () => {
  const connection = host.shop();
  const command = host.commandOf(connection, 'SELECT 1');
  assert.strictEqual(command.ActiveConnection, connection);
  assert.strictEqual(zirdb.get(command, 'ActiveConnection'), connection);
  const parameter = host.keeper();
  parameter.Value = command;
  assert.strictEqual(parameter.Value, command);
  assert.strictEqual(parameter.Value.ActiveConnection, connection);
  assert.notStrictEqual(zirdb.createObject('ZIRDB.Command'), command);
});

host.scoped('an object that was let go of comes back as another', () => {
  const connection = host.shop();
  const command = host.commandOf(connection, 'SELECT 1');
  connection.release();
  const again = command.ActiveConnection;
  assert.notStrictEqual(again, connection);
  assert.strictEqual(again.State, 1);
  assert.strictEqual(again, command.ActiveConnection);
  assert.throws(() => connection.State, released('Connection'));
});

test('objects are counted', () => {
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
  const connection = host.shop();
  assert.strictEqual(liveObjects(), 1);
  assert.strictEqual(libraryIdle(), false);
  const rows = connection.Execute(ITEMS);
  assert.strictEqual(liveObjects(), 2);
  const field = rows('id');
  assert.strictEqual(liveObjects(), 3);
  connection.release();
  assert.strictEqual(liveObjects(), 2);
  rows.release();
  field.release();
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
});

test('release drops the reference, once', () => {
  const connection = zirdb.createObject('ZIRDB.Connection');
  const command = zirdb.createObject('ZIRDB.Command');
  command.ActiveConnection = connection;
  for (let i = 0; i < 3; ++i) {
    assert.strictEqual(connection.release(), undefined);
    assert.strictEqual(zirdb.release(connection), undefined);
  }
  assert.strictEqual(liveObjects(), 1);
  const again = command.ActiveConnection;
  assert.strictEqual(again.State, 0);
  zirdb.release(again);
  zirdb.release(command);
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
});

host.scoped('release can be taken off its object', () => {
  const connection = host.shop();
  const { release } = connection;
  assert.strictEqual(typeof release, 'function');
  release();
  assert.throws(() => connection.State, released('Connection'));
  release();
});

host.scoped('releasing the last reference closes a connection', () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  connection.release();
  assert.strictEqual(rows.State, 0);
  assert.throws(() => rows.MoveNext(), { code: '0x800A0E78' });
});

const noDispose = typeof Symbol.dispose === 'symbol'
  ? false : 'this Node.js has no Symbol.dispose';
test('Symbol.dispose is release', { skip: noDispose }, () => {
  const connection = host.shop();
  assert.strictEqual(Symbol.dispose in connection, true);
  assert.strictEqual(typeof connection[Symbol.dispose], 'function');
  connection[Symbol.dispose]();
  connection[Symbol.dispose]();
  assert.throws(() => connection.State, released('Connection'));
  assert.strictEqual(liveObjects(), 0);
});

host.scoped('a released object answers with an error of its own', () => {
  const connection = host.shop();
  const recordset = connection.Execute(ITEMS);
  const command = host.commandOf(connection, 'SELECT 1');
  const parameter = command.CreateParameter('p', 3, 1, 0, 7);
  for (const [name, object, property, written, method] of [
    ['Field', recordset('id'), 'Value', null, null],
    ['Fields', recordset.Fields, 'Count', null, 'Item'],
    ['Recordset', recordset, 'State', null, 'MoveNext'],
    ['Parameters', command.Parameters, 'Count', null, 'Append'],
    ['Parameter', parameter, 'Value', 'Value', null],
    ['Command', command, 'CommandText', 'CommandText', 'Execute'],
    ['Connection', connection, 'State', 'ConnectionString', 'Close'],
  ]) {
    const taken = method && object[method];
    const sink = host.keeper();
    const database = host.opened();
    object.release();
    const acts = {
      get: () => object[property],
      'get in lower case': () => object[property.toLowerCase()],
      'pass in an array': () => {
        sink.Value = [object];
      },
      'put as a property': () => {
        sink.Value = object;
      },
      'pass as an argument': () => database('SELECT ?', object),
      'pass as a callback': () => database.Execute('SELECT 1').forEach(object),
      'zirdb.get': () => zirdb.get(object, property),
      'zirdb.put': () => zirdb.put(object, property, 1),
      'zirdb.call': () => zirdb.call(object, property),
    };
    if (written) {
      acts.put = () => {
        object[written] = 'x';
      };
    }
    if (method) {
      acts['call a method'] = () => object[method]();
      acts['call a method that was taken'] = () => taken();
    }
    if (name !== 'Command') acts['call the object'] = () => object(0);
    if (['Recordset', 'Fields', 'Parameters'].includes(name)) {
      acts.iterate = () => [...object];
    }
    for (const [what, act] of Object.entries(acts)) {
      assert.throws(act, released(name), `${what} of ${name}`);
    }
    assert.strictEqual(sink.Value, undefined, name);
    assert.match(object.toString(), new RegExp(`ZIRDB\\.${name}`));
    assert.match(`${object}`, new RegExp(`ZIRDB\\.${name}`));
    object.release();
  }
});

host.scoped('a released callback object', () => {
  const parameter = host.keeper();
  parameter.Value = () => 7;
  const back = parameter.Value;
  back.release();
  assert.throws(() => back(), { code: 'ERR_ZIRDB_RELEASED' });
  parameter.Value = null;
});

test('scope returns what its function returns', () => {
  for (const value of [undefined, null, 0, 'x', 7n, { a: 1 }, [1]]) {
    assert.strictEqual(scope(() => value), value);
  }
});

test('scope releases what came up in it', () => {
  let connection;
  let rows;
  let kept;
  scope(() => {
    connection = host.shop();
    rows = connection.Execute(ITEMS);
    kept = [rows('id'), rows.Fields, connection.Execute('SELECT 1')];
    for (const field of rows.Fields) kept.push(field);
    assert.ok(liveObjects() >= 7);
  });
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
  for (const object of [connection, rows, ...kept]) {
    assert.match(object.toString(), /ZIRDB\./);
    assert.throws(() => object.State ?? object.Value,
      { code: 'ERR_ZIRDB_RELEASED' });
  }
});

test('scope releases when its function throws', () => {
  for (const thrown of [new Error('mine'), 'text', undefined]) {
    const caught = host.thrownBy(() => scope(() => {
      host.shop().Execute(ITEMS);
      throw thrown;
    }));
    assert.strictEqual(caught, thrown);
    assert.strictEqual(liveObjects(), 0);
    assert.strictEqual(libraryIdle(), true);
  }
});

test('scope leaves the object that its function returns', () => {
  const connection = scope(() => {
    const made = host.shop();
    made.Execute(ITEMS);
    return made;
  });
  assert.strictEqual(liveObjects(), 1);
  assert.strictEqual(connection.State, 1);
  connection.release();
  // Only the object itself.
  const held = scope(() => ({ connection: host.shop() }));
  assert.throws(() => held.connection.State, released('Connection'));
  assert.strictEqual(liveObjects(), 0);
});

test('scope leaves what was there before', () => {
  const connection = host.shop();
  const command = host.commandOf(connection, 'SELECT 1');
  scope(() => {
    assert.strictEqual(command.ActiveConnection, connection);
    connection.Execute(ITEMS);
    assert.strictEqual(liveObjects(), 3);
  });
  assert.strictEqual(liveObjects(), 2);
  assert.strictEqual(connection.State, 1);
  connection.release();
  command.release();
});

test('scopes nest', () => {
  let outer;
  let inner;
  let returned;
  scope(() => {
    outer = host.shop();
    scope(() => {
      inner = outer.Execute(ITEMS);
      assert.strictEqual(liveObjects(), 2);
    });
    assert.throws(() => inner.State, released('Recordset'));
    assert.strictEqual(outer.State, 1);
    returned = scope(() => outer.Execute(ITEMS));
    assert.strictEqual(returned('id').Value, 1);
    assert.throws(() => scope(() => {
      outer.Execute(ITEMS);
      throw new RangeError('mine');
    }), RangeError);
    assert.strictEqual(outer.Execute(ITEMS)('id').Value, 1);
  });
  // What an inner scope returned came up in the outer one.
  assert.throws(() => returned.State, released('Recordset'));
  assert.throws(() => outer.State, released('Connection'));
  assert.strictEqual(liveObjects(), 0);
});

test('scopes inside of a callback', () => {
  scope(() => {
    const rows = host.shop().Execute(ITEMS);
    const seen = [];
    rows.forEach((fields) => scope(() => {
      seen.push(fields('id').Value, fields('name').Value);
    }));
    assert.deepStrictEqual(seen, [1, 'saw', 2, 'nail', 3, 'gift']);
  });
  assert.strictEqual(liveObjects(), 0);
});

test('what was released in a scope stays released', () => {
  scope(() => {
    const connection = host.shop();
    const rows = connection.Execute(ITEMS);
    for (const { id } of connection.Execute(ITEMS)) assert.ok(id);
    rows.release();
    connection.release();
  });
  assert.strictEqual(liveObjects(), 0);
});

test('scope refuses a promise, and releases', async () => {
  let connection;
  assert.throws(() => scope(() => {
    connection = host.shop();
    return Promise.resolve(connection);
  }), TypeError);
  assert.throws(() => connection.State, released('Connection'));
  let continued = false;
  assert.throws(() => scope(async () => {
    host.shop();
    await null;
    continued = true;
  }), TypeError);
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
  await host.turn();
  assert.strictEqual(continued, true);
  // The next one works as ever.
  scope(() => host.shop().Execute(ITEMS));
  await host.collectedUntil(() => liveObjects() === 0);
});

test('scope wants a function', () => {
  for (const stranger of [undefined, null, 1, 'x', {}]) {
    assert.throws(() => scope(stranger), TypeError);
  }
});

test('unreachable objects are released by the garbage collector', async () => {
  (() => {
    const connection = host.shop();
    for (let i = 0; i < 100; ++i) {
      const rows = connection.Execute(ITEMS);
      assert.strictEqual(rows('id').Value, 1);
      for (const field of rows.Fields) assert.ok(field.Name);
    }
    assert.throws(() => connection.Execute(ITEMS).forEach((fields) => {
      throw fields;
    }));
  })();
  assert.ok(liveObjects() > 0);
  await host.collectedUntil(() => liveObjects() === 0);
  assert.strictEqual(liveObjects(), 0);
  assert.strictEqual(libraryIdle(), true);
});

test('reachable objects are not', async () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  const field = rows('name');
  for (let i = 0; i < 10; ++i) {
    global.gc();
    await host.turn();
  }
  assert.deepStrictEqual(
    [connection.State, rows.State, field.Value], [1, 1, 'saw']);
  for (const object of [connection, rows, field]) object.release();
});

// What keeps an object that nothing else leads to.
const HOLDERS = {
  'a method': (rows) => {
    const { MoveNext } = rows;
    return () => MoveNext();
  },
  'a bound method': (rows) => rows.MoveNext.bind(null),
  'release': (rows) => rows.release,
  'an iterator': (rows) => {
    const iterator = rows[Symbol.iterator]();
    return () => assert.strictEqual(iterator.next().value.id, 1);
  },
  'the iterator function': (rows) => {
    const iterate = rows[Symbol.iterator];
    return () => assert.strictEqual(iterate().next().value.id, 1);
  },
  'toString': (rows) => {
    const { toString } = rows;
    return () => assert.strictEqual(toString(), '[object ZIRDB.Recordset]');
  },
};

for (const [name, hold] of Object.entries(HOLDERS)) {
  test(`${name} stays valid while nothing else holds its object`, async () => {
    const connection = host.shop();
    let held = hold(connection.Execute(ITEMS));
    for (let i = 0; i < 10; ++i) {
      global.gc();
      await host.turn();
    }
    held();
    held = null;
    await host.collectedUntil(() => liveObjects() === 1);
    assert.strictEqual(liveObjects(), 1);
    connection.release();
  });
}

test('a field keeps its recordset', async () => {
  const connection = host.shop();
  const field = connection.Execute(ITEMS)('name');
  for (let i = 0; i < 10; ++i) {
    global.gc();
    await host.turn();
  }
  assert.strictEqual(field.Value, 'saw');
  field.release();
  connection.release();
});

test('a proxy that was collected comes back as another', async () => {
  const command = zirdb.createObject('ZIRDB.Command');
  (() => {
    command.ActiveConnection = host.shop();
  })();
  await host.collectedUntil(() => liveObjects() === 1);
  assert.strictEqual(liveObjects(), 1);
  assert.strictEqual(libraryIdle(), false);
  const connection = command.ActiveConnection;
  assert.strictEqual(connection.State, 1);
  assert.strictEqual(command.ActiveConnection, connection);
  command.release();
  connection.release();
  assert.strictEqual(libraryIdle(), true);
});

host.leavesNothing();
