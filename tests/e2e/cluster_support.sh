# Sourced by scenarios that need several hosts: a switch and hosts behind it, made of namespaces. A host has a network,
# processes, a host name and an /etc/init.d of its own; it can lose power, and its cable can be cut in one direction or in
# both. Files are shared: what belongs to one host lies in $work/hosts/NAME, where KESTREL_ROOT points as well.
# Needs $work; whoever sources this calls destroy_network at the end, whatever happened.
# shellcheck shell=bash

net_prefix=10.231.1
virtual_address=$net_prefix.100
host_names=()
declare -A host_address host_init host_parent
# No host has this hardware address; what is sent to it is lost without a word.
nobody_there=02:00:00:00:de:ad

# network_trouble: why hosts cannot be made here; nothing when they can.
network_trouble() {
  [ "$(id -u)" -eq 0 ] || { echo "needs root"; return; }
  local tool
  for tool in ip bridge unshare nsenter setpriv; do
    command -v "$tool" >/dev/null || { echo "needs $tool"; return; }
  done
  local name=k$$probe
  ip netns add "$name" 2>/dev/null || { echo "the kernel or this container allows no network namespaces"; return; }
  ip netns exec "$name" sh -c 'ip link add name bridge0 type bridge && ip link add name veth0 type veth peer name veth1' 2>/dev/null ||
    echo "the kernel has no bridges or no veth devices"
  ip netns exec "$name" unshare --pid --fork --mount-proc --mount --uts true 2>/dev/null ||
    echo "this container allows no process namespaces"
  ip netns del "$name"
}
# skip_without_network: leaves the scenario with the status that stands for "skipped".
skip_without_network() {
  local trouble
  trouble=$(network_trouble)
  [ -z "$trouble" ] || { left_out "$trouble"; exit 77; }
}

# namespaces carry the id of the script that made them, so what a killed script left is known.
remove_left_networks() {
  local name pid
  for name in $(ip netns list | awk '/^k[0-9]+[a-z]/ {print $1}'); do
    pid=${name#k}
    pid=${pid%%[a-z]*}
    kill -0 "$pid" 2>/dev/null || { ip netns pids "$name" | xargs -r kill -KILL; ip netns del "$name"; } 2>/dev/null || true
  done
}
net_of() { echo "k$$$1"; }
in_net() { ip netns exec "$(net_of "$1")" "${@:2}"; }

make_network() {
  remove_left_networks
  ip netns add "$(net_of switch)"
  in_net switch sh -c 'ip link set lo up && ip link add name bridge0 type bridge && ip link set bridge0 up'
}

# make_host NAME LAST_PART_OF_ADDRESS: a small-letter name; the host is up afterwards.
make_host() {
  local name=$1 net
  net=$(net_of "$name")
  host_names+=("$name")
  host_address[$name]=$net_prefix.$2
  mkdir -p "$work/hosts/$name/init.d" "$work/hosts/$name/root"
  ip netns add "$net"
  ip link add "p$name" netns "$(net_of switch)" type veth peer name eth0 netns "$net"
  in_net switch sh -c "ip link set p$name master bridge0 && ip link set p$name up"
  in_net "$name" sh -c "ip link set lo up && ip addr add ${host_address[$name]}/24 dev eth0 && ip link set eth0 up &&
    echo 1 >/proc/sys/net/ipv4/ip_nonlocal_bind"
  boot_host "$name"
}
# boot_host NAME: its first process adopts what loses its parent, as on any host; bash collects the ends of all.
boot_host() {
  local name=$1 ready=$work/hosts/$1/ready child=
  rm -f "$ready"
  ip netns exec "$(net_of "$name")" unshare --pid --fork --kill-child --mount-proc --mount --uts bash -c '
    hostname "$1" && mount --bind "$2/init.d" /etc/init.d && : >"$2/ready" || exit 1
    while :; do sleep 3600 & wait $!; done' init "$name" "$work/hosts/$name" </dev/null >/dev/null 2>&1 &
  host_parent[$name]=$!
  disown
  wait_until 20 test -e "$ready" || { echo "host $name does not come up" >&2; return 1; }
  read -r child _ <"/proc/${host_parent[$name]}/task/${host_parent[$name]}/children" || true
  host_init[$name]=$child
}
# kill_host NAME: the power goes; every process ends at once, the disk keeps what was written.
kill_host() {
  kill -KILL "${host_init[$1]}" 2>/dev/null || true
  wait_until 20 not kill -0 "${host_init[$1]}" || { echo "host $1 does not go down" >&2; return 1; }
  host_init[$1]=
}

# in_host NAME COMMAND...: ends with the script; what the command leaves in the background stays.
in_host() {
  local entry
  enter_host "$1"
  "${entry[@]}" "${@:2}"
}
# enter_host NAME: the words before a command, in $entry.
enter_host() {
  entry=(nsenter --target "${host_init[$1]}" --mount --net --pid --uts -- setpriv --pdeathsig KILL
    env "KESTREL_ROOT=$work/hosts/$1/root")
}
# run_in NAME EXPECTED_EXIT COMMAND...: as run, on that host.
run_in() {
  local entry
  enter_host "$1"
  run "$2" "${entry[@]}" "${@:3}"
}
# start_in_host NAME LABEL COMMAND...: in the background; output in hosts/NAME/LABEL.out, process id (the host's own
# count) in hosts/NAME/LABEL.pid.
start_in_host() {
  local name=$1 label=$2 place=$work/hosts/$1/$2
  shift 2
  rm -f "$place.pid"
  # shellcheck disable=SC2016
  in_host "$name" bash -c 'echo $$ >"$1.new" && mv "$1.new" "$1.pid" && shift && exec "$@"' start "$place" "$@" \
    </dev/null >>"$place.out" 2>&1 &
  disown
  wait_until 20 test -e "$place.pid"
}
# signal_in_host NAME LABEL SIGNAL
signal_in_host() { in_host "$1" kill "-$3" "$(cat "$work/hosts/$1/$2.pid")"; }
runs_in_host() { in_host "$1" kill -0 "$(cat "$work/hosts/$1/$2.pid")" 2>/dev/null; }
# end_in_host NAME LABEL SIGNAL: and waits until it is gone.
end_in_host() {
  signal_in_host "$1" "$2" "$3" 2>/dev/null || true
  wait_until "${end_timeout:-60}" not runs_in_host "$1" "$2" || { echo "$2 on $1 does not end" >&2; return 1; }
}

# cut_network NAME: nothing goes in or out, and nobody is told.
cut_network() { in_net switch bridge link set dev "p$1" state 0; }
# lose_packets FROM TO: what FROM sends to TO is lost; the other direction works.
lose_packets() { in_net "$1" ip neigh replace "${host_address[$2]}" lladdr $nobody_there dev eth0 nud permanent; }
# heal_network NAME: undoes both for this host.
heal_network() {
  local other
  in_net switch bridge link set dev "p$1" state 3
  for other in "${host_names[@]}"; do
    in_net "$1" ip neigh del "${host_address[$other]}" dev eth0 2>/dev/null || true
    in_net "$other" ip neigh del "${host_address[$1]}" dev eth0 2>/dev/null || true
  done
  in_net "$1" tc qdisc del dev eth0 root 2>/dev/null || true
}
# delay_network NAME MSEC: every packet it sends; false where the kernel cannot. tests/tools/net_relay delays without.
delay_network() { in_net "$1" tc qdisc replace dev eth0 root netem delay "$2ms" 2>/dev/null; }

# give_virtual_address NAME|none: moves it, and tells the others as a fail-over does.
give_virtual_address() {
  local name
  for name in "${host_names[@]}"; do
    in_net "$name" ip addr del $virtual_address/24 dev eth0 2>/dev/null || true
    in_net "$name" ip neigh flush to $virtual_address 2>/dev/null || true
  done
  [ "$1" = none ] || in_net "$1" ip addr add $virtual_address/24 dev eth0
}

destroy_network() {
  local name
  for name in "${host_names[@]}"; do
    [ -z "${host_init[$name]:-}" ] || kill -KILL "${host_init[$name]}" 2>/dev/null || true
  done
  # The last process of a host holds its files until it is gone; its parent takes note of the end at once.
  for name in "${host_names[@]}"; do
    [ -z "${host_init[$name]:-}" ] || wait_until 20 not kill -0 "${host_init[$name]}" || true
  done
  for name in "${host_names[@]}" switch probe; do
    ip netns pids "$(net_of "$name")" 2>/dev/null | xargs -r kill -KILL 2>/dev/null || true
    ip netns del "$(net_of "$name")" 2>/dev/null || true
  done
  host_names=()
}

# make_member NAME INSTANCE MEGABYTES: an instance of the cluster on that host, the same rows on each.
make_member() {
  local home=$work/hosts/$1/oscar
  in_host "$1" "$bin/kestrel-lab" create "$home" "$2" --port 2003 --user sysdba --password-file "$work/password" &&
    in_host "$1" "$bin/kestrel-lab" start "$home" "$2" &&
    in_host "$1" "$bin/kestrel-lab" load "$home" "$2" --megabytes "$3" --seed 7
}
# member_lab NAME COMMAND INSTANCE [OPTION...]
member_lab() { in_host "$1" "$bin/kestrel-lab" "$2" "$work/hosts/$1/oscar" "${@:3}"; }
# node_id NAME: 1 for the host at .11, and so on.
node_id() { echo $((${host_address[$1]##*.} - 10)); }
# set_cluster INSTANCE NAME=STATUS...: what the instances that run say of the cluster.
set_cluster() {
  local instance=$1 pair name nodes=()
  shift
  for pair in "$@"; do
    name=${pair%=*}
    nodes+=(--node "$(node_id "$name"):${host_address[$name]}:${pair#*=}")
  done
  for name in "${host_names[@]}"; do
    [ -e "$work/hosts/$name/oscar/admin/$instance.db" ] && [ -n "${host_init[$name]}" ] || continue
    member_lab "$name" cluster "$instance" --virtual-address $virtual_address --address "${host_address[$name]}" \
      "${nodes[@]}" || return 1
  done
}
