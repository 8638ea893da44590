#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# odbc_imports.sh LIBRARY LIST: the library calls these driver manager entry
# points and no other; hosts that bring their own manager rely on it.
set -euo pipefail
diff -u "$2" <(nm -D --undefined-only --format=posix "$1" | cut -d' ' -f1 |
  grep '^SQL' | LC_ALL=C sort)
