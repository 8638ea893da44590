// SPDX-License-Identifier: MIT
//
// Objects as scripts see them: a Proxy for each, whose handler knows the slot
// that the addon has for it and the class that says what members there are.
'use strict';

const { inspect } = require('node:util');

const {
  native,
  METHOD,
  PROPERTY_GET,
  PROPERTY_PUT,
  BIG_INTS,
  MAKES_PROXY,
  UNKNOWN_CLASS,
  ENUMERATOR,
  ENUMERATOR_WITH_MEMBERS,
  DISPID_VALUE,
  DISPID_NEWENUM,
} = require('./native.js');
const { ZirdbError, releasedError } = require('./errors.js');
const { classes, unknownClass } = require('./classes.js');
const {
  HANDLER,
  ObjectHandler,
  encode,
  encodeArguments,
  returnArguments,
  settle,
  settled,
} = require('./values.js');
const { enlist, scoped } = require('./scopes.js');
const { RowIterator, ElementIterator, ItemIterator } = require('./iterators.js');

// The handler whose call is under way, while the addon has it.
let caller = null;

// The slot of an object that a call gave back without a proxy, or 0, and its
// class. A way back into wrap() would take the addon longer.
const fresh = new Int32Array(2);

// What members take that nobody has described.
const ANYTHING = [{ rest: true, optional: true }];

class Handler extends ObjectHandler {
  constructor(slot, theClass, flags) {
    super();
    this.slot = slot; // 0: released
    this.class = theClass;
    this.flags = flags;
    this.getFlags = flags | PROPERTY_GET;
    this.proxy = null;
    this.functions = null;
    this.source = null; // what this came out of
    this.scope = null; // what releases this
  }

  get name() {
    return this.class.name;
  }

  get tag() {
    return `[object ${this.name}]`;
  }

  liveSlot() {
    if (this.slot === 0) throw releasedError(this.name);
    return this.slot;
  }

  // Calls.

  invoke(id, flags, parameters, written, what) {
    if (written.length === 0) return this.evaluate(id, flags);
    this.liveSlot(); // complained about before the arguments are
    const encoded = encodeArguments(parameters, written, this.flags, what);
    const sent = settle(encoded);
    const result = this.call(id, flags, encoded);
    if (sent !== null) returnArguments(written, sent, encoded);
    return result;
  }

  read(member) {
    return this.evaluate(member.id, PROPERTY_GET);
  }

  // A call without arguments.
  evaluate(id, flags) {
    const outer = caller;
    caller = this;
    try {
      const result = native.invoke(
        this.liveSlot(),
        id,
        flags | this.flags | MAKES_PROXY,
      );
      return fresh[0] === 0 ? result : this.adopt();
    } finally {
      caller = outer;
    }
  }

  // A call with arguments as the addon takes them.
  call(id, flags, encoded) {
    const outer = caller;
    caller = this;
    try {
      const result = native.invoke(
        this.liveSlot(),
        id,
        flags | this.flags | MAKES_PROXY,
        ...encoded,
      );
      return fresh[0] === 0 ? result : this.adopt();
    } finally {
      caller = outer;
    }
  }

  // Makes the proxy of the object that a call left in `fresh`.
  adopt() {
    const slot = fresh[0];
    fresh[0] = 0;
    let handler = null;
    try {
      handler = handlerFor(slot, fresh[1], this.flags);
      native.attach(slot, handler.proxy);
    } catch (error) {
      if (handler !== null) handler.slot = 0;
      native.release(slot); // nobody else knows it
      throw error;
    }
    enlist(handler);
    return handler.proxy;
  }

  // The next elements of an enumerator.
  next(count) {
    const outer = caller;
    caller = this;
    try {
      return native.next(this.liveSlot(), count, this.flags);
    } finally {
      caller = outer;
    }
  }

  write(member, value) {
    const what = `${this.name}.${member.name}`;
    if (!member.isWritable) {
      throw new TypeError(
        `${what} is ${member.isMethod ? 'a method' : 'read-only'}`,
      );
    }
    const encoded = settled(encode(value, this.flags, what));
    native.invoke(
      this.liveSlot(),
      member.id,
      PROPERTY_PUT | this.flags,
      encoded,
    );
  }

  // The same function each time, as for a method of JavaScript.
  method(member) {
    const functions = (this.functions ??= []);
    return (functions[member.index] ??= (...written) =>
      this.invoke(
        member.id,
        member.flags,
        member.parameters,
        written,
        `${member.className}.${member.name}`,
      ));
  }

  release() {
    const slot = this.slot;
    if (slot === 0) return;
    this.slot = 0;
    this.source = null;
    this.scope?.delete(this);
    this.scope = null;
    native.release(slot);
  }

  // What JavaScript asks of every object.

  value() {
    return this.class.value === undefined
      ? this.tag
      : this.read(this.class.value);
  }

  primitive(hint) {
    const value = this.slot === 0 ? this.tag : this.value();
    if (value instanceof Date) return value[Symbol.toPrimitive](hint);
    return value instanceof Object ? String(value) : value;
  }

  describe(depth, options) {
    if (this.slot === 0) return `${this.name} (released)`;
    const shown = {};
    for (const member of this.class.list) {
      if (!member.isShown) continue;
      try {
        shown[member.name] = this.read(member);
      } catch (error) {
        shown[member.name] = `<${error.message}>`;
      }
    }
    const inner = depth === null ? null : depth - 1;
    return `${this.name} ${inspect(shown, { ...options, depth: inner })}`;
  }

  iterator() {
    switch (this.class.iterates) {
      case 'rows':
        return () => new RowIterator(this);
      case 'items':
        return () => new ItemIterator(this);
      case 'enumerator':
        return () =>
          new ElementIterator(
            this.evaluate(DISPID_NEWENUM, PROPERTY_GET)[HANDLER],
          );
      default:
        return undefined;
    }
  }

  // What is there besides members; undefined says that it is not there.
  own(key) {
    switch (key) {
      case Symbol.iterator:
        return this.iterator();
      case Symbol.toPrimitive:
        return (hint) => this.primitive(hint);
      case Symbol.toStringTag:
        return this.name;
      case 'toString':
      case 'toLocaleString':
        return () => String(this.primitive('string'));
      case 'valueOf':
        return () => this.value();
      case 'toJSON':
        return () => this.tag;
      case 'release':
      case Symbol.dispose: // which older releases of Node do not have
        return () => this.release();
      default:
        return undefined;
    }
  }

  // Traps.

  get(target, key) {
    const member = this.class.members.get(key);
    if (member !== undefined) {
      return member.isMethod && this.slot !== 0
        ? this.method(member)
        : this.read(member);
    }
    return key === HANDLER ? this : this.getOther(key);
  }

  getOther(key) {
    if (typeof key === 'symbol') return this.own(key);
    // A promise asks for the first, a debugger for the second.
    if (key === 'then' || key === 'constructor') return undefined;
    return this.own(key) ?? this.getMember(key);
  }

  getMember(key) {
    const member = this.class.find(key);
    this.liveSlot();
    if (member === undefined) throw this.unknown(key);
    return member.isMethod ? this.method(member) : this.read(member);
  }

  callByName(name, written) {
    const member = this.class.find(name);
    if (member === undefined) throw this.unknown(name);
    if (member.isMethod) return this.method(member)(...written);
    return this.invoke(
      member.id,
      METHOD | PROPERTY_GET,
      ANYTHING,
      written,
      `${this.name}.${member.name}`,
    );
  }

  getByName(name) {
    this.liveSlot();
    return this.getMember(name);
  }

  unknown(key) {
    return new TypeError(
      `${this.name} has no member '${String(key)}'; ` +
        `it has ${this.class.memberNames}`,
    );
  }

  set(target, key, value) {
    this.liveSlot();
    if (typeof key === 'symbol') throw this.unknown(key);
    const member = this.class.members.get(key) ?? this.class.find(key);
    if (member === undefined) throw this.unknown(key);
    this.write(member, value);
    return true;
  }

  apply(target, self, written) {
    const { callParameters, callFlags, value } = this.class;
    if (callParameters === undefined && value === undefined) {
      throw new TypeError(`${this.name} is not a function`);
    }
    const flags = METHOD | PROPERTY_GET | callFlags;
    if (written.length === 1) {
      // recordset('name'), fields(0): most calls are these.
      const only = written[0];
      if (
        typeof only === 'number' ||
        (typeof only === 'string' && !only.includes('\0'))
      ) {
        return this.call(DISPID_VALUE, flags, written);
      }
    }
    return this.invoke(
      DISPID_VALUE,
      flags,
      callParameters ?? [],
      written,
      this.name,
    );
  }

  has(target, key) {
    if (typeof key === 'string' && this.class.find(key) !== undefined) {
      return true;
    }
    return this.own(key) !== undefined;
  }

  deleteProperty(target, key) {
    throw new TypeError(`${this.name}: '${String(key)}' cannot be deleted`);
  }

  defineProperty(target, key) {
    throw new TypeError(`${this.name}: '${String(key)}' cannot be defined`);
  }

  ownKeys() {
    return [];
  }

  getOwnPropertyDescriptor() {
    return undefined;
  }

  getPrototypeOf() {
    return Function.prototype;
  }

  setPrototypeOf() {
    return false;
  }

  preventExtensions() {
    return false;
  }
}

// An object of a class that the table does not have: its members are functions,
// called by name, and properties are read with get().
class UnknownHandler extends Handler {
  idOf(name) {
    const id = native.idOf(this.liveSlot(), name);
    if (id === undefined) {
      throw new TypeError(`the object has no member '${name}'`);
    }
    return id;
  }

  callByName(name, written) {
    return this.invoke(
      this.idOf(name),
      METHOD | PROPERTY_GET,
      ANYTHING,
      written,
      name,
    );
  }

  get(target, key) {
    if (key === HANDLER) return this;
    if (typeof key === 'symbol' || this.own(key) !== undefined) {
      return this.own(key);
    }
    if (key === 'then' || key === 'constructor') return undefined;
    this.idOf(key);
    return (...written) => this.callByName(key, written);
  }

  set(target, key, value) {
    this.put(String(key), value);
    return true;
  }

  getByName(name) {
    return this.evaluate(this.idOf(name), PROPERTY_GET);
  }

  put(name, value) {
    const id = this.idOf(name);
    const encoded = settled(encode(value, this.flags, name));
    native.invoke(this.liveSlot(), id, PROPERTY_PUT | this.flags, encoded);
  }

  apply(target, self, written) {
    return this.invoke(
      DISPID_VALUE,
      METHOD | PROPERTY_GET,
      ANYTHING,
      written,
      'the object',
    );
  }

  has(target, key) {
    if (this.own(key) !== undefined) return true;
    return (
      typeof key === 'string' && native.idOf(this.liveSlot(), key) !== undefined
    );
  }
}

// An object that walks a collection and has members besides.
class WalkingHandler extends UnknownHandler {
  iterator() {
    return () => new ElementIterator(this);
  }
}

// What walks a collection, such as fields._NewEnum.
class EnumeratorHandler extends Handler {
  get name() {
    return 'enumerator';
  }

  iterator() {
    return () => new ElementIterator(this);
  }

  apply() {
    throw new TypeError('an enumerator is not a function');
  }
}

// Inspection looks at what a proxy stands in front of, with the proxy as this.
for (const each of [...classes, unknownClass]) {
  Object.defineProperties(each.target, {
    name: { value: each.name, configurable: true },
    [inspect.custom]: {
      value: function describe(depth, options) {
        return this[HANDLER]?.describe(depth, options) ?? `class ${each.name}`;
      },
      configurable: true,
    },
  });
}

function handlerFor(slot, classIndex, flags) {
  let handler;
  let theClass = unknownClass;
  if (classIndex >= 0) {
    theClass = classes[classIndex];
    if (!theClass.areIdsKnown) theClass.learnIds(slot);
    handler = new Handler(slot, theClass, flags);
  } else if (classIndex === ENUMERATOR) {
    handler = new EnumeratorHandler(slot, theClass, flags);
  } else if (classIndex === ENUMERATOR_WITH_MEMBERS) {
    handler = new WalkingHandler(slot, theClass, flags);
  } else {
    handler = new UnknownHandler(slot, theClass, flags);
  }
  // A function that was taken from an object keeps its handler, and that the
  // proxy: the addon lets the object go when the proxy is gone.
  handler.proxy = new Proxy(theClass.target, handler);
  // A recordset is closed when the last reference to its connection goes: as
  // long as a script has the one, or a field of it, the other is no garbage.
  if (!theClass.isIndependent) handler.source = caller;
  return handler;
}

// Called by the addon for objects that come up by another way than as what a
// call gives back.
function wrap(slot, classIndex, flags) {
  const handler = handlerFor(slot, classIndex, flags);
  enlist(handler);
  return handler.proxy;
}

// Called by the addon for every failure that an object reports.
function fail(number, source, description, classIndex, member) {
  if (typeof member === 'string') {
    return new ZirdbError(
      number,
      source,
      description,
      `${member} could not be created with REGISTRY=${native.registry()}`,
    );
  }
  const theClass = classIndex === UNKNOWN_CLASS ? undefined : classes[classIndex];
  const name = theClass?.list.find((each) => each.id === member)?.name;
  const doing =
    theClass === undefined
      ? ''
      : name === undefined
        ? theClass.name
        : `${theClass.name}.${name}`;
  return new ZirdbError(number, source, description, doing);
}

native.setUp(
  wrap,
  fail,
  classes.map((each) => each.iid),
  fresh,
);

function handlerOf(object) {
  const handler = typeof object === 'function' ? object[HANDLER] : undefined;
  if (!(handler instanceof ObjectHandler)) {
    throw new TypeError('not an object of createObject');
  }
  return handler;
}

function createObject(progId, options = {}) {
  const integers = options.integers ?? 'number';
  if (integers !== 'number' && integers !== 'bigint') {
    throw new TypeError("integers are 'number' or 'bigint'");
  }
  const outer = caller;
  caller = null; // a callback may create objects, which are nobody's
  try {
    return native.create(
      String(progId),
      integers === 'bigint' ? BIG_INTS : 0,
    );
  } finally {
    caller = outer;
  }
}

function release(object) {
  handlerOf(object).release();
}

function scope(run) {
  return scoped(run, (result) =>
    typeof result === 'function' ? result[HANDLER] : undefined,
  );
}

// For classes that are not in the table.

function nameOf(name) {
  if (typeof name === 'string') return name;
  throw new TypeError('members are named by texts');
}

function call(object, name, ...written) {
  return handlerOf(object).callByName(nameOf(name), written);
}

function get(object, name) {
  return handlerOf(object).getByName(nameOf(name));
}

function put(object, name, value) {
  handlerOf(object).set(undefined, nameOf(name), value);
}

module.exports = {
  call,
  createObject,
  get,
  libraryIdle: () => native.idle('ZIRDB'),
  liveObjects: () => native.live(),
  put,
  release,
  scope,
};
