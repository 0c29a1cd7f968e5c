#!/usr/bin/env bash
# Ctrl-C: one signal is enough, the exit code says so, and the old data stays.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)
make_instance "$name" 60
make_site
check_data "$name" "$work/before"
run 0 "$kestrel" --json backup "$name" --compression none
first=$(value .backup)

# interrupt_after MSEC COMMAND...: the exit code stands in $status. setsid gives it the signals of a terminal's job.
interrupt_after() {
  local msec=$1
  shift
  status=0
  timeout --kill-after=5 60 "$@" >"$work/out" 2>"$work/err" </dev/null &
  local pid=$!
  sleep "$((msec / 1000)).$(printf '%03d' $((msec % 1000)))"
  pkill -INT -P "$pid" || true
  wait "$pid" || status=$?
}

note "a backup, slowed down, at several moments"
for msec in 200 1500 4000; do
  interrupt_after "$msec" "$kestrel" backup "$name" --compression none --rate-limit 3m
  equal "$status" 3 "exit code of a backup interrupted after $msec ms"
  said "the backup of $name was canceled; nothing of it was kept"
  nothing_left
  equal "$(backup_count)" 1
done
equal "$(find "$pool" -type f -not -name .kestrel-pool | wc -l)" 2 "files in the pool: one backup with its side file"

note "a restore while data moves"
run 0 "$kestrel" --json pool list
cat >"$work/slow.json" <<JSON
{"id": "5b0a35a5-5d0c-4a6e-9d5e-0d6a3c1f7a10", "uid": "5b0a35a5-5d0c-4a6e-9d5e-0d6a3c1f7a10", "name": "$name",
 "type": "restore", "subtype": "full", "target": {"id": "$(value '.pools[0].id')"}, "rate_limits": {"read": 3000000},
 "source": {"id": "$("$kestrel" --json show "$first" | jq -r .resource_uuid)", "name": "$name", "catalog_id": "$first"},
 "options": {}}
JSON
interrupt_after 6000 "$kestrel" run "$work/slow.json"
equal "$status" 3 "exit code of a restore interrupted"
nothing_left
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"

note "the next runs work"
run 0 "$kestrel" backup "$name"
run 0 "$kestrel" restore latest --yes
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
echo "all right"
