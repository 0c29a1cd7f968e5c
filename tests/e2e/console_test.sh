#!/bin/bash
# The console against a server and an agent, on a host without OSCAR: who may what, what is refused and how, jobs from a file,
# following a run, logs, names in the completion.
. "$(dirname "$0")/kestrel_support.sh"
. "$(dirname "$0")/server_support.sh"
source=$(cd "$(dirname "$0")/../.." && pwd)

note "before anybody has signed in"
start_server
run 1 "$kestrel" --server "$server_url" hosts
said "you are not signed in at $server_url; sign in with: kestrel --server $server_url sign-in --user NAME"
run 1 "$kestrel" --server "$server_url" sign-in --user root --password-file "$work/password"
said "not signed by an authority that is known here.*--ca FILE"
printf 'wrong\n' >"$work/wrong"
run 1 "$kestrel" --server "$server_url" --ca "$ca" sign-in --user root --password-file "$work/wrong"
[ -z "$(ls "$work"/console/* 2>/dev/null)" ] || fail "a sign-in that failed left a file"

note "users and roles"
sign_in root admin
equal "$(stat -c %a "$KESTREL_CONSOLE_DIR"/*.json)" 600 "mode of the kept sign-in"
! grep -qF "$password" "$KESTREL_CONSOLE_DIR"/*.json || fail "the password is kept"
run 0 "$kestrel" whoami
said "^root \(admin\) at $server_url$"
for role in viewer operator; do
  run 0 "$kestrel" user add "a-$role" --role "$role" --password-file "$work/password"
  sign_in "a-$role" "$role"
  be root
done
run 0 "$kestrel" --json users
equal "$(value '[.users[].name] | sort | join(" ")')" "a-operator a-viewer root"
run 0 "$kestrel" pool add main --path "$pool" --default

note "hosts"
run 0 "$kestrel" hosts
said "There is no host yet"
start_agent alpha
run 0 "$kestrel" --json hosts
equal "$(value '.hosts[0].name + " " + (.hosts[0].online | tostring)')" "alpha true"
# Other tests may have instances on this machine: only the form counts.
run 0 "$kestrel" --json instances --host alpha
equal "$(value '.instances | type')" array
run 1 "$kestrel" instances --host gamma
said "the server knows no host gamma; 'kestrel hosts' lists them"
run 1 "$kestrel" browse alpha/NOSUCHDB
said "host alpha refused: Failed to get account"
run 1 "$kestrel" login NOSUCHDB --user sysdba --password-file "$work/password"
said "has an instance NOSUCHDB; 'kestrel instances' lists them"
run 1 "$kestrel" backup NOSUCHDB
run 1 "$kestrel" show latest
run 0 "$kestrel" backups
said "There is no backup yet"

note "a result that cannot be written"
for stream in full closed; do
  status=0
  if [ "$stream" = full ]; then
    "$kestrel" --json hosts >/dev/full 2>"$work/err" || status=$?
  else
    "$kestrel" --json hosts >&- 2>"$work/err" || status=$?
  fi
  equal "$status" 1 "exit code with a standard output that is $stream"
  grep -q "the result cannot be written to the standard output: " "$work/err" || fail "$(cat "$work/err")"
done
: >"$work/out"

note "definitions that are none"
for text in '' '[]' '{"type":"backup"}' '{"type":"backup","source":{"entries":["oscar/DB1"]},"target":{"id":"lost"}}'; do
  printf '%s' "$text" >"$work/bad.json"
  run 1 "$kestrel" job define "$work/bad.json" --host alpha
  said "the job definition $work/bad.json is refused: "
done
printf '{"name": "n", "type": "backup", "source": {"entries": ["oscar/NOSUCHDB"]}}' >"$work/bad.json"
run 1 "$kestrel" job define "$work/bad.json" --host alpha
said "is refused: none of its hosts has an instance NOSUCHDB; "
printf '{"name": "n", "type": "backup", "source": {"id": "48bfe436-d3c7-8c92-a702-cfafa43fd264", "entries": ["oscar/DB1"]},
 "schedules": [{"type": 1, "cron": "0 25 * * *"}]}' >"$work/bad.json"
run 1 "$kestrel" job define "$work/bad.json" --host alpha
said '"schedules", number 1: '
run 0 "$kestrel" --json jobs
equal "$(value '.jobs | length')" 0 "jobs after refused definitions"
run 1 "$kestrel" job define "$work/none.json"
run 2 "$kestrel" job define

note "a definition, its changes, its run"
cat >"$work/nightly.json" <<'END'
{"name": "nightly", "type": "backup", "subtype": "full", "options": {"compression": "zstd"},
 "source": {"id": "48bfe436-d3c7-8c92-a702-cfafa43fd264", "name": "DB1", "entries": ["oscar/DB1"]},
 "schedules": [{"type": 1, "cron": "0 2 * * *", "time_zone": "Europe/Berlin"}, {"type": 7}]}
END
be a-viewer
run 1 "$kestrel" job define "$work/nightly.json" --host alpha
said "role"
be a-operator
run 0 "$kestrel" --json job define "$work/nightly.json" --host alpha
equal "$(value '.created | tostring')" true
job=$(value .id)
run 0 "$kestrel" --json job define "$work/nightly.json"
equal "$(value '.id + " " + (.created | tostring)')" "$job false"
run 0 "$kestrel" jobs
said "^nightly +backup full +alpha +"
[ "$(awk '{ if (length($0) > widest) widest = length($0) } END { print widest }' "$work/out")" -le 80 ] ||
  fail "the list is wider than 80 columns"
run 0 "$kestrel" job show "${job:0:6}"
said "0 2 \* \* \* Europe/Berlin"
run 1 "$kestrel" job run nightly --wait
said "the job nightly on alpha failed: Failed to get account; store an account .*\(log: alpha:/"
run 0 "$kestrel" --json job runs nightly
equal "$(value '.runs[0].state + " " + .runs[0].trigger')" "error console"
run 0 "$kestrel" job log "$(value '.runs[0].run_id' | cut -c1-8)"
said "Failed to get account"
run 0 "$kestrel" job log -f nightly
said "Failed to get account"
run 1 "$kestrel" job cancel nightly
said "job nightly: cancel was refused: host alpha: "
for action in abort switch; do
  run 1 "$kestrel" job $action nightly
  said "job nightly: $action was refused: host alpha: the job is not running"
done
run 0 "$kestrel" --root "$work/alpha" agent history nightly
said "^[0-9a-f]{8}  nightly +error +"
said "Failed to get account"
run 0 "$kestrel" job disable nightly
run 0 "$kestrel" --json jobs
equal "$(value '.jobs[0].enabled | tostring')" false
run 0 "$kestrel" job enable nightly

note "a viewer reads, and changes nothing"
be a-viewer
for command in jobs "job show nightly" "job runs" "job log nightly" nodes backups "pool list" status hosts; do
  run 0 "$kestrel" $command
done
for command in "job run nightly" "job remove nightly" "pool remove main" audit users "user remove root"; do
  run 1 "$kestrel" $command
  said "^kestrel: the backup server $server_url refused: "
done

note "names in the completion"
PATH=$bin:$PATH bash -c '
  source "$1/packaging/completion/kestrel"
  for words in "kestrel job show n" "kestrel instances --host a" "kestrel backup --pool m"; do
    COMP_WORDS=($words)
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _kestrel
    echo "${COMPREPLY[@]}"
  done' - "$source" >"$work/out" 2>&1
equal "$(xargs <"$work/out")" "nightly alpha main" "names that are offered"

note "commands that make no sense here or there"
run 2 "$kestrel" verify
said "'kestrel verify' works on this host only: unset KESTREL_SERVER"
(
  unset KESTREL_SERVER
  run 2 "$kestrel" jobs
  said "give --server URL or set KESTREL_SERVER"
  run 2 "$kestrel" --server "$server_url" verify
  said "leave --server out"
  run 2 "$kestrel" backup DB1 --host alpha
)

note "an agent and a server that are away"
be a-operator
kill "${agent_pids[0]}" && wait "${agent_pids[0]}" || true
agent_pids=()
wait_for 60 "the host going offline" sh -c "'$kestrel' hosts | grep -q offline"
run 1 "$kestrel" job run nightly
said "host alpha: "
run 1 "$kestrel" browse alpha
said "is not connected"
stop_daemons
run 1 "$kestrel" jobs
said "cannot reach the backup server $server_url"
launch_server
run 0 "$kestrel" job remove nightly

note "signed out, and removed"
run 0 "$kestrel" sign-out
run 1 "$kestrel" jobs
said "you are not signed in"
run 0 "$kestrel" sign-out
be root
run 0 "$kestrel" user remove a-viewer
be a-viewer
run 1 "$kestrel" jobs
said "the sign-in at $server_url has ended"
be root
run 0 "$kestrel" audit
said "user a-viewer"
for word in "$password" "$(token_of root)"; do
  ! grep -rqF -- "$word" "$KESTREL_ROOT/var/log" "$work/alpha/var/log" "$work/server.log" || fail "a secret is in a log"
done
echo "console: ok"
