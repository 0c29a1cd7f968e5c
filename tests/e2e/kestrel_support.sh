# Sourced by the scenarios of the command line: a private tree, a stand-in instance, and small checks that say what they
# expected. $1 of the scenario is the folder of the built programs.
set -euo pipefail
# What a shell may carry: modes that shut the server's own account out, a language whose messages are others or that is not
# installed here, a proxy.
umask 022
export LC_ALL=C.UTF-8
unset LANGUAGE http_proxy https_proxy HTTPS_PROXY all_proxy ALL_PROXY

bin=$(cd "${1:?usage: $0 FOLDER_OF_PROGRAMS}" && pwd)
kestrel=$bin/kestrel
lab=$bin/kestrel-lab
work=$(mktemp -d /tmp/kestrel-e2e.XXXXXX)
chmod 755 "$work"
export KESTREL_ROOT=$work/root
home=$work/oscar
pool=$work/pool
instances=()
places=() # HOME/NAME of each, whatever $home is at the end
password=s3cret.pass
mkdir -p "$KESTREL_ROOT" "$pool"
printf '%s\n' "$password" >"$work/password"
unset SZ_OSCAR_HOME
# Who may not install a start script uses the stand-in's own systemctl.
[ "$(id -u)" -eq 0 ] || export PATH="$home/systemctl-bin:$PATH"

cleanup() {
  local status=$?
  trap - EXIT
  trap '' INT TERM HUP # a second Ctrl-C must leave nothing behind either
  local place
  [ "$(type -t destroy_network)" != function ] || destroy_network
  for place in "${places[@]}"; do "$lab" destroy "${place%/*}" "${place##*/}" >/dev/null 2>&1 || true; done
  awk -v below="$work/" 'index($2, below) == 1 {print $2}' /proc/mounts | xargs -r umount -l
  if [ "$status" -ne 0 ] && [ -n "${KESTREL_KEEP:-}" ]; then
    echo "kept: $work" >&2
  else
    rm -rf --one-file-system "$work"
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

# left_out WHAT: what cannot be tested here, for the list that test.sh prints at its end.
left_out() {
  echo "left out: $*"
  [ -z "${KESTREL_LEFT_OUT:-}" ] || { echo "$(basename "$0"): $*" >>"$KESTREL_LEFT_OUT"; } 2>/dev/null || true
}
note() { echo "-- ($SECONDS s) $*"; }
fail() {
  echo "FAILED: $*" >&2
  local log
  for log in "$work/out" "$work/err" $(ls -t "$KESTREL_ROOT"/var/log/kestrel3/jobs/* 2>/dev/null | head -1); do
    [ -s "$log" ] && { echo "--- $log" >&2; tail -20 "$log" >&2; }
  done
  exit 1
}

# run EXPECTED_EXIT COMMAND...: output in $work/out and $work/err; nothing may take longer than two minutes.
run() {
  local expected=$1 status=0
  shift
  timeout --kill-after=10 "${run_timeout:-120}" "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
  [ "$status" -eq "$expected" ] || fail "'$*' ended with $status, expected $expected"
}
# said PATTERN: the last command printed it, on either stream.
said() { grep -qE -- "$1" "$work/out" "$work/err" || fail "expected the output to hold: $1"; }
# value JQ_FILTER: from the JSON of the last command.
value() { jq -r "$1" "$work/out" || fail "no $1 in the JSON output"; }
equal() { [ "$1" = "$2" ] || fail "${3:-values differ}: '$1' is not '$2'"; }

not() { ! "$@" 2>/dev/null; }
# wait_closely SECONDS COMMAND...: as wait_until, for what is over in a moment.
wait_closely() { wait_pause=0.002 wait_until "$@"; }
# wait_until SECONDS COMMAND...
wait_until() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep "${wait_pause:-0.1}"
  done
}

# instance_name: unique on this machine, since start scripts of all homes lie in one folder.
instance_name() { printf 'E%s%s' "$$" "${1:-}"; }
# make_instance NAME MEGABYTES [on|off]: created, started, loaded. Free ports are found by trying.
make_instance() {
  local port
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 12000))
    "$lab" create "$home" "$1" --port "$port" --archive-log "${3:-on}" --user sysdba --password-file "$work/password" \
      >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
    instances+=("$1")
    places+=("$home/$1")
    "$lab" start "$home" "$1" >"$work/lab.log" 2>&1 && break
    "$lab" destroy "$home" "$1" >/dev/null
  done
  "$lab" load "$home" "$1" --megabytes "$2" --seed 7 >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
}
# make_site: a pool, the instances known, their accounts stored.
make_site() {
  run 0 "$kestrel" pool add main --path "$pool" --default
  run 0 "$kestrel" instances
  for name in "${instances[@]}"; do
    run 0 "$kestrel" login "$name" --user sysdba --password-file "$work/password"
  done
}
# check_data NAME FILE: row counts and checksums of every table.
check_data() { "$lab" check "$home" "$1" >"$2" 2>"$work/lab.log" || fail "check: $(cat "$work/lab.log")"; }
same_data() { cmp -s "$1" "$2" || fail "tables differ: $(diff "$1" "$2" | head -5)"; }
# damage NAME: what a bad day does to a database.
damage() {
  "$lab" sql "$home" "$1" "drop table sales.orders cascade" >/dev/null
  "$lab" sql "$home" "$1" "delete from docs.documents" >/dev/null
}

# nothing_left: no FIFO and no tool of a job.
nothing_left() {
  equal "$(find "$KESTREL_ROOT" -type p 2>/dev/null | wc -l)" 0 "FIFOs left behind"
  equal "$(pgrep -fc "^$home/bin/brcmd" || true)" 0 "brcmd processes left behind"
}
backup_count() { "$kestrel" --json backups 2>/dev/null | jq -r '.backups | length'; }
job_logs_hide_password() {
  ! grep -rqF -- "$password" "$KESTREL_ROOT/var" || fail "the password stands in: $(grep -rlF -- "$password" "$KESTREL_ROOT/var" | head -3)"
}

# change NAME: rows come, change and go, in several tables.
changes=0
change() {
  changes=$((changes + 1))
  "$lab" sql "$home" "$1" "insert into sales.orders (id, customer, placed, amount, status, note)
    select max(id) + 1, 1, now(), $changes, 1, 'change $changes' from sales.orders" >/dev/null
  "$lab" sql "$home" "$1" "update sales.customers set name = name || '$changes' where id % 50 = $changes % 50" >/dev/null
  "$lab" sql "$home" "$1" "delete from docs.documents where id % 40 = $changes % 40" >/dev/null
  "$lab" sql "$home" "$1" "create table sales.change_$changes as select * from sales.orders where id % 10 = 3" >/dev/null
}
# take NAME LEVEL [OPTION...]: a backup whose record must have that level; $taken is its id, $work/data.ID what the tables
# held.
take() {
  local name=$1 level=$2
  shift 2
  run 0 "$kestrel" --json backup "$name" --level "$level" "$@"
  equal "$(value .level)" "$level" "level of the record"
  taken=$(value .backup)
  check_data "$name" "$work/data.$taken"
}
# restored_to NAME ID: after a bad day the restore brings back what the tables held when the backup was taken.
restored_to() {
  damage "$1"
  run_timeout=300 run 0 "$kestrel" --json restore "$2" --yes
  check_data "$1" "$work/after"
  same_data "$work/data.$2" "$work/after"
  nothing_left
}
# stored_file ID: where its bytes lie in the pool.
stored_file() { printf '%s/%s' "$pool" "$("$kestrel" --json show "$1" | jq -r '.folder + "/" + .file')"; }
catalog_sql() { sqlite3 "$KESTREL_ROOT/var/opt/tarnvik/kestrel3/agent/catalog.db" ".timeout 10000" "pragma foreign_keys = on; $1" >/dev/null; }
state_of() { "$kestrel" --json instances | jq -r ".instances[] | select(.name == \"$1\") | .state"; }
