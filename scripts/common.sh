# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# What the project's commands share: where the root is, and how packages come.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit

say() { printf '== %s\n' "$*"; }

# quietly NAME COMMAND...: what it prints goes to build/NAME.log, and is shown
# when it fails.
quietly() {
  local log=build/$1.log
  shift
  mkdir -p build
  "$@" >"$log" 2>&1 || {
    cat "$log" >&2
    return 1
  }
}

# Runs a command as root: directly, or through sudo.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    echo "not root and no sudo; please run as root: $*" >&2
    return 1
  fi
}

# need PACKAGE...: installs those of the Debian packages that are missing.
need() {
  local missing=() package
  for package in "$@"; do
    # One line per architecture it is installed for.
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null |
      grep -qx installed || missing+=("$package")
  done
  if [ "${#missing[@]}" -gt 0 ]; then
    say "installing Debian packages: ${missing[*]}"
    # A machine that has just started may be updating itself.
    local apt=(apt-get -o DPkg::Lock::Timeout=300)
    quietly packages as_root "${apt[@]}" update
    quietly packages as_root env DEBIAN_FRONTEND=noninteractive \
      "${apt[@]}" install -y --no-install-recommends "${missing[@]}"
  fi
}

# What it takes to build the library and talk to SQLite.
# shellcheck disable=SC2034  # the scripts that source this use it
build_packages=(g++ cmake ninja-build unixodbc-dev uuid-dev libsqliteodbc)

# Node.js 18 or later and the header that addons are compiled with: what is
# there, or else Debian's, or else npm's.
need_node() {
  command -v node >/dev/null || need nodejs
  local prefix
  prefix=$(dirname "$(dirname "$(readlink -f "$(command -v node)")")")
  [ -e "$prefix/include/node/node_api.h" ] || need libnode-dev ||
    need_node_packages
}

# What hosts/node/package.json pins, among it the compiler that checks the
# declarations. Without npm there is none, and the check counts as skipped.
need_node_packages() {
  command -v npm >/dev/null || return 0
  [ hosts/node/node_modules/.package-lock.json -nt hosts/node/package.json ] ||
    quietly npm npm ci --prefix hosts/node
}
