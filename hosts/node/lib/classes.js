// SPDX-License-Identifier: MIT
//
// What members there are, and of what kind: from members.json, never by trying.
// A property that is read by mistake would be no harm, but a command is executed
// by nothing more than reading its Execute.
'use strict';

const { native, CARRIES_DATA, METHOD } = require('./native.js');
const { classes: rows, constants } = require('../members.json');

class Member {
  constructor(className, row, index) {
    this.className = className;
    this.name = row.name;
    this.index = index;
    this.isMethod = row.kind === 'method';
    this.isWritable = row.writable === true;
    // In a log a connection string could show a password, and objects would
    // have to be made for it.
    this.isShown =
      !this.isMethod &&
      row.isSecret !== true &&
      !/^[A-Z](?!alue$)/.test(row.type);
    this.parameters = row.arguments ?? [];
    this.flags = METHOD | (row.carriesData ? CARRIES_DATA : 0);
    this.id = 0; // of the first object of the class
  }
}

class Class {
  constructor(row) {
    this.name = row === undefined ? 'object' : `ZIRDB.${row.name}`;
    this.iid = row?.iid;
    // Whether it lives by itself, whatever it was found through.
    this.isIndependent = row?.isIndependent === true;
    this.iterates = row?.iterates?.as;
    // What object(...) takes; absent where there is no such call.
    this.callParameters = row?.call?.arguments;
    this.callFlags = row?.call?.returns.includes('Recordset') ? CARRIES_DATA : 0;
    this.list = (row?.members ?? []).map(
      (member, index) => new Member(this.name, member, index),
    );
    // By every spelling that was seen so far.
    this.members = new Map(this.list.map((member) => [member.name, member]));
    this.value = this.members.get(row?.default);
    this.byLowerCase = new Map(
      this.list.map((member) => [member.name.toLowerCase(), member]),
    );
    this.areIdsKnown = this.list.length === 0;
    // One for all objects of the class: what a proxy stands in front of.
    this.target = () => {};
  }

  learnIds(slot) {
    for (const member of this.list) member.id = native.idOf(slot, member.name);
    this.areIdsKnown = true;
  }

  /** The member of that name in any case of its letters, or undefined. */
  find(name) {
    const member = this.byLowerCase.get(name.toLowerCase());
    // Spellings are few, unless somebody plays.
    if (member !== undefined && this.members.size < 1000) {
      this.members.set(name, member);
    }
    return member;
  }

  get memberNames() {
    return this.list.map((member) => member.name).join(', ');
  }
}

const classes = rows.map((row) => new Class(row));

module.exports = {
  classes,
  unknownClass: new Class(),
  constants: Object.freeze({ ...constants }),
};
