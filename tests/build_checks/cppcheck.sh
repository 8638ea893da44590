#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# cppcheck.sh ROOT: cppcheck has no finding in what hosts run: the library, its
# Node.js host and the command line. Tests are for the compilers, clang-tidy,
# the sanitizers and valgrind.
set -euo pipefail
cd "$1"
checker=$(command -v cppcheck || true)
# Findings differ between releases, so only one judges.
case "$([ -n "$checker" ] && "$checker" --version)" in
  *" 2.10"*) ;;
  *) echo "skipped: needs cppcheck 2.10" && exit 77 ;;
esac

suppressions=(
  # The system's headers are the compilers' matter.
  --suppress=missingInclude
  # It takes VARIANT(), which makes all of it zero, for a constructor that does
  # nothing, and says so of every constructor and member of _variant_t.
  --suppress=uninitDerivedMemberVar:src/zir.h
)
# Among "information" is a suppression beside a line that suppresses nothing.
"$checker" --quiet --std=c++17 --language=c++ -Isrc \
  --enable=warning,performance,portability,information --error-exitcode=1 \
  --inline-suppr "${suppressions[@]}" \
  -i hosts/node/node_modules src hosts/node tools
