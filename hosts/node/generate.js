// SPDX-License-Identifier: MIT
//
// Makes what follows from the table of members, members.json:
//   node generate.js zirdb.d.ts FILE     the declarations for TypeScript
//   node generate.js REFERENCE.md FILE   the reference of the host
'use strict';

const { readFileSync, writeFileSync } = require('node:fs');
const { join } = require('node:path');

const { classes, constants } = require('./members.json');

// The types of the table as TypeScript has them, where they differ.
const ARGUMENT_TYPES = {
  text: 'string | number | bigint | boolean | Date | null',
  number: 'number | bigint | boolean | string',
  index: 'string | number | bigint',
  value: 'Argument',
  values: 'Argument[]',
  out: 'Out | number',
  callback: '(fields: Fields) => unknown',
};

function typed(parameter) {
  const type = parameter.type
    .split(' | ')
    .map((each) => ARGUMENT_TYPES[each] ?? each)
    .join(' | ');
  if (parameter.rest) return `...${parameter.name}: ${type}[]`;
  const optional = 'default' in parameter || parameter.optional === true;
  return `${parameter.name}${optional ? '?' : ''}: ${type}`;
}

// A statement that is seen to select gives what it selects.
function signatures(parameters, returns) {
  const selects = parameters.find((parameter) => 'selects' in parameter);
  const general = `(${parameters.map(typed).join(', ')}): ${returns}`;
  if (selects === undefined) return [general];
  const selecting = parameters.map((parameter) =>
    parameter === selects ? `${parameter.name}: Select` : typed(parameter),
  );
  return [`(${selecting.join(', ')}): ${selects.selects}`, general];
}

// A value is whatever the database has.
const readType = (type) =>
  type === 'Value'
    ? 'any'
    : type.startsWith('Iterable')
      ? `${type} & AutomationObject`
      : type;

const comment = (text, indent = '') => `${indent}/** ${text} */`;

function declarationOf(row) {
  const lines = [
    comment(row.summary),
    `export interface ${row.name} extends AutomationObject {`,
  ];
  if (row.call !== undefined) {
    for (const each of signatures(row.call.arguments, row.call.returns)) {
      lines.push(comment(row.call.summary, '  '), `  ${each};`);
    }
  }
  if (row.default !== undefined) {
    lines.push(comment(`As ${row.default}.`, '  '), '  (): any;');
  }
  for (const member of row.members) {
    if (member.kind === 'method') {
      for (const each of signatures(member.arguments, member.returns)) {
        lines.push(comment(member.summary, '  '), `  ${member.name}${each};`);
      }
      continue;
    }
    lines.push(comment(member.summary, '  '));
    if (member.puts !== undefined) {
      lines.push(`  get ${member.name}(): ${readType(member.type)};`);
      lines.push(`  set ${member.name}(value: ${member.puts});`);
    } else {
      const readonly = member.writable ? '' : 'readonly ';
      lines.push(`  ${readonly}${member.name}: ${readType(member.type)};`);
    }
  }
  if (row.iterates !== undefined) {
    lines.push(`  [Symbol.iterator](): IterableIterator<${row.iterates.type}>;`);
  }
  lines.push('}');
  return lines.join('\n');
}

function declarations() {
  const head = readFileSync(join(__dirname, 'declarations.d.ts'), 'utf8');
  const numbers = Object.entries(constants).map(
    ([name, value]) => `  readonly ${name}: ${value};`,
  );
  return [
    head.trimEnd(),
    ...classes.map(declarationOf),
    [
      comment('The numbers of types, directions, states and kinds of commands.'),
      'export const constants: {',
      ...numbers,
      '};',
    ].join('\n'),
    '',
  ].join('\n\n');
}

const cell = (text) => text.replaceAll('|', '\\|');

function signature(parameters) {
  return parameters
    .map((parameter) => {
      const name = parameter.rest ? `...${parameter.name}` : parameter.name;
      if (!('default' in parameter) && !parameter.optional) return name;
      return 'default' in parameter
        ? `${name} = ${JSON.stringify(parameter.default).replaceAll('"', "'")}`
        : `${name}?`;
    })
    .join(', ');
}

function referenceOf(row) {
  const lines = [`## ${row.name}`, '', row.summary];
  if (row.progId !== undefined) {
    lines.push('', `Created by \`createObject('${row.progId}')\`.`);
  }
  lines.push('', '| Member | Kind | Gives | |', '|---|---|---|---|');
  if (row.call !== undefined) {
    lines.push(
      `| \`(${signature(row.call.arguments)})\` | call | ` +
        `${cell(row.call.returns)} | ${cell(row.call.summary)} |`,
    );
  }
  for (const member of row.members) {
    const isMethod = member.kind === 'method';
    const name = isMethod
      ? `${member.name}(${signature(member.arguments)})`
      : member.name;
    const kind = isMethod
      ? 'method'
      : member.writable
        ? 'property'
        : 'property, read-only';
    const gives = isMethod ? member.returns : member.type;
    lines.push(
      `| \`${name}\` | ${kind} | ${cell(gives)} | ${cell(member.summary)} |`,
    );
  }
  if (row.iterates !== undefined) {
    lines.push('', `\`for (... of object)\` gives each ${row.iterates.type}.`);
  }
  return lines.join('\n');
}

function reference() {
  const numbers = Object.entries(constants).map(
    ([name, value]) => `| \`${name}\` | ${value} |`,
  );
  return [
    '# Reference of the Node.js host',
    'Made from `members.json`, which is what the host itself goes by. Names of\n' +
      'members are found in any case of their letters.',
    ...classes.map(referenceOf),
    ['## Constants', '', '| Name | Number |', '|---|---|', ...numbers].join('\n'),
    '',
  ].join('\n\n');
}

const products = { 'zirdb.d.ts': declarations, 'REFERENCE.md': reference };
const [product, file] = process.argv.slice(2);
if (!(product in products) || file === undefined) {
  console.error('usage: node generate.js zirdb.d.ts|REFERENCE.md FILE');
  process.exit(2);
}
writeFileSync(file, products[product]());
