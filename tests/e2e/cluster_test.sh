#!/usr/bin/env bash
# A cluster of three nodes, each a host with an agent and an instance; one definition on all of them. Exactly one node does
# the work, whatever fails between the nodes and the server.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/cluster_support.sh
source "$here/cluster_support.sh"
# shellcheck source=tests/e2e/served_support.sh
source "$here/served_support.sh"
# shellcheck source=tests/e2e/cluster_scene.sh
source "$here/cluster_scene.sh"
skip_without_network

instance=$(instance_name N)
use_relays=yes
make_cluster_site "$instance" 4
define_cluster_job all-nodes full

now_msec() { date +%s%3N; }

note "all nodes up: the master does the work"
run_on_all
equal "$(outcome_on node1)" completed "node1 ($(reason_on node1))"
for name in node2 node3; do
  equal "$(outcome_on $name)" skipped "$name"
  log_of_run_on $name | grep -qF "This node is not selected to backup" || fail "$name does not say why: $(log_of_run_on $name)"
done
equal "$(served_backup_count)" 1 "backups"
ask 0 nodes
equal "$(value '.selections[0] | "\(.state) \(.node_id)"')" "success 1" "selection"

note "a cable that delays: still the master, and one backup"
slow_link node2 up_delay_msec=300 down_delay_msec=300
slow_link node1 up_delay_msec=700 down_delay_msec=100
run_on_all
expect_one_worker node1
note "answers of the server that come later than its announcement"
for name in node1 node2 node3; do slow_link $name scope=new down_delay_msec=600; done
run_on_all
expect_one_worker node1
note "an announcement that comes late"
slow_link node3 scope=existing down_delay_msec=2500
slow_link node1 scope=existing down_delay_msec=1500
slow_link node2
run_on_all
expect_one_worker node1
for name in node1 node2 node3; do slow_link $name; done

if delay_network server 150 && delay_network node1 150; then
  note "a network that delays every packet: still the master, and one backup"
  # A handshake goes there and back.
  began=$(now_msec)
  in_host node1 bash -c "exec 3<>/dev/tcp/${host_address[server]}/7480" || fail "the server does not answer"
  took=$(($(now_msec) - began))
  [ "$took" -ge 300 ] || fail "nothing is delayed: $took ms for a handshake"
  run_on_all
  expect_one_worker node1
  for name in server node1; do heal_network $name; done
else
  left_out "a network that delays every packet: this kernel has no netem (sch_netem); delays of connections are tested"
fi

note "a node that is cut off: the others do without it"
cut_network node2
run_on_all
expect_one_worker node1
heal_network node2

note "a node that hears and is not heard"
lose_packets node3 server
run_on_all
expect_one_worker node1
heal_network node3
wait_until 150 host_is_online node3 || fail "node3 does not come back"
wait_until 100 no_run_open || fail "a run does not end"

note "the server ends between request and announcement"
before=$(served_backup_count)
slow_link node3 scope=existing up=hold # the server waits for the answer of its node
begin_run --host node1 --host node2
wait_until 20 choice_is_open || fail "nobody asked"
sleep 1 # lets other nodes ask as well; whether they do decides nothing
restart_server KILL
slow_link node3
for name in node1 node2 node3; do wait_until 100 host_is_online $name || fail "$name does not come back"; done
wait_until 100 no_run_open || fail "a run does not end"
made=$(($(served_backup_count) - before))
[ "$made" -le 1 ] || fail "$made nodes did the work"
run_on_all
expect_one_worker node1

note "the master dies: after the fail-over another node works"
kill_host node1
give_virtual_address node2
set_cluster "$instance" node1=dead node2=master node3=slave >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
wait_until 100 host_is_offline node1 || fail "node1 stays online"
run_on_all
expect_one_worker node2

note "no node can: nobody works, and the server says why"
# The view is still answered: by the witness, a server of the instance on no node of the cluster.
for name in node2 node3; do member_lab $name stop "$instance" >/dev/null; done
give_virtual_address server
before=$(served_backup_count)
run_on_all
equal "$(served_backup_count)" "$before" "backups"
for name in node2 node3; do
  equal "$(outcome_on $name)" skipped "$name"
  log_of_run_on $name | grep -qF "No node is selected to backup" || fail "$name does not say why: $(log_of_run_on $name)"
done
ask 0 nodes
equal "$(value '.selections[0] | "\(.state) \(.node_id)"')" "failed -1" "selection"
tell 0 nodes --limit 1
said "node1 .*not connected"
said "node2 .*offline"

note "no secret anywhere"
! grep -rqF -e "$password" -e "$(cat "$work/admin.password")" "$server_root/var" "$work"/hosts/*/root/var "$work"/hosts/*/*.out ||
  fail "a password stands in a file"
note "done"
