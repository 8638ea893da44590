// SPDX-License-Identifier: MIT
//
// What a failure looks like in JavaScript.
'use strict';

const OPEN_FAILED = '0x80040710';
const EXECUTE_FAILED = '0x80040712';

// What to say when an object gives a code and no words.
const TEXTS = {
  '0x80004001': 'this is not implemented',
  '0x80004002': 'the object does not have that interface',
  '0x80004005': 'the operation failed',
  '0x80010108': 'the callback belongs to an environment that has ended',
  '0x8001010E': 'the callback belongs to another thread',
  '0x80020003': 'there is no such member, or it is not used in this way',
  '0x80020005': 'an argument has the wrong type',
  '0x80020006': 'there is no member of that name',
  '0x80020009': 'the operation failed',
  '0x8002000E': 'the number of arguments is wrong',
  '0x8000FFFF': 'the object is in an unexpected state',
  '0x8007000E': 'out of memory',
  '0x800401F3': 'there is no such library, or no such class in it',
  '0x80070057': 'an argument is wrong',
};

const codeOf = (number) =>
  '0x' + (number >>> 0).toString(16).toUpperCase().padStart(8, '0');

/** A failure that an object reports. */
class ZirdbError extends Error {
  /**
   * @param {number} number the result code, 32 bits with a sign
   * @param {string} source who reports it, '' when nobody says
   * @param {string} description in the reporter's words, '' without any
   * @param {string} doing what was tried, for codes without a description
   */
  constructor(number, source, description, doing) {
    const code = codeOf(number);
    const text = TEXTS[code] ?? 'the operation failed';
    super(description || `${doing ? doing + ': ' : ''}${text} (${code})`);
    this.number = number | 0;
    this.code = code;
    this.source = source;
    this.description = description;
    // The layer puts the state in front of what the driver says.
    const fromDriver = code === OPEN_FAILED || code === EXECUTE_FAILED;
    const state = fromDriver ? /^([0-9A-Z]{5}): /.exec(description) : null;
    this.sqlState = state === null ? undefined : state[1];
  }
}
Object.defineProperty(ZirdbError.prototype, 'name', {
  value: 'ZirdbError',
  configurable: true,
  writable: true,
});

/**
 * Whether this is how drivers such as those of SQLite and PostgreSQL report a
 * change that matched no row: they fail and have nothing to say.
 */
function isNoRows(error) {
  return (
    error instanceof ZirdbError &&
    error.code === EXECUTE_FAILED &&
    error.description === 'ODBC operation failed'
  );
}

function releasedError(name) {
  const error = new Error(`${name}: this object was released`);
  error.code = 'ERR_ZIRDB_RELEASED';
  return error;
}

module.exports = { ZirdbError, isNoRows, releasedError };
