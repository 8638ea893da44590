// SPDX-License-Identifier: MIT
//
// Values on their way to an object: what the addon takes as it is, and what it
// takes as [tag, payload]. What comes back is made by the addon alone.
'use strict';

const { isDate, isUint8Array } = require('node:util').types;

const {
  native,
  TAG_OBJECT,
  TAG_DATE,
  TAG_ARRAY,
  TAG_OUT,
  TAG_CALLBACK,
} = require('./native.js');

// The handler behind a proxy is its property of this name.
const HANDLER = Symbol('zirdb.handler');

// Deeper than any program means it, and shallow enough for every stack.
const DEEPEST = 64;

/** What a handler is known by, whatever else answers to HANDLER. */
class ObjectHandler {}

/** A place for what a call gives back. */
class Out {
  constructor(value) {
    this.value = value;
  }
}

/** A date that is passed as a date instead of as text. */
class VariantDate {
  constructor(date) {
    this.date = date;
  }
}

function out(initial) {
  return new Out(initial);
}

function variantDate(date) {
  if (!isDate(date) || Number.isNaN(date.getTime())) {
    throw new TypeError('variantDate takes a valid Date');
  }
  return new VariantDate(new Date(date));
}

// Days since 1899-12-30, as dates are counted there.
function daysOf(date) {
  return date.getTime() / 86400000 + 25569;
}

function dateText(date, what) {
  if (Number.isNaN(date.getTime())) {
    throw new RangeError(`${what} is an invalid Date`);
  }
  const text = date.toISOString();
  if (text.length !== 24) {
    throw new RangeError(`${what} is a Date outside the years 0 to 9999`);
  }
  return `${text.slice(0, 10)} ${text.slice(11, 23)}`;
}

// A function that others call with their arguments and take a value from.
function callback(call, flags) {
  const answer = (...values) => {
    const result = call(...values);
    if (result === undefined) return undefined;
    try {
      return settled(encode(result, flags, 'the result'));
    } catch {
      return undefined; // what has no form there is nothing there
    }
  };
  return [TAG_CALLBACK, answer, flags];
}

function encodeArray(array, flags, what, depth) {
  // Array.from reads holes as undefined, which map would pass over.
  return Array.from(array, (element, index) => {
    const place = `${what}, element ${index},`;
    // An Empty slot asks for a value back.
    return element instanceof Out
      ? encodeInitial(element, flags, place, depth)
      : encode(element, flags, place, depth);
  });
}

// What is in an out before the call, which may be nothing.
function encodeInitial(place, flags, what, depth) {
  const { value } = place;
  if (value instanceof Out) {
    throw new TypeError(`${what} is an out() in an out()`);
  }
  return value === undefined ? undefined : encode(value, flags, what, depth);
}

/**
 * `value` as the addon takes it. `what` names it in complaints.
 */
function encode(value, flags, what, depth = 0) {
  switch (typeof value) {
    case 'number':
    case 'boolean':
      return value;
    case 'string':
      if (value.includes('\0')) {
        throw new TypeError(`${what} holds U+0000, where a text would end`);
      }
      return value;
    case 'bigint':
      if (BigInt.asIntN(64, value) !== value) {
        throw new RangeError(`${what} does not fit into 64 bits`);
      }
      return value;
    case 'undefined':
      throw new TypeError(
        `${what} is undefined: pass null for NULL, out() for an output`,
      );
    case 'function': {
      const handler = value[HANDLER];
      return handler instanceof ObjectHandler
        ? [TAG_OBJECT, handler]
        : callback(value, flags);
    }
    case 'object':
      break;
    default:
      throw new TypeError(`${what} is a ${typeof value}, which has no value`);
  }
  if (value === null) return null;
  if (depth === DEEPEST) {
    throw new TypeError(`${what} is in too many others`);
  }
  if (Array.isArray(value)) {
    return [TAG_ARRAY, encodeArray(value, flags, what, depth + 1)];
  }
  if (isUint8Array(value)) return value;
  if (isDate(value)) return dateText(value, what);
  if (value instanceof VariantDate) return [TAG_DATE, daysOf(value.date)];
  if (value instanceof Out) {
    return [TAG_OUT, encodeInitial(value, flags, what, depth + 1)];
  }
  throw new TypeError(
    `${what} is an object of JavaScript: pass text, numbers, null, a Date, ` +
      'a Uint8Array, an array or an object of createObject',
  );
}

/**
 * What was encoded, with slots for objects. Not before everything is encoded:
 * reading an array may run code of the script, and that may release an object.
 */
function settled(encoded) {
  if (!Array.isArray(encoded)) return encoded;
  const [tag, payload] = encoded;
  if (tag === TAG_OBJECT) encoded[1] = payload.liveSlot();
  if (tag === TAG_ARRAY) payload.forEach(settled);
  if (tag === TAG_OUT) settled(payload);
  return encoded;
}

function isSameBytes(left, right) {
  return (
    isUint8Array(left) &&
    left.length === right.length &&
    left.every((byte, index) => byte === right[index])
  );
}

function isNumeric(value) {
  return typeof value === 'number' || typeof value === 'bigint';
}

// Whether what came back says the same as what was sent.
function isUnchanged(original, sent, received) {
  if (isUint8Array(sent)) return isSameBytes(received, sent);
  if (Array.isArray(sent)) {
    switch (sent[0]) {
      case TAG_DATE:
        return (
          isDate(received) &&
          received.getTime() === original.date.getTime()
        );
      case TAG_CALLBACK: // comes back as the object that was made of it
        return (
          received?.[HANDLER] instanceof ObjectHandler &&
          native.functionOf(received[HANDLER].slot) === sent[1]
        );
      default:
        return received === original;
    }
  }
  // An integer may come back in the other form, never as another one.
  if (isNumeric(sent) && isNumeric(received)) {
    return sent == received || Object.is(sent, received);
  }
  return sent === received;
}

// Elements that say the same stay what the caller put there: a Date a Date.
function copyBack(original, sent, received) {
  if (!Array.isArray(received)) return;
  if (original.length !== received.length) original.length = received.length;
  received.forEach((now, index) => {
    const before = original[index];
    const was = sent[index];
    if (before instanceof Out) {
      before.value = now;
    } else if (
      Array.isArray(before) &&
      Array.isArray(was) &&
      Array.isArray(now)
    ) {
      copyBack(before, was[1], now);
    } else if (!isUnchanged(before, was, now)) {
      original[index] = now;
    }
  });
}

function hasDefault(parameter) {
  return parameter !== undefined && Object.hasOwn(parameter, 'default');
}

/**
 * The arguments that a call makes of what the script wrote. Trailing ones that
 * are undefined were not written; others have the value that the table gives.
 */
function encodeArguments(parameters, written, flags, what) {
  let count = written.length;
  const at = (index) =>
    parameters[index] ??
    (parameters.at(-1)?.rest ? parameters.at(-1) : undefined);
  const mayBeMissing = (index) => {
    const parameter = at(index);
    return (
      parameter === undefined ||
      hasDefault(parameter) ||
      parameter.optional === true
    );
  };
  while (
    count > 0 &&
    written[count - 1] === undefined &&
    mayBeMissing(count - 1)
  ) {
    --count;
  }
  const encoded = [];
  for (let index = 0; index < count; ++index) {
    const value = written[index];
    switch (typeof value) {
      // Most are, and need no name for complaints.
      case 'number':
        encoded.push(value);
        continue;
      case 'string':
        if (!value.includes('\0')) {
          encoded.push(value);
          continue;
        }
        break;
      case 'undefined':
        if (hasDefault(at(index))) {
          encoded.push(at(index).default);
          continue;
        }
        break;
      default:
        break;
    }
    encoded.push(encode(value, flags, `${what}: argument ${index + 1}`));
  }
  return encoded;
}

/** Gives the script what a call stored in its outs and arrays. */
function returnArguments(written, sent, encoded) {
  for (let index = 0; index < encoded.length; ++index) {
    const original = written[index];
    if (original instanceof Out) {
      original.value = encoded[index][1];
    } else if (Array.isArray(original)) {
      copyBack(original, sent[index], encoded[index][1]);
    }
  }
}

/**
 * Makes encoded arguments ready for a call. The payloads that they have before
 * it, because it writes over them; null when they are all plain values.
 */
function settle(encoded) {
  return encoded.some(Array.isArray)
    ? encoded.map(settled).map((each) => (Array.isArray(each) ? each[1] : each))
    : null;
}

module.exports = {
  HANDLER,
  ObjectHandler,
  out,
  variantDate,
  encode,
  encodeArguments,
  returnArguments,
  settle,
  settled,
};
