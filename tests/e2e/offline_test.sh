#!/usr/bin/env bash
# An instance without archive logging: stopped for its backup and started again, whatever happens to the job.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)
make_instance "$name" 20 off
make_site
brcmd=$home/bin/brcmd
check_data "$name" "$work/before"
server_pid() { cat "$home/admin/$name.db"; }
# started_again: it runs, as a new process, with its data.
started_again() {
  equal "$(state_of "$name")" online "state of the instance after the job"
  [ "$(server_pid)" != "$old_pid" ] || fail "the instance was not stopped"
  check_data "$name" "$work/after"
  same_data "$work/before" "$work/after"
  nothing_left
  old_pid=$(server_pid)
}

note "a full backup"
old_pid=$(server_pid)
take "$name" full
full=$taken
started_again
grep -q "shutdown immediate" "$(value .log)" || fail "the job log does not show the shutdown"

note "brcmd fails at once, later, or is missing"
mv "$brcmd" "$brcmd.real"
for script in 'exit 3' 'sleep 4; exit 3' 'echo brcmd: out of order >&2; exit 3'; do
  printf '#!/bin/sh\n%s\n' "$script" >"$brcmd"
  chmod +x "$brcmd"
  run 1 "$kestrel" backup "$name"
  started_again
done
rm "$brcmd"
run 1 "$kestrel" backup "$name"
started_again
mv "$brcmd.real" "$brcmd"
equal "$(backup_count)" 1

note "the job is canceled"
for msec in 500 2000 4500; do
  status=0
  timeout --kill-after=5 120 "$kestrel" backup "$name" --compression none --rate-limit 2m >"$work/out" 2>"$work/err" \
    </dev/null &
  job=$!
  # The moments that matter lie after the instance went down.
  for _ in $(seq 1 200); do [ -e "$home/admin/$name.db" ] && sleep 0.05 || break; done
  sleep "$((msec / 1000)).$(printf '%03d' $((msec % 1000)))"
  pkill -INT -P "$job" || true
  wait "$job" || status=$?
  equal "$status" 3 "exit code of a backup canceled $msec ms after the shutdown"
  started_again
  equal "$(backup_count)" 1
done

note "the next job is right, and what it made restores"
change "$name"
take "$name" full
second=$taken
change "$name"
take "$name" incr
incr=$taken
equal "$(value .parent)" "$second" "what the incremental backup builds on"
change "$name"
take "$name" diff
diff=$taken
equal "$(value .parent)" "$second" "what the differential backup builds on"
check_data "$name" "$work/before"
started_again
restored_to "$name" "$full"
restored_to "$name" "$incr"
restored_to "$name" "$diff"

note "an instance that is down already has no archive mode to ask for"
"$lab" stop "$home" "$name" >/dev/null
run 1 "$kestrel" backup "$name"
said "check that the instance is up"
run 0 "$kestrel" restore "$full" --yes
equal "$(state_of "$name")" online

job_logs_hide_password
echo "all right"
