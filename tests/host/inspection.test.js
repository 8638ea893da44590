// SPDX-License-Identifier: MIT
//
// What a runtime, a debugger or a careless program does to any object: nothing
// of it may run a method, and Command.Execute runs even when it is read.

'use strict';

const assert = require('node:assert');
const { Console } = require('node:console');
const { Writable } = require('node:stream');
const test = require('node:test');
const util = require('node:util');
const v8 = require('node:v8');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { inspect } = util;

/** An object of each class. */
function objects() {
  const connection = host.shop();
  const recordset = connection.Execute('SELECT * FROM item ORDER BY id');
  const command = host.commandOf(connection, 'SELECT 1');
  const parameter = command.CreateParameter('p', 3, 1, 0, 7);
  command.Parameters.Append(parameter);
  return {
    Connection: connection,
    Command: command,
    Recordset: recordset,
    Fields: recordset.Fields,
    Field: recordset('name'),
    Parameters: command.Parameters,
    Parameter: parameter,
  };
}

function printed(act) {
  let text = '';
  const stream = new Writable({
    write(chunk, encoding, done) {
      text += chunk;
      done();
    },
  });
  act(new Console(stream, stream));
  return text;
}

// What to do to an object that must not run anything. Whether it throws is
// told elsewhere.
const PASSIVE = {
  inspect: (object) => inspect(object),
  'inspect all': (object) => inspect(
    { object }, { showHidden: true, depth: 10, getters: true }),
  'inspect the proxy': (object) => inspect(object, { showProxy: true }),
  'console.log': (object) => printed((output) => output.log(object, [object])),
  'console.dir': (object) => printed((output) => output.dir(object)),
  'console.table': (object) => printed((output) => output.table([object])),
  'format %s': (object) => util.format('%s %o %O', object, object, object),
  'format %j': (object) => util.format('%j', object),
  JSON: (object) => JSON.stringify({ object, list: [object] }),
  'a template': (object) => `${object}`,
  String: (object) => String(object),
  Number: (object) => Number(object),
  toString: (object) => object.toString(),
  valueOf: (object) => object.valueOf(),
  keys: (object) => Object.keys(object),
  entries: (object) => Object.entries(object),
  spread: (object) => ({ ...object }),
  'for in': (object) => {
    const names = [];
    for (const name in object) names.push(name);
    return names;
  },
  'own keys': (object) => Reflect.ownKeys(object),
  descriptor: (object) => Object.getOwnPropertyDescriptor(object, 'Execute'),
  descriptors: (object) => Object.getOwnPropertyDescriptors(object),
  'has own': (object) => Object.prototype.hasOwnProperty.call(
    object, 'Execute'),
  in: (object) => 'Execute' in object,
  'the method read': (object) => object.Execute,
  'its name': (object) => inspect(object.Execute),
  'taken apart': (object) => {
    const { Execute, CommandText } = object;
    return [Execute, CommandText];
  },
  prototype: (object) => Object.getPrototypeOf(object),
  tag: (object) => Object.prototype.toString.call(object),
  'is array': (object) => Array.isArray(object),
  equality: (object) => util.isDeepStrictEqual(object, { Execute: 1 }),
  'an assertion': (object) => assert.deepStrictEqual(object, { a: 1 }),
  clone: (object) => structuredClone(object),
  serialize: (object) => v8.serialize(object),
  concat: (object) => [].concat(object, [object]),
  date: (object) => new Date(object),
  sorted: (object) => [object, object].sort(),
  map: (object) => new Map([[object, 1]]).get(object),
  weak: (object) => new WeakMap([[object, 1]]).get(object),
  'optional call': (object) => object.then?.(() => {}),
};

host.scoped('nothing that looks at a command executes it', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (1)');
  for (const [name, look] of Object.entries(PASSIVE)) {
    try {
      look(command);
    } catch {
      // Some of them may refuse.
    }
    assert.deepStrictEqual(host.kept(connection), [], name);
  }
  // The same statement runs when it is told to.
  command.Execute();
  assert.deepStrictEqual(host.kept(connection), ['integer 1']);
});

host.scoped('nothing that looks at a recordset moves or closes it', () => {
  const { Recordset: rows } = objects();
  for (const [name, look] of Object.entries(PASSIVE)) {
    try {
      look(rows);
    } catch {
      // As above.
    }
    assert.deepStrictEqual([rows.State, rows('id').Value], [1, 1], name);
  }
});

test('awaiting a command does not execute it', async () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (1)');
  assert.strictEqual(await command, command);
  assert.strictEqual(await Promise.resolve(command), command);
  assert.strictEqual((await Promise.all([command]))[0], command);
  assert.deepStrictEqual(host.kept(connection), []);
  command.release();
  connection.release();
});

host.scoped('objects are no promises', () => {
  for (const object of Object.values(objects())) {
    assert.strictEqual(object.then, undefined);
    assert.strictEqual('then' in object, false);
  }
});

host.scoped('objects have no constructor', () => {
  for (const object of Object.values(objects())) {
    assert.strictEqual(object.constructor, undefined);
  }
});

host.scoped('in JSON an object is its class', () => {
  for (const [name, object] of Object.entries(objects())) {
    assert.strictEqual(
      JSON.stringify({ object }), `{"object":"[object ZIRDB.${name}]"}`);
    assert.strictEqual(typeof object.toJSON, 'function');
    assert.strictEqual(object.toJSON(), `[object ZIRDB.${name}]`);
  }
});

host.scoped('objects have the tag of their class, and no other symbols', () => {
  for (const [name, object] of Object.entries(objects())) {
    assert.strictEqual(object[Symbol.toStringTag], `ZIRDB.${name}`);
    assert.strictEqual(
      Object.prototype.toString.call(object), `[object ZIRDB.${name}]`);
    for (const symbol of [
      Symbol('mine'), Symbol.for('theirs'), Symbol.asyncIterator,
      Symbol.isConcatSpreadable, Symbol.species, Symbol.unscopables,
      Symbol.match,
    ]) {
      assert.strictEqual(object[symbol], undefined, String(symbol));
    }
  }
});

host.scoped('objects have no enumerable properties', () => {
  for (const object of Object.values(objects())) {
    assert.deepStrictEqual(Object.keys(object), []);
    assert.deepStrictEqual(PASSIVE['for in'](object), []);
    assert.deepStrictEqual({ ...object }, {});
  }
});

host.scoped('"in" knows release, and what can be iterated', () => {
  for (const [name, object] of Object.entries(objects())) {
    const iterable = ['Recordset', 'Fields', 'Parameters'].includes(name);
    assert.strictEqual(Symbol.iterator in object, iterable, name);
    assert.strictEqual(
      typeof object[Symbol.iterator], iterable ? 'function' : 'undefined');
    assert.strictEqual('release' in object, true);
    assert.strictEqual('Foo' in object, false);
    assert.strictEqual(Symbol('mine') in object, false);
  }
});

host.scoped('as a text an object is its class', () => {
  const all = objects();
  for (const name of ['Connection', 'Command', 'Recordset', 'Fields',
    'Parameters']) {
    const text = `[object ZIRDB.${name}]`;
    assert.strictEqual(`${all[name]}`, text);
    assert.strictEqual(String(all[name]), text);
    assert.strictEqual(all[name].toString(), text);
    assert.strictEqual(all[name].valueOf(), text);
    assert.strictEqual(`${all[name]}` + 1, `${text}1`);
  }
});

host.scoped('fields and parameters compute as their value', () => {
  const connection = host.opened();
  connection.Execute(
    'CREATE TABLE t (n INTEGER, f DOUBLE, b BIT, t TEXT, x BLOB, m INTEGER)');
  connection.Execute(
    "INSERT INTO t VALUES (7, 0.5, 1, 'seven', x'0102', NULL)");
  const rows = connection.Execute('SELECT * FROM t');
  assert.strictEqual(rows('n') + 1, 8);
  assert.strictEqual(rows('n') * rows('f'), 3.5);
  assert.strictEqual(rows('n') > 6, true);
  assert.strictEqual(rows('n') == 7, true);
  assert.strictEqual(`${rows('n')}`, '7');
  assert.strictEqual(`${rows('t')}!`, 'seven!');
  assert.strictEqual(rows('t') + 1, 'seven1');
  assert.strictEqual(String(rows('b')), 'true');
  assert.strictEqual(`${rows('x')}`, '1,2');
  assert.strictEqual(rows('m') + 1, 1);
  assert.strictEqual(`${rows('m')}`, 'null');
  assert.strictEqual(rows('n').valueOf(), 7);
  assert.strictEqual(rows('t').toString(), 'seven');
  assert.strictEqual(rows('n')[Symbol.toPrimitive]('number'), 7);

  const parameter = host.keeper();
  parameter.Value = 2n ** 60n;
  assert.strictEqual(parameter + 1n, 2n ** 60n + 1n);
  parameter.Value = 'text';
  assert.strictEqual(`${parameter}`, 'text');
  const date = new Date(Date.UTC(2024, 1, 29, 18));
  parameter.Value = zirdb.variantDate(date);
  assert.strictEqual(`${parameter}`, String(date));
  assert.strictEqual(parameter + 1, `${date}1`);
  assert.strictEqual(+parameter, date.getTime());
});

host.scoped('inspection shows the class and what is cheap to know', () => {
  const all = objects();
  for (const [name, object] of Object.entries(all)) {
    for (const text of [
      inspect(object), inspect([object]), inspect({ object }, { depth: 0 }),
      printed((output) => output.log(object)), util.format('%O', object),
    ]) {
      assert.ok(text.includes(`ZIRDB.${name}`), text);
      assert.ok(!text.includes('released'), text);
    }
  }
  const plain = (object) => inspect(object).replace(/\s+/g, ' ');
  assert.match(plain(all.Connection), /^ZIRDB\.Connection \{.*State: 1.*\}$/);
  assert.match(plain(all.Field), /^ZIRDB\.Field \{.*\}$/);
  assert.match(plain(all.Field), /\bName: 'name'/);
  assert.match(plain(all.Field), /\bValue: 'saw'/);
  assert.match(plain(all.Parameter), /^ZIRDB\.Parameter \{.*\}$/);
  assert.match(plain(all.Parameter), /\bName: 'p'/);
  assert.match(plain(all.Parameter), /\bValue: 7\b/);
  assert.strictEqual(all.Recordset.Close(), undefined);
  all.Connection.Close();
  assert.match(plain(all.Connection), /State: 0/);
});

host.scoped('inspection does not throw, whatever state an object is in', () => {
  const all = objects();
  all.Recordset.MoveNext();
  all.Recordset.MoveNext();
  all.Recordset.MoveNext();
  const atTheEnd = [all.Recordset('id'), all.Recordset.Fields];
  const check = () => {
    for (const object of [...Object.values(all), ...atTheEnd]) {
      assert.match(inspect(object, { depth: 9 }), /ZIRDB\./);
      assert.match(inspect(object, { showProxy: true }), /./);
    }
  };
  check();
  all.Recordset.Close();
  check();
  all.Connection.Close();
  check();
  for (const [name, object] of Object.entries(all)) {
    object.release();
    for (const text of [inspect(object), inspect({ object }, { depth: 0 })]) {
      assert.ok(text.includes(`ZIRDB.${name}`), text);
      assert.ok(text.includes('(released)'), text);
    }
    assert.match(object.toString(), /ZIRDB\./);
  }
});

host.scoped('a failed assertion over objects prints, and runs nothing', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (1)');
  const error = host.thrownBy(
    () => assert.deepStrictEqual({ command }, { command: 1 }));
  assert.ok(error instanceof assert.AssertionError, String(error));
  assert.deepStrictEqual(host.kept(connection), []);
});

host.scoped('objects are not sent to other threads', () => {
  for (const object of Object.values(objects())) {
    assert.throws(
      () => structuredClone(object), { name: 'DataCloneError' });
  }
});

host.leavesNothing();
