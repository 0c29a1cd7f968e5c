# Sourced after served_support.sh by scenarios with one host, which is this machine: server and agent on loopback.
# shellcheck shell=bash

agent_root=$KESTREL_ROOT
agent_pid='' server_pid=''
agent_options=()
server_port=
end_daemons() { kill -KILL $agent_pid $server_pid 2>/dev/null || true; }
trap 'end_daemons; cleanup' EXIT

port_is_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
# choose_port: of the server to be made.
choose_port() {
  server_port=$((20000 + RANDOM % 12000))
  while port_is_open "$server_port"; do server_port=$((20000 + RANDOM % 12000)); done
  url=https://127.0.0.1:$server_port
}
start_server() {
  "${server_side[@]}" "$kestrel" server </dev/null >>"$work/server.out" 2>&1 &
  server_pid=$!
  wait_until 60 port_is_open "$server_port" || fail "the server does not answer: $(tail -5 "$work/server.out")"
}
start_agent() {
  env KESTREL_ROOT="$agent_root" "$kestrel" agent --enrollment "$work/here.enrollment" "${agent_options[@]}" \
    </dev/null >>"$work/agent.out" 2>&1 &
  agent_pid=$!
  wait_until 60 host_is_online here || fail "the agent does not come online: $(tail -5 "$work/agent.out")"
}
# end_process PID SIGNAL
end_process() {
  kill "-$2" "$1"
  wait_until 60 not kill -0 "$1" || fail "process $1 does not end"
  wait "$1" 2>/dev/null || true
}
restart_server() { # SIGNAL
  end_process "$server_pid" "$1"
  start_server
}
# make_one_host INSTANCE: server and agent run, admin is signed in, the account is stored; $uuid is the instance's.
make_one_host() {
  [ -n "$server_port" ] || choose_port
  init_server 127.0.0.1 localhost
  start_server
  enroll here
  sign_in admin "$work/admin.password"
  start_agent
  ask 0 instances --host here
  uuid=$(value ".instances[] | select(.name == \"$1\") | .uuid")
  ask 0 login "$1" --user sysdba --password-file "$work/password"
  ask 0 pool add main --path "$pool" --default
}
# define_backup NAME INSTANCE BYTES_PER_SECOND: 0 = as fast as it goes.
define_backup() {
  local pool_id
  pool_id=$(asked '.pools[0].id' pool list)
  cat >"$work/$1.json" <<END
{"name": "$1", "type": "backup", "subtype": "full", "target": {"id": "$pool_id"}, "schedules": [{"type": 7}],
 "source": {"id": "$uuid", "name": "$2", "entries": ["oscar/$2"]}, "rate_limits": {"write": $3},
 "options": {"compression": "zstd", "compression_level": 1}}
END
  ask 0 job define "$work/$1.json" --host here
}
now_of() { asked ".jobs[] | select(.document.name == \"$1\") | .states[].now | .$2 // \"\"" jobs; }
# job_is NAME STATES: a part of an extended regular expression.
job_is() { [[ "$(now_of "$1" state)" =~ ^($2)$ ]]; }
more_runs() { [ "$(run_count "$1")" -gt "$2" ]; } # JOB THAN
