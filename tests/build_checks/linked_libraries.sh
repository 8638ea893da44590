#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# linked_libraries.sh LIBRARY: its SONAME, and that it needs nothing at run
# time but the driver manager, libuuid, the loader and the C++ runtime.
set -euo pipefail
dynamic=$(readelf -d "$1")
grep -q 'SONAME.*\[libzirdb\.so\.0\]' <<<"$dynamic" || {
  echo "unexpected SONAME:" && grep SONAME <<<"$dynamic"
  exit 1
}
needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic")
grep -qx 'libodbc\.so\.2' <<<"$needed"
extra=$(grep -vxE \
  '(libodbc\.so\.2|libuuid\.so\.1|libdl\.so\.2|libstdc\+\+\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|ld-linux-x86-64\.so\.2)' \
  <<<"$needed" || true)
if [ -n "$extra" ]; then
  echo "needs more than it should: $extra"
  exit 1
fi
