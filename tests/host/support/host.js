// SPDX-License-Identifier: MIT
//
// What the tests of the Node.js host share: a database in memory, what SQLite
// says that it was sent, scripts in processes of their own, and the check that
// a file of tests leaves no object behind.

'use strict';

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const test = require('node:test');

const zirdb = require('zirdb');

const MEMORY = 'Driver=SQLite3;Database=:memory:';

/** A connection to an empty database of its own. */
function opened(options) {
  const connection = zirdb.createObject('ZIRDB.Connection', options);
  connection.Open(MEMORY);
  return connection;
}

/** The same with three items. */
function shop(options) {
  const connection = opened(options);
  connection.Execute(
    'CREATE TABLE item (id INTEGER, name TEXT, price DOUBLE)');
  connection.Execute(
    "INSERT INTO item VALUES (1, 'saw', 12.5), (2, 'nail', 0.25)," +
    " (3, 'gift', NULL)");
  return connection;
}

/** A database whose one table keeps values as they are sent. */
function keeping(options) {
  const connection = opened(options);
  connection.Execute('CREATE TABLE kept (v)');
  return connection;
}

/** What the table of keeping() has: ["integer 7", ...]. Empties it. */
function kept(connection) {
  const rows = connection.Execute(
    "SELECT typeof(v) || ' ' || quote(v) AS sent FROM kept ORDER BY rowid");
  const values = Array.from(rows, (row) => row.sent);
  if (values.length > 0) connection.Execute('DELETE FROM kept');
  return values;
}

/** The first value of the first row. */
function one(connection, sql) {
  const rows = connection.Execute(sql);
  const value = rows(0).Value;
  rows.Close();
  return value;
}

/** A command with this text, and no parameters. */
function commandOf(connection, sql, options) {
  const command = zirdb.createObject('ZIRDB.Command', options);
  command.ActiveConnection = connection;
  command.CommandText = sql;
  return command;
}

/** A parameter of no declared type that nobody executes: it keeps a value. */
function keeper(options) {
  const command = zirdb.createObject('ZIRDB.Command', options);
  return command.CreateParameter('kept', 0, 1, 0);
}

/** What a value is after it went through the library and came back. */
function echoed(value, options) {
  const parameter = keeper(options);
  parameter.Value = value;
  return parameter.Value;
}

/** What a function throws; fails if it does not. */
function thrownBy(fn) {
  let result;
  try {
    result = fn();
  } catch (error) {
    return error;
  }
  return assert.fail(`nothing was thrown, it returned ${typeof result}`);
}

/** A test that lets all of its objects go. Synchronous. */
function scoped(name, fn) {
  test(name, () => zirdb.scope(() => {
    fn();
  }));
}

/** One turn of the event loop. */
function turn() {
  return new Promise((resolve) => {
    setImmediate(resolve);
  });
}

/** Collects garbage until a condition holds, or not: the last answer. */
async function collectedUntil(condition) {
  for (let i = 0; i < 50 && !condition(); ++i) {
    global.gc();
    await turn();
  }
  return condition();
}

/** The last test of a file: nothing of the others is left. */
function leavesNothing() {
  test('these tests leave no object behind', async () => {
    await collectedUntil(() => zirdb.liveObjects() === 0);
    assert.strictEqual(zirdb.liveObjects(), 0);
    assert.strictEqual(zirdb.libraryIdle(), true);
  });
}

/** A folder that goes away with the process. */
function folder() {
  const made = fs.mkdtempSync(path.join(os.tmpdir(), 'zirdb-host-'));
  process.on('exit', () => {
    fs.rmSync(made, { recursive: true, force: true });
  });
  return made;
}

/**
 * Runs a script of its own with the environment changed as told (undefined
 * unsets). `module` makes it an ECMAScript module.
 */
function child(source, { env = {}, module = false, flags = [] } = {}) {
  const environment = { ...process.env, ...env };
  for (const name of ['NODE_OPTIONS', 'NODE_TEST_CONTEXT']) {
    delete environment[name];
  }
  if (!('REGISTRY' in env)) delete environment.REGISTRY;
  for (const name of Object.keys(env)) {
    if (env[name] === undefined) delete environment[name];
  }
  const place = folder();
  const file = path.join(place, module ? 'script.mjs' : 'script.js');
  fs.writeFileSync(file, source);
  // ECMAScript modules are not looked for in NODE_PATH.
  fs.symlinkSync(
    process.env.NODE_PATH.split(path.delimiter)[0],
    path.join(place, 'node_modules'));
  const result = spawnSync(
    process.execPath,
    [...process.execArgv, ...flags, file],
    { env: environment, encoding: 'utf8', timeout: 90000 });
  if (result.error) throw result.error;
  return {
    code: result.status,
    signal: result.signal,
    stdout: result.stdout,
    stderr: result.stderr,
  };
}

/** The same for a script that must end well and prints JSON: what it says. */
function said(source, options) {
  const result = child(source, options);
  assert.strictEqual(
    result.code, 0,
    `exit code ${result.code}, ${result.signal}: ${result.stderr}`);
  return JSON.parse(result.stdout);
}

module.exports = {
  MEMORY,
  child,
  collectedUntil,
  commandOf,
  echoed,
  folder,
  keeper,
  keeping,
  kept,
  leavesNothing,
  one,
  opened,
  said,
  scoped,
  shop,
  thrownBy,
  turn,
};
