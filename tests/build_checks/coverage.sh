#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# coverage.sh ROOT BUILD: what the tests that ran in an instrumented build tree
# have reached of src/, against the thresholds below; and the lines that they
# have not are those of uncovered.txt, no more and no fewer.
set -euo pipefail
root=$(cd "$1" && pwd) build=$(cd "$2" && pwd)
least_lines=97 least_branches=90
list=$root/tests/build_checks/uncovered.txt
command -v gcovr >/dev/null || { echo "skipped: no gcovr" && exit 77; }

report=$build/coverage.json
gcovr --root "$root" --filter "$root/src/" --json --output "$report" \
  "$build"

python3 - "$report" "$root" "$list" "$least_lines" "$least_branches" <<'END'
import collections
import json
import os
import re
import sys

report, root, list_file, least_lines, least_branches = sys.argv[1:]
problems = []


class Count:
    """How many there are, and how many of them were reached."""

    def __init__(self):
        self.reached = self.all = 0

    def add(self, reached):
        self.all += 1
        self.reached += bool(reached)

    def percent(self):
        return 100 * self.reached / self.all if self.all else 100

    def __str__(self):
        return f'{self.percent():6.2f} % ({self.reached} of {self.all})'


STATEMENT = re.compile(r' *(if|for|while|switch|return|throw|else|case|}|//|:)')


def function_of(text, number):
    """The name of the function that a line is in, by what stands above it."""
    for line in reversed(text[:number]):
        if re.match(r' {0,2}[A-Za-z_~]', line) and not STATEMENT.match(line):
            line = re.sub(r'__attribute__\(\(.*?\)\)+', '', line)
            name = re.search(r'([\w~]+)\(', line)
            if name and not line.endswith(';'):
                return name[1]
    return ''


def uncovered_list():
    """Each entry with the number of times it stands there."""
    entries = collections.Counter()
    entry = reason = None
    with open(list_file, encoding='utf-8') as lines:
        for line in [*lines, 'end']:
            if line.startswith('#') or not line.strip():
                continue
            if line.startswith(' '):
                reason = line.strip()
                continue
            if entry is not None and not reason:
                problems.append(f'without a reason: {entry}')
            entry, reason = line.rstrip('\n'), None
            if entry != 'end':
                entries[entry] += 1
    return entries


lines, branches, every_branch = (collections.defaultdict(Count)
                                 for _ in range(3))
found = collections.Counter()
where = collections.defaultdict(list)
with open(report, encoding='utf-8') as coverage:
    files = json.load(coverage)['files']
for each in files:
    name = each['file']
    with open(os.path.join(root, name), encoding='utf-8') as source:
        text = source.read().splitlines()
    for line in each['lines']:
        if line.get('gcovr/noncode'):
            continue
        number = line['line_number']
        shown = text[number - 1].strip()
        for total in (name, 'all'):
            lines[total].add(line['count'])
            for branch in line['branches']:
                every_branch[total].add(branch['count'])
                # What --exclude-throw-branches and
                # --exclude-unreachable-branches leave.
                if not branch['throw'] and shown not in ('', '{', '}'):
                    branches[total].add(branch['count'])
        if line['count'] == 0:
            entry = f'{name}: {function_of(text, number)}: {shown}'
            found[entry] += 1
            where[entry].append(number)

width = max(len(name) for name in lines)
for name in sorted(lines, key=lambda name: (name == 'all', name)):
    print(f'{name:{width}}  lines {lines[name]}  branches {branches[name]}'
          f'  with those of exceptions {every_branch[name]}')

if lines['all'].percent() < float(least_lines):
    problems.append(f'less than {least_lines} % of the lines')
if branches['all'].percent() < float(least_branches):
    problems.append(f'less than {least_branches} % of the branches')
listed = uncovered_list()
for entry, count in sorted((found - listed).items()):
    problems.append(f'not covered, not in the list: {entry}'
                    f' ({count} of lines {where[entry]})')
for entry, count in sorted((listed - found).items()):
    problems.append(f'in the list, but covered or gone: {entry} ({count})')
print(*problems, sep='\n', end='\n' if problems else '')
sys.exit(bool(problems))
END
