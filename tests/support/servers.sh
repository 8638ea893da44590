#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Private database servers for the tests: one PostgreSQL, one MariaDB.
#
#   servers.sh start  <postgres|mariadb> <workdir>
#   servers.sh stop   <postgres|mariadb> <workdir>
#   servers.sh halt   <postgres|mariadb> <workdir>
#   servers.sh kill   <postgres|mariadb> <workdir>
#   servers.sh resume <postgres|mariadb> <workdir>
#
# `halt` stops a server and keeps its folder, `kill` does so without a warning,
# as a crash would; `resume` runs it there again.
#
# A server lives in a temporary folder of its own and is reached through a unix
# socket in it, never through the network. `start` leaves in <workdir>
#
#   <name>.connection   the ODBC connection string the tests read
#   <name>.skip         instead of it, the reason why there is no server
#   <name>.log          what the server and its installation said
#   <name>.state        for `stop`: the folder, and the pid of the `timeout`
#                       that runs the server
#   odbcinst.ini        (PostgreSQL) the system's drivers, without the log file
#                       that the driver would keep for every process
#
# and exits with 77 when the machine lacks the server or its ODBC driver.
#
# The server runs under a time limit and its folder is removed when it ends,
# however it ends, so an interrupted test run leaves nothing behind for long.

set -euo pipefail

readonly ready_seconds=60
readonly shutdown_seconds=20
readonly life_seconds="${ZIRDB_SERVER_SECONDS:-3600}"
readonly exit_skipped=77

usage() {
  echo "usage: servers.sh start|stop|halt|kill|resume postgres|mariadb" \
    "<workdir>" >&2
  exit 2
}

[[ $# -eq 3 ]] || usage
readonly action="$1" kind="$2"
[[ $kind == postgres || $kind == mariadb ]] || usage
mkdir -p "$3"
workdir="$(cd "$3" && pwd)"
readonly workdir
# PostgreSQL's SIGTERM waits for clients to leave; SIGINT sends them away.
if [[ $kind == postgres ]]; then
  readonly stop_signal=INT
else
  readonly stop_signal=TERM
fi
readonly connection_file="$workdir/$kind.connection"
readonly skip_file="$workdir/$kind.skip"
readonly log_file="$workdir/$kind.log"
readonly state_file="$workdir/$kind.state"

# ---------------------------------------------------------------------------
# Finding what the machine has
# ---------------------------------------------------------------------------

skip() {
  trap - EXIT
  echo "$1" | tee "$skip_file"
  exit "$exit_skipped"
}

fail() {
  echo "$1" >&2
  if [[ -f $log_file ]]; then
    echo "--- $log_file" >&2
    tail -n 100 "$log_file" >&2
  fi
  exit 1
}

# The newest PostgreSQL: Debian keeps one folder per major version, off PATH.
postgres_folder() {
  local folder
  folder="$(printf '%s\n' /usr/lib/postgresql/*/bin | sort -V | tail -n 1)"
  if [[ -x $folder/postgres ]]; then
    echo "$folder"
  elif command -v postgres >/dev/null; then
    dirname "$(command -v postgres)"
  fi
}

# MariaDB's server is in /usr/sbin, which is not on everybody's PATH.
mariadb_server() {
  PATH="$PATH:/usr/sbin:/usr/local/sbin"
  command -v mariadbd || command -v mysqld || true
}

mariadb_admin() {
  command -v mariadb-admin || command -v mysqladmin || true
}

require_driver() {
  if command -v odbcinst >/dev/null; then
    odbcinst -q -d -n "$1" >/dev/null ||
      skip "the ODBC driver \"$1\" is not registered"
  fi
}

# The file in which the system's drivers are registered.
driver_table() {
  local file
  file="$(odbcinst -j 2>/dev/null | sed -n 's/^DRIVERS\.*: //p' || true)"
  echo "${file:-/etc/odbcinst.ini}"
}

# PostgreSQL refuses to run as root, and neither server needs to.
account() {
  local candidate
  if [[ $(id -u) -ne 0 ]]; then
    id -un
    return
  fi
  for candidate in "$@" nobody; do
    if id -u "$candidate" >/dev/null 2>&1; then
      echo "$candidate"
      return
    fi
  done
  fail "no unprivileged account to run the server as"
}

# Fills the array `as_account` with what to put before a command.
choose_account() {
  run_account="$(account "$1")"
  as_account=()
  if [[ $(id -u) -eq 0 ]]; then
    as_account=(setpriv --reuid="$run_account" --clear-groups
      --regid="$(id -g "$run_account")" env "HOME=$folder")
  fi
}

# A socket's path is limited to 107 bytes, so a deep TMPDIR is not usable.
make_folder() {
  local parent="${TMPDIR:-/tmp}"
  [[ ${#parent} -le 60 ]] || parent=/tmp
  folder="$(mktemp -d "$parent/zirdb-$kind.XXXXXX")"
  echo "$folder" >"$state_file"
}

# ---------------------------------------------------------------------------
# Starting and stopping
# ---------------------------------------------------------------------------

# Whether `pid` runs the server that lives in `folder`: pids are reused, and the
# recorded one may belong to somebody else by now.
is_ours() {
  local pid="$1" folder="$2"
  [[ -n $pid && -r /proc/$pid/cmdline ]] &&
    tr '\0' '\n' 2>/dev/null <"/proc/$pid/cmdline" | grep -qF -- "$folder/"
}

# Reads `folder` and `pid` of the server.
read_state() {
  folder="" pid=""
  { read -r folder && read -r pid; } <"$state_file" || true
  [[ ${folder##*/} =~ ^zirdb-$kind\.[A-Za-z0-9]{6}$ ]] || fail "bad $state_file"
}

# Asks for a clean shutdown and waits. `timeout` passes the signal on, and kills
# the server when it has not ended within `shutdown_seconds`.
end_server() {
  local folder="$1" pid="$2" waited=0
  if is_ours "$pid" "$folder"; then
    kill -s "$stop_signal" "$pid" || true
    while is_ours "$pid" "$folder"; do
      [[ $waited -lt $(((shutdown_seconds + 10) * 10)) ]] ||
        fail "$kind (pid $pid) does not end"
      sleep 0.1
      waited=$((waited + 1))
    done
  fi
}

stop_server() {
  local folder pid
  rm -f "$connection_file" "$skip_file"
  [[ -f $state_file ]] || return 0
  read_state
  end_server "$folder" "$pid"
  rm -rf -- "$folder"
  rm -f "$state_file"
}

halt_server() {
  local folder pid
  read_state
  touch "$folder/halted"
  end_server "$folder" "$pid"
}

children_of() {
  cat "/proc/$1/task/$1/children"
}

# The server with all its processes. Stopped first, it starts no more of them,
# and no number of one that ended is given to a process of somebody else's.
kill_server() {
  local folder pid server child waited=0
  read_state
  is_ours "$pid" "$folder" || fail "$kind does not run"
  server="$(children_of "$pid")"
  server="${server% }"
  touch "$folder/halted"
  kill -s STOP "$server"
  for child in $(children_of "$server"); do
    kill -s KILL "$child"
  done
  kill -s KILL "$server"
  while is_ours "$pid" "$folder"; do
    [[ $waited -lt 100 ]] || fail "$kind (pid $pid) does not end"
    sleep 0.1
    waited=$((waited + 1))
  done
}

resume_server() {
  local pid
  read_state # `folder` is where the server is run
  rm -f "$folder/halted"
  "serve_$kind"
}

# run_server <command...>: in the background, in a session of its own, without
# our standard streams (CTest would wait for them to close).
run_server() {
  # shellcheck disable=SC2016  # expanded by the inner shell
  setsid bash -c '
    state="$1" folder="$2" signal="$3" patience="$4" life="$5"
    shift 5
    cd "$folder" || exit 1
    (
      printf "%s\n" "$folder" "$BASHPID" >"$state"
      exec timeout --signal="$signal" --kill-after="$patience" "$life" "$@"
    )
    [[ -e $folder/halted ]] || { cd / && rm -rf -- "$folder"; }
  ' servers "$state_file" "$folder" "$stop_signal" "$shutdown_seconds" \
    "$life_seconds" "$@" </dev/null >>"$log_file" 2>&1 &
  watchdog=$!
}

# await_ready <command...>: until the command succeeds.
await_ready() {
  local waited=0
  until "$@" >/dev/null 2>&1; do
    if ! kill -0 "$watchdog" 2>/dev/null; then
      fail "$kind ended before it was ready"
    fi
    if [[ $waited -ge $((ready_seconds * 5)) ]]; then
      fail "$kind was not ready within $ready_seconds s"
    fi
    sleep 0.2
    waited=$((waited + 1))
  done
}

# The servers are run in `folder`, as `as_account`.
serve_postgres() {
  local bin
  bin="$(postgres_folder)"
  choose_account postgres
  run_server "${as_account[@]}" "$bin/postgres" -D "$folder/data" \
    -c listen_addresses= -c "unix_socket_directories=$folder/socket" \
    -c fsync=off -c synchronous_commit=off -c full_page_writes=off \
    -c log_min_messages=warning
  await_ready "$bin/pg_isready" --host="$folder/socket" --username=zirdb \
    --dbname=postgres
}

serve_mariadb() {
  choose_account mysql
  run_server "${as_account[@]}" "$(mariadb_server)" --no-defaults \
    --datadir="$folder/data" --tmpdir="$folder/tmp" \
    --socket="$folder/server.sock" --pid-file="$folder/server.pid" \
    --init-file="$folder/init.sql" --skip-networking --skip-log-bin \
    --character-set-server=utf8mb4 --collation-server=utf8mb4_bin \
    --innodb-log-file-size=8M --innodb-flush-log-at-trx-commit=0 \
    --max-allowed-packet=64M --skip-name-resolve
  await_ready "$(mariadb_admin)" --no-defaults --socket="$folder/server.sock" \
    --user=zirdb ping
}

start_postgres() {
  local bin
  bin="$(postgres_folder)"
  [[ -n $bin ]] || skip "no PostgreSQL server is installed"
  require_driver "PostgreSQL Unicode"
  make_folder
  choose_account postgres
  chmod 700 "$folder"
  mkdir "$folder/data" "$folder/socket"
  [[ ${#as_account[@]} -eq 0 ]] || chown -R "$run_account" "$folder"

  (cd "$folder" && "${as_account[@]}" "$bin/initdb" -D "$folder/data" \
    -U zirdb --auth=trust --encoding=UTF8 --locale=C.UTF-8 --no-sync) \
    >>"$log_file" 2>&1 || fail "initdb failed"
  # Everybody is let in, but the members of this role with a password only.
  "${as_account[@]}" sed -i '1i local all +zirdb_passworded scram-sha-256' \
    "$folder/data/pg_hba.conf"
  sed 's/^\( *CommLog *= *\)1/\10/' "$(driver_table)" >"$workdir/odbcinst.ini"
  serve_postgres
  echo "Driver={PostgreSQL Unicode};Servername=$folder/socket;Port=5432;\
Database=postgres;UID=zirdb" >"$connection_file"
}

start_mariadb() {
  local install
  install="$(command -v mariadb-install-db || command -v mysql_install_db ||
    true)"
  [[ -n $(mariadb_server) && -n $install && -n $(mariadb_admin) ]] ||
    skip "no MariaDB server is installed"
  require_driver "MariaDB Unicode"
  make_folder
  choose_account mysql
  chmod 700 "$folder"
  mkdir "$folder/data" "$folder/tmp"
  cat >"$folder/init.sql" <<SQL
CREATE DATABASE IF NOT EXISTS zirdb;
CREATE USER IF NOT EXISTS zirdb@localhost;
GRANT ALL ON *.* TO zirdb@localhost;
SQL
  [[ ${#as_account[@]} -eq 0 ]] || chown -R "$run_account" "$folder"

  "${as_account[@]}" "$install" --no-defaults --datadir="$folder/data" \
    --tmpdir="$folder/tmp" --auth-root-authentication-method=normal \
    --skip-test-db --innodb-log-file-size=8M \
    >>"$log_file" 2>&1 || fail "$install failed"
  serve_mariadb
  echo "Driver={MariaDB Unicode};SOCKET=$folder/server.sock;\
DATABASE=zirdb;UID=zirdb;CHARSET=utf8mb4" >"$connection_file"
}

case "$action" in
  start)
    stop_server # a run that was interrupted may have left one
    : >"$log_file"
    trap '[[ $? -eq 0 ]] || stop_server' EXIT
    "start_$kind"
    ;;
  stop) stop_server ;;
  halt) halt_server ;;
  kill) kill_server ;;
  resume) resume_server ;;
  *) usage ;;
esac
