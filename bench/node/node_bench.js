// SPDX-License-Identifier: MIT
//
// node_bench: what a script pays for the host. Each of its calls stands beside
// the same one made directly in C++ (direct.cpp), in turn and in one process;
// and what does loading it add to the start of node? README.md in the folder
// above says how to read the table.
//
// Sections: the two forms; cases; measuring; start-up; the report; the command
// line.
//
// Time is CPU time of all threads of the process, so that what V8's helpers do
// counts as well. All cases warm up before any is timed: a script, too, uses
// more than one member, and code that V8 made for a single one would flatter.
'use strict';

const { spawnSync } = require('node:child_process');
const { setImmediate: nextTurn } = require('node:timers/promises');
const { parseArgs } = require('node:util');
const v8 = require('node:v8');
const vm = require('node:vm');

const SKIPPED = 77;
const DATABASE = 'Driver=SQLite3;Database=:memory:';

class Unavailable extends Error {}

// ---------------------------------------------------------------------------
// The two forms
//
// Both select from a table of their own with the same rows.
// ---------------------------------------------------------------------------

const textOf = (id) => `item ${id}`;

function tableOf(rows) {
  return [
    'CREATE TABLE item (id INTEGER, name TEXT)',
    'INSERT INTO item WITH RECURSIVE number(id) AS (SELECT 1 UNION ALL ' +
      `SELECT id + 1 FROM number WHERE id < ${rows}) ` +
      "SELECT id, 'item ' || id FROM number",
  ];
}

class Direct {
  constructor(direct) {
    this.direct = direct;
  }
  open(rows) {
    this.direct.open(DATABASE);
    for (const sql of tableOf(rows)) this.direct.run(sql);
  }
  select(sql) {
    this.direct.select(sql);
  }
  pass(each, count) {
    return this.direct[each.name](count);
  }
  close() {
    this.direct.close();
  }
}

class Host {
  constructor(zirdb) {
    this.zirdb = zirdb;
    this.rows = null;
  }
  open(rows) {
    this.connection = this.zirdb.createObject('ZIRDB.Connection');
    try {
      this.connection.Open(DATABASE);
    } catch (error) {
      // There is no such driver, or none that loads.
      if (error.sqlState !== 'IM002' && error.sqlState !== '01000') throw error;
      throw new Unavailable(error.message);
    }
    for (const sql of tableOf(rows)) this.connection.Execute(sql);
  }
  select(sql) {
    this.rows?.release();
    this.rows = this.connection.Execute(sql);
  }
  pass(each, count) {
    return each.script(this.rows, count, this.connection);
  }
  close() {
    this.rows.release();
    this.connection.release();
  }
}

// ---------------------------------------------------------------------------
// Cases
//
// `name` is what the direct form exports; `what` it is for the reader. `wanted`
// is what the pass must sum up to, with `last` the id of the row in front.
// `everyRow`: a pass takes the whole table, as often as it has rows. `limit`:
// how many nanoseconds above the direct form are allowed. `share`: how large a
// part of the usual number of calls is enough.
// ---------------------------------------------------------------------------

const FEW_ROWS = 'SELECT id, name FROM item ORDER BY id DESC LIMIT 3';
const ALL_ROWS = 'SELECT id, name FROM item';

const sumOf = (rows, weight) => {
  let sum = 0;
  for (let id = 1; id <= rows; ++id) sum += weight(id);
  return sum;
};

const CASES = [
  {
    name: 'readStates',
    what: 'property, `rows.State`',
    limit: 150,
    script(rows, count) {
      let sum = 0;
      for (let i = 0; i < count; ++i) sum += rows.State;
      return sum;
    },
    wanted: (count) => count,
  },
  {
    name: 'readIntegers',
    what: 'property, `field.Value`, integer',
    limit: 150,
    script(rows, count) {
      const field = rows('id');
      let sum = 0;
      for (let i = 0; i < count; ++i) sum += field.Value;
      return sum;
    },
    wanted: (count, last) => count * last,
  },
  {
    name: 'readTexts',
    what: 'property, `field.Value`, text',
    limit: 150,
    script(rows, count) {
      const field = rows('name');
      let sum = 0;
      for (let i = 0; i < count; ++i) sum += field.Value.length;
      return sum;
    },
    wanted: (count, last) => count * textOf(last).length,
  },
  {
    name: 'moveFirst',
    what: 'method, `rows.MoveFirst()`',
    limit: 250,
    // Tells where the recordset was left.
    script(rows, count) {
      rows.MoveNext();
      for (let i = 0; i < count; ++i) rows.MoveFirst();
      return rows('id').Value;
    },
    wanted: (count, last) => last,
  },
  {
    name: 'readByName',
    what: "`rows('id').Value`",
    script(rows, count) {
      let sum = 0;
      for (let i = 0; i < count; ++i) sum += rows('id').Value;
      return sum;
    },
    wanted: (count, last) => count * last,
  },
  {
    name: 'forEachCounting',
    what: '`forEach`, nothing read, per row',
    everyRow: true,
    script(rows) {
      let sum = 0;
      rows.forEach(() => {
        ++sum;
      });
      return sum;
    },
    wanted: (count) => count,
  },
  {
    name: 'forEachReading',
    what: "`forEach`, `fields('id').Value`, per row",
    everyRow: true,
    limit: 1000,
    script(rows) {
      let sum = 0;
      rows.forEach((fields) => {
        sum += fields('id').Value;
      });
      return sum;
    },
    wanted: (count) => sumOf(count, (id) => id),
  },
  {
    name: 'walk',
    what: '`for (row of rows)`, two columns, per row',
    everyRow: true,
    script(rows) {
      let sum = 0;
      for (const row of rows) sum += row.id + row.name.length;
      return sum;
    },
    wanted: (count) => sumOf(count, (id) => id + textOf(id).length),
  },
  {
    name: 'executeOneRow',
    what: '`Execute` of one row, `State`, `release`',
    share: 0.02,
    script(rows, count, connection) {
      let sum = 0;
      for (let i = 0; i < count; ++i) {
        const one = connection.Execute('SELECT 7 AS id');
        sum += one.State;
        one.release();
      }
      return sum;
    },
    wanted: (count) => count,
  },
];

// ---------------------------------------------------------------------------
// Measuring
// ---------------------------------------------------------------------------

function median(values) {
  const sorted = [...values].sort((left, right) => left - right);
  const middle = sorted.length >> 1;
  return sorted.length % 2 === 1
    ? sorted[middle]
    : (sorted[middle - 1] + sorted[middle]) / 2;
}

const spreadOf = (values) => ({
  median: median(values),
  least: Math.min(...values),
  most: Math.max(...values),
});

// Differences and ratios are those of the two halves of each repetition, which
// met the machine in the same state.
const compared = (direct, host) => ({
  direct: median(direct),
  host: median(host),
  difference: spreadOf(host.map((time, i) => time - direct[i])),
  ratio: spreadOf(host.map((time, i) => time / direct[i])),
});

async function measureCases(cases, options, direct, forms) {
  v8.setFlagsFromString('--expose-gc');
  const collect = vm.runInNewContext('gc');
  const last = options.rows;

  // Nanoseconds per call, or per row.
  async function timed(form, each) {
    const count = each.everyRow
      ? options.rows
      : Math.ceil(options.calls * (each.share ?? 1));
    form.select(each.everyRow ? ALL_ROWS : FEW_ROWS);
    // What the pass before left behind is not this one's.
    collect();
    await nextTurn();
    const begin = direct.cpu();
    const sum = form.pass(each, count);
    const end = direct.cpu();
    const wanted = each.wanted(count, last);
    if (sum !== wanted) {
      throw new Error(
        `${each.name} by ${form.constructor.name}: ${sum} instead of ${wanted}`,
      );
    }
    return (end - begin) / count;
  }

  // The host says best what is missing, so it goes first.
  for (const form of [...forms].reverse()) form.open(options.rows);
  const times = cases.map(() => forms.map(() => []));
  for (let round = -options.warmUps; round < options.repetitions; ++round) {
    for (const [place, each] of cases.entries()) {
      // Neither form always comes first.
      for (const which of round % 2 === 0 ? [0, 1] : [1, 0]) {
        const time = await timed(forms[which], each);
        if (round >= 0) times[place][which].push(time);
      }
    }
  }
  for (const form of forms) form.close();
  return cases.map((each, place) => ({
    name: each.name,
    what: each.what,
    unit: 'ns',
    ...compared(...times[place]),
    limit: each.limit ?? null,
  }));
}

// ---------------------------------------------------------------------------
// Start-up
// ---------------------------------------------------------------------------

const STARTS = ['0', "require('zirdb').createObject('ZIRDB.Connection')"];

// Milliseconds of a fresh process, CPU time and elapsed.
function started(direct, script) {
  const cpu = direct.children();
  const begin = process.hrtime.bigint();
  const child = spawnSync(process.execPath, ['-e', script], {
    encoding: 'utf8',
    timeout: 60000,
  });
  const elapsed = Number(process.hrtime.bigint() - begin);
  if (child.status !== 0 || child.stdout !== '') {
    throw new Error(
      `node -e "${script}" ends with ${child.status}: ` +
        `${child.stdout}${child.stderr}${child.error ?? ''}`,
    );
  }
  return { cpu: (direct.children() - cpu) / 1e6, elapsed: elapsed / 1e6 };
}

function measureStarts(options, direct) {
  const times = { cpu: [[], []], elapsed: [[], []] };
  // The first pair brings the files into memory.
  for (let round = -1; round < options.starts; ++round) {
    for (const which of round % 2 === 0 ? [0, 1] : [1, 0]) {
      const time = started(direct, STARTS[which]);
      if (round < 0) continue;
      times.cpu[which].push(time.cpu);
      times.elapsed[which].push(time.elapsed);
    }
  }
  return [
    { name: 'startCpu', what: 'start-up, CPU time', kind: 'cpu', limit: 15 },
    {
      name: 'startElapsed',
      what: 'start-up, elapsed',
      kind: 'elapsed',
      limit: 15,
    },
  ].map(({ name, what, kind, limit }) => ({
    name,
    what,
    unit: 'ms',
    ...compared(...times[kind]),
    limit,
  }));
}

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

function lineOf(figures) {
  const { unit, direct, host, difference, ratio, limit } = figures;
  const digits = unit === 'ms' ? 1 : 0;
  const rounded = (value) => value.toFixed(digits);
  const verdict = difference.median <= limit ? 'reached' : 'missed';
  const target = limit === null ? '' : `${limit} ${unit}: ${verdict}`;
  return `| ${[
    figures.what,
    `${rounded(direct)} ${unit}`,
    `${rounded(host)} ${unit}`,
    `${rounded(difference.median)} ${unit}`,
    `${rounded(difference.least)} to ${rounded(difference.most)}`,
    ratio.median.toFixed(2),
    `${ratio.least.toFixed(2)} to ${ratio.most.toFixed(2)}`,
    target,
  ].join(' | ')} |`;
}

function report(results) {
  const heads = [
    'Case',
    'direct',
    'host',
    'difference',
    'spread',
    'ratio',
    'spread',
    'target',
  ];
  console.log(`| ${heads.join(' | ')} |`);
  console.log(`|${heads.map(() => '---').join('|')}|`);
  for (const figures of results) console.log(lineOf(figures));
}

// ---------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------

const USAGE =
  'usage: node node_bench.js [--quick] [--json] [--case TEXT] ' +
  '[--repetitions N]';

function optionsOf(line) {
  const { values } = parseArgs({
    args: line,
    options: {
      quick: { type: 'boolean', default: false },
      json: { type: 'boolean', default: false },
      case: { type: 'string', default: '' },
      repetitions: { type: 'string', default: '' },
    },
  });
  const sizes = values.quick
    ? { rows: 200, calls: 200, repetitions: 1, warmUps: 0, starts: 1 }
    : { rows: 200000, calls: 200000, repetitions: 9, warmUps: 3, starts: 15 };
  if (values.repetitions !== '') {
    if (!/^[1-9][0-9]{0,2}$/.test(values.repetitions)) {
      throw new TypeError('--repetitions takes a number from 1 to 999');
    }
    sizes.repetitions = Number(values.repetitions);
    sizes.starts = Math.max(sizes.starts, sizes.repetitions);
  }
  return { ...sizes, ...values, repetitions: sizes.repetitions };
}

async function main() {
  let options;
  try {
    options = optionsOf(process.argv.slice(2));
  } catch (error) {
    console.error(`node_bench: ${error.message}\n${USAGE}`);
    return 2;
  }
  const isWanted = (name) => name.includes(options.case);
  const cases = CASES.filter((each) => isWanted(each.name));
  const wantsStarts = ['startCpu', 'startElapsed'].some(isWanted);
  if (cases.length === 0 && !wantsStarts) {
    console.error(`node_bench: there is no case "${options.case}"`);
    return 2;
  }
  try {
    const direct = require('zirdb_bench_direct.node');
    const results = [];
    if (cases.length > 0) {
      const forms = [new Direct(direct), new Host(require('zirdb'))];
      results.push(...(await measureCases(cases, options, direct, forms)));
    }
    if (wantsStarts) results.push(...measureStarts(options, direct));
    if (options.quick) {
      // Figures of so few calls mean nothing.
      for (const { what } of results) console.log(`${what}: as it should be`);
    } else if (options.json) {
      console.log(JSON.stringify({ node: process.version, results }, null, 2));
    } else {
      report(results);
    }
    return 0;
  } catch (error) {
    if (!(error instanceof Unavailable)) throw error;
    console.error(`node_bench: skipped: ${error.message}`);
    return SKIPPED;
  }
}

main().then((status) => {
  process.exitCode = status;
});
