#!/usr/bin/env bash
# Chains of backups that the stand-in's brcmd makes of a running server, with both ends of the pipe worked by hand.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_brcmd_support.sh"
. "$(dirname "$0")/lab_chain_support.sh"

test_10_chain_of_a_running_server() {
  new_instance "$instance"
  make_chain
  check_chain_file "$(chain_value lastfullbackupid)"
  sizes_are_small
}

test_11_every_member_of_it_restores() { every_member_restores; }

test_12_log_that_was_restored_already_does_no_harm() { back_to F I1 I2 D; }

test_13_backups_go_on_after_a_restore() { continues_after_a_restore; }

test_14_sets_out_of_order_are_refused() { refuses_sets_out_of_order; }

test_15_damaged_sets_are_refused() { refuses_damaged_sets; }

test_16_killed_restores_leave_old_data() { survives_kills; }

test_17_unlogged_tables_come_back_empty() {
  take F full
  sql "create unlogged table public.u as select 1 as i"
  take I1 incr
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$work/F" && restore_from "$work/I1" || fail "restore: $(cat "$work/err")"
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "rows" "0" "$(one_value "select count(*) from public.u")"
  sql "insert into public.u values (2)"
  sql "drop table public.u"
}

test_18_an_empty_incremental_is_small() {
  take F full
  take I1 incr
  take I2 incr
  [ "$(stat -c %s "$work/I2")" -lt 200000 ] || fail "an empty backup of $(stat -c %s "$work/I2") bytes"
  back_to F I1 I2
}

test_19_a_later_tablespace_stays_with_its_instance() {
  local here=$instance
  take F full
  sql "create tablespace OWN datafile '$home/odbs/$instance/OWN.dbf'"
  sql "create table public.own tablespace own as select 3 as i"
  take I1 incr
  back_to F I1
  "$lab" stop "$home" "$instance" >/dev/null
  (
    instance=${here}R
    new_instance "$instance" --no-init-script
    check >"$work/other.check"
    "$lab" stop "$home" "$instance" >/dev/null
    restore_from "$work/F" || fail "restore: $(cat "$work/err")"
    restore_from "$work/I1" && fail "let the log lead into another instance"
    expect_match "message" "OWN.dbf was created after the full backup" "$(cat "$work/err")"
    "$lab" start "$home" "$instance" >/dev/null
    expect_equal "data" "$(cat "$work/other.check")" "$(check)"
    "$lab" destroy "$home" "$instance" >/dev/null
    exit "$failures"
  ) || failures=$((failures + 1))
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "data" "$(cat "$work/I1.check")" "$(check)"
}

test_20_under_load() {
  local bench=(/usr/lib/postgresql/15/bin/pgbench -h 127.0.0.1 -p "$port" -U sysdba) load name
  export PGPASSWORD=secret PGDATABASE=oscar
  "${bench[@]}" -i -q -s 3 >/dev/null 2>&1 || fail "pgbench -i"
  "${bench[@]}" -n -c 3 -T 120 >/dev/null 2>&1 &
  load=$!
  background+=("$load")
  backup_to "$work/F" full || fail "full: $(cat "$work/err")"
  for name in I1 I2 I3; do backup_to "$work/$name" incr || fail "$name: $(cat "$work/err")"; done
  backup_to "$work/D" diff || fail "diff: $(cat "$work/err")"
  sql "checkpoint"
  backup_to "$work/I4" incr || fail "incr: $(cat "$work/err")"
  kill -0 "$load" 2>/dev/null || fail "the load ended before the backups"
  kill "$load"
  wait "$load" 2>/dev/null
  unset PGPASSWORD PGDATABASE
  for sets in "F" "F I1 I2" "F I1 I2 I3" "F D" "F D I4"; do
    "$lab" stop "$home" "$instance" >/dev/null
    for name in $sets; do restore_from "$work/$name" || fail "restore of $sets: $(cat "$work/err")"; done
    expect_ok "$lab" start "$home" "$instance"
    expect_equal "balances agree after $sets" "t" "$(one_value "select (select sum(delta) from pgbench_history) = all (array[
      (select sum(abalance) from pgbench_accounts), (select sum(tbalance) from pgbench_tellers),
      (select sum(bbalance) from pgbench_branches)]) as agree")"
  done
  [ "$(one_value "select count(*) from pgbench_history")" -gt 0 ] || fail "no transactions"
  whole
}

test_30_a_full_backup_empties_the_archive_of_older_log() {
  local before
  take F full
  sql "select pg_switch_wal()"
  sql "create table public.seg as select 1 as i"
  sql "select pg_switch_wal()"
  wait_for 30 archived || fail "no log in the archive"
  before=$(find "$home/odbs/$instance/archive" -name '0000*' | sort | head -1)
  take I1 incr
  [ -e "$before" ] || fail "an incremental backup removed log from the archive"
  take F full
  [ ! -e "$before" ] || fail "log from before the full backup stayed in the archive"
  sql "drop table public.seg"
}
archived() { [ "$(find "$home/odbs/$instance/archive" -name '0000*' | wc -l)" -ge 2 ]; }

test_31_log_comes_from_the_archive_when_the_server_has_dropped_it() {
  local first
  take F full
  first=$(printf '%08X%08X%08X' 1 0 "$(($(chain_value lastfullbackuplsn) / 16777216))")
  sql "create table public.seg as select i, md5(i::text) t from generate_series(1, 1000) i"
  sql "select pg_switch_wal()"
  sql "checkpoint"
  sql "select pg_switch_wal()"
  sql "checkpoint"
  wait_for 30 test -e "$home/odbs/$instance/archive/$first" || fail "$first is not in the archive"
  wait_for 30 dropped "$first" || fail "the server keeps $first"
  take I1 incr
  back_to F I1
  # The same without the archive: nothing to continue with.
  take F full
  first=$(printf '%08X%08X%08X' 1 0 "$(($(chain_value lastfullbackuplsn) / 16777216))")
  sql "drop table public.seg"
  sql "select pg_switch_wal()"
  sql "checkpoint"
  sql "select pg_switch_wal()"
  sql "checkpoint"
  wait_for 30 test -e "$home/odbs/$instance/archive/$first" || fail "$first is not in the archive"
  wait_for 30 dropped "$first" || fail "the server keeps $first"
  rm "$home/odbs/$instance/archive/$first"
  local id
  id=$(chain_value lastbackupid)
  expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t incr -k pipe \
    -f "$fifo" -e "$brcmd_log"
  expect_match "message" "log segment $first is missing; take a full backup" "$err"
  expect_equal "chain" "$id" "$(chain_value lastbackupid)"
  take F full
  take I1 incr
}
# The server uses segments again that it does not need any more; they get later names then.
dropped() {
  [ -e "$home/odbs/$instance/pgdata/pg_wal/$1" ] || return 0
  isql -c "checkpoint" >/dev/null
  return 1
}

test_32_a_foreign_or_damaged_chain_file_is_refused() {
  local kept=$work/lastlsn.kept change
  cp "$home/agent/lastlsn.dat" "$kept"
  for change in "s/^${instance}_lastbackupid=.*/${instance}_lastbackupid=20200101000000-1/" \
    "s/^${instance}_lastbackuplsn=.*/${instance}_lastbackuplsn=12345/" "/^${instance}_lastfullbackupscn=/d" \
    "s|^${instance}_lastbackupid=.*|${instance}_lastbackupid=../../x|" "d"; do
    sed -i "$change" "$home/agent/lastlsn.dat"
    expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t incr -k pipe \
      -f "$fifo" -e "$brcmd_log"
    expect_match "message for $change" "take a full backup" "$err"
    cp "$kept" "$home/agent/lastlsn.dat"
  done
  printf 'junk\n' >>"$home/odbs/$instance/chain/$(chain_value lastbackupid)"
  expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t incr -k pipe \
    -f "$fifo" -e "$brcmd_log"
  expect_match "message" "damaged; take a full backup" "$err"
  take F full
}

test_33_switching_archive_logging_ends_the_chain() {
  take F full
  "$lab" stop "$home" "$instance" >/dev/null
  sed -i 's/^archivelog = on/archivelog = off/' "$home/admin/$instance.conf"
  backup_to "$work/x" incr && fail "continued after a switch"
  expect_match "message" "archive logging was switched off since the last backup; take a full backup" "$(cat "$work/err")"
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "chain" "" "$(chain_value lastbackupid)"
  sed -i 's/^archivelog = off/archivelog = on/' "$home/admin/$instance.conf"
  "$lab" stop "$home" "$instance" >/dev/null
  "$lab" start "$home" "$instance" >/dev/null
  backup_to "$work/x" incr && fail "continued after two switches"
  expect_match "message" "there is no backup of $instance to continue" "$(cat "$work/err")"
}

test_34_a_killed_incremental_changes_nothing() {
  local id reader backup
  take F full
  "$lab" change "$home" "$instance" --percent 20 --seed 5 >/dev/null
  id=$(chain_value lastbackupid)
  { head -c 100000 >/dev/null; : >"$work/begun"; exec sleep 60; } <"$fifo" &
  reader=$!
  background+=("$reader")
  exec=exec brcmd_backup incr 2>/dev/null &
  backup=$!
  background+=("$backup")
  wait_for 30 test -e "$work/begun" || fail "no data came"
  kill -KILL "$backup"
  wait "$backup" 2>/dev/null
  kill "$reader"
  wait "$reader" 2>/dev/null
  expect_equal "chain" "$id" "$(chain_value lastbackupid)"
  take I1 incr
  back_to F I1
}

test_40_two_instances_at_once() {
  local here=$instance here_port=$port one two
  take F full
  instance=${here}B
  new_instance "$instance" --no-init-script
  "$lab" load "$home" "$instance" --megabytes 2 >/dev/null
  backup_to "$work/other.F" full || fail "full: $(cat "$work/err")"
  sql "create table public.second as select 2 as i"
  check >"$work/other.I1.check"
  mkfifo "$work/fifo2"
  cat "$fifo" >"$work/I1" &
  one=$!
  cat "$work/fifo2" >"$work/other.I1" &
  two=$!
  background+=("$one" "$two")
  "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t incr -k pipe -f "$work/fifo2" -e "$brcmd_log" &
  local second=$!
  instance=$here port=$here_port
  check >"$work/I1.check"
  brcmd_backup incr || fail "first instance"
  wait "$second" || fail "second instance"
  wait "$one" "$two"
  expect_equal "lines" "12" "$(grep -cE "^${here}B?_last(full)?backup(id|lsn|scn)=" "$home/agent/lastlsn.dat")"
  check_chain_file "$(chain_value lastfullbackupid)"
  back_to F I1
  instance=${here}B
  port=$(sed -n 's/^port = //p' "$home/admin/$instance.conf")
  expect_equal "lines of the other one stay" "6" "$(grep -c "^${instance}_" "$home/agent/lastlsn.dat")"
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$work/other.F" && restore_from "$work/other.I1" || fail "restore: $(cat "$work/err")"
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "data of the other one" "$(cat "$work/other.I1.check")" "$(check)"
  "$lab" destroy "$home" "$instance" >/dev/null
  instance=$here port=$here_port
  "$lab" destroy "$home" "$instance" >/dev/null
}

run_tests
