#!/usr/bin/env bash
# kestrel killed with SIGKILL at random moments of backups and restores: no half backup is ever listed, nothing is left
# running, the next run works, and earlier backups still restore. KESTREL_KILL_ROUNDS sets the rounds of each kind;
# KESTREL_KILL_SEED repeats a run.
. "$(dirname "$0")/kestrel_support.sh"
rounds=${KESTREL_KILL_ROUNDS:-8}
RANDOM=${KESTREL_KILL_SEED:-$(($$ % 32768))}
note "seed ${KESTREL_KILL_SEED:-$(($$ % 32768))}, $rounds rounds of each kind"
name=$(instance_name)
make_instance "$name" 60
make_site
check_data "$name" "$work/before"
run 0 "$kestrel" --json backup "$name"
first=$(value .backup)

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
# Children die with the process that started them; the server does not.
no_tools_soon() {
  for _ in $(seq 1 50); do
    [ "$(pgrep -fc "^$home/bin/brcmd" || true)" -eq 0 ] && return
    sleep 0.1
  done
  fail "brcmd still runs after kestrel was killed"
}

note "backups"
for round in $(seq 1 "$rounds"); do
  count=$(backup_count)
  kill_after $((RANDOM % 4500)) "$kestrel" backup "$name" --compression none
  no_tools_soon
  now=$(backup_count)
  # Killed after the commit it is a whole backup; otherwise it must not be there.
  [ "$now" -eq "$count" ] || [ "$now" -eq $((count + 1)) ] || fail "round $round: $count backups became $now"
  run 0 "$kestrel" verify
done
run 0 "$kestrel" --json backup "$name"
nothing_left

note "restores"
for round in $(seq 1 "$rounds"); do
  kill_after $((RANDOM % 7000)) "$kestrel" restore "$first" --yes
  no_tools_soon
done
run 0 "$kestrel" restore "$first" --yes
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
nothing_left

note "after all that"
run 0 "$kestrel" --json instances
equal "$(value ".instances[] | select(.name == \"$name\") | .state")" online
run 0 "$kestrel" --json backup "$name"
run 0 "$kestrel" verify
echo "all right"
