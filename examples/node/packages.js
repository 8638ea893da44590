// SPDX-License-Identifier: MIT
//
// packages: this machine's list of installed packages as an SQLite database,
// asked three questions in SQL.
//
//   node packages.js [WORD]      the word to look for; default "compiler"
'use strict';

const { execFileSync } = require('node:child_process');
const { mkdtempSync, rmSync } = require('node:fs');
const { tmpdir } = require('node:os');
const { join } = require('node:path');

const { createObject } = require('zirdb');

const WIDEST_COLUMN = 60;

// An array [name, version, section, KiB, summary] for each installed package.
function installedPackages() {
  const fields = [
    '${db:Status-Status}',
    '${binary:Package}',
    '${Version}',
    '${Section}',
    '${Installed-Size}',
    '${binary:Summary}',
  ];
  let list;
  try {
    list = execFileSync('dpkg-query', ['-W', '-f', fields.join('\t') + '\n'], {
      encoding: 'utf8',
      maxBuffer: 1 << 28,
    });
  } catch (error) {
    throw new Error(
      'no list of packages: this needs dpkg-query, as Debian has it',
      { cause: error },
    );
  }
  return list
    .split('\n')
    .map((line) => line.split('\t'))
    .filter(([status]) => status === 'installed')
    .map(([, name, version, section, kib, summary]) => [
      name,
      version,
      section || null,
      Number(kib),
      summary,
    ]);
}

/** @param {import('zirdb').Connection} connection */
function load(connection) {
  connection.Execute(`
    CREATE TABLE package (
      name TEXT PRIMARY KEY, version TEXT, section TEXT, kib INTEGER,
      summary TEXT)`);
  const packages = installedPackages();
  // One transaction: without it every row is a commit of its own.
  connection.Execute('BEGIN');
  for (const each of packages) {
    connection('INSERT INTO package VALUES (?, ?, ?, ?, ?)', ...each);
  }
  connection.Execute('COMMIT');
  return packages.length;
}

const isNumber = (/** @type {unknown} */ value) => typeof value === 'number';

function shown(/** @type {unknown} */ value) {
  const text = String(value ?? 'NULL');
  return text.length > WIDEST_COLUMN
    ? text.slice(0, WIDEST_COLUMN - 3) + '...'
    : text;
}

/** @param {import('zirdb').Row[]} rows */
function print(rows) {
  const names = Object.keys(rows[0] ?? {});
  const widths = names.map((name) =>
    Math.max(name.length, ...rows.map((row) => shown(row[name]).length)),
  );
  const line = (/** @type {string[]} */ cells) =>
    cells
      .map((cell, i) =>
        isNumber(rows[0][names[i]])
          ? cell.padStart(widths[i])
          : cell.padEnd(widths[i]),
      )
      .join('  ')
      .trimEnd();
  if (rows.length > 0) {
    console.log(line(names));
    console.log(line(widths.map((width) => '-'.repeat(width))));
  }
  for (const row of rows) console.log(line(names.map((name) => shown(row[name]))));
  console.log(`(${rows.length} ${rows.length === 1 ? 'row' : 'rows'})`);
}

/** @param {import('zirdb').Connection} connection */
function ask(connection, /** @type {string} */ word) {
  const question = (
    /** @type {string} */ heading,
    /** @type {string} */ sql,
    /** @type {string[]} */ ...values
  ) => {
    console.log(`\n${heading}\n`);
    print([...(connection(sql, ...values) ?? [])]);
  };

  question(
    'The ten largest packages',
    `SELECT name, version, section, kib / 1024 AS mib
     FROM package ORDER BY kib DESC, name LIMIT 10`,
  );
  question(
    'The ten sections that take most room',
    `SELECT section, COUNT(*) AS packages, SUM(kib) / 1024 AS mib,
            ROUND(AVG(kib), 1) AS mean_kib
     FROM package GROUP BY section ORDER BY SUM(kib) DESC, section LIMIT 10`,
  );
  question(
    `Packages that speak of "${word}"`,
    `SELECT name, summary FROM package
     WHERE summary LIKE ? ORDER BY name`,
    `%${word}%`,
  );
}

const folder = mkdtempSync(join(tmpdir(), 'packages-'));
const connection = createObject('ZIRDB.Connection');
try {
  connection.Open(`Driver=SQLite3;Database=${join(folder, 'packages.db')}`);
  const start = performance.now();
  const count = load(connection);
  const took = Math.round(performance.now() - start);
  console.log(`${count} installed packages, loaded in ${took} ms`);
  ask(connection, process.argv[2] ?? 'compiler');
} catch (error) {
  console.error(`packages: ${error instanceof Error ? error.message : error}`);
  process.exitCode = 1;
} finally {
  connection.Close();
  rmSync(folder, { recursive: true });
}
