#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# document_completeness.sh ROOT: the documents tell every member, every error
# and every constant of the objects and every export of the Node.js host, each of
# them is run, and their links lead somewhere.
set -euo pipefail
cd "$1"
missing=0
miss() {
  echo "$*"
  missing=$((missing + 1))
}

# Every list below must find something: a pattern that no longer fits the
# sources would pass.
count=0
counted() {
  count=$((count + 1))
}
expect_some() {
  [ "$count" -ge "$1" ] || miss "only $count $2 found in the sources"
  count=0
}

# section FILE HEADING: the text under a heading of the second level.
section() {
  awk -v heading="## $2" '/^## / { inside = $0 == heading } inside' "$1"
}

# ---------------------------------------------------------------------------
# Members: "Object<tab>name<tab>the constant of its id"; "default" has no name
# ---------------------------------------------------------------------------

members() {
  awk '
    match($0, /^Members<[A-Za-z]+Object>/) {
      object = substr($0, 9, RLENGTH - 15)
    }
    match($0, /\{L"[^"]+", DISPID_[A-Z_]+/) {
      split(substr($0, RSTART, RLENGTH), part, /"|, /)
      print object "\t" part[2] "\t" part[4]
    }
    /\{nullptr, DISPID_VALUE/ { print object "\tdefault\tDISPID_VALUE" }
  ' src/zirdb.cpp
}

# The value of an enumerator or constant of the headers.
value_of() {
  sed -nE "s/^.*\b$1 = (-?[0-9]+).*$/\1/p" src/zirdb.h src/zir.h | head -n 1
}

while IFS=$'\t' read -r object name constant; do
  counted
  id=$(value_of "$constant")
  shown="\`$name\`"
  [ "$name" != default ] || shown=default
  rows=$(section docs/reference.md "$object")
  row="^\|[^|]*${shown}[^|]*\| ([^|]* )?${id:?of $constant}[ ,]"
  grep -qE "$row" <<<"$rows" ||
    miss "docs/reference.md, $object: no row for $shown with the id $id"
done < <(members)
expect_some 36 members

# ---------------------------------------------------------------------------
# Errors
# ---------------------------------------------------------------------------

# The statements of a source, one a line, with adjacent literals joined.
statements() {
  sed 's,^ *//.*$,,' "$1" | tr '\n' ' ' | sed -E 's/;/;\n/g' |
    sed -E 's/" +L?"//g; s/ +/ /g'
}

# told TEXT...: a row of a table in docs/errors.md has all the texts.
told() {
  local rows text
  rows=$(grep '^|' docs/errors.md)
  for text in "$@"; do
    rows=$(grep -F -- "$text" <<<"$rows") || return 1
  done
}

texts=$(statements src/zirdb.cpp)
while IFS= read -r statement; do
  counted
  code=$(grep -oE '0x[0-9A-F]{8}|\{ ?E_[A-Z]+' <<<"$statement" | tr -d '{ ')
  text=$(grep -oE 'L"[^"]*"' <<<"$statement" | sed 's/^L"//; s/"$//') || {
    # Another one's text.
    other=$(grep -oE 'k[A-Za-z]+\.text' <<<"$statement")
    text=$(grep "Failure ${other%.text} " <<<"$texts" | grep -oE 'L"[^"]*"' |
      sed 's/^L"//; s/"$//')
  }
  told "${code:?of $statement}" "${text:?of $statement}" ||
    miss "docs/errors.md: no row for $code \"$text\""
done < <(grep -oE 'constexpr Failure .*' <<<"$texts")
expect_some 20 failures

while IFS= read -r code; do
  counted
  told "$code" || miss "docs/errors.md: no row for $code"
done < <({
  grep -oE '\<zir_hresult\(0x[0-9A-F]{8}\)' src/zirdb.cpp |
    grep -oE '0x[0-9A-F]{8}'
  grep -oE '\<((DISP|CLASS)_)?E_[A-Z]+\>' src/zirdb.cpp
} | sort -u)
expect_some 20 codes

while IFS= read -r text; do
  counted
  told "$text" || miss "docs/errors.md: no row for \"$text\""
done < <({
  grep -oE 'k[A-Za-z]+Text = L"[^"]*"' <<<"$texts"
  # The ODBC layer's own words.
  statements src/zirdb_odbc.cpp |
    grep -oE '(fail\(|error_ = |range_error\(|return )"[^"]+"'
} | sed 's/^[^"]*"//; s/"$//' | sort -u)
expect_some 11 texts

# ---------------------------------------------------------------------------
# Constants, links, tests
# ---------------------------------------------------------------------------

while read -r constant value; do
  counted
  grep -qE "^\|.*\`$constant\` *\| $value " docs/reference.md ||
    miss "docs/reference.md: no row for $constant with the value $value"
done < <(grep -oE 'ZIRDB_(AD|STATE)_[A-Z_]+ = -?[0-9]+' src/zirdb.h |
  sed 's/ = / /')
expect_some 19 constants

# The anchors of a document's headings, as Markdown viewers make them.
anchors() {
  sed -nE 's/^#+ //p' "$1" | tr '[:upper:]' '[:lower:]' |
    sed -E 's/[^a-z0-9 _-]//g; s/ /-/g'
}

for document in docs/*.md; do
  page=$(basename "$document" .md)
  tr '\n' ' ' <tests/build.cmake | grep -qE "foreach\(page [^)]*\<$page\>" ||
    miss "tests/build.cmake: nothing runs $document"
done
for document in README.md SECURITY.md hosts/node/README.md; do
  grep -qE "zirdb_document_check\([a-z._]+ $document\)" tests/build.cmake ||
    miss "tests/build.cmake: nothing runs $document"
done

for document in *.md docs/*.md hosts/node/README.md; do
  while IFS= read -r link; do
    counted
    file=${link%%#*}
    target=$(dirname "$document")/$file
    [ -n "$file" ] || target=$document
    if [ ! -e "$target" ]; then
      miss "$document: no file $link"
    elif [[ $link == *#* ]]; then
      headings=$(anchors "$target")
      grep -qxF -- "${link#*#}" <<<"$headings" ||
        miss "$document: no heading $link"
    fi
  done < <(awk '/^```/ { code = !code } !code' "$document" |
    grep -oE '\]\([^):]+\)' | sed 's/^](//; s/)$//')
done
expect_some 60 links

# ---------------------------------------------------------------------------
# The Node.js host
# ---------------------------------------------------------------------------

# Each export stands in the first column of the table of exports.
exports=$(sed -n '/^module.exports = {/,/^};/s/^  \([A-Za-z]*\),$/\1/p' \
  hosts/node/index.js)
table=$(section hosts/node/README.md 'What the package gives' |
  grep '^| `' | cut -d'|' -f2)
for export in $exports; do
  counted
  grep -qE "\`$export(\(|\`)" <<<"$table" ||
    miss "hosts/node/README.md: no row for $export"
done
expect_some 13 exports

# README shows the first example as it stands.
diff -u --label README.md --label examples/node/first.js \
  <(awk '/^```js/ { code = 1; next } /^```/ && code { exit } code' README.md) \
  <(sed '1,/^$/d' examples/node/first.js) ||
  miss "README.md: not the example"

[ "$missing" -eq 0 ]
