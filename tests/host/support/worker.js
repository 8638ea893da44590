// SPDX-License-Identifier: MIT
//
// What the worker threads of the tests do, by the name of the task: each loads
// the package for itself.

'use strict';

const { parentPort, workerData } = require('node:worker_threads');

const zirdb = require('zirdb');

const { task, signal } = workerData;

const ENDLESS = 'WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1' +
  ' FROM r LIMIT 1000) SELECT n FROM r';

function opened(database = ':memory:') {
  const connection = zirdb.createObject('ZIRDB.Connection');
  connection.Open(`Driver=SQLite3;Database=${database}`);
  return connection;
}

// Tells that the thread is in the middle of what it does.
function underWay() {
  Atomics.add(signal, 0, 1);
  Atomics.notify(signal, 0);
}

const TASKS = {
  // Statements, rows and callbacks for a while: the sum of what was read.
  work({ rounds, database }) {
    const connection = opened(database);
    connection.Execute('CREATE TABLE IF NOT EXISTS t (n INTEGER, s TEXT)');
    let sum = 0;
    for (let i = 1; i <= rounds; ++i) {
      zirdb.scope(() => {
        connection('INSERT INTO t VALUES (?, ?)', i, `row ${i}`);
        connection('SELECT n, s FROM t WHERE n = ?', i).forEach((fields) => {
          if (fields('s').Value !== `row ${i}`) throw new Error('mixed up');
          sum += fields('n').Value;
        });
        for (const { n } of connection('SELECT ? AS n', i)) sum += n;
      });
    }
    const live = zirdb.liveObjects();
    connection.release();
    return { sum, live, after: zirdb.liveObjects() };
  },

  // Objects that nobody releases.
  leave() {
    const connection = opened();
    const rows = connection.Execute('SELECT 1 AS n');
    globalThis.kept = [connection, rows, rows('n'), rows.Fields._NewEnum];
    const command = zirdb.createObject('ZIRDB.Command');
    const parameter = command.CreateParameter('p', 0, 1, 0, () => 7);
    globalThis.kept.push(command, parameter);
    return { live: zirdb.liveObjects() };
  },

  state() {
    return { live: zirdb.liveObjects(), idle: zirdb.libraryIdle() };
  },

  // An error, as the worker sees it.
  fail() {
    const connection = opened();
    try {
      connection.Execute('SELECT * FROM nowhere');
    } catch (error) {
      const { name, code, number, source, sqlState } = error;
      return { name, code, number, source, sqlState };
    } finally {
      connection.release();
    }
    return {};
  },

  raise() {
    const connection = opened();
    connection.Execute('SELECT 1').forEach(() => {
      throw new Error('raised in a callback');
    });
  },

  // Walks without end.
  forEach() {
    const connection = opened();
    for (;;) {
      connection.Execute(ENDLESS).forEach((fields) => {
        if (fields('n').Value === 500) underWay();
      });
    }
  },

  rows() {
    const connection = opened();
    for (;;) {
      for (const { n } of connection.Execute(ENDLESS)) {
        if (n === 500) underWay();
      }
    }
  },

  // Inside one callback for good.
  callback() {
    opened().Execute(ENDLESS).forEach(() => {
      opened().Execute(ENDLESS).forEach(() => {
        underWay();
        for (;;);
      });
    });
  },

  scope() {
    zirdb.scope(() => {
      const connection = opened();
      for (;;) {
        zirdb.scope(() => {
          connection.Execute(ENDLESS).forEach(underWay);
        });
      }
    });
  },

  exit() {
    opened().Execute(ENDLESS).forEach(() => {
      process.exit(5);
    });
  },
};

const result = TASKS[task](workerData);
parentPort.postMessage(result);
