#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# clang_tidy.sh ROOT BUILD [all]: no finding in any compiled source of the
# project; in tests, which take many minutes, with "all" (reliability.sh).
# Findings differ between releases, so only one judges.
set -euo pipefail
cd "$1"
tidy=$(command -v clang-tidy-14 || command -v clang-tidy || true)
case "$([ -n "$tidy" ] && "$tidy" --version)" in
  *"version 14."*) ;;
  *) echo "skipped: needs clang-tidy 14" && exit 77 ;;
esac

# A source that passed is judged again only after it, a header or the rules have
# changed: judging all of them takes minutes.
stamps=$2/clang_tidy_passed
mkdir -p "$stamps"
judge() {
  local stamp
  stamp=$stamps/${1//\//_}
  if [ -e "$stamp" ] && [ -z "$(find src tests bench examples hosts tools .clang-tidy \
    \( -name '*.h' -o -name .clang-tidy -o -path "$1" \) \
    -newer "$stamp" -print -quit)" ]; then
    return 0
  fi
  rm -f "$stamp"
  "$tidy" --quiet -p "$build" "$1" && touch "$stamp"
}
# A source that several programs are made of has a command for each, and would be
# judged as often.
build=$stamps/commands
mkdir -p "$build"
python3 - "$2/compile_commands.json" >"$build/compile_commands.json" <<'END'
import json
import sys
with open(sys.argv[1]) as commands:
    print(json.dumps(list({each['file']: each
                           for each in json.load(commands)}.values())))
END
export -f judge
export stamps tidy build
folders=(src bench examples hosts tools)
if [ "${3:-}" = all ]; then folders+=(tests); fi
# What is not configured, for want of a library say, has no entry there.
# shellcheck disable=SC2016  # the inner shell expands it
find "${folders[@]}" -name node_modules -prune -o -name '*.cpp' -print0 |
  while IFS= read -r -d '' source; do
    if grep -qF "/$source\"" "$2/compile_commands.json"; then
      printf '%s\0' "$source"
    fi
  done |
  xargs -0 -n 1 -P "$(nproc)" bash -c 'judge "$1"' judge
