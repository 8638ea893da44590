// SPDX-License-Identifier: MIT
//
// What for (... of object) walks.
'use strict';

const { native, DISPID_VALUE } = require('./native.js');
const { unscoped } = require('./scopes.js');
const { HANDLER } = require('./values.js');

// Where the iterators of the language keep what they share.
const IteratorPrototype = Object.getPrototypeOf(
  Object.getPrototypeOf([][Symbol.iterator]()),
);

class ObjectIterator {
  [Symbol.iterator]() {
    return this;
  }
}
Object.setPrototypeOf(ObjectIterator.prototype, IteratorPrototype);

const DONE = Object.freeze({ done: true, value: undefined });

/**
 * The rows of a recordset from the current one on, each as { column: value }.
 * At the end, and when the loop is left early, the recordset is closed and
 * released.
 */
class RowIterator extends ObjectIterator {
  constructor(handler) {
    super();
    this.recordset = handler.proxy;
    this.handler = handler;
    this.eof = handler.class.members.get('EOF');
    this.moveNext = handler.class.members.get('MoveNext');
    this.flags = handler.getFlags;
    this.fields = null; // kept, so that their slots stay
    this.names = [];
    this.handlers = [];
  }

  next() {
    if (this.recordset === null) return DONE;
    try {
      const { handler } = this;
      if (this.fields !== null) {
        handler.invoke(this.moveNext.id, this.moveNext.flags, [], []);
      }
      if (handler.read(this.eof)) {
        this.finish();
        return DONE;
      }
      // They serve the whole walk, which may go on behind a scope's end.
      if (this.fields === null) unscoped(() => this.begin());
      return { done: false, value: this.row() };
    } catch (error) {
      this.finish();
      throw error;
    }
  }

  return(value) {
    this.finish();
    return { done: true, value };
  }

  begin() {
    const collection = this.recordset.Fields;
    this.fields = [];
    const names = new Set();
    const count = Number(collection.Count);
    for (let place = 0; place < count; ++place) {
      const field = collection(place);
      // Of columns with the very same name the first counts.
      const name = field.Name;
      if (names.has(name)) {
        field.release();
        continue;
      }
      this.fields.push(field);
      names.add(name);
    }
    this.names = [...names];
    this.handlers = this.fields.map((field) => field[HANDLER]);
    collection.release();
  }

  row() {
    const { names, handlers, flags } = this;
    const row = {};
    for (let i = 0; i < handlers.length; ++i) {
      const name = names[i];
      const value = native.invoke(handlers[i].liveSlot(), DISPID_VALUE, flags);
      if (name === '__proto__') {
        Object.defineProperty(row, name, {
          __proto__: null,
          value,
          configurable: true,
          enumerable: true,
          writable: true,
        });
      } else {
        row[name] = value;
      }
    }
    return row;
  }

  finish() {
    const recordset = this.recordset;
    if (recordset === null) return;
    this.recordset = null;
    for (const field of this.fields ?? []) field.release();
    if (recordset[HANDLER].slot === 0) return;
    try {
      if (Number(recordset.State) === 1) recordset.Close();
    } finally {
      recordset.release();
    }
  }
}

/** The elements of an enumerator, which it lets go at the end. */
class ElementIterator extends ObjectIterator {
  constructor(handler) {
    super();
    this.handler = handler;
  }

  next() {
    if (this.handler === null) return DONE;
    let values;
    try {
      values = this.handler.next(1);
    } catch (error) {
      this.return();
      throw error;
    }
    if (values.length === 1) return { done: false, value: values[0] };
    return this.return();
  }

  return(value) {
    this.handler?.release();
    this.handler = null;
    return { done: true, value };
  }
}

/** The items of a collection that counts them. */
class ItemIterator extends ObjectIterator {
  constructor(handler) {
    super();
    this.collection = handler.proxy;
    this.place = 0;
  }

  next() {
    if (this.place >= Number(this.collection.Count)) return DONE;
    return { done: false, value: this.collection(this.place++) };
  }
}

module.exports = { RowIterator, ElementIterator, ItemIterator };
