# Sourced by the cluster scenario and by the demonstration: a server, three nodes with agents, and with use_relays=yes a
# relay in front of the server for each node. Needs kestrel_support.sh, cluster_support.sh and served_support.sh.
# shellcheck shell=bash

nodes=(node1 node2 node3)
declare -A run_on

# make_cluster_site INSTANCE MEGABYTES: server, three nodes with agents, signed in, accounts stored, a pool.
make_cluster_site() {
  local name number
  site_instance=$1
  make_network
  make_host server 10
  for number in 1 2 3; do make_host "node$number" "1$number"; done
  server_root=$work/hosts/server/root
  server_files=$server_root/var/opt/tarnvik/kestrel3/server
  enter_host server
  server_side=("${entry[@]}")
  console_prefix=("${entry[@]}")
  use_console admin
  url=https://${host_address[server]}:7480
  for name in server "${nodes[@]}"; do make_member "$name" "$1" "$2" >"$work/$name.lab" 2>&1 & done
  init_server "${host_address[server]}"
  start_server
  sign_in admin "$work/admin.password"
  wait
  for name in server "${nodes[@]}"; do [ -e "$work/hosts/$name/oscar/admin/$1.db" ] || fail "$name: $(cat "$work/$name.lab")"; done
  give_virtual_address node1
  set_cluster "$1" node1=master node2=slave node3=slave >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
  mkdir -p "$pool"
  ask 0 pool add main --path "$pool" --default
  for name in "${nodes[@]}"; do
    enroll "$name"
    [ "${use_relays:-no}" = no ] || start_relay "$name"
    start_agent "$name"
  done
  for name in "${nodes[@]}"; do
    wait_until 60 host_is_online "$name" || fail "$name does not come online: $(tail -5 "$work/hosts/$name/agent.out")"
    ask 0 instances --host "$name"
    ask 0 login "$1" --host "$name" --user sysdba --password-file "$work/password"
  done
}
start_server() {
  start_in_host server daemon "$kestrel" server
  wait_until 60 server_answers || fail "the server does not answer: $(tail -5 "$work/hosts/server/daemon.out")"
}
server_answers() { in_host server bash -c "exec 3<>/dev/tcp/${host_address[server]}/7480" 2>/dev/null; }
# restart_server SIGNAL
restart_server() {
  end_in_host server daemon "$1"
  start_server
}
start_agent() {
  local port=7480
  [ "${use_relays:-no}" = no ] || port=$((7480 + $(node_id "$1")))
  start_in_host "$1" agent "$kestrel" agent --server "https://${host_address[server]}:$port" --enrollment "$work/$1.enrollment"
}
start_relay() {
  : >"$work/$1.control"
  start_in_host server "relay-$1" "$bin/net_relay" "${host_address[server]}:$((7480 + $(node_id "$1")))" \
    "${host_address[server]}:7480" "$work/$1.control"
}
# slow_link NODE [RULE...]: of the node's connections to the server; without rules they are as they were.
slow_link() {
  local control=$work/$1.control taken=$work/hosts/server/relay-$1.out before
  before=$(grep -c ^rules "$taken")
  printf '%s\n' "${@:2}" >"$control.new"
  mv "$control.new" "$control"
  wait_until 10 rules_taken "$taken" "$before" || fail "the relay of $1 does not answer"
}
rules_taken() { [ "$(grep -c ^rules "$1")" -gt "$2" ]; }

# define_cluster_job NAME LEVEL
define_cluster_job() {
  local pool_id uuid
  job=$1
  uuid=$(asked ".instances[] | select(.name == \"$site_instance\") | .uuid" instances --host node1)
  pool_id=$(asked '.pools[0].id' pool list)
  cat >"$work/$1.json" <<END
{"name": "$1", "type": "backup", "subtype": "$2", "rsrc_form": "cluster",
 "target": {"id": "$pool_id"}, "schedules": [{"type": 7}],
 "source": {"id": "$uuid", "name": "$site_instance", "entries": ["oscar/$site_instance"]},
 "options": {"compression": "zstd", "compression_level": 1}}
END
  ask 0 job define "$work/$1.json" --host node1 --host node2 --host node3
}
# begin_run [OPTION...]: the run ids are in run_on[NAME], empty where the host could not be asked.
begin_run() {
  local name
  # Hosts that are away make it an error; the others run.
  timeout 60 "${console_side[@]}" "$kestrel" --server "$url" job run "$job" "$@" >"$work/run.out" 2>&1 </dev/null || true
  for name in "${nodes[@]}"; do
    run_on[$name]=$(sed -n "s/^Job $job on $name: run accepted, run \(.*\)\.$/\1/p" "$work/run.out")
  done
}
no_run_open() {
  local name
  for name in "${nodes[@]}"; do [ -z "${run_on[$name]}" ] || run_has_ended "${run_on[$name]}" || return 1; done
}
run_on_all() {
  begin_run
  wait_until 120 no_run_open || fail "a run does not end: $(cat "$work/run.out")"
}
# outcome_on NODE: state of the last run, empty when there was none.
outcome_on() { [ -z "${run_on[$1]}" ] || state_of_run "${run_on[$1]}"; }
reason_on() { asked ".runs[] | select(.run_id == \"${run_on[$1]}\") | .reason" job runs; }
log_of_run_on() { "${console_side[@]}" "$kestrel" --server "$url" job log "${run_on[$1]}" 2>&1; }
# expect_one_worker NODE: of the last run; nobody else did the work.
expect_one_worker() {
  local name
  equal "$(outcome_on "$1")" completed "$1 ($(reason_on "$1"))"
  for name in "${nodes[@]}"; do
    [ "$name" = "$1" ] || [ "$(outcome_on "$name")" != completed ] || fail "$name did the work, too"
  done
}
# choice_is_open: a node has asked, and the server has not chosen yet.
choice_is_open() { [ "$(asked '.selections[0].state' nodes --limit 1)" = open ]; }
