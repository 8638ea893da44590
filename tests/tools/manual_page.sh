#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# manual_page.sh PAGE: the formatter has nothing to say against the page, and
# shows what it is about.
set -euo pipefail
page=$1
if ! command -v groff >/dev/null; then
  echo "skipped: no groff"
  exit 77
fi
text=$(groff -mandoc -Tutf8 -ww "$page" 2>&1 >/dev/null)
[ -z "$text" ] || { echo "$text"; exit 1; }
shown=$(groff -mandoc -Tascii -P-cbou "$page")
for word in 'zirdb query' 'zirdb doctor' --format --value REGISTRY ODBCSYSINI \
  ODBCINSTINI ODBCINI 'EXIT STATUS' EXAMPLES; do
  grep -qF -- "$word" <<<"$shown" || { echo "not shown: $word"; exit 1; }
done
# It is pickier, where it is installed.
if command -v mandoc >/dev/null; then
  mandoc -T lint -W warning "$page"
fi
