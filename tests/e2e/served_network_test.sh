#!/usr/bin/env bash
# A bad network between an agent and its server while backups run: connections that are cut, refused, held for a while and
# slow. Every backup ends well, and its stored file is whole.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/served_support.sh
source "$here/served_support.sh"
# shellcheck source=tests/e2e/served_one_host.sh
source "$here/served_one_host.sh"

instance=$(instance_name W)
make_instance "$instance" 20
# The agent knows the relay only.
relay_pid=''
trap 'kill -KILL $relay_pid 2>/dev/null; end_daemons; cleanup' EXIT
start_relay() {
  "$bin/net_relay" 127.0.0.1:0 "127.0.0.1:$server_port" "$work/control" >"$work/relay.out" &
  relay_pid=$!
  wait_until 20 grep -q listening "$work/relay.out" || fail "the relay does not start"
  agent_options=(--server "https://$(awk '/listening/ {print $2}' "$work/relay.out")")
}
rules_taken() { [ "$(grep -c ^rules "$work/relay.out")" -gt "$1" ]; }
# network [RULE...]: without rules it is good.
network() {
  local before
  before=$(grep -c ^rules "$work/relay.out" || true)
  printf '%s\n' "cut=$cuts" "$@" >"$work/control.new"
  mv "$work/control.new" "$work/control"
  wait_until 10 rules_taken "$before" || fail "the relay does not answer"
}
cuts=0
cut_all() { cuts=$((cuts + 1)) && network "$@"; }

choose_port
start_relay
make_one_host "$instance"
define_backup steady "$instance" 1500000

# backup_over COMMAND...: the command plays while the stored file grows; the backup must end well.
backup_over() {
  local before
  before=$(run_count steady)
  touch "$work/mark"
  tell 0 job run steady
  wait_closely 60 grows || fail "the backup stores nothing"
  "$@"
  wait_until 120 more_runs steady "$before" || fail "the run is not reported: $(now_of steady state)"
  equal "$(runs_of steady .state | head -1)" completed "the backup ($(runs_of steady .reason | head -1))"
}
grows() { find "$pool" -type f -newer "$work/mark" -size +0 | grep -q .; }

note "all connections are cut, again and again"
cut_often() { for _ in 1 2 3 4; do cut_all; sleep 0.5; done; }
backup_over cut_often
note "refused for some seconds after a cut"
refuse_for_a_while() {
  cut_all accept=refuse
  sleep 3
  network
}
backup_over refuse_for_a_while
note "nobody answers for some seconds after a cut"
hold_for_a_while() {
  cut_all accept=hold
  sleep 3
  cut_all
}
backup_over hold_for_a_while
note "nothing comes through, in one direction and then in the other"
one_way_for_a_while() {
  network up=hold
  sleep 2
  network down=hold
  sleep 2
  network
}
backup_over one_way_for_a_while
note "late and slow"
late_and_slow() { network up_delay_msec=150 down_delay_msec=150 rate=2000000; }
backup_over late_and_slow
network

note "what was stored is whole"
equal "$(served_backup_count)" 5 "backups"
check_data "$instance" "$work/before"
damage "$instance"
ask 0 restore latest --instance "$instance" --host here --yes
check_data "$instance" "$work/after"
same_data "$work/before" "$work/after"
nothing_left
equal "$(find "$pool" -name '*.partial*' | wc -l)" 0 "partial files"
note "done"
