// SPDX-License-Identifier: MIT
//
// The objects in TypeScript: what a compiler knows of them. Prices of a small
// shop are raised by a command, and read back three ways.

import {
  constants,
  createObject,
  isNoRows,
  out,
  scope,
  ZirdbError,
  type Connection,
  type Out,
  type Recordset,
  type Row,
} from 'zirdb';

// What the statements of this program select; the database has the last word.
interface Item extends Row {
  name: string;
  price: number | null;
}

// A statement without columns gives no recordset.
function rowsOf(connection: Connection, sql: string): Recordset {
  const rows = connection.Execute(sql);
  if (rows === undefined) throw new Error(`no columns: ${sql}`);
  return rows;
}

function fill(connection: Connection): void {
  connection.Execute('CREATE TABLE item (name TEXT, price DOUBLE)');
  const insert = 'INSERT INTO item VALUES (?, ?)';
  connection(insert, 'saw', 12.5);
  connection(insert, 'nail', 0.25);
  connection(insert, 'gift', null);
}

// Returns how many rows it changed.
function raise(connection: Connection, name: string, by: number): number {
  const command = createObject('ZIRDB.Command');
  command.ActiveConnection = connection;
  command.CommandText = 'UPDATE item SET price = price + ? WHERE name = ?';
  const { ZIRDB_AD_EMPTY, ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT } = constants;
  command.Parameters.Append(
    command.CreateParameter('by', ZIRDB_AD_EMPTY, ZIRDB_AD_PARAM_INPUT, 0, by),
  );
  command.Parameters.Append(
    command.CreateParameter(
      'name', ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT, 40, name,
    ),
  );
  const affected: Out<number> = out();
  try {
    command.Execute(affected);
  } catch (error) {
    if (isNoRows(error)) return 0;
    throw error;
  }
  return affected.value;
}

function total(connection: Connection): number {
  let sum = 0;
  rowsOf(connection, 'SELECT price FROM item').forEach((fields) => {
    sum += fields('price').Value ?? 0;
  });
  return sum;
}

const connection = createObject('ZIRDB.Connection');
connection.Open('Driver=SQLite3;Database=:memory:');

// Everything that comes up in a scope is released behind it.
scope(() => {
  fill(connection);
  console.log(`raised: ${raise(connection, 'saw', 1.5)}`);
  console.log(`raised: ${raise(connection, 'axe', 1.5)}`);

  for (const row of rowsOf(connection, 'SELECT * FROM item ORDER BY name')) {
    const item = row as Item;
    console.log(`${item.name}: ${item.price?.toFixed(2) ?? 'no price'}`);
  }
  console.log(`total: ${total(connection).toFixed(2)}`);
});

const rows = rowsOf(connection, 'SELECT 9007199254740993 AS big, 1 AS small');
for (const field of rows.Fields) {
  console.log(`${field.Name}: ${field.Value} is a ${typeof field.Value}`);
}

try {
  connection.Execute('SELECT * FROM nowhere');
} catch (error) {
  if (!(error instanceof ZirdbError)) throw error;
  console.log(`${error.code} ${error.sqlState} ${error.source}`);
}
connection.Close();
