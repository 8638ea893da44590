// SPDX-License-Identifier: MIT
//
// Which objects came up while a scope() runs. What is released earlier is
// forgotten, so that a long scope need not grow.
'use strict';

// Innermost last.
const scopes = [];

/** Called for every object that comes up. */
function enlist(handler) {
  if (scopes.length === 0) return;
  handler.scope = scopes.at(-1);
  handler.scope.add(handler);
}

/** What `run` gives; what comes up in it belongs to no scope. */
function unscoped(run) {
  const running = scopes.splice(0);
  try {
    return run();
  } finally {
    scopes.push(...running);
  }
}

/**
 * What `run` gives; what came up in it is released, last one first, except the
 * object whose handler `kept` finds in what it gives.
 */
function scoped(run, kept) {
  const created = new Set();
  scopes.push(created);
  let keeps;
  try {
    const result = run();
    keeps = kept(result);
    if (typeof result === 'object' && typeof result?.then === 'function') {
      throw new TypeError('scope: what it runs must not be asynchronous');
    }
    return result;
  } finally {
    scopes.pop();
    const isOurs = created.delete(keeps);
    for (const handler of [...created].reverse()) handler.release();
    if (isOurs) {
      keeps.scope = null;
      enlist(keeps); // it belongs to whoever it is returned to
    }
  }
}

module.exports = { enlist, scoped, unscoped };
