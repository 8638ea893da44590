// SPDX-License-Identifier: MIT
//
// The addon, and the numbers that it and the rest agree on.
'use strict';

const native = require('../zirdb.node');

module.exports = {
  native,

  // How a member is invoked.
  METHOD: 1,
  PROPERTY_GET: 2,
  PROPERTY_PUT: 4,
  // Every integer that comes back is a BigInt.
  BIG_INTS: 1 << 16,
  // The result may be large: the garbage collector is told.
  CARRIES_DATA: 1 << 17,
  // The caller makes the proxy of a new object that comes back.
  MAKES_PROXY: 1 << 18,

  // Arguments that are no plain value go as [tag, payload].
  TAG_OBJECT: 0,
  TAG_DATE: 1,
  TAG_ARRAY: 2,
  TAG_OUT: 3,
  TAG_CALLBACK: 4,

  // Instead of a position in the table of classes.
  UNKNOWN_CLASS: -1,
  ENUMERATOR: -2,
  ENUMERATOR_WITH_MEMBERS: -3,

  DISPID_VALUE: 0,
  DISPID_NEWENUM: -4,
};
