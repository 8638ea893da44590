// SPDX-License-Identifier: MIT
//
// zirdb for Node.js: scriptable database objects over ODBC. README.md tells how
// they are used, zirdb.d.ts what there is.
'use strict';

const {
  call,
  createObject,
  get,
  libraryIdle,
  liveObjects,
  put,
  release,
  scope,
} = require('./lib/objects.js');
const { ZirdbError, isNoRows } = require('./lib/errors.js');
const { out, variantDate } = require('./lib/values.js');
const { constants } = require('./lib/classes.js');

module.exports = {
  createObject,
  ZirdbError,
  isNoRows,
  out,
  variantDate,
  scope,
  release,
  liveObjects,
  libraryIdle,
  call,
  get,
  put,
  constants,
};
