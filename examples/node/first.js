// SPDX-License-Identifier: MIT
//
// The first script: a database in memory, two rows, and one mistake.
'use strict';

const { createObject } = require('zirdb');

const connection = createObject('ZIRDB.Connection');
connection.Open('Driver=SQLite3;Database=:memory:');
connection.Execute('CREATE TABLE item (name TEXT, price DOUBLE)');
connection('INSERT INTO item VALUES (?, ?), (?, ?)', 'saw', 12.5, 'nail', 0.25);
for (const row of connection.Execute('SELECT * FROM item')) {
  console.log(`${row.name}: ${row.price}`);
}
try {
  connection.Execute('SELEC');
} catch (error) {
  console.log(`${error}`);
}
