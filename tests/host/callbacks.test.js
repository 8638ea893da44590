// SPDX-License-Identifier: MIT
//
// Functions as callback objects: what forEach gives them, what they may throw,
// let go of and call in turn, and objects that keep them.

'use strict';

const assert = require('node:assert');
const test = require('node:test');

const zirdb = require('zirdb');

const host = require('./support/host.js');

const ITEMS = 'SELECT id, name FROM item ORDER BY id';
const CLOSED = {
  name: 'ZirdbError',
  code: '0x800A0E78',
  source: 'ZIRDB.Recordset',
  description: 'Operation is not allowed when the object is closed.',
};

host.scoped('forEach calls back with the fields of each row', () => {
  const rows = host.shop().Execute(ITEMS);
  const seen = [];
  const collections = new Set();
  const counts = new Set();
  const result = rows.forEach((...given) => {
    const [fields] = given;
    counts.add(given.length);
    collections.add(fields);
    seen.push([fields('id').Value, fields.Item(1).Value, fields.Count]);
  });
  assert.strictEqual(result, undefined);
  assert.deepStrictEqual(seen, [[1, 'saw', 2], [2, 'nail', 2], [3, 'gift', 2]]);
  assert.deepStrictEqual([...counts], [1]);
  assert.strictEqual(collections.size, 1);
  assert.strictEqual(rows.State, 0);
});

host.scoped('forEach begins with the current row', () => {
  const rows = host.shop().Execute(ITEMS);
  rows.MoveNext();
  const seen = [];
  rows.forEach((fields) => seen.push(fields('id').Value));
  assert.deepStrictEqual(seen, [2, 3]);
});

host.scoped('forEach over no rows closes', () => {
  const rows = host.shop().Execute('SELECT id FROM item WHERE 0');
  rows.forEach(() => assert.fail('called'));
  assert.strictEqual(rows.State, 0);
  assert.throws(() => rows.forEach(() => assert.fail('called')), CLOSED);
});

host.scoped('what the callback returns is of no interest', () => {
  const connection = host.shop();
  for (const value of [undefined, null, 0, false, 'x', {}, Symbol('s'),
    2n ** 99n, 'a\0b', new Map(), new Date(NaN), Promise.resolve(1),
    connection]) {
    const rows = connection.Execute(ITEMS);
    let calls = 0;
    rows.forEach(() => {
      ++calls;
      return value;
    });
    assert.strictEqual(calls, 3, typeof value);
  }
});

const THROWN = [
  new Error('mine'),
  new TypeError('mine'),
  new (class Own extends Error {})('mine'),
  Object.freeze(new Error('frozen')),
  'a text',
  '',
  7,
  0n,
  true,
  false,
  null,
  undefined,
  Symbol('mine'),
  { code: '0x800A0E78' },
  () => {},
];

for (const thrown of THROWN) {
  host.scoped(`what the callback throws comes out: ${typeof thrown} ${
    String(thrown)}`, () => {
    const rows = host.shop().Execute(ITEMS);
    let calls = 0;
    const caught = host.thrownBy(() => rows.forEach(() => {
      if (++calls === 2) throw thrown;
    }));
    assert.strictEqual(caught, thrown);
    assert.strictEqual(calls, 2);
    // The recordset is open, on that row, and goes on from there.
    assert.deepStrictEqual([rows.State, rows('id').Value], [1, 2]);
    const seen = [];
    rows.forEach((fields) => seen.push(fields('id').Value));
    assert.deepStrictEqual(seen, [2, 3]);
  });
}

host.scoped("a nested call's error comes out as the same object", () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  let nested;
  const caught = host.thrownBy(() => rows.forEach(() => {
    nested = host.thrownBy(() => connection.Execute('SELECT * FROM nowhere'));
    throw nested;
  }));
  assert.strictEqual(caught, nested);
  assert.ok(caught instanceof zirdb.ZirdbError);
  assert.strictEqual(caught.sqlState, 'HY000');
});

host.scoped('an error that was caught inside leaves no trace', () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  let calls = 0;
  rows.forEach(() => {
    ++calls;
    assert.throws(() => connection.Execute('SELECT'), zirdb.ZirdbError);
    assert.throws(() => connection.Foo, TypeError);
  });
  assert.strictEqual(calls, 3);
});

host.scoped('an error comes out through walks in walks', () => {
  const connection = host.shop();
  const thrown = new Error('mine');
  const visited = [];
  const outer = connection.Execute(ITEMS);
  const inner = connection.Execute(ITEMS);
  const caught = host.thrownBy(() => outer.forEach((a) => {
    inner.forEach((b) => {
      visited.push([a('id').Value, b('id').Value]);
      if (b('id').Value === 2) throw thrown;
    });
  }));
  assert.strictEqual(caught, thrown);
  assert.deepStrictEqual(visited, [[1, 1], [1, 2]]);
  assert.deepStrictEqual([outer('id').Value, inner('id').Value], [1, 2]);
});

host.scoped('walks in walks', () => {
  const connection = host.shop();
  const pairs = [];
  connection.Execute(ITEMS).forEach((a) => {
    connection('SELECT id FROM item WHERE id < ? ORDER BY id', a('id'))
      .forEach((b) => pairs.push(`${a('id')}>${b('id')}`));
  });
  assert.deepStrictEqual(pairs, ['2>1', '3>1', '3>2']);
});

host.scoped('a walk in the same walk leaves nothing to the outer one', () => {
  const rows = host.shop().Execute(ITEMS);
  const seen = [];
  const caught = host.thrownBy(() => rows.forEach((outer) => {
    seen.push(`outer ${outer('id')}`);
    rows.forEach((inner) => seen.push(`inner ${inner('id')}`));
  }));
  assert.deepStrictEqual(seen, ['outer 1', 'inner 1', 'inner 2', 'inner 3']);
  assert.ok(caught instanceof zirdb.ZirdbError);
  assert.strictEqual(caught.code, '0x800A0E78');
});

host.scoped('a callback that throws after a caught one', () => {
  const rows = host.shop().Execute(ITEMS);
  const second = new Error('second');
  const caught = host.thrownBy(() => rows.forEach(() => {
    try {
      rows.forEach(() => {
        throw new Error('first');
      });
    } catch {
      throw second;
    }
  }));
  assert.strictEqual(caught, second);
});

host.scoped('a callback may close the recordset', () => {
  const rows = host.shop().Execute(ITEMS);
  let calls = 0;
  assert.throws(() => rows.forEach(() => {
    ++calls;
    rows.Close();
  }), CLOSED);
  assert.strictEqual(calls, 1);
});

host.scoped('a callback may close the connection', () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  let calls = 0;
  assert.throws(() => rows.forEach(() => {
    ++calls;
    connection.Close();
  }), CLOSED);
  assert.strictEqual(calls, 1);
});

host.scoped('a callback may let go of the recordset', () => {
  const rows = host.shop().Execute(ITEMS);
  const seen = [];
  rows.forEach((fields) => {
    rows.release();
    seen.push(fields('id').Value);
  });
  assert.deepStrictEqual(seen, [1, 2, 3]);
  assert.throws(() => rows.State, { code: 'ERR_ZIRDB_RELEASED' });
});

host.scoped('a callback may let go of the connection, which closes it', () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  const seen = [];
  assert.throws(() => rows.forEach((fields) => {
    seen.push(fields('id').Value);
    connection.release();
  }), CLOSED);
  assert.deepStrictEqual(seen, [1]);
  assert.strictEqual(rows.State, 0);
});

host.scoped('a callback may let go of its fields', () => {
  const rows = host.shop().Execute(ITEMS);
  const first = rows('id');
  const seen = [];
  rows.forEach((fields) => {
    if (first.Value === 1) fields.release();
    seen.push(first.Value);
  });
  assert.deepStrictEqual(seen, [1, 2, 3]);
});

host.scoped('a callback may let go of everything', () => {
  const connection = host.shop();
  const rows = connection.Execute(ITEMS);
  const thrown = new Error('mine');
  const caught = host.thrownBy(() => rows.forEach((fields) => {
    for (const object of [fields, rows, connection]) object.release();
    throw thrown;
  }));
  assert.strictEqual(caught, thrown);
});

host.scoped('a callback may collect garbage', () => {
  const rows = host.shop().Execute(ITEMS);
  const seen = [];
  rows.forEach((fields) => {
    global.gc();
    seen.push(fields('name').Value);
  });
  assert.deepStrictEqual(seen, ['saw', 'nail', 'gift']);
});

host.scoped('callbacks may go deep', () => {
  const connection = host.shop();
  const depth = 60;
  let reached = 0;
  const descend = (level) => {
    reached = Math.max(reached, level);
    if (level === depth) return;
    connection('SELECT ? AS level', level + 1)
      .forEach((fields) => descend(fields('level').Value));
  };
  descend(0);
  assert.strictEqual(reached, depth);
});

host.scoped('callbacks without end are a RangeError', () => {
  const connection = host.shop();
  const descend = () => {
    connection.Execute('SELECT 1').forEach(descend);
  };
  assert.throws(descend, RangeError);
  assert.strictEqual(host.one(connection, 'SELECT 7'), 7);
});

host.scoped('an object of another kind is no callback', () => {
  const connection = host.shop();
  for (const stranger of [null, 1, 'x', true]) {
    const rows = connection.Execute(ITEMS);
    assert.throws(() => rows.forEach(stranger), { code: '0x80020005' });
    assert.deepStrictEqual([rows.State, rows('id').Value], [1, 1]);
  }
});

host.scoped('a callback is called for its value', () => {
  const connection = host.keeping();
  const given = [];
  connection('INSERT INTO kept VALUES (?)', (...values) => {
    given.push(values);
    return 'called';
  });
  assert.deepStrictEqual(host.kept(connection), ["text 'called'"]);
  assert.ok(given.length >= 1);
  for (const values of given) assert.deepStrictEqual(values, []);
});

host.scoped('what a callback throws for a value comes out, too', () => {
  const connection = host.keeping();
  for (const thrown of [new Error('mine'), 'text', undefined]) {
    const caught = host.thrownBy(
      () => connection('INSERT INTO kept VALUES (?)', () => {
        throw thrown;
      }));
    assert.strictEqual(caught, thrown);
  }
  assert.deepStrictEqual(host.kept(connection), []);
});

test('a callback lives as long as what keeps it', async () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  let collected = false;
  const registry = new FinalizationRegistry(() => {
    collected = true;
  });
  (() => {
    let calls = 0;
    const callback = () => `call ${++calls}`;
    registry.register(callback, 'callback');
    command.Parameters.Append(
      command.CreateParameter('v', 202, 1, 0, callback));
  })();
  for (let i = 0; i < 5; ++i) {
    global.gc();
    await host.turn();
  }
  assert.strictEqual(collected, false);
  command.Execute();
  const [first] = host.kept(connection);
  assert.match(first, /^text 'call \d+'$/);
  // What was bound has taken its place.
  await host.collectedUntil(() => collected);
  assert.strictEqual(collected, true);
  connection.release();
  command.release();
});

test('a callback that an object keeps when it is released is let go',
  async () => {
    let collected = 0;
    const registry = new FinalizationRegistry(() => {
      ++collected;
    });
    (() => {
      for (let i = 0; i < 10; ++i) {
        const callback = () => i;
        registry.register(callback, i);
        const parameter = host.keeper();
        parameter.Value = callback;
        parameter.release();
      }
    })();
    await host.collectedUntil(() => collected === 10);
    assert.strictEqual(collected, 10);
  });

test('a callback goes with the unreachable object that keeps it', async () => {
  // Nothing else of the library is called meanwhile: the collector does it.
  let collected = 0;
  const registry = new FinalizationRegistry(() => {
    ++collected;
  });
  for (const expected of [10, 20, 30]) {
    (() => {
      for (let i = 0; i < 10; ++i) {
        const callback = () => i;
        registry.register(callback, i);
        host.keeper().Value = callback;
      }
    })();
    await host.collectedUntil(() => collected === expected);
    assert.strictEqual(collected, expected);
  }
});

host.scoped('a callback that comes back can be called', () => {
  const parameter = host.keeper();
  parameter.Value = () => 7;
  const back = parameter.Value;
  assert.strictEqual(typeof back, 'function');
  assert.strictEqual(back(), 7);
  const rows = host.shop().Execute(ITEMS);
  const seen = [];
  parameter.Value = (fields) => {
    seen.push(fields('id').Value);
  };
  rows.forEach(parameter.Value);
  assert.deepStrictEqual(seen, [1, 2, 3]);
  parameter.Value = null;
});

// What is given to an object of an unknown class is what the function gets, and
// what it returns comes back.
host.scoped('arguments of a callback are values, and so is its result', () => {
  const date = new Date(Date.UTC(2024, 1, 29, 18));
  const connection = host.opened();
  const rows = [
    [7, 7, 7n],
    [-1n, -1, -1n],
    [2n ** 60n, 2n ** 60n],
    [0.5, 0.5],
    [true, true],
    [false, false],
    ['', ''],
    ['é😀', 'é😀'],
    [null, null],
    [Uint8Array.of(1, 2), Uint8Array.of(1, 2)],
    [zirdb.variantDate(date), date],
    [date, '2024-02-29 18:00:00.000'],
    [[1, ['x', null]], [1, ['x', null]], [1n, ['x', null]]],
    [zirdb.out(), undefined],
    [zirdb.out(5), 5, 5n],
    [connection, connection],
  ];
  for (const options of [undefined, { integers: 'bigint' }]) {
    const parameter = host.keeper(options);
    let given;
    let result;
    parameter.Value = (...values) => {
      given = values;
      return result;
    };
    const { Value: object } = parameter;
    for (const row of rows) {
      const expected = options ? row[row.length - 1] : row[1];
      result = row[0] instanceof Date ? '2024-02-29 18:00:00.000' : row[0];
      const back = object(row[0], 'second');
      assert.deepStrictEqual(given, [expected, 'second']);
      if (expected !== undefined) assert.deepStrictEqual(back, expected);
    }
    result = undefined;
    assert.strictEqual(object(), undefined);
    assert.deepStrictEqual(given, []);
    const many = Array.from({ length: 40 }, (unused, i) => `${i}`);
    object(...many);
    assert.deepStrictEqual(given, many);
    parameter.Value = null;
  }
});

host.scoped('a callback may let go of itself', () => {
  const connection = host.keeping();
  const command = host.commandOf(connection, 'INSERT INTO kept VALUES (?)');
  const parameter = command.CreateParameter('v', 202, 1, 0, () => {
    parameter.Value = 'something else';
    global.gc();
    return 'called';
  });
  command.Parameters.Append(parameter);
  command.Execute();
  assert.deepStrictEqual(host.kept(connection), ["text 'called'"]);

  const other = host.keeper();
  other.Value = (given) => {
    other.Value = null;
    object.release();
    other.release();
    global.gc();
    return given;
  };
  const object = other.Value;
  assert.strictEqual(object('back'), 'back');
  assert.throws(() => object(), { code: 'ERR_ZIRDB_RELEASED' });
});

host.scoped('many callbacks, many times', () => {
  const connection = host.shop();
  let calls = 0;
  for (let i = 0; i < 2000; ++i) {
    connection.Execute(ITEMS).forEach(() => {
      ++calls;
    });
  }
  assert.strictEqual(calls, 6000);
});

host.leavesNothing();
