// SPDX-License-Identifier: MIT
//
// Objects of another component library, Echo.Box, which gives and takes what no
// database does: values of every type, callbacks that it keeps and calls from
// anywhere, failures of every form, objects of all sorts.

'use strict';

const assert = require('node:assert');
const test = require('node:test');
const { inspect } = require('node:util');
const { Worker } = require('node:worker_threads');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const { call, get, put, out, variantDate } = zirdb;

function newBox(options) {
  return zirdb.createObject('Echo.Box', options);
}

const BIGINT = { integers: 'bigint' };
const mine = new Error('mine');

function thrower() {
  throw mine;
}

// ---------------------------------------------------------------------------
// Values that come back
// ---------------------------------------------------------------------------

// Kind, value, and the value of an object whose integers are BigInts.
const GIVEN = [
  ['Empty', undefined],
  ['Null', null],
  ['I1', -128, -128n],
  ['I2', -32768, -32768n],
  ['I4', -2, -2n],
  ['I4Wide', 2 ** 40, 2n ** 40n],
  ['UI1', 200, 200n],
  ['UI2', 60000, 60000n],
  ['UI4', 4294967295, 4294967295n],
  ['UI8', 12, 12n],
  ['UI8Large', 2n ** 63n + 1n],
  ['I8Least', -(2n ** 63n)],
  ['I8Safe', 2 ** 53 - 1, 2n ** 53n - 1n],
  ['I8Large', 2n ** 53n],
  ['I8NegativeSafe', 1 - 2 ** 53, 1n - 2n ** 53n],
  ['I8NegativeLarge', -1n - 2n ** 53n],
  ['R4', Math.fround(0.1)],
  ['R8', 0.1],
  ['R8Infinite', -Infinity],
  ['CY', -1.2345],
  ['True', true],
  ['TrueOne', true],
  ['False', false],
  ['Date', new Date('1970-01-01T18:00:00Z')],
  ['DateZero', new Date('1899-12-30T00:00:00Z')],
  ['DateNegative', new Date('1899-12-28T18:00:00Z')],
  ['DateFraction', new Date('2000-01-01T00:00:00.333Z')],
  ['LPSTR', 'hé 😀'],
  ['LPSTRNull', ''],
  ['BSTR', 'text'],
  ['BSTRNull', ''],
  ['BSTRLatin', 'éÿ'],
  ['BSTRZero', 'a\0b\0'],
  ['BSTRAstral', '😀\u{10FFFF}\uFFFF'],
  ['BSTRLoneSurrogate', 'a\uD83Db'],
  ['NullDispatch', null],
  ['NullUnknown', null],
  ['Texts', ['a', '', 'b\0c']],
  ['Variants', [7, 'in', null, undefined, true, [null]],
    [7n, 'in', null, undefined, true, [null]]],
  ['Bytes', new Uint8Array([1, 0, 255])],
  ['NoElements', []],
  ['NoBytes', new Uint8Array()],
  ['RefI1', -5, -5n],
  ['RefI2', -6, -6n],
  ['RefI4', -7 * 2 ** 40, -7n * 2n ** 40n],
  ['RefI8', -8, -8n],
  ['RefUI1', 250, 250n],
  ['RefUI2', 65000, 65000n],
  ['RefUI4', 4000000000, 4000000000n],
  ['RefUI8', 9, 9n],
  ['RefR4', 0.5],
  ['RefR8', -0.25],
  ['RefBool', true],
  ['RefDate', new Date('1970-01-02T12:00:00Z')],
  ['RefCY', 2.5],
  ['RefBSTR', 'led to'],
  ['RefDispatch', null],
  ['RefVariant', 'held'],
  ['RefChain', -6, -6n],
];

const REFUSED = ['TwoDimensions', 'ArrayOfRefused', 'RefRing', 'RefNowhere',
  'RefVariantNowhere', 'RefDecimal', 'Decimal', 'Variant', 'Pointer',
  'Unheard'];

// Every way by which a value gets into a script.
const WAYS_BACK = {
  call: (box, kind) => call(box, 'Return', kind),
  get: (box, kind) => get(box, kind),
  'a method': (box, kind) => box.Return(kind),
  'a function of the property': (box, kind) => box[kind](),
  'the argument of a callback': (box, kind) => {
    const seen = [];
    box.CallWithKind((...given) => {
      seen.push(...given);
    }, kind);
    assert.strictEqual(seen.length, 1);
    return seen[0];
  },
  'out()': (box, kind) => {
    const place = out('before');
    box.Store(place, kind);
    return place.value;
  },
};

for (const [way, read] of Object.entries(WAYS_BACK)) {
  host.scoped(`values of every type come back by ${way}`, () => {
    const box = newBox();
    for (const [kind, value] of GIVEN) {
      assert.deepStrictEqual(read(box, kind), value, kind);
    }
  });

  host.scoped(`integers come back as BigInts by ${way}`, () => {
    const box = newBox(BIGINT);
    for (const [kind, value, big = value] of GIVEN) {
      assert.deepStrictEqual(read(box, kind), big, kind);
    }
  });

  host.scoped(`a VT_ERROR by ${way} is an error that nobody threw`, () => {
    const error = read(newBox(BIGINT), 'Error');
    assert.ok(error instanceof zirdb.ZirdbError);
    assert.strictEqual(error.code, '0x80020004');
    assert.strictEqual(error.number, 0x80020004 | 0);
  });

  host.scoped(`what has no form is refused when it comes by ${way}`, () => {
    const box = newBox();
    for (const kind of REFUSED) {
      assert.throws(() => read(box, kind), TypeError, kind);
    }
    assert.strictEqual(read(box, 'I2'), -32768);
  });

  host.scoped(`a date that is no number is an invalid one by ${way}`, () => {
    const date = read(newBox(), 'DateInvalid');
    assert.ok(date instanceof Date && Number.isNaN(date.getTime()));
  });

  host.scoped(`what is no character is harmless by ${way}`, () => {
    const text = read(newBox(), 'BSTRNoCharacter');
    assert.match(text, /^a\uFFFD+b$/);
  });
}

host.scoped('bytes that come back are a copy', () => {
  const box = newBox();
  const bytes = new Uint8Array([1, 2]);
  box.Value = bytes;
  bytes[0] = 9;
  const first = get(box, 'Value');
  first[1] = 9;
  assert.deepStrictEqual(get(box, 'Value'), new Uint8Array([1, 2]));
});

host.scoped('a reference to an array leads to its elements', () => {
  let seen;
  newBox().CallWithArray((array) => {
    seen = array;
  });
  assert.deepStrictEqual(seen, [7, 'in', null, undefined, true, [null]]);
});

// ---------------------------------------------------------------------------
// Values that are sent
// ---------------------------------------------------------------------------

function characters(text) {
  return `VT_BSTR${Array.from(text, (each) => ` U+${
    each.codePointAt(0).toString(16).toUpperCase().padStart(4, '0')}`).join('')
  }`;
}

const SENT = [
  [7, 'VT_I8 7'],
  [-0, 'VT_I8 0'],
  [-7n, 'VT_I8 -7'],
  [2 ** 53, 'VT_I8 9007199254740992'],
  [-(2 ** 63), 'VT_I8 -9223372036854775808'],
  [2n ** 63n - 1n, 'VT_I8 9223372036854775807'],
  [2 ** 63, 'VT_R8 9.2233720368547758e+18'],
  [2.5, 'VT_R8 2.5'],
  [Infinity, 'VT_R8 inf'],
  [true, 'VT_BOOL -1'],
  [false, 'VT_BOOL 0'],
  [null, 'VT_NULL'],
  ['text', characters('text')],
  ['é😀\u{10FFFF}', characters('é😀\u{10FFFF}')],
  ['\uDE00a\uD83D', 'VT_BSTR U+DE00 U+0061 U+D83D'],
  ['😀'.repeat(200), characters('😀'.repeat(200))],
  [new Date(Date.UTC(2024, 1, 29, 12, 30, 1, 5)),
    characters('2024-02-29 12:30:01.005')],
  [variantDate(new Date(Date.UTC(1970, 0, 2, 12))), 'VT_DATE 25570.5'],
  [variantDate(new Date(Date.UTC(1899, 11, 28, 18))), 'VT_DATE -1.25'],
  [new Uint8Array([1, 0, 255]), 'VT_ARRAY|VT_UI1 from 0 01 00 FF'],
  [Buffer.from('a'), 'VT_ARRAY|VT_UI1 from 0 61'],
  [new Uint8Array(), 'VT_ARRAY|VT_UI1 from 0'],
  [[], 'VT_ARRAY|VT_VARIANT from 0'],
  [[1, [null, 0.5], new Uint8Array([7]), out(), out(3)],
    'VT_ARRAY|VT_VARIANT from 0 {VT_I8 1} {VT_ARRAY|VT_VARIANT from 0' +
    ' {VT_NULL} {VT_R8 0.5}} {VT_ARRAY|VT_UI1 from 0 07} {VT_EMPTY} {VT_I8 3}'],
  [() => {}, 'VT_DISPATCH'],
];

// Every way by which a value gets to an object.
const WAYS_THERE = {
  call: (box, value) => call(box, 'Describe', value),
  'a method': (box, value) => box.Describe(value),
  'the default member': (box, value) => box(value),
  put: (box, value) => {
    put(box, 'Value', value);
    return get(box, 'DescribedValue');
  },
  'a property': (box, value) => {
    box.Value = value;
    return box.DescribedValue();
  },
  'the result of a callback': (box, value) => box.DescribeAnswer(() => value),
  'an argument of many': (box, value) =>
    box.Describe(1, 2, 3, 4, 5, 6, 7, 8, value, 9)
      .replace(/^(VT_I8 [1-8], ){8}/, '').replace(/, VT_I8 9$/, ''),
  'an element': (box, value) =>
    /^VT_ARRAY\|VT_VARIANT from 0 \{(.*)\}$/.exec(box.Describe([value]))[1],
  'out()': (box, value) =>
    box.Describe(out(value)).replace(/^VT_BYREF\|VT_VARIANT -> /, ''),
};

for (const [way, send] of Object.entries(WAYS_THERE)) {
  host.scoped(`values arrive in their types by ${way}`, () => {
    const box = newBox();
    for (const [value, text] of SENT) {
      assert.strictEqual(send(box, value), text, inspect(value));
    }
    assert.strictEqual(send(box, box), 'VT_DISPATCH');
    assert.strictEqual(send(box, box.Plain()), 'VT_UNKNOWN');
    // A box that holds itself would stay.
    box.Value = null;
  });
}

host.scoped('arguments arrive in their order', () => {
  const box = newBox();
  assert.strictEqual(
    box(1, null, true, out(), 0.5),
    'VT_I8 1, VT_NULL, VT_BOOL -1, VT_BYREF|VT_VARIANT -> VT_EMPTY, VT_R8 0.5');
  let seen;
  const result = box.Call((...given) => {
    seen = given;
    return 'answer';
  }, 1, 'two', null, [3], box);
  assert.deepStrictEqual(seen.slice(0, 4), [1, 'two', null, [3]]);
  assert.strictEqual(seen[4], box);
  assert.strictEqual(result, 'answer');
});

host.scoped('undefined at the end was not written', () => {
  const box = newBox();
  assert.strictEqual(box.Describe(1, undefined, undefined), 'VT_I8 1');
  assert.strictEqual(call(box, 'Describe', 1, undefined), 'VT_I8 1');
  assert.strictEqual(box(undefined), '');
  assert.throws(() => box.Describe(undefined, 1), TypeError);
});

host.scoped('a result without a form is Empty', () => {
  const box = newBox();
  for (const value of [undefined, {}, Symbol('s'), 2n ** 64n, 'a\0b',
    new Date(NaN), new Map(), [() => {}, {}]]) {
    assert.strictEqual(
      box.DescribeAnswer(() => value), 'VT_EMPTY', inspect(value));
  }
});

host.scoped('what a property was given comes back', () => {
  const box = newBox();
  for (const value of [7, 2.5, 'x', '😀', null, true, [1, ['y']]]) {
    put(box, 'Value', value);
    assert.deepStrictEqual(get(box, 'Value'), value);
    assert.deepStrictEqual(box.Value(), value);
  }
});

// ---------------------------------------------------------------------------
// Outs and arrays
// ---------------------------------------------------------------------------

host.scoped('out() has the value after a call that succeeds only', () => {
  const box = newBox();
  const place = out();
  assert.throws(() => box.StoreAndFail(place, 'I2'), { code: '0x80004005' });
  assert.strictEqual(place.value, undefined);
  box.Store(place, 'I2');
  assert.strictEqual(place.value, -32768);
  call(box, 'Store', place, 'Variants');
  assert.deepStrictEqual(
    place.value, [7, 'in', null, undefined, true, [null]]);
});

for (const options of [undefined, BIGINT]) {
  host.scoped(`elements that nobody changed stay what they were: ${
    inspect(options)}`, () => {
    const box = newBox(options);
    const array = [
      7, -7n, -0, NaN, 2 ** 60, 2.5, true, false, null, 'x', '', '7', '😀',
      new Date(0), variantDate(new Date(1.5e12 + 1)), new Uint8Array([1]),
      [1, new Date(0)], () => {}, box, box.Child(), out(),
    ];
    const before = [...array];
    const [, inner] = before.filter(Array.isArray)[0];
    box.Leave(array);
    assert.strictEqual(array.length, before.length);
    before.forEach((value, place) => {
      assert.ok(
        Object.is(array[place], value),
        `${place}: ${inspect(value)} became ${inspect(array[place])}`);
    });
    assert.strictEqual(array.filter(Array.isArray)[0][1], inner);
    assert.strictEqual(array.at(-1).value, undefined);
  });
}

host.scoped('an element that is no IDispatch stays what it was', () => {
  const box = newBox();
  const plain = box.Plain();
  const array = [plain];
  box.Leave(array);
  assert.strictEqual(array[0], plain);
});

const D = new Date(Date.UTC(2024, 1, 29));
// What is there, what it is replaced by, what it is then: of an object whose
// integers are numbers, and of the other one.
const REPLACED = [
  [1, 'x', 'x'],
  [1, 2, 2, 2n],
  [1, true, true],
  [true, 1, 1, 1n],
  [true, false, false],
  [false, 0, 0, 0n],
  [null, 0, 0, 0n],
  [0, null, null],
  ['', 0, 0, 0n],
  ['7', 7, 7, 7n],
  ['9007199254740993', 9007199254740993n, 9007199254740993n],
  [7, '7', '7'],
  ['x', 'y', 'y'],
  [D, 'x', 'x'],
  [variantDate(D), variantDate(new Date(0)), new Date(0)],
  [new Uint8Array([1]), new Uint8Array([2]), new Uint8Array([2])],
  [new Uint8Array([1]), [1], [1], [1n]],
  [[1], new Uint8Array([1]), new Uint8Array([1])],
  [[1], 'x', 'x'],
  ['x', ['y'], ['y']],
];

for (const big of [false, true]) {
  for (const [from, to, number, bigint = number] of REPLACED) {
    host.scoped(`an element is replaced: ${inspect(from)} by ${inspect(to)}${
      big ? ', BigInts' : ''}`, () => {
      const array = ['before', from, 'behind'];
      newBox(big ? BIGINT : undefined).Replace(array, 1, to);
      assert.deepStrictEqual(
        array, ['before', big ? bigint : number, 'behind']);
    });
  }
}

host.scoped('a function among the elements is replaced by an object', () => {
  const box = newBox();
  const array = [() => {}];
  box.Replace(array, 0, box);
  assert.strictEqual(array[0], box);
});

host.scoped('a function among the elements is replaced by another', () => {
  const box = newBox();
  const array = [() => 1];
  box.Keep(() => 2);
  box.Replace(array, 0, box.Kept());
  assert.strictEqual(array[0](), 2);
});

host.scoped('out() among the elements has what it is replaced by', () => {
  const box = newBox();
  const places = [out(), out('before'), out()];
  const array = [...places];
  box.Replace(array, 0, 5);
  assert.deepStrictEqual(places.map((each) => each.value), [
    5, 'before', undefined]);
  assert.ok(array.every((each, place) => each === places[place]));
});

host.scoped('an array inside of an array takes its new elements', () => {
  const box = newBox();
  for (const [from, to] of [[[1], [1, 2, 3]], [[1, 2, 3], [4]], [[1], []]]) {
    const inner = [...from];
    const array = [inner];
    box.Replace(array, 0, to);
    assert.strictEqual(array[0], inner);
    assert.deepStrictEqual(inner, to);
  }
});

// ---------------------------------------------------------------------------
// Members
// ---------------------------------------------------------------------------

host.scoped('an object of an unknown class behaves as an object', () => {
  const box = newBox();
  assert.strictEqual(typeof box, 'function');
  assert.strictEqual('Describe' in box, true);
  assert.strictEqual('Nothing' in box, false);
  assert.strictEqual(box.then, undefined);
  assert.strictEqual(box.constructor, undefined);
  assert.strictEqual(typeof JSON.parse(JSON.stringify({ box })).box, 'string');
  assert.deepStrictEqual(Object.keys(box), []);
  assert.strictEqual(typeof inspect(box), 'string');
  assert.strictEqual(typeof `${box}`, 'string');
  assert.throws(() => box.Nothing, { name: 'TypeError', message: /Nothing/ });
  assert.throws(() => call(box, 'Nothing'), TypeError);
  assert.throws(() => get(box, 'Nothing'), TypeError);
  assert.throws(() => put(box, 'Nothing', 1), TypeError);
  assert.throws(() => {
    box.Nothing = 1;
  }, TypeError);
  assert.throws(() => put(box, 'Value', undefined), TypeError);
  assert.throws(() => put(box, 'Describe', 1), { code: '0x80020003' });
  assert.throws(() => get(box, 'Return'), { code: '0x8002000E' });
  assert.throws(() => box.I2(1), { code: '0x8002000E' });
});

host.scoped('a released object of an unknown class says so', () => {
  const box = newBox();
  const method = box.Describe;
  box.release();
  box.release();
  const RELEASED = { code: 'ERR_ZIRDB_RELEASED' };
  assert.throws(() => box.Describe, RELEASED);
  assert.throws(() => method(1), RELEASED);
  assert.throws(() => box(1), RELEASED);
  assert.throws(() => call(box, 'Describe', 1), RELEASED);
  assert.throws(() => get(box, 'I2'), RELEASED);
  assert.throws(() => put(box, 'Value', 1), RELEASED);
  assert.throws(() => newBox().Describe(box), RELEASED);
  assert.match(inspect(box), /\(released\)/);
});

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

const FAILURES = [
  ['filled', {
    code: '0x800A000A',
    number: 0x800A000A | 0,
    source: 'Echo.Box é',
    description: 'went wrong 😀',
    message: 'went wrong 😀',
  }],
  ['deferred', {
    code: '0x800A000B',
    source: 'Echo.Later',
    description: 'said when asked',
    message: 'said when asked',
  }],
  ['silently', { code: '0x800A000C', source: '', description: '' }],
  ['plainly', { code: '0x800A0005', source: '', description: '' }],
  ['words for nothing', { code: '0x80020005', source: '', description: '' }],
  // A number that is no failure's; some code has to be there.
  ['positive', { source: '', description: 'number of its own' }],
  ['without a reason', { source: '', description: '' }],
];

for (const [way, expected] of FAILURES) {
  host.scoped(`an object that fails ${way}`, () => {
    for (const box of [newBox(), newBox(BIGINT)]) {
      for (const fail of [() => box.Fail(way), () => call(box, 'Fail', way)]) {
        const error = host.thrownBy(fail);
        assert.ok(error instanceof zirdb.ZirdbError);
        for (const [name, value] of Object.entries(expected)) {
          assert.strictEqual(error[name], value, name);
        }
        assert.ok(error.number < 0 && error.message !== '', inspect(error));
        assert.strictEqual(error.sqlState, undefined);
      }
    }
  });
}

// ---------------------------------------------------------------------------
// What callbacks throw
// ---------------------------------------------------------------------------

const THROWN = [mine, new TypeError('of mine'), 'a text', 7, 0n, false, null,
  undefined, { toString: () => 'an object' }];

for (const thrown of THROWN) {
  const raise = () => {
    throw thrown;
  };

  host.scoped(`a callback throws ${inspect(String(thrown))}`, () => {
    const box = newBox();
    assert.strictEqual(host.thrownBy(() => box.Call(raise)), thrown);
    assert.strictEqual(host.thrownBy(() => call(box, 'Call', raise)), thrown);
    box.Keep(raise);
    assert.strictEqual(host.thrownBy(() => get(box, 'CallKept')), thrown);
    assert.strictEqual(host.thrownBy(() => box.Kept()()), thrown);
    // Two boxes deep.
    assert.strictEqual(
      host.thrownBy(() => box.Call(() => box.Call(raise))), thrown);
    box.Drop();
  });

  host.scoped(`a component sees that ${inspect(String(thrown))} was thrown`,
    () => {
      assert.strictEqual(
        newBox().Swallow(raise), `0x80020009 0x80004005: ${String(thrown)}`);
    });
}

for (const [name, thrown] of [
  ['a symbol', Symbol('mine')],
  ['an object without a text', Object.create(null)],
  ['an object whose text fails', { toString: thrower }],
  ['a text with a zero', 'a\0b'],
]) {
  host.scoped(`a component sees nothing of ${name} but the failure`, () => {
    const box = newBox();
    const raise = () => {
      throw thrown;
    };
    assert.match(box.Swallow(raise), /^0x80020009 0x80004005/);
    assert.strictEqual(host.thrownBy(() => box.Call(raise)), thrown);
  });
}

host.scoped('callbacks without end run out of stack, as functions do', () => {
  const box = newBox();
  let depth = 0;
  const deeper = () => {
    ++depth;
    box.Call(deeper);
  };
  assert.throws(deeper, RangeError);
  assert.ok(depth > 10, `${depth}`);
  assert.throws(() => box.CallAndFail(() => {}), {
    description: 'the box itself' });
});

host.scoped('what a component swallows does not come out later', () => {
  const box = newBox();
  assert.match(box.Swallow(thrower), /mine/);
  assert.throws(() => box.Fail('plainly'), { code: '0x800A0005' });
  assert.throws(
    () => box.Call(() => {
      box.Swallow(thrower);
      box.Fail('plainly');
    }),
    { code: '0x800A0005' });
  assert.throws(
    () => box.CallAndFail(() => box.Swallow(thrower)),
    { description: 'the box itself' });
});

host.scoped('a failure after a callback that went well is its own', () => {
  assert.throws(
    () => newBox().CallAndFail(() => {}), {
      code: '0x800A0001', description: 'the box itself' });
});

host.scoped('an exception that the script catches leaves no trace', () => {
  const box = newBox();
  const caught = [];
  const nested = () => {
    caught.push(host.thrownBy(() => box.Call(thrower)));
    return 'went on';
  };
  assert.strictEqual(box.Call(nested), 'went on');
  assert.throws(() => box.CallAndFail(nested), {
    description: 'the box itself' });
  assert.deepStrictEqual(caught, [mine, mine]);
});

host.scoped('a nested exception leaves the one outside alone', () => {
  const box = newBox();
  const outer = new Error('outer');
  const raise = () => {
    throw outer;
  };
  // After the outer one was thrown, before it comes out.
  for (const between of [
    () => {},
    () => host.thrownBy(() => box.Call(thrower)),
    () => box.Swallow(thrower),
    () => host.thrownBy(() => box.Fail('filled')),
    () => box.Call(() => host.thrownBy(() => box.Call(thrower))),
  ]) {
    assert.strictEqual(
      host.thrownBy(() => box.CallBoth(raise, between)), outer);
  }
});

host.scoped('what is thrown as an object goes is not of the call', () => {
  const box = newBox();
  const bell = box.Bell(thrower);
  assert.throws(() => box.CallAndFail(() => bell.release()), {
    description: 'the box itself' });
});

host.scoped('what an enumeration throws is not of the call outside', () => {
  const box = newBox();
  const walk = () => {
    host.thrownBy(() => [...box.EnumerateCalling(thrower, 1)]);
  };
  assert.throws(() => box.CallAndFail(walk), {
    description: 'the box itself' });
});

host.scoped('what a callback of an enumeration throws comes out', () => {
  const box = newBox();
  assert.strictEqual(
    host.thrownBy(() => [...box.EnumerateCalling(thrower, 1)]), mine);
});

// ---------------------------------------------------------------------------
// Callbacks that are kept
// ---------------------------------------------------------------------------

// For tests that count: what others left is gone.
async function drained() {
  assert.ok(await host.collectedUntil(() => zirdb.liveObjects() === 0));
}

// Counts the functions that the collector finds. A WeakRef would not do: asking
// it keeps what it refers to for a turn.
function collections() {
  const gone = { count: 0 };
  gone.registry = new FinalizationRegistry(() => {
    ++gone.count;
  });
  return gone;
}

test('a kept callback stays, and is let go of', async () => {
  const box = newBox();
  const gone = collections();
  (() => {
    const callback = () => 'still there';
    gone.registry.register(callback);
    box.Keep(callback);
  })();
  for (let i = 0; i < 3; ++i) {
    global.gc();
    await host.turn();
  }
  assert.strictEqual(box.CallKept(), 'still there');
  assert.strictEqual(box.Kept()(), 'still there');
  assert.strictEqual(box.Kept(), box.Kept());
  assert.strictEqual(gone.count, 0);
  box.Kept().release();
  box.Drop();
  assert.ok(await host.collectedUntil(() => gone.count === 1));
  box.release();
});

host.scoped('a callback has a default member and no other', () => {
  const box = newBox();
  let calls = 0;
  const count = () => {
    ++calls;
  };
  for (const [member, flags, code] of [
    [0, 1, '0x00000000'],
    [0, 2, '0x00000000'],
    [0, 3, '0x00000000'],
    [0, 4, '0x80020003'],
    [0, 8, '0x80020003'],
    [1, 1, '0x80020003'],
    [-4, 2, '0x80020003'],
  ]) {
    assert.strictEqual(box.Probe(count, member, flags), code);
  }
  assert.strictEqual(calls, 3);
});

host.scoped('on another thread a callback runs nothing', () => {
  const box = newBox();
  let calls = 0;
  const count = () => {
    ++calls;
  };
  assert.strictEqual(box.CallOnThread(count), '0x8001010E');
  assert.strictEqual(call(box, 'CallOnThread', count), '0x8001010E');
  assert.strictEqual(calls, 0);
  box.Call(count);
  assert.strictEqual(calls, 1);
});

test('a callback is let go of on another thread', async () => {
  const box = newBox();
  const gone = collections();
  const pass = (number) => {
    const callback = () => number;
    gone.registry.register(callback);
    box.Keep(callback);
    box.ReleaseOnThread();
  };
  for (let i = 0; i < 100; ++i) pass(i);
  assert.ok(await host.collectedUntil(() => {
    zirdb.liveObjects();
    return gone.count === 100;
  }), `${gone.count}`);
  box.release();
});

test('an object that a callback keeps goes with it on another thread',
  async () => {
    await drained();
    const box = newBox();
    (() => {
      const other = box.Other();
      box.Keep(() => other.I2());
    })();
    assert.strictEqual(box.CallKept(), -32768);
    assert.strictEqual(zirdb.liveObjects(), 2);
    box.ReleaseOnThread();
    assert.ok(await host.collectedUntil(() => zirdb.liveObjects() === 1));
    assert.strictEqual(box.Live(), 1);
    box.release();
  });

// ---------------------------------------------------------------------------
// Worker threads
// ---------------------------------------------------------------------------

// Leaves a callback on the shelf, and a bell that would ring at the end.
const LEAVES = `
  const { parentPort, workerData } = require('node:worker_threads');
  const zirdb = require('zirdb');
  const count = () => Atomics.add(workerData, 0, 1);
  const box = zirdb.createObject('Echo.Box');
  box.Shelve(count);
  globalThis.kept = [box, box.Bell(count), box.Child(), box.Plain(),
    box.Enumerate(1, 2)];
  parentPort.once('message', (message) => {
    if (message === 'exit') process.exit(3);
  });
  parentPort.postMessage('ready');
`;

const ENDS = {
  'ends by itself': (worker) => worker.postMessage('end'),
  exits: (worker) => worker.postMessage('exit'),
  'is terminated': (worker) => worker.terminate(),
};

for (const [how, end] of Object.entries(ENDS)) {
  test(`a callback of a worker that ${how}`, async () => {
    await drained();
    const counted = new Int32Array(new SharedArrayBuffer(4));
    const worker = new Worker(LEAVES, { eval: true, workerData: counted });
    const exited = new Promise((resolve) => {
      worker.once('exit', resolve);
    });
    await new Promise((resolve, reject) => {
      worker.once('message', resolve);
      worker.once('error', reject);
    });
    zirdb.scope(() => {
      const box = newBox();
      // The worker's own thread only.
      assert.strictEqual(box.Swallow(box.Shelved()), '0x8001010E');
      assert.throws(() => box.Shelved()(), { code: '0x8001010E' });
      assert.strictEqual(box.CallOnThread(box.Shelved()), '0x8001010E');
    });
    end(worker);
    await exited;
    zirdb.scope(() => {
      const box = newBox();
      assert.strictEqual(box.Swallow(box.Shelved()), '0x80010108');
      assert.throws(() => box.Shelved()(), { code: '0x80010108' });
      assert.strictEqual(box.CallOnThread(box.Shelved()), '0x80010108');
      box.ClearShelf();
      assert.strictEqual(box.Live(), 1);
    });
    assert.strictEqual(counted[0], 0);
  });
}

test('an object that two threads hold outlives the first of them', async () => {
  await drained();
  const worker = new Worker(`
    const zirdb = require('zirdb');
    globalThis.box = zirdb.createObject('Echo.Box');
    box.Value = 'of the worker';
    box.Shelve(box);`, { eval: true });
  await new Promise((resolve, reject) => {
    worker.once('exit', resolve);
    worker.once('error', reject);
  });
  zirdb.scope(() => {
    const box = newBox();
    const shared = box.Shelved();
    box.ClearShelf();
    assert.strictEqual(box.Live(), 2);
    assert.strictEqual(shared.Value(), 'of the worker');
    shared.release();
    assert.strictEqual(box.Live(), 1);
  });
});

test('processes end well with callbacks and objects in all places', () => {
  for (const [last, code] of [
    ['', 0],
    ['process.exit(4);', 4],
    ['box.Call(() => process.exit(5));', 5],
    ['setImmediate(() => { throw new Error("at the end"); });', 1],
  ]) {
    const result = host.child(`
      const zirdb = require('zirdb');
      const box = zirdb.createObject('Echo.Box');
      const print = () => console.log('called');
      box.Keep(() => box);
      box.Shelve(print);
      globalThis.kept = [box.Bell(print), box.Child(), box.Plain(),
        box.Enumerate(1, box)];
      box.Child().Keep(print);
      ${last}`, { env: { REGISTRY: process.env.REGISTRY } });
    assert.strictEqual(result.signal, null, result.stderr);
    assert.strictEqual(result.code, code, result.stderr);
    assert.strictEqual(result.stdout, '');
  }
});

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

host.scoped('an object has one proxy, whatever brings it', () => {
  const box = newBox();
  assert.strictEqual(box.Self(), box);
  assert.strictEqual(box.SelfUnknown(), box);
  assert.strictEqual(get(box, 'Child'), box.Child());
  assert.notStrictEqual(box.Other(), box.Other());
  const child = box.Child();
  const live = zirdb.liveObjects();
  box.Call((given) => {
    assert.strictEqual(given, child);
  }, child);
  assert.strictEqual(box.Call(() => child), child);
  assert.strictEqual([...box.Enumerate(1, child)][1], child);
  box.Value = [child];
  assert.strictEqual(get(box, 'Value')[0], child);
  const place = out(child);
  box.Leave(place);
  assert.strictEqual(place.value, child);
  assert.strictEqual(zirdb.liveObjects(), live);
});

host.scoped('an object that is no IDispatch has one proxy too', () => {
  const box = newBox();
  const plain = box.Plain();
  assert.strictEqual(box.Plain(), plain);
  box.Call((given) => {
    assert.strictEqual(given, plain);
  }, plain);
  box.Value = plain;
  assert.strictEqual(get(box, 'Value'), plain);
});

host.scoped('an object that was released comes up again', () => {
  const box = newBox();
  const first = box.Child();
  first.Value = 'kept';
  first.release();
  assert.throws(() => first.Value(), { code: 'ERR_ZIRDB_RELEASED' });
  const second = box.Child();
  assert.notStrictEqual(second, first);
  assert.strictEqual(second.Value(), 'kept');
});

test('an object whose proxy was collected comes up again', async () => {
  await drained();
  const box = newBox();
  (() => {
    put(box.Child(), 'Value', 'kept');
  })();
  assert.ok(await host.collectedUntil(() => zirdb.liveObjects() === 1));
  assert.strictEqual(get(box.Child(), 'Value'), 'kept');
  box.release();
});

host.scoped('objects inherit BigInts from what they come out of', () => {
  const box = newBox(BIGINT);
  assert.strictEqual(box.Child().I2(), -32768n);
  assert.strictEqual(get(box.Other(), 'I2'), -32768n);
  assert.deepStrictEqual([...box.Enumerate(1, [2])], [1n, [2n]]);
  assert.deepStrictEqual([...get(box, '_NewEnum')], [1n, 'b', 2.5]);
  let other;
  box.Call((given) => {
    other = given;
  }, box.Other());
  assert.strictEqual(other.I2(), -32768n);
  assert.strictEqual(box.Make('ZIRDB.Connection').State, 0n);
});

host.scoped('enumerators are walked, and let go of at the end', () => {
  const box = newBox();
  const live = zirdb.liveObjects();
  const alive = box.Live();
  assert.deepStrictEqual(
    [...box.Enumerate(1, 'b', null, [true])], [1, 'b', null, [true]]);
  assert.deepStrictEqual([...box.Enumerate()], []);
  assert.deepStrictEqual([...get(box, '_NewEnum')], [1, 'b', 2.5]);
  assert.deepStrictEqual([...call(box, '_NewEnum')], [1, 'b', 2.5]);
  for (const each of box.Enumerate(1, 2, 3)) {
    if (each === 2) break;
  }
  assert.strictEqual(zirdb.liveObjects(), live);
  assert.strictEqual(box.Live(), alive);
});

host.scoped('an enumerator that has members is walked as well', () => {
  assert.deepStrictEqual([...newBox().EnumerateWithMembers(1, 'b')], [1, 'b']);
});

host.scoped('objects of the table come through foreign ones', () => {
  const box = newBox();
  const connection = box.Make('ZIRDB.Connection');
  assert.strictEqual(
    Object.prototype.toString.call(connection), '[object ZIRDB.Connection]');
  assert.strictEqual(connection.State, 0);
  box.Keep(connection);
  assert.strictEqual(box.Kept(), connection);
  box.Drop();
  const command = zirdb.createObject('ZIRDB.Command');
  command.ActiveConnection = connection;
  assert.strictEqual(command.ActiveConnection, connection);
});

host.scoped('foreign objects go through those of the table', () => {
  const box = newBox();
  const command = zirdb.createObject('ZIRDB.Command');
  assert.throws(() => {
    command.ActiveConnection = box;
  }, { name: 'ZirdbError', code: '0x80020005' });
  const parameter = command.CreateParameter('p', 0, 1, 0, box);
  assert.strictEqual(parameter.Value, box);
  parameter.Value = [box.Child()];
  assert.strictEqual(parameter.Value[0], box.Child());
});

// ---------------------------------------------------------------------------
// Objects that call back as they go
// ---------------------------------------------------------------------------

host.scoped('the last release may call back', () => {
  const box = newBox();
  const rung = [];
  const bell = box.Bell(() => {
    rung.push(box.Other().I2(), zirdb.scope(() => newBox().I1()));
    bell.release();
  });
  bell.release();
  bell.release();
  assert.deepStrictEqual(rung, [-32768, -128]);
});

host.scoped('what is thrown as an object goes comes out nowhere', () => {
  const box = newBox();
  box.Bell(thrower).release();
  zirdb.scope(() => {
    box.Bell(thrower);
  });
  assert.strictEqual(box.I2(), -32768);
  assert.throws(() => box.Fail('plainly'), { code: '0x800A0005' });
});

host.scoped('a scope lets go in reverse order', () => {
  const box = newBox();
  const rung = [];
  zirdb.scope(() => {
    for (let i = 0; i < 3; ++i) box.Bell(() => rung.push(i));
  });
  assert.deepStrictEqual(rung, [2, 1, 0]);
});

test('objects that call back are collected like others', async () => {
  const box = newBox();
  let rung = 0;
  const ring = () => {
    ++rung;
    box.Other(); // comes up in the middle of a sweep
    if (rung % 3 === 0) throw mine;
  };
  for (let i = 0; i < 3000; ++i) box.Bell(ring);
  assert.ok(await host.collectedUntil(() => {
    zirdb.liveObjects();
    return rung === 3000;
  }), `${rung}`);
  assert.throws(() => box.CallAndFail(() => {}), {
    description: 'the box itself' });
  box.release();
});

test('nothing of the component is left', async () => {
  await drained();
  const box = newBox();
  assert.strictEqual(box.Live(), 1);
  box.release();
});

host.leavesNothing();
