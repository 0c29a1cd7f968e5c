# Sourced behind kestrel_support.sh: a backup server, agents and consoles in the private tree, without OSCAR. All of them end
# with the scenario.
export KESTREL_CONSOLE_DIR=$work/console
unset KESTREL_SERVER
server_pid=
server_address=127.0.0.1
agent_pids=()

stop_daemons() {
  local pid
  for pid in "${agent_pids[@]}" $server_pid; do kill "$pid" 2>/dev/null || true; done
  for pid in "${agent_pids[@]}" $server_pid; do
    # A daemon that does not end is a failure of its own tests, but must not stay.
    timeout 60 tail --pid="$pid" -f /dev/null || kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  agent_pids=()
  server_pid=
}
end_scenario() {
  local status=$?
  trap '' INT TERM HUP
  set +e # the status that is handed on must not end this before the tree is cleared away
  stop_daemons
  (exit "$status")
  cleanup
}
trap end_scenario EXIT

# wait_for SECONDS WHAT COMMAND...: until the command succeeds.
wait_for() {
  local end=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >"$work/waited" 2>&1; do
    [ "$SECONDS" -lt "$end" ] || { tail -5 "$work/waited" "$work"/*.log >&2; fail "$what did not come about"; }
    sleep 0.1
  done
}

# free_port: one that nobody listens on now.
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# launch_server: in the background, on the port of its settings.
launch_server() {
  "$kestrel" server >"$work/server.log" 2>&1 </dev/null &
  server_pid=$!
  wait_for 60 "a server that answers" curl -s --cacert "$ca" "$server_url/k2/r/status"
}
# start_server: made anew, running; root is its first admin.
start_server() {
  local port try
  for try in 1 2 3; do
    port=$(free_port)
    rm -rf "$KESTREL_ROOT/var/opt/tarnvik/kestrel3/server"
    run 0 "$kestrel" server init --name localhost --address "$server_address" --port "$port" --admin root \
      --password-file "$work/password"
    ca=$KESTREL_ROOT/var/opt/tarnvik/kestrel3/server/tls/ca.crt
    server_url=https://$server_address:$port
    launch_server && return
  done
}
# start_agent NAME: enrolled, connected, in a tree of its own.
start_agent() {
  run 0 "$kestrel" server enroll "$1" --out "$work/$1.enrollment"
  cp "$work/$1.enrollment" "$work/$1.key"
  launch_agent "$1" --enrollment "$work/$1.enrollment"
}
# launch_agent NAME [OPTION...]
launch_agent() {
  local name=$1
  shift
  KESTREL_ROOT=$work/$name "$kestrel" agent "$@" >"$work/$name.log" 2>&1 </dev/null &
  agent_pids+=($!)
  wait_for 60 "the connection of agent $name" agent_connected "$name"
}
# As the server's own database has it: no sign-in is needed for this.
agent_connected() {
  curl -sf --cacert "$ca" -H "X-Access-Key: $(access_key "$1")" "$server_url/k2/r/pools" >/dev/null &&
    sqlite3 "file:$KESTREL_ROOT/var/opt/tarnvik/kestrel3/server/server.db?mode=ro" \
      "SELECT 1 FROM host_info WHERE host_uuid = '$(jq -r .host_uuid "$work/$1.key")'" | grep -q 1
}
access_key() { jq -r '.host_uuid + "." + .access_key' "$work/$1.key"; }

# sign_in USER [ROLE]: and the commands that follow are that user's.
sign_in() {
  export KESTREL_CONSOLE_DIR=$work/console-$1
  export KESTREL_SERVER=$server_url
  run 0 "$kestrel" --ca "$ca" sign-in --user "$1" --password-file "$work/password"
  said "as $1( \\(${2:-.*}\\))?"
}
# be USER: who signed in before.
be() { export KESTREL_CONSOLE_DIR=$work/console-$1; }
token_of() { jq -r .token "$work/console-$1"/*.json; }
