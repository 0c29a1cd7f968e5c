#!/usr/bin/env bash
# Three hosts of a cluster on this machine: each sees its own server only, all ask the master through the virtual
# address, and networks and hosts fail as asked.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/cluster_support.sh
source "$here/cluster_support.sh"
skip_without_network

instance=$(instance_name C)
nodes_statement="select NODE_ID,ADDRESS,STATUS from v_sys_ha_slave_info"
# nodes_seen_by NAME: rows as the tools get them.
nodes_seen_by() {
  in_host "$1" "$work/hosts/$1/oscar/bin/isql" "-Usysdba/$password" "-h$virtual_address" "-d$instance" -p2003 \
    -c "$nodes_statement" 2>"$work/isql.err" | sed -e '1,2d' -e '/row/d' -e 's/ //g'
}
expect_nodes() {
  local name=$1
  shift
  equal "$(nodes_seen_by "$name" | tr '\n' ' ')" "$(printf '%s ' "$@")" "nodes seen by $name ($(cat "$work/isql.err"))"
}
reaches() { in_host "$1" timeout 3 bash -c "exec 3<>/dev/tcp/${host_address[$2]}/2003" 2>/dev/null; }

note "three hosts, three instances of one name"
make_network
for number in 1 2 3; do make_host "node$number" "1$number"; done
for number in 1 2 3; do make_member "node$number" "$instance" 2 >"$work/member$number.log" 2>&1 & done
wait
for number in 1 2 3; do
  grep -q loaded "$work/member$number.log" || [ -e "$work/hosts/node$number/oscar/admin/$instance.db" ] ||
    fail "node$number: $(cat "$work/member$number.log")"
done
give_virtual_address node1
set_cluster "$instance" node1=master node2=slave node3=slave >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
all_up=(1\|$net_prefix.11\|master 2\|$net_prefix.12\|slave 3\|$net_prefix.13\|slave)
for number in 1 2 3; do expect_nodes "node$number" "${all_up[@]}"; done

note "each host sees its own server only, and its node in the cluster"
[ ! -e "/etc/init.d/oscardb_${instance}d" ] || fail "the start script of a host is seen outside"
for number in 1 2 3; do
  run_in "node$number" 0 "$kestrel" --json instances
  equal "$(value '[.instances[] | .name + .home] | join(" ")')" "$instance$work/hosts/node$number/oscar" "instances"
  run_in "node$number" 0 "$kestrel" login "$instance" --user sysdba --password-file "$work/password"
  equal "$(in_host "node$number" hostname)" "node$number" "host name"
done

note "a host that lost power, and a fail-over"
member_lab node2 check "$instance" >"$work/before"
kill_host node1
[ -z "$(nodes_seen_by node2)" ] || fail "the dead host answers"
give_virtual_address node2
set_cluster "$instance" node1=dead node2=master node3=slave >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
expect_nodes node3 1\|$net_prefix.11\|dead 2\|$net_prefix.12\|master 3\|$net_prefix.13\|slave
boot_host node1
run_in node1 0 "$kestrel" --json instances
equal "$(value '.instances[].state')" offline "state right after boot"
run_in node1 0 /etc/init.d/oscardb_"$instance"d start
run_in node1 0 "$kestrel" --json instances
equal "$(value '.instances[].state')" online "state after boot"
member_lab node1 check "$instance" >"$work/after"
same_data "$work/before" "$work/after"

note "cut, one-way and healed cables"
reaches node3 node2 || fail "no network before the cut"
cut_network node3
not reaches node3 node2 || fail "the cut cable carries"
not reaches node2 node3 || fail "the cut cable carries the other way"
reaches node1 node2 || fail "another cable was cut"
heal_network node3
wait_until 20 reaches node3 node2 || fail "the cable was not healed"
lose_packets node3 node2
not reaches node3 node2 || fail "packets are not lost"
not reaches node2 node3 || fail "an answer came through" # its packets arrive, the answers do not
reaches node3 node1 || fail "packets to another host are lost"
heal_network node3
wait_until 20 reaches node3 node2 || fail "the direction was not healed"

note "a command of a host ends with who asked; what it left behind ends with the host"
start_in_host node2 sleeper sleep 1000
runs_in_host node2 sleeper || fail "not started"
end_in_host node2 sleeper KILL
destroy_network
[ -z "$(ip netns list | grep "^k$$" || true)" ] || fail "namespaces left behind"
equal "$(pgrep -fc "$work/hosts" || true)" 0 "processes left behind"
note "done"
