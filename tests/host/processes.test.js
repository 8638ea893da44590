// SPDX-License-Identifier: MIT
//
// Scripts in processes of their own: what they write where, how they end, where
// they look for the library, and how they load the package.

'use strict';

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const EXPORTS = ['createObject', 'ZirdbError', 'isNoRows', 'out',
  'variantDate', 'scope', 'release', 'liveObjects', 'libraryIdle', 'call',
  'get', 'put', 'constants'];

// The lines in which the library says that it does not have a conversion.
const STUB_LINE = /^###VariantChangeType: Implement here 'zir' line \d+\. \(/m;

// Provokes such lines: twice before something is printed and once after.
const PROVOKING = `
'use strict';
const { createObject, variantDate } = require('zirdb');
const connection = createObject('ZIRDB.Connection');
connection.Open('${host.MEMORY}');
function refused(type, value) {
  const command = createObject('ZIRDB.Command');
  command.ActiveConnection = connection;
  command.CommandText = 'SELECT ?';
  command.Parameters.Append(command.CreateParameter('', type, 1, 0, value));
  try {
    command.Execute();
  } catch (error) {
    return error.code;
  }
  return 'nothing';
}
`;

test('a script that prints JSON prints nothing else', () => {
  const { code, stdout, stderr } = host.child(`${PROVOKING}
    const codes = [refused(11, 2.5), refused(3, variantDate(new Date(0)))];
    console.log(JSON.stringify(codes));
    refused(11, 2.5);
    connection.Execute('SELECT 1').forEach(() => {
      console.log('[]');
      refused(20, variantDate(new Date(0)));
      process.stdout.write('""\\n');
    });
    refused(11, 2.5);
    console.log('{}');
  `);
  assert.strictEqual(code, 0, stderr);
  assert.strictEqual(stdout, '["0x80070057","0x80070057"]\n[]\n""\n{}\n');
  assert.match(stderr, STUB_LINE);
  assert.strictEqual(stderr.match(new RegExp(STUB_LINE, 'gm')).length, 5);
});

test('the same into a file, and when the process is ended', () => {
  const place = host.folder();
  const script = path.join(place, 'script.js');
  const output = path.join(place, 'output.json');
  fs.writeFileSync(script, `${PROVOKING}
    const codes = [refused(11, 2.5)];
    require('node:fs').writeSync(1, JSON.stringify(codes));
    refused(11, 2.5);
    process.exit(0);
  `);
  const file = fs.openSync(output, 'w');
  const { status, stderr } = spawnSync(
    process.execPath, [script],
    { stdio: ['ignore', file, 'pipe'], encoding: 'utf8', timeout: 60000 });
  fs.closeSync(file);
  assert.strictEqual(status, 0, stderr);
  assert.strictEqual(fs.readFileSync(output, 'utf8'), '["0x80070057"]');
  assert.strictEqual(stderr.match(new RegExp(STUB_LINE, 'gm')).length, 2);
});

test('the same from a worker', () => {
  const { code, stdout, stderr } = host.child(`
    const { Worker, isMainThread } = require('node:worker_threads');
    if (isMainThread) {
      new Worker(__filename).on('exit', (code) => console.log(code));
    } else {
      (() => { ${PROVOKING} refused(11, 2.5); })();
    }
  `);
  assert.strictEqual(code, 0, stderr);
  assert.strictEqual(stdout, '0\n');
  assert.match(stderr, STUB_LINE);
});

test('loading the package prints nothing', () => {
  const { code, stdout, stderr } = host.child("require('zirdb');");
  assert.deepStrictEqual([code, stdout, stderr], [0, '', '']);
});

test('failing calls print nothing', () => {
  const { code, stdout, stderr } = host.child(`
    const { createObject } = require('zirdb');
    for (const act of [
      () => createObject('Nowhere.Thing'),
      () => createObject('ZIRDB.Connection').Open('Driver=Nowhere'),
      () => createObject('ZIRDB.Connection').Foo,
    ]) {
      try { act(); } catch {}
    }
  `);
  assert.deepStrictEqual([code, stdout, stderr], [0, '', '']);
});

const OPEN_OBJECTS = `
'use strict';
const { createObject } = require('zirdb');
const connection = createObject('ZIRDB.Connection');
connection.Open('${host.MEMORY}');
const rows = connection.Execute('SELECT 1 AS n UNION ALL SELECT 2');
const kept = [connection, rows, rows('n'), rows.Fields._NewEnum];
const command = createObject('ZIRDB.Command');
const parameter = command.CreateParameter('p', 0, 1, 0, () => 7);
kept.push(command, parameter, rows[Symbol.iterator]());
kept[6].next();
process.kept = kept;
`;

// How a script with open objects ends, and the exit code of that.
for (const [name, ending, code] of [
  ['by itself', '', 0],
  ['by process.exit()', 'process.exit();', 0],
  ['by process.exit(0) in a callback',
    'rows.forEach(() => process.exit(0));', 0],
  ['by process.exit(3)', 'process.exit(3);', 3],
  ['by process.exit() in a walk', 'for (const row of rows) process.exit();', 0],
  ['in its exit handler',
    "process.on('exit', () => { kept.forEach((each) => each.release?.()); });",
    0],
  ['after using objects in its exit handler',
    "process.on('exit', () => { connection.Execute('SELECT 1'); });", 0],
  ['by process.reallyExit', 'process.reallyExit(0);', 0],
]) {
  test(`a script with open objects ends ${name}`, () => {
    const result = host.child(OPEN_OBJECTS + ending);
    assert.deepStrictEqual(
      result, { code, signal: null, stdout: '', stderr: '' });
  });
}

test('an error that nobody catches in a callback ends the script', () => {
  const { code, stdout, stderr } = host.child(`${OPEN_OBJECTS}
    rows.forEach(() => { throw new RangeError('not caught'); });
    console.log('not reached');
  `);
  assert.strictEqual(code, 1);
  assert.strictEqual(stdout, '');
  assert.match(stderr, /RangeError: not caught/);
});

test('an error of the library that nobody catches shows what it is', () => {
  const { code, stderr } = host.child(
    `${OPEN_OBJECTS} connection.Execute('SELECT * FROM nowhere');`);
  assert.strictEqual(code, 1);
  assert.match(stderr, /ZirdbError/);
  assert.match(stderr, /no such table: nowhere/);
  assert.match(stderr, /0x80040712/);
});

test('printing objects is printing their class', () => {
  const { code, stdout } = host.child(`${OPEN_OBJECTS}
    console.log(connection, { rows }, [command]);
    console.log('%s %j', connection, command);
    connection.release();
    console.log(connection);
  `);
  assert.strictEqual(code, 0);
  for (const name of ['Connection', 'Recordset', 'Command']) {
    assert.match(stdout, new RegExp(`ZIRDB\\.${name} \\{`));
  }
  assert.match(stdout, /ZIRDB\.Connection.*\(released\)/);
});

test('without REGISTRY the folder of the library is taken', () => {
  const { registry, state, known } = host.said(`
    const before = 'REGISTRY' in process.env;
    const { createObject } = require('zirdb');
    const registry = process.env.REGISTRY;
    const { State: state } = createObject('ZIRDB.Connection');
    console.log(JSON.stringify({ registry, state, known: before }));
  `);
  assert.strictEqual(known, false);
  assert.strictEqual(state, 0);
  assert.strictEqual(path.isAbsolute(registry), true);
  assert.strictEqual(path.basename(registry), 'registry');
  assert.ok(fs.existsSync(path.join(registry, 'ZIRDB.so')), registry);
});

test("a user's REGISTRY is kept", () => {
  const { registry, number, code, message, name } = host.said(`
    const { createObject } = require('zirdb');
    try {
      createObject('ZIRDB.Connection');
    } catch ({ number, code, message, name }) {
      console.log(JSON.stringify({
        registry: process.env.REGISTRY, number, code, message, name }));
    }
  `, { env: { REGISTRY: '/nonexistent' } });
  assert.strictEqual(registry, '/nonexistent');
  assert.strictEqual(name, 'ZirdbError');
  assert.match(message, /\/nonexistent/);
  assert.match(message, /ZIRDB\.Connection/);
  assert.ok(number < 0);
  assert.match(code, /^0x8[0-9A-F]{7}$/);
});

test("a user's empty REGISTRY is kept", () => {
  const { registry, known } = host.said(`
    const { createObject } = require('zirdb');
    try { createObject('ZIRDB.Connection'); } catch {}
    console.log(JSON.stringify({
      registry: process.env.REGISTRY, known: 'REGISTRY' in process.env }));
  `, { env: { REGISTRY: '' } });
  assert.deepStrictEqual([registry, known], ['', true]);
});

test("a user's REGISTRY is where objects come from", () => {
  const place = host.folder();
  const registry = host.said(`
    require('zirdb');
    console.log(JSON.stringify(process.env.REGISTRY));
  `);
  for (const file of fs.readdirSync(registry)) {
    fs.symlinkSync(
      fs.realpathSync(path.join(registry, file)), path.join(place, file));
  }
  assert.deepStrictEqual(host.said(`
    const { createObject } = require('zirdb');
    const { State: state } = createObject('ZIRDB.Connection');
    console.log(JSON.stringify([process.env.REGISTRY, state]));
  `, { env: { REGISTRY: place } }), [place, 0]);
});

test('a REGISTRY that a script sets itself counts', () => {
  const { message } = host.said(`
    const { createObject } = require('zirdb');
    process.env.REGISTRY = '/elsewhere';
    try {
      createObject('ZIRDB.Connection');
    } catch ({ message }) {
      console.log(JSON.stringify({ message }));
    }
  `);
  assert.match(message, /\/elsewhere/);
});

test('workers find the library, too', () => {
  assert.deepStrictEqual(host.said(`
    const { Worker, isMainThread, parentPort } =
      require('node:worker_threads');
    if (isMainThread) {
      new Worker(__filename).on(
        'message', (message) => console.log(JSON.stringify(message)));
    } else {
      const { createObject } = require('zirdb');
      parentPort.postMessage(createObject('ZIRDB.Connection').State);
    }
  `), 0);
});

test('the package has these exports', () => {
  assert.deepStrictEqual(Object.keys(zirdb).sort(), [...EXPORTS].sort());
});

test('an ECMAScript module imports them by name', () => {
  const { rows, same, state } = host.said(`
    import zirdb, { ${EXPORTS.join(', ')} } from 'zirdb';
    import * as all from 'zirdb';
    const rows = scope(() => {
      const connection = createObject('ZIRDB.Connection');
      connection.Open('${host.MEMORY}');
      return [...connection('SELECT ? AS n', 7)];
    });
    console.log(JSON.stringify({
      rows,
      same: [${EXPORTS.map((name) => `all.${name} === zirdb.${name}`)}],
      state: constants.ZIRDB_STATE_OPEN,
    }));
  `, { module: true });
  assert.deepStrictEqual(rows, [{ n: 7 }]);
  assert.strictEqual(same.length, EXPORTS.length);
  assert.ok(same.every(Boolean));
  assert.strictEqual(state, 1);
});

test('a script may load the package twice', () => {
  assert.deepStrictEqual(host.said(`
    const first = require('zirdb');
    for (const name of Object.keys(require.cache)) delete require.cache[name];
    const second = require('zirdb');
    const results = [first !== second];
    for (const { createObject, scope, liveObjects } of [first, second]) {
      scope(() => {
        const connection = createObject('ZIRDB.Connection');
        connection.Open('${host.MEMORY}');
        results.push([...connection.Execute('SELECT 7 AS n')][0].n);
        results.push(liveObjects());
      });
      results.push(liveObjects());
    }
    console.log(JSON.stringify(results));
  `), [true, 7, 1, 0, 7, 1, 0]);
});

test('a garbage collection at the end is harmless', () => {
  assert.deepStrictEqual(
    host.child(`
      ${OPEN_OBJECTS}
      process.on('exit', () => { process.kept = null; global.gc(); });
    `, { flags: ['--expose-gc'] }),
    { code: 0, signal: null, stdout: '', stderr: '' });
});

host.leavesNothing();
