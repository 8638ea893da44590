#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# exports.sh LIBRARY LIST: the dynamic symbols the library defines are exactly
# those of the reviewed list. A new export is a promise; add it on purpose.
set -euo pipefail
diff -u "$2" <(nm -D --defined-only --format=posix "$1" | cut -d' ' -f1 |
  LC_ALL=C sort)
