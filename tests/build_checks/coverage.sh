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

# What the compiler adds for exceptions is told apart: most of those branches
# cannot be taken, because what they belong to does not throw.
measure() {
  gcovr --root "$root" --filter "$root/src/" --json --output "$1" "${@:2}" \
    "$build"
}
measure "$build/coverage.json" --exclude-throw-branches \
  --exclude-unreachable-branches
measure "$build/coverage_with_exceptions.json"

python3 - "$root" "$build" "$list" "$least_lines" "$least_branches" <<'END'
import collections
import json
import os
import re
import sys

root, build, list_file, least_lines, least_branches = sys.argv[1:]
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


def files_of(report):
    with open(os.path.join(build, report), encoding='utf-8') as coverage:
        return json.load(coverage)['files']


def lines_of(file):
    return [line for line in file['lines'] if not line.get('gcovr/noncode')]


lines, branches, every_branch = (collections.defaultdict(Count)
                                 for _ in range(3))
found = collections.Counter()
where = collections.defaultdict(list)
for each in files_of('coverage.json'):
    name = each['file']
    with open(os.path.join(root, name), encoding='utf-8') as source:
        text = source.read().splitlines()
    for line in lines_of(each):
        number = line['line_number']
        for total in (name, 'all'):
            lines[total].add(line['count'])
            for branch in line['branches']:
                branches[total].add(branch['count'])
        if line['count'] == 0:
            shown = text[number - 1].strip()
            entry = f'{name}: {function_of(text, number)}: {shown}'
            found[entry] += 1
            where[entry].append(number)
for each in files_of('coverage_with_exceptions.json'):
    for line in lines_of(each):
        for branch in line['branches']:
            every_branch[each['file']].add(branch['count'])
            every_branch['all'].add(branch['count'])

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
