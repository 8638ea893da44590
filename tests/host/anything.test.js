// SPDX-License-Identifier: MIT
//
// Programs that make no sense: whatever they do, the host answers with errors
// of its own, and nothing is left when they are through.

'use strict';

const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const test = require('node:test');

for (const number of [1, 2, 3]) {
  test(`senseless program ${number}`, () => {
    // Its conversions are senseless, too, and tell so in many lines.
    const { status, signal, stdout, stderr } = spawnSync(
      process.execPath,
      [...process.execArgv, path.join(__dirname, 'support', 'anything.js'),
        String(number)],
      { encoding: 'utf8', timeout: 120000, maxBuffer: 2 ** 28 });
    const told = stderr.split('\n').filter((line) => !/^###/.test(line));
    assert.strictEqual(status, 0, `${signal} ${told.slice(0, 50).join('\n')}`);
    assert.deepStrictEqual(told, ['']);
    assert.deepStrictEqual(JSON.parse(stdout), { odd: [], live: 0 });
  });
}
