#!/bin/bash
# A server that was started without its directory is found with the help of SZ_OSCAR_HOME; a relative one means the
# directory that the command was given in, wherever what is kept of it is read later.
. "$(dirname "$0")/kestrel_support.sh"

instance=$(instance_name RELH)
make_instance "$instance" 1
"$lab" stop "$home" "$instance" >/dev/null
# Only this is there then: a command line as of a server that a search path has found.
mkfifo "$work/hold"
(exec -a oscar bash -c 'read -t 300 -r _ <>"$0"' "$work/hold" -d "$instance") &
server_pid=$!
shows_up() { tr '\0' ' ' <"/proc/$server_pid/cmdline" | grep -q "^oscar -c .* -d $instance"; }
wait_until 60 shows_up || fail "the server without a directory does not run"

home_of() { value ".instances[] | select(.name == \"$instance\") | .home"; }
note "a relative home is kept as an absolute one"
cd "$work"
run 0 env SZ_OSCAR_HOME=oscar "$kestrel" --json instances
equal "$(home_of)" "$work/oscar" "home"
kill "$server_pid"
wait "$server_pid" 2>/dev/null || true
cd /
run 0 "$kestrel" --json instances
equal "$(home_of)" "$work/oscar" "home that was kept"
equal "$(value ".instances[] | select(.name == \"$instance\") | .state")" offline "state, read from elsewhere"
echo "relative home: ok"
