# Sourced by the scenarios of the command line: a private tree, a stand-in instance, and small checks that say what they
# expected. $1 of the scenario is the folder of the built programs.
set -euo pipefail

bin=$(cd "${1:?usage: $0 FOLDER_OF_PROGRAMS}" && pwd)
kestrel=$bin/kestrel
lab=$bin/kestrel-lab
work=$(mktemp -d /tmp/kestrel-e2e.XXXXXX)
chmod 755 "$work"
export KESTREL_ROOT=$work/root
home=$work/oscar
pool=$work/pool
instances=()
password=s3cret.pass
mkdir -p "$KESTREL_ROOT" "$pool"
printf '%s\n' "$password" >"$work/password"
unset SZ_OSCAR_HOME
# Who may not install a start script uses the stand-in's own systemctl.
[ "$(id -u)" -eq 0 ] || export PATH="$home/systemctl-bin:$PATH"

cleanup() {
  local status=$?
  trap - EXIT
  for name in "${instances[@]}"; do "$lab" destroy "$home" "$name" >/dev/null 2>&1 || true; done
  ! mountpoint -q "$work/tmpfs" 2>/dev/null || umount -l "$work/tmpfs"
  if [ "$status" -ne 0 ] && [ -n "${KESTREL_KEEP:-}" ]; then
    echo "kept: $work" >&2
  else
    rm -rf --one-file-system "$work"
  fi
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

note() { echo "-- $*"; }
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
