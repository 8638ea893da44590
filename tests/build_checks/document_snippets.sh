#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# document_snippets.sh ROOT LIBRARY DOCUMENT [SERVER CONNECTION_FILE]: every
# block of C++, JavaScript or Python of a document runs and prints what the next
# block of text says (nothing if there is none before the next block of code);
# C++ leaves no object alive. Blocks of sh and cmake are for readers alone.
#
#   C++
#   a block with "int main"    is a program
#   a block with an #include   is the page's prelude: what its snippets stand on
#   any other block            is a snippet, the body of a function behind
#                              "const Object connection = opened();"
#
#   JavaScript
#   a block that takes 'zirdb' is a program if a text follows, and the page's
#                              prelude if none does
#   any other block            is a snippet: a program that begins with the
#                              prelude
#
#   Python
#   any block                  is a program
#
# Snippets of C++ under the heading "## PostgreSQL" or "## MariaDB" run only when
# that is SERVER, everything else only without one. The ODBC connection string in
# CONNECTION_FILE is then in their environment as CONNECTION.
#
# NODE is the Node.js that runs JavaScript, with the host beside LIBRARY; empty
# where there is no host. What cannot run counts as skipped when all the rest has
# passed.
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

# Writes prelude.cpp, snippets.cpp with list.cpp and snippets.text, and for each
# program program_<line>.cpp, .js, .mjs or .py with its .text. Lines of JavaScript
# and Python keep their numbers, so that complaints lead into the document.
awk -v folder="$folder" -v document="$name" -v server="$server" '
  function refuse(text) {
    print document ":" NR ": " text > "/dev/stderr"
    failed = 1
    exit 1
  }
  function write_program(extension, text) {
    printf "%s", text > (folder "/program_" start extension)
    expected = folder "/program_" start ".text"
    printf "" > expected
  }
  function lines(count,   text) {
    while (count-- > 0) text = text "\n"
    return text
  }
  # What took the package and was followed by no text is the prelude.
  function settle() {
    if (!taking) return
    if (js_prelude) {
      refuse("the block in line " taking " prints nothing, as a prelude does")
    }
    js_prelude = taking
    js_prelude_block = taking_block
    taking = 0
  }
  function store_js() {
    if (server != "") {
      expected = "/dev/null"
    } else if (block ~ /^import |\nimport /) {
      write_program(".mjs", lines(start) block)
    } else if (block ~ /require\(.zirdb.\)/) {
      taking = start
      taking_block = block
      expected = ""
    } else {
      if (!js_prelude) refuse("a snippet before the prelude")
      write_program(".js", lines(js_prelude) js_prelude_block \
        lines(start - js_prelude - gsub(/\n/, "&", js_prelude_block)) block)
    }
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
    if (fence !~ /^```(cpp|js|python|sh|cmake|text)$/) {
      refuse("nothing runs a block like this")
    }
    if (fence == "```text" && taking) {
      closing = start
      start = taking
      write_program(".js", lines(taking) taking_block)
      start = closing
      taking = 0
    }
    if (fence == "```text" && expected == "") {
      refuse("this text belongs to no snippet")
    }
    next
  }
  $0 == "```" {
    if (fence != "```text") settle()
    if (fence == "```cpp") store()
    if (fence == "```js") store_js()
    if (fence == "```python") {
      if (server == "") write_program(".py", lines(start) block)
      else expected = "/dev/null"
    }
    if (fence ~ /^```(sh|cmake)$/) expected = ""
    if (fence == "```text") {
      if (expected != "/dev/null") printf "%s", block > expected
      expected = ""
    }
    fence = ""
    next
  }
  fence != "" { block = block $0 "\n" }
  fence == "" && /^## / { section = substr($0, 4) }
  END {
    if (!failed) settle()
    if (!failed && fence != "") refuse("a block without an end")
  }
' "$root/$name"

compile() {
  "${CXX:-g++}" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion \
    -Werror -I"$root/src" -I"$root/examples" "$1.cpp" "$library" -o "$1"
}
export LD_LIBRARY_PATH="${library%/*}"

# prints FILE COMMAND...: what the command printed is what FILE.text says.
prints() {
  local file=$1 status=0
  shift
  timeout 60 "$@" >"$file.printed" || status=$?
  diff -u --label "$name, line ${file##*_}" --label "what it prints" \
    "$file.text" "$file.printed"
  [ "$status" -eq 0 ] || { echo "$file: status $status"; exit 1; }
}

# JavaScript goes by NODE_PATH as readers do; import does not look there.
modules=${library%/*}/node_modules
ln -s "$modules" "$folder/node_modules"
python=$(command -v python3 || true)

ran=0 without_node=0 without_python=0
for program in "$folder"/program_*.{cpp,js,mjs,py}; do
  [ -e "$program" ] || continue
  file=${program%.*}
  ran=$((ran + 1))
  case "$program" in
    *.cpp)
      compile "$file"
      prints "$file" "$file"
      ;;
    *.py)
      if [ -z "$python" ]; then
        without_python=$((without_python + 1))
      else
        prints "$file" "$python" "$program"
      fi
      ;;
    *)
      if [ -z "${NODE:-}" ]; then
        without_node=$((without_node + 1))
      else
        # The host finds its registry folder by itself.
        prints "$file" env -u REGISTRY -u NODE_OPTIONS NODE_PATH="$modules" \
          "$NODE" "$program"
      fi
      ;;
  esac
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
  prints "$folder/page" "$folder/page"
  ran=$((ran + 1))
fi
[ "$ran" -gt 0 ] || { echo "$name: nothing to run"; exit 1; }

skip() {
  [ "$1" -eq 0 ] || echo "skipped: $1 blocks of $name: there is no $2"
}
skip "$without_node" "Node.js host"
skip "$without_python" "Python"
[ $((without_node + without_python)) -eq 0 ] || exit 77
