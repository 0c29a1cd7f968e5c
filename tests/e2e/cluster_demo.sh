#!/usr/bin/env bash
# The demonstration of a cluster (./demo.sh --cluster): three nodes, one definition on all of them, and what happens when
# nodes die. $1 is the folder of the built programs.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/cluster_support.sh
source "$here/cluster_support.sh"
# shellcheck source=tests/e2e/served_support.sh
source "$here/served_support.sh"
# shellcheck source=tests/e2e/cluster_scene.sh
source "$here/cluster_scene.sh"

trouble=$(network_trouble)
[ -z "$trouble" ] || { echo "demo: the hosts of the cluster cannot be made on this machine: $trouble" >&2; exit 1; }
if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
say() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
# show COMMAND...: of the console, as an operator would type it with KESTREL_SERVER set.
show() {
  printf '%s$ kestrel %s%s\n' "$bold" "$*" "$plain"
  "${console_side[@]}" "$kestrel" --server "$url" "$@" || true
}
trap 'printf "\ndemo: interrupted; clearing away\n" >&2; exit 130' INT TERM HUP
begin_seconds=$SECONDS
instance=DEMO$$
table=$work/table
echo "WHAT HAPPENED|$(IFS='|'; echo "${nodes[*]}")|BACKUPS" >"$table"
# line WHAT: a line of the table at the end.
line() {
  local name text=$1
  for name in "${nodes[@]}"; do
    case $(outcome_on "$name") in
    "") text+="|away" ;;
    completed) text+="|did it" ;;
    *) text+="|$(outcome_on "$name")" ;;
    esac
  done
  echo "$text|$(served_backup_count)" >>"$table"
}
# run_job WHAT: on all nodes, waits for the end, and shows why what happened.
run_job() {
  printf '%s$ kestrel job run %s%s\n' "$bold" "$job" "$plain"
  run_on_all
  show job runs "$job" --limit 3
  show nodes --limit 1
  line "$1"
}

say "A backup server and three hosts, each with a node of the cluster $instance and an agent (made of namespaces)"
make_cluster_site "$instance" 20
show hosts
show instances

say "One definition for all three nodes"
define_cluster_job nightly full
show jobs

say "All nodes are up: node1 is the master"
run_job "all up, master node1"
expect_one_worker node1

say "node1 loses power; the cluster makes node2 its master"
kill_host node1
give_virtual_address node2
set_cluster "$instance" node1=dead node2=master node3=slave >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
wait_until 100 host_is_offline node1 || fail "node1 stays online"
show hosts
run_job "node1 dead, master node2"
expect_one_worker node2

say "The instances of the other two nodes end as well"
for name in node2 node3; do member_lab $name stop "$instance" >/dev/null; done
give_virtual_address server # a witness still tells what the cluster looks like
before=$(served_backup_count)
run_job "no node up"
equal "$(served_backup_count)" "$before" "backups"

say "What was done"
column -t -s '|' "$table"
echo
show backups
echo "All of it took $((SECONDS - begin_seconds)) s, without building."
