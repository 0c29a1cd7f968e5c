#!/usr/bin/env bash
# SIGKILL of kestrel, of brcmd and of the server, at random moments of full and incremental backups and of restores. After
# each round: nothing of the job runs, the listing is true, the newest chain reads back or is flagged, the instance is up
# with the data of before (after a restore: or of a member of the chain that was restored), and the next job is right.
#
# Several instances of one home and one installation go through their rounds side by side.
#
# KESTREL_KILL_ROUNDS is the number of rounds altogether (63 unless given; thousands make a soak), KESTREL_KILL_SEED
# repeats the moments of a run.
. "$(dirname "$0")/kestrel_support.sh"
rounds=${KESTREL_KILL_ROUNDS:-63}
seed=${KESTREL_KILL_SEED:-$(($(od -An -N2 -tu2 /dev/urandom) % 30000))}
lanes=4
note "KESTREL_KILL_SEED=$seed, $rounds rounds on $lanes instances"
for lane in $(seq 1 $lanes); do make_instance "$(instance_name "L$lane")" 4; done
make_site

# What follows runs in one process for each instance, with $name, $work and $RANDOM of its own.

pause_msec() { sleep "$(($1 / 1000)).$(printf '%03d' $(($1 % 1000)))"; }
brcmd_pattern() { printf '^%s/bin/brcmd .*-d %s ' "$home" "$name"; }
server_pid() { cat "$home/admin/$name.db" 2>/dev/null || true; }
# wait_for SECONDS COMMAND...: false when it did not become true.
wait_for() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$end" ] || return 1
    sleep 0.05
  done
}
no_tool() { ! pgrep -f "$(brcmd_pattern)" >/dev/null; }
# A client that outlives its console may still shut the server down.
no_client() { ! pgrep -f "isql .*-d$name -p" >/dev/null; }
tool_or_end() { ! no_tool || ! kill -0 "$job" 2>/dev/null; }
server_gone_or_end() { [ -z "$(server_pid)" ] || ! kill -0 "$job" 2>/dev/null; }
server_or_end() { [ -n "$(server_pid)" ] || ! kill -0 "$job" 2>/dev/null; }

# strike VICTIM ACTION: kills it once, at a moment that the job may not live to see.
strike() {
  local pid
  case $1 in
    kestrel)
      pause_msec $((RANDOM % ($2 == 2 ? 8000 : 4000)))
      kill -KILL "$job" 2>/dev/null || true
      ;;
    brcmd)
      wait_for 60 tool_or_end || fail "neither a tool nor an end"
      pause_msec $((RANDOM % 3600))
      pkill -KILL -f "$(brcmd_pattern)" || true
      ;;
    server)
      # During most of a restore there is none: strike before, or when it comes back.
      if [ "$2" -eq 2 ] && [ $((RANDOM % 2)) -eq 0 ]; then
        wait_for 60 server_gone_or_end && wait_for 120 server_or_end || fail "the instance does not come back"
        pause_msec $((RANDOM % 700))
      else
        pause_msec $((RANDOM % ($2 == 2 ? 1000 : 4000)))
      fi
      pid=$(server_pid)
      [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
      ;;
  esac
}

# listing: every record of this instance, newest first, each with a whole file in the pool.
listing() {
  run 0 "$kestrel" --json backups "$name" --limit 0
  value '.backups[] | "\(.id) \(.stored_size) \(.folder)/\(.file)"' >"$work/records"
  while read -r id size file; do
    equal "$(stat -c %s "$pool/$file" 2>/dev/null)" "$size" "bytes in the stored file of backup $id"
  done <"$work/records"
  value '.backups[0] | "\(.id) \(.state)"' >"$work/newest"
  listed=$(wc -l <"$work/records")
}

# newest_chain_is_judged: the newest set reads back with all that it builds on; or it is flagged, and verification agrees.
newest_chain_is_judged() {
  read -r newest newest_state <"$work/newest"
  case $newest_state in
    available) run 0 "$kestrel" verify "$newest" ;;
    chain_broken) run 1 "$kestrel" verify "$newest" && said "no chain|not in the catalog" ;;
    *) fail "the newest backup is $newest_state" ;;
  esac
}

# instance_is_up: by itself or, where its server or the restore was killed, by the next start.
instance_is_up() {
  "$lab" start "$home" "$name" >"$work/lab.log" 2>&1 || fail "the instance does not start: $(cat "$work/lab.log")"
}

# is_data_of ID...: what the tables hold now is what they held then.
is_data_of() {
  local id
  check_data "$name" "$work/now"
  for id in "$@"; do ! cmp -s "$work/data.$id" "$work/now" || return 0; done
  fail "$round_text: the tables hold nothing of $*: $(diff "$work/data.$1" "$work/now" | head -5)"
}

# next_backup: an incremental one is right, or made full with a reason, or flagged and the full one after it is right.
next_backup() {
  run 0 "$kestrel" --json backup "$name" --level incr
  if [ "$(value .state)" = chain_broken ]; then
    flagged=$((flagged + 1))
    run 0 "$kestrel" --json backup "$name"
  fi
  [ "$(value .level)" = incr ] || [ -n "$(value .fallback_reason)" ] || equal "$(value .requested_level)" full
  equal "$(value .state)" available "state of the next backup"
  good=$(value .backup)
  cp "$work/data.now" "$work/data.$good"
  run 0 "$kestrel" verify "$good"
}

one_round() {
  local action=$1 victim=$2 status=0 before chain
  local -a command=("$kestrel" --json backup "$name" --level full)
  [ "$action" -ne 1 ] || command=("$kestrel" --json backup "$name" --level incr)
  [ "$action" -ne 2 ] || command=("$kestrel" --json restore "$good" --yes)
  chain=$("$kestrel" --json show "$good" | jq -r '.chain | join(" ")')
  change_once
  check_data "$name" "$work/data.now"
  listing
  before=$listed

  timeout --kill-after=10 300 "${command[@]}" >"$work/job.out" 2>"$work/job.err" </dev/null &
  job=$!
  # The process to strike is the one below timeout.
  if [ "$victim" = kestrel ]; then
    wait_for 10 pgrep -P "$job" >/dev/null || true
    local watched=$job
    job=$(pgrep -P "$watched" || echo "$watched")
    strike kestrel "$action"
    { wait "$watched" || status=$?; } 2>/dev/null
  else
    strike "$victim" "$action"
    { wait "$job" || status=$?; } 2>/dev/null
  fi
  case $status in
    0 | 1) ;;
    137) equal "$victim" kestrel "what was killed" ;;
    *) fail "$round_text: the job ended with $status: $(cat "$work/job.err")" ;;
  esac
  wait_for 60 no_tool || fail "$round_text: brcmd still runs"
  wait_for 60 no_client || fail "$round_text: isql still runs"

  instance_is_up
  listing
  if [ "$action" -eq 2 ]; then
    equal "$listed" "$before" "$round_text: number of backups after a restore"
    # shellcheck disable=SC2086
    is_data_of now $chain
    run_timeout=300 run 0 "$kestrel" --json restore "$good" --yes
    is_data_of "$good"
  else
    case $status in
      0) equal "$listed" $((before + 1)) "$round_text: number of backups" ;;
      1) equal "$listed" "$before" "$round_text: number of backups" ;;
      *) [ "$listed" -eq "$before" ] || [ "$listed" -eq $((before + 1)) ] || fail "$before backups became $listed" ;;
    esac
    is_data_of now
    newest_chain_is_judged
    next_backup
  fi
  equal "$(state_of "$name")" online "$round_text: state of the instance"
}

# change_once: cheap, and different every time.
change_once() {
  instance_is_up
  "$lab" sql "$home" "$name" "update sales.customers set name = name || '.' where id % 100 = $((RANDOM % 100))" >/dev/null
}

run_lane() {
  local lane=$1 round actions=("full backup" "incremental backup" restore) victims=(kestrel brcmd server)
  name=$(instance_name "L$lane")
  work=$work/lane$lane
  mkdir "$work"
  RANDOM=$((seed + lane))
  flagged=0
  take "$name" full
  cp "$work/data.$taken" "$work/data.now"
  good=$taken
  for round in $(seq "$lane" "$lanes" "$rounds"); do
    local action=$((round % 3)) victim=${victims[round / 3 % 3]}
    round_text="round $round, $victim killed during a ${actions[action]}"
    one_round "$action" "$victim"
  done
  run 0 "$kestrel" --json show "$good"
  run_timeout=300 run 0 "$kestrel" restore "$good" --yes
  is_data_of "$good"
  echo "-- $name: done, $flagged backups were flagged"
}

pids=()
for lane in $(seq 1 $lanes); do
  run_lane "$lane" &
  pids+=($!)
done
failed=0
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
[ "$failed" -eq 0 ] || fail "a lane failed; KESTREL_KILL_SEED=$seed repeats its moments"

note "after all that"
for lane in $(seq 1 $lanes); do
  name=$(instance_name "L$lane")
  equal "$(state_of "$name")" online
  run 0 "$kestrel" --json backup "$name"
done
# The pipes of killed jobs go when a process starts that is alone.
nothing_left
# Flagged sets stay flagged; nothing else may be wrong with anything.
status=0
"$kestrel" --json verify --all >"$work/out" 2>"$work/err" || status=$?
equal "$(value '[.verified[].result] - ["good", "no chain"] | join(" ")')" ""
job_logs_hide_password
echo "all right"
