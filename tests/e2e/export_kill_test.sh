#!/usr/bin/env bash
# kestrel killed with SIGKILL at random moments of exports and imports: no half export is ever listed, no tool goes on,
# the next run works and clears the dump files away, and earlier exports still import. KESTREL_KILL_ROUNDS sets the
# rounds of each kind; KESTREL_KILL_SEED repeats a run.
. "$(dirname "$0")/kestrel_support.sh"
rounds=${KESTREL_KILL_ROUNDS:-6}
seed=${KESTREL_KILL_SEED:-$(($$ % 32768))}
RANDOM=$seed
note "seed $seed, $rounds rounds of each kind"
one=$(instance_name K)
make_instance "$one" 60
make_site
check_data "$one" "$work/before"
run 0 "$kestrel" --json export "$one" "$one/$one/SALES" --compression none
first=$(value .backup)

export_count() { "$kestrel" --json backups 2>/dev/null | jq -r '.exports | length'; }
dumps() { find "$KESTREL_ROOT/var/cache/tarnvik/kestrel3/oscar/dump" -mindepth 1 2>/dev/null | wc -l; }
# kill_after MSEC COMMAND...: starts it, kills that one process after a while.
kill_after() {
  local msec=$1
  shift
  "$@" >"$work/out" 2>"$work/err" </dev/null &
  local pid=$!
  sleep "$((msec / 1000)).$(printf '%03d' $((msec % 1000)))"
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}
# Children die with the process that started them.
no_tools_soon() {
  for _ in $(seq 1 100); do
    [ "$(pgrep -fc "^$home/bin/osr" || true)" -eq 0 ] && return
    sleep 0.1
  done
  fail "a tool still runs after kestrel was killed"
}

note "exports"
for round in $(seq 1 "$rounds"); do
  count=$(export_count)
  kill_after $((RANDOM % 3000)) "$kestrel" export "$one" "$one/$one/SALES/ORDERS" --compression none
  no_tools_soon
  now=$(export_count)
  # Killed after the commit it is a whole export; otherwise it must not be there.
  [ "$now" -eq "$count" ] || [ "$now" -eq $((count + 1)) ] || fail "round $round: $count exports became $now"
  run 0 "$kestrel" verify
done
run 0 "$kestrel" --json export "$one/$one/SALES/ORDERS"
equal "$(dumps)" 0 "dump files left behind"
equal "$("$kestrel" --json backups | jq -r '[.exports[].file] | length - (unique | length)')" 0 "an archive was replaced"

note "imports"
for _ in $(seq 1 "$rounds"); do
  kill_after $((RANDOM % 4000)) "$kestrel" import "$first" --original "$one/$one" --yes
  no_tools_soon
done
run 0 "$kestrel" import "$first" --original "$one/$one" --yes
equal "$(dumps)" 0 "dump files left behind"
check_data "$one" "$work/after"
same_data "$work/before" "$work/after"

note "after all that"
run 0 "$kestrel" --json instances
equal "$(value ".instances[] | select(.name == \"$one\") | .state")" online
run 0 "$kestrel" verify
run 0 "$kestrel" --json backup "$one"
echo "all right"
