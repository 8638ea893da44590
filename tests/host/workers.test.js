// SPDX-License-Identifier: MIT
//
// Worker threads: each has objects, connections and errors of its own, and may
// end at any moment.

'use strict';

const assert = require('node:assert');
const path = require('node:path');
const test = require('node:test');
const { Worker, MessageChannel } = require('node:worker_threads');

const zirdb = require('zirdb');

const host = require('./support/host.js');

/** A worker at its task; resolves with its message and exit code. */
function started(task, data = {}) {
  const worker = new Worker(path.join(__dirname, 'support', 'worker.js'), {
    workerData: { task, ...data },
  });
  const done = new Promise((resolve) => {
    const seen = { message: undefined, error: undefined };
    worker.on('message', (message) => {
      seen.message = message;
    });
    worker.on('error', (error) => {
      seen.error = error;
    });
    worker.on('exit', (code) => resolve({ ...seen, code }));
  });
  return { worker, done };
}

/** What a task said in a worker that ended well. */
async function answered(task, data) {
  const { message, error, code } = await started(task, data).done;
  assert.ifError(error);
  assert.strictEqual(code, 0);
  return message;
}

const ROUNDS = 300;
const SUM = ROUNDS * (ROUNDS + 1);

test('two workers with a connection each', async () => {
  const results = await Promise.all([
    answered('work', { rounds: ROUNDS }),
    answered('work', { rounds: ROUNDS }),
  ]);
  for (const result of results) {
    assert.deepStrictEqual(result, { sum: SUM, live: 1, after: 0 });
  }
  assert.strictEqual(zirdb.libraryIdle(), true);
});

test('workers with a file each, and the main thread with its own', async () => {
  const place = host.folder();
  const connection = host.shop();
  const working = [1, 2].map((i) => answered(
    'work', { rounds: 50, database: path.join(place, `${i}.db`) }));
  let seen = 0;
  const finished = Promise.all(working).then((results) => {
    seen = results.length;
  });
  while (seen === 0) {
    zirdb.scope(() => {
      assert.strictEqual(
        connection('SELECT name FROM item WHERE id = ?', 2)(0).Value, 'nail');
      assert.throws(() => connection.Execute('SELECT'), zirdb.ZirdbError);
    });
    await host.turn();
  }
  await finished;
  assert.strictEqual(seen, 2);
  assert.strictEqual(zirdb.liveObjects(), 1);
  connection.release();
});

test('objects are counted by thread, and idleness by process', async () => {
  const connection = host.opened();
  assert.deepStrictEqual(
    await answered('state'), { live: 0, idle: false });
  connection.release();
  assert.deepStrictEqual(await answered('state'), { live: 0, idle: true });
});

test('what a worker leaves behind goes with it', async () => {
  const { live } = await answered('leave');
  assert.ok(live >= 6, String(live));
  assert.strictEqual(zirdb.liveObjects(), 0);
  assert.strictEqual(zirdb.libraryIdle(), true);
});

test('errors are whole in a worker', async () => {
  assert.deepStrictEqual(await answered('fail'), {
    name: 'ZirdbError',
    code: '0x80040712',
    number: 0x80040712 | 0,
    source: 'ZIRDB.Connection',
    sqlState: 'HY000',
  });
});

test("an error that a worker does not catch is the worker's end", async () => {
  const { error, code } = await started('raise').done;
  assert.strictEqual(error.message, 'raised in a callback');
  assert.strictEqual(code, 1);
  assert.strictEqual(zirdb.libraryIdle(), true);
});

// Whatever a worker is doing, and wherever in it.
for (const task of ['forEach', 'rows', 'callback', 'scope']) {
  test(`a worker is terminated in the middle: ${task}`, async () => {
    for (let i = 0; i < 5; ++i) {
      const signal = new Int32Array(new SharedArrayBuffer(4));
      const { worker, done } = started(task, { signal });
      while (Atomics.load(signal, 0) === 0) await host.turn();
      // Somewhere else each time.
      const until = Date.now() + i * 3;
      while (Date.now() < until) await host.turn();
      await worker.terminate();
      const { error, code, message } = await done;
      assert.strictEqual(error, undefined);
      assert.strictEqual(message, undefined);
      assert.strictEqual(code, 1);
      assert.strictEqual(zirdb.libraryIdle(), true);
    }
  });
}

test('a worker may exit in the middle of a callback', async () => {
  const { error, code, message } = await started('exit').done;
  assert.strictEqual(error, undefined);
  assert.strictEqual(message, undefined);
  assert.strictEqual(code, 5);
  assert.strictEqual(zirdb.libraryIdle(), true);
});

test('twenty workers, one after the other and at once', async () => {
  for (let i = 0; i < 5; ++i) {
    const results = await Promise.all(
      [1, 2, 3, 4].map(() => answered('work', { rounds: 5 })));
    for (const { sum, after } of results) {
      assert.deepStrictEqual([sum, after], [30, 0]);
    }
  }
  assert.strictEqual(zirdb.libraryIdle(), true);
});

test('an object is not passed to another thread', () => {
  const connection = host.opened();
  const { port1, port2 } = new MessageChannel();
  for (const message of [connection, { connection }, [connection]]) {
    assert.throws(
      () => port1.postMessage(message), { name: 'DataCloneError' });
  }
  assert.throws(
    () => new Worker('', { eval: true, workerData: connection }),
    { name: 'DataCloneError' });
  port1.close();
  port2.close();
  connection.release();
});

host.leavesNothing();
