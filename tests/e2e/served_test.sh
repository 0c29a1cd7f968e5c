#!/usr/bin/env bash
# One host with an agent, a backup server and operators, as processes of their own over TLS: the tour of the served way,
# and what is left when agent or server are killed on the way.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/served_support.sh
source "$here/served_support.sh"

# shellcheck source=tests/e2e/served_one_host.sh
source "$here/served_one_host.sh"

instance=$(instance_name S)
note "server, enrollment, agent, first sign-in"
choose_port
make_instance "$instance" 30
init_server 127.0.0.1 localhost
start_server
enroll here
equal "$(stat -c %a "$work/here.enrollment" "$server_files/tls/server.key" "$server_files/tls/ca.key" | sort -u)" 600 "modes of secrets"
sign_in admin "$work/admin.password"
equal "$(asked '.hosts[0].online' hosts)" false "host before its agent"
start_agent

note "hosts, instances, login, browse"
ask 0 instances --host here
equal "$(value ".instances[] | select(.name == \"$instance\") | .state")" online "state"
uuid=$(value ".instances[] | select(.name == \"$instance\") | .uuid")
printf 'wrong' >"$work/wrong"
tell 1 login "$instance" --user sysdba --password-file "$work/wrong"
ask 0 login "$instance" --user sysdba --password-file "$work/password"
equal "$(value .warning)" "No cluster of $instance could be read; that matters only if it is a node of one" "warning"
tell 0 browse "here/$instance/$instance"
said SALES
tell 0 browse "here/$instance/$instance/SALES"
said ORDERS

note "a pool, and a job with a schedule"
ask 0 pool add main --path "$pool" --default
pool_id=$(asked '.pools[0].id' pool list)
cat >"$work/nightly.json" <<END
{"name": "nightly", "type": "backup", "subtype": "full", "target": {"id": "$pool_id"},
 "schedules": [{"type": 1, "cron": "0 2 * * *", "time_zone": "Europe/Berlin", "missed": "skip", "enabled": true}, {"type": 7}],
 "source": {"id": "$uuid", "name": "$instance", "entries": ["oscar/$instance"]},
 "options": {"compression": "zstd", "compression_level": 1}}
END
ask 0 job define "$work/nightly.json" --host here
check_data "$instance" "$work/before"
tell 0 job run nightly --wait
said completed
run_id=$(runs_of nightly .run_id | head -1)
equal "$(state_of_run "$run_id")" completed "state of the run"
tell 0 job log -f "$run_id"
said brcmd
equal "$(served_backup_count)" 1 "backups"
backup=$(asked '.backups[0].id' backups)

note "what an operator does: pause, resume, cancel"
ask 0 job define <(jq '.name = "slow" | .rate_limits = {"write": 400000} | del(.id)' "$work/nightly.json") --host here
tell 0 job run slow
wait_until 60 job_is slow running || fail "the job does not run: $(now_of slow state)"
ask 1 job run slow # refused while one is under way
tell 0 job pause slow
# A tool that runs is not held up: the job waits for its next step.
wait_until 60 job_is slow "paus(ing|ed)" || fail "the job does not pause: $(now_of slow state)"
tell 0 job resume slow
wait_until 60 job_is slow running || fail "the job does not go on: $(now_of slow state)"
run_id=$(now_of slow run_id)
tell 0 job cancel slow
wait_until 60 run_has_ended "$run_id" || fail "the canceled run does not end"
equal "$(state_of_run "$run_id")" canceled "state of the canceled run"
equal "$(served_backup_count)" 1 "backups after the cancel"
nothing_left

note "the agent is killed in a run: the run is reported as failed when it is back"
tell 0 job run slow
wait_until 60 job_is slow running || fail "the job does not run: $(now_of slow state)"
run_id=$(now_of slow run_id)
end_process "$agent_pid" KILL
wait_until 100 host_is_offline here || fail "the host stays online"
start_agent
wait_until 60 run_has_ended "$run_id" || fail "the run of the killed agent is not reported"
equal "$(state_of_run "$run_id")" error "state of the run of the killed agent"
asked ".runs[] | select(.run_id == \"$run_id\") | .reason" job runs | grep -q "agent ended while .*cleared away: .*_fifo" ||
  fail "the reason does not say what was left: $(asked ".runs[] | select(.run_id == \"$run_id\") | .reason" job runs)"
nothing_left
equal "$(served_backup_count)" 1 "backups after the kill"

note "the server is killed in a backup: the backup ends well"
ask 0 job define <(jq '.name = "steady" | .rate_limits = {"write": 3000000} | del(.id)' "$work/nightly.json") --host here
tell 0 job run steady
wait_until 60 job_is steady running || fail "the job does not run"
restart_server KILL
wait_until 100 host_is_online here || fail "the agent does not come back"
steady_ended() { [ -n "$(runs_of steady .state)" ]; }
wait_until 120 steady_ended || fail "the run is not reported"
equal "$(runs_of steady .state | head -1)" completed "backup over a restart of the server"
equal "$(served_backup_count)" 2 "backups"

note "the server is killed when bytes come, when they are complete, and around the commit"
appears() { find "$pool" -type f -newer "$work/mark" -name "$1" | grep -q .; }
for pattern in '*' '*.meta' '*.zst'; do
  before=$(run_count nightly)
  touch "$work/mark"
  tell 0 job run nightly
  wait_closely 60 appears "$pattern" || fail "the backup stores nothing like $pattern"
  restart_server KILL
  wait_until 100 host_is_online here || fail "the agent does not come back"
  wait_until 100 more_runs nightly "$before" || fail "the run is not reported ($pattern)"
  equal "$(runs_of nightly .state | head -1)" completed "backup with a server killed at $pattern"
done
equal "$(served_backup_count)" 5 "backups"

note "restore, with the same rows and checksums"
damage "$instance"
ask 0 restore "$backup" --host here --yes
check_data "$instance" "$work/after"
same_data "$work/before" "$work/after"
nothing_left

note "a viewer may look and nothing else; the audit has it"
printf 'viewer.secret.%s\n' "$$" >"$work/viewer.password"
ask 0 user add watcher --role viewer --password-file "$work/viewer.password"
sign_in watcher "$work/viewer.password"
ask 0 hosts
ask 0 jobs
tell 1 job run nightly
said "role 'viewer' does not allow"
tell 1 user add other --role admin --password-file "$work/viewer.password"
use_console admin
ask 0 audit --limit 50
equal "$(value '[.audit[] | select(.caller == "watcher" and .status == 403)] | length')" 2 "refused requests in the audit"
tell 0 sign-out
tell 1 hosts

note "no secret anywhere; both daemons end when told to"
end_process "$agent_pid" TERM
end_process "$server_pid" TERM
agent_pid='' server_pid=''
! grep -rqF -e "$password" -e "$(cat "$work/admin.password")" -e "$(cat "$work/viewer.password")" "$server_root" "$agent_root" \
  "$work/server.out" "$work/agent.out" "$work/console" || fail "a password stands in a file"
note "done"
