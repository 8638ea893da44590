#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# document_snippets.sh ROOT LIBRARY DOCUMENT [SERVER CONNECTION_FILE]: every C++
# block of a document compiles, prints what the next block of text says (nothing
# if there is none before the next C++ block), and leaves no object alive.
#
#   a block with "int main"    is a program
#   a block with an #include   is the page's prelude: what its snippets stand on
#   any other block            is a snippet, the body of a function behind
#                              "const Object connection = opened();"
#
# Snippets under the heading "## PostgreSQL" or "## MariaDB" run only when that
# is SERVER, all others only without one. The ODBC connection string in
# CONNECTION_FILE is then in their environment as CONNECTION.
set -euo pipefail
root=$1 library=$2 name=$3 server=${4:-}
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

if [ -n "$server" ]; then
  if [ ! -s "$5" ]; then
    cat "${5%.connection}.skip"
    exit 77
  fi
  CONNECTION=$(cat "$5")
  export CONNECTION
elif grep -qE 'Driver=\{?SQLite3' "$root/$name"; then
  # shellcheck source=tests/build_checks/need_sqlite.sh
  source "$(dirname "$0")/need_sqlite.sh"
fi

# Writes prelude.cpp, snippets.cpp with list.cpp and snippets.text, and one
# program_<line>.cpp and .text each.
awk -v folder="$folder" -v document="$name" -v server="$server" '
  function refuse(text) {
    print document ":" NR ": " text > "/dev/stderr"
    failed = 1
    exit 1
  }
  function store(   program, selected) {
    program = block ~ /int main/
    selected = program || section !~ /^(PostgreSQL|MariaDB)$/ ? "" : section
    expected = "/dev/null"
    if (!program && block ~ /#include/) {
      if (preludes++) refuse("a second prelude")
      printf "#line %d \"%s\"\n%s", start + 1, document, block \
        > (folder "/prelude.cpp")
      expected = ""
    } else if (selected != server) {
      return
    } else if (program) {
      printf "#line %d \"%s\"\n%s", start + 1, document, block \
        > (folder "/program_" start ".cpp")
      expected = folder "/program_" start ".text"
      printf "" > expected
    } else {
      printf "void snippet_%d() {\n  const Object connection = opened();\n" \
             "#line %d \"%s\"\n%s}\n", start, start + 1, document, block \
        > (folder "/snippets.cpp")
      printf "    {%d, snippet_%d},\n", start, start > (folder "/list.cpp")
      expected = folder "/snippets.text"
      print "line " start ":" > expected
    }
  }
  /^```/ && fence == "" {
    fence = $0
    start = NR
    block = ""
    if (fence !~ /^```(cpp|text)$/) refuse("nothing runs a block like this")
    if (fence == "```text" && expected == "") {
      refuse("this text belongs to no snippet")
    }
    next
  }
  $0 == "```" {
    if (fence == "```cpp") store()
    if (fence == "```text") {
      if (expected != "/dev/null") printf "%s", block > expected
      expected = ""
    }
    fence = ""
    next
  }
  fence != "" { block = block $0 "\n" }
  fence == "" && /^## / { section = substr($0, 4) }
  END { if (!failed && fence != "") refuse("a block without an end") }
' "$root/$name"

compile() {
  "${CXX:-g++}" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion \
    -Werror -I"$root/src" -I"$root/examples" "$1.cpp" "$library" -o "$1"
}
export LD_LIBRARY_PATH="${library%/*}"

# prints FILE: what the program printed is what FILE.text says.
prints() {
  local status=0
  timeout 60 "$1" >"$1.printed" || status=$?
  diff -u --label "$name" --label "what it prints" "$1.text" "$1.printed"
  [ "$status" -eq 0 ] || { echo "$1: status $status"; exit 1; }
}

ran=0
for program in "$folder"/program_*.cpp; do
  [ -e "$program" ] || continue
  compile "${program%.cpp}"
  prints "${program%.cpp}"
  ran=$((ran + 1))
done

if [ -e "$folder/snippets.cpp" ]; then
  {
    cat "$folder/prelude.cpp" "$folder/snippets.cpp"
    cat <<'END'
#line 1 "document_snippets.sh"
#include <cstdio>
#include <exception>
#include <iostream>

#include "zirdb.h"

int main() {
  const struct {
    int line;
    void (*run)();
  } snippets[] = {
END
    cat "$folder/list.cpp"
    cat <<'END'
  };
  for (const auto& snippet : snippets) {
    std::cout << "line " << snippet.line << ":\n" << std::flush;
    try {
      snippet.run();
    } catch (const std::exception& error) {
      std::cout << "threw " << error.what() << '\n';
    }
    std::cout << std::flush;
    std::fflush(stdout);
    if (DllCanUnloadNow() != S_OK) std::cout << "left objects alive\n";
  }
}
END
  } >"$folder/page.cpp"
  mv "$folder/snippets.text" "$folder/page.text"
  compile "$folder/page"
  prints "$folder/page"
  ran=$((ran + 1))
fi
[ "$ran" -gt 0 ] || { echo "$name: nothing to run"; exit 1; }
