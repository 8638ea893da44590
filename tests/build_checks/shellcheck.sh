#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Called with ROOT: shellcheck has no finding in any script.
set -euo pipefail
cd "$1"
command -v shellcheck >/dev/null || { echo "skipped: no shellcheck"; exit 77; }
find scripts tests examples bench .ci -type f \( -name '*.sh' -o -name run \) \
  -print0 | xargs -0 shellcheck -x
