#!/bin/bash
# Backups, restores, exports and imports of a real instance through a backup server: the same commands, the same ends.
. "$(dirname "$0")/kestrel_support.sh"
. "$(dirname "$0")/server_support.sh"
name=CONSOLE$$
run_timeout=300

start_server
sign_in root admin
run 0 "$kestrel" pool add main --path "$pool" --default
make_instance "$name" 20 on
start_agent alpha
run 0 "$kestrel" instances --host alpha
said "^alpha +$name "
run 0 "$kestrel" login "$name" --user sysdba --password-file "$work/password"
said "alpha keeps the account of sysdba at $name"

note "browse"
run 0 "$kestrel" browse alpha
said "$name"
run 0 "$kestrel" browse "alpha/$name"
said "open"
run 0 "$kestrel" --json browse "alpha/$name/$name"
schema=$(value '.schemas[0] | if type == "object" then .schema else . end')
run 0 "$kestrel" browse "alpha/$name/$name/$schema"

note "backups"
run 0 "$kestrel" backup "$name"
said "^Backup .* of $name \(full\): "
run 0 "$kestrel" --json backup "$name" --level incr
equal "$(value .level)" incr
run 0 "$kestrel" --json backups "$name"
equal "$(value '[.backups[].level] | join(" ")')" "incr full"
equal "$(value '.backups[0].pool')" main
run 0 "$kestrel" show latest
said "Instance +$name"
run 0 "$kestrel" pool list
said "^main +yes +2 "
run 1 "$kestrel" pool remove main
said "2 backups live in the pool main"
"$lab" check "$home" "$name" >"$work/before"

note "a cancel goes through the server"
status=0
"$kestrel" backup "$name" --rate-limit 100k >"$work/out" 2>"$work/err" </dev/null &
backup=$!
running() { "$kestrel" --json jobs | jq -e '.jobs[].states[].now | select(.state == "running" and .done_bytes > 0)'; }
wait_for 120 "a backup under way" running
kill -INT "$backup"
wait "$backup" || status=$?
equal "$status" 3 "exit code of a canceled backup"
said "the backup of $name was canceled; nothing of it was kept"
run 0 "$kestrel" --json backups "$name"
equal "$(value '.backups | length')" 2

note "restore"
run 2 "$kestrel" restore latest
said "nobody is there to confirm the restore"
run 0 "$kestrel" restore latest --yes
said "1. the instance $name is stopped"
said "$name is restored from backup"
"$lab" check "$home" "$name" >"$work/after"
cmp -s "$work/before" "$work/after" || fail "the data is not what it was"

note "export and import"
run 0 "$kestrel" --json export "$name/$name/$schema"
equal "$(value .level)" export
run 0 "$kestrel" import latest --yes
"$lab" check "$home" "$name" >"$work/after"
cmp -s "$work/before" "$work/after" || fail "the data is not what it was before the import"

note "a definition document without a definition"
printf '{"name": "file", "type": "backup", "subtype": "full", "source": {"entries": ["oscar/%s"]}}' "$name" >"$work/file.json"
run 0 "$kestrel" run "$work/file.json"
run 0 "$kestrel" --json job runs file
equal "$(value '.runs[0].state')" completed
echo "console backups: ok"
