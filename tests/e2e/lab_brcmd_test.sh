#!/usr/bin/env bash
# Full backups and restores of the stand-in's brcmd, with both ends of the pipe worked by hand.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_brcmd_support.sh"

image=$work/full.image

test_10_full_backup_of_a_running_server() {
  new_instance "$instance"
  "$lab" load "$home" "$instance" --megabytes 10 >/dev/null
  isql -c "create tablespace FAR datafile '$work/far.dbf'" >/dev/null
  isql -c "create table public.far tablespace far as select i, md5(i::text) t from generate_series(1, 5000) i" >/dev/null
  printf 'OTHER_lastbackupid=x\n%sX_lastbackupid=y\nfree text\n' "$instance" >"$home/agent/lastlsn.dat"
  backup_to "$image" || fail "backup: $(cat "$work/err")"
  expect_equal "stderr" "" "$(cat "$work/err")"
  before=$(check)
}

test_11_info_block() {
  local length total=0 path size
  length=$(info_bytes "$image")
  [ "$length" -gt 512 ] && [ "$length" -le 8192 ] || fail "info block of $length bytes"
  while IFS='=' read -r path size; do
    [ -f "$path" ] && total=$((total + size))
  done < <(head -c "$length" "$image" | tail -c +513)
  local stored
  stored=$(stat -c %s "$image")
  # The log comes on top of what the data files hold.
  [ "$total" -gt 0 ] && [ "$stored" -ge "$total" ] && [ "$stored" -le $((total + 40000000)) ] ||
    fail "announced $total, sent $stored"
}

test_12_chain_file() {
  expect_match "id" '^[0-9]{14}-[0-9]+$' "$(chain_value lastfullbackupid)"
  expect_equal "same id" "$(chain_value lastfullbackupid)" "$(chain_value lastbackupid)"
  expect_equal "same lsn" "$(chain_value lastfullbackuplsn)" "$(chain_value lastbackuplsn)"
  expect_equal "same scn" "$(chain_value lastfullbackupscn)" "$(chain_value lastbackupscn)"
  [ "$(chain_value lastbackuplsn)" -gt 0 ] && [ "$(chain_value lastbackupscn)" -gt 0 ] || fail "zero"
  expect_equal "other lines" "OTHER_lastbackupid=x ${instance}X_lastbackupid=y free text " \
    "$(head -3 "$home/agent/lastlsn.dat" | tr '\n' ' ')"
  local id lsn scn
  id=$(chain_value lastbackupid) lsn=$(chain_value lastbackuplsn) scn=$(chain_value lastbackupscn)
  backup_to "$work/second.image" || fail "second backup"
  [ "$(chain_value lastbackupid)" != "$id" ] || fail "the id was used twice"
  [ "$(chain_value lastbackuplsn)" -gt "$lsn" ] || fail "the lsn does not grow"
  [ "$(chain_value lastbackupscn)" -gt "$scn" ] || fail "the scn does not grow"
  rm "$work/second.image"
}

test_20_restore_brings_everything_back() {
  isql -c "drop table sales.orders" >/dev/null
  isql -c "update public.far set t = 'changed'" >/dev/null
  isql -c "create tablespace LATER datafile '$work/later.dbf'" >/dev/null
  isql -c "create table public.later tablespace later as select 1 as i" >/dev/null
  "$lab" load "$home" "$instance" --megabytes 2 --seed 9 >/dev/null
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$image" || fail "restore: $(cat "$work/err")"
  [ -e "$work/later.dbf.d" ] || fail "the old data went away before the start"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "leftovers" "" "$(side_leftovers)"
  [ ! -e "$work/later.dbf" ] && [ ! -e "$work/later.dbf.d" ] || fail "a tablespace of the replaced data stayed"
  expect_equal "chain of the instance" "" "$(grep "^${instance}_" "$home/agent/lastlsn.dat")"
  expect_equal "other lines" "OTHER_lastbackupid=x ${instance}X_lastbackupid=y free text " \
    "$(tr '\n' ' ' <"$home/agent/lastlsn.dat")"
  [ "$whoami" = user ] ||
    expect_equal "owners" "" "$(find "$home/odbs/$instance/pgdata" "$work/far.dbf.d" ! -user postgres)"
  expect_equal "data" "$before" "$(check)"
  expect_ok isql -l
}

test_21_restore_into_an_empty_place() {
  "$lab" stop "$home" "$instance" >/dev/null
  rm -rf "$home/odbs/$instance/pgdata" "$work/far.dbf.d" "$work/far.dbf" "$home/odbs/$instance/LABSPACE.dbf"*
  restore_from "$image" || fail "restore: $(cat "$work/err")"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "data" "$before" "$(check)"
  [ -f "$work/far.dbf" ] && [ -f "$home/odbs/$instance/LABSPACE.dbf" ] || fail "no data file placeholders"
}

test_22_restore_into_another_instance() {
  local here=$instance
  isql -c "drop tablespace if exists nothing" >/dev/null
  (
    instance=${here}R
    new_instance "$instance" --no-init-script
    "$lab" stop "$home" "$instance" >/dev/null
    "$lab" stop "$home" "$here" >/dev/null
    # The tablespace at a place of its own can be in one instance only.
    restore_from "$image" || fail "restore: $(cat "$work/err")"
    "$lab" start "$home" "$instance" >/dev/null
    expect_equal "data" "${before/\"$here\"/\"$instance\"}" "$(check)"
    expect_ok isql -l
    expect_equal "own tablespace" "$home/odbs/$instance/LABSPACE.dbf.d" \
      "$(isql -c "select pg_tablespace_location(oid) from pg_tablespace where spcname = 'labspace'" | sed -n '3s/ //p')"
    "$lab" destroy "$home" "$instance" >/dev/null
    exit "$failures"
  ) || failures=$((failures + 1))
  restore_from "$image" || fail "restore of the first instance"
  expect_ok "$lab" start "$home" "$instance"
}

test_30_refused_streams_leave_the_old_data() {
  isql -c "insert into public.far values (0, 'newer than the backup')" >/dev/null
  "$lab" stop "$home" "$instance" >/dev/null
  local size info name
  size=$(stat -c %s "$image")
  info=$(info_bytes "$image")
  head -c $((size - 1)) "$image" >"$work/short.1"
  head -c $((size / 2)) "$image" >"$work/half.2"
  head -c "$info" "$image" >"$work/info-only.3"
  head -c 300 "$image" >"$work/stump.4"
  { cat "$image"; printf x; } >"$work/longer.5"
  for name in head:100 early:$((info + 5)) middle:$((size / 2)) late:$((size - 3)) length:$((info + 20)); do
    cp "$image" "$work/flip.${name%:*}"
    printf '\xa5' | dd of="$work/flip.${name%:*}" bs=1 seek="${name#*:}" conv=notrunc 2>/dev/null
  done
  printf '\377' | dd of="$work/flip.length" bs=1 seek=$((info + 24)) conv=notrunc 2>/dev/null
  for name in "$work"/*.[1-5] "$work"/flip.*; do
    # The head's padding is not part of what is checked; the two copies of the info block differ instead.
    if [ "$name" = "$work/flip.head" ]; then
      { head -c "$info" "$image"; cat "$name"; } >"$fifo" 2>/dev/null &
      background+=($!)
      brcmd_restore 2>"$work/err" && fail "accepted another info block"
      wait $!
    else
      restore_from "$name" && fail "accepted ${name##*/}"
    fi
    expect_match "${name##*/}" '^brcmd: ERROR, ' "$(cat "$work/err")"
    expect_equal "leftovers of ${name##*/}" "" "$(side_leftovers)"
    rm "$name"
  done
  head -c 100000 /dev/urandom >"$work/noise"
  restore_from "$work/noise" && fail "accepted noise"
  expect_ok "$lab" start "$home" "$instance"
  expect_match "old data" "newer than the backup" "$(isql -c "select t from public.far where i = 0")"
}

test_31_a_running_instance_is_not_restored() {
  expect_status 1 timeout 3 "$home/bin/brcmd" -O restore -d "$instance" -t backup_point_last -k pipe -f "$fifo" \
    -e "$brcmd_log"
  expect_match "message" "is running" "$err"
  expect_match "data" "newer" "$(isql -c "select t from public.far where i = 0")"
}

test_32_a_killed_restore_leaves_the_old_data() {
  "$lab" stop "$home" "$instance" >/dev/null
  { head -c "$(info_bytes "$image")" "$image"; head -c 20000000 "$image"; exec sleep 20; } >"$fifo" 2>/dev/null &
  local writer=$!
  background+=("$writer")
  exec=exec brcmd_restore 2>/dev/null &
  local restore=$!
  wait_for 10 test -d "$home/odbs/$instance/pgdata.restore/base" || fail "no side directory"
  expect_status 1 "$lab" start "$home" "$instance"
  expect_match "start while restoring" "in use" "$err"
  kill -KILL "$restore" "$writer"
  wait "$restore" "$writer" 2>/dev/null
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "leftovers" "" "$(side_leftovers)"
  expect_match "old data" "newer" "$(isql -c "select t from public.far where i = 0")"
}

test_40_a_swap_cut_off_anywhere_is_finished() {
  local step data=$home/odbs/$instance/pgdata
  for step in 1 2 3 4 5; do
    "$lab" stop "$home" "$instance" >/dev/null
    # What a restore leaves that died after this many renames: old data are marked by a file.
    cp -a "$data" "$data.restore"
    cp -a "$work/far.dbf.d" "$work/far.dbf.d.restore"
    touch "$data/old-data" "$work/far.dbf.d/old-data"
    printf '%s\n' "$data.restore" "$work/far.dbf.d.restore" >"$home/odbs/$instance/restore.sides"
    printf '%s\t%s\n' "$data.restore" "$data" "$work/far.dbf.d.restore" "$work/far.dbf.d" \
      >"$home/odbs/$instance/restore.journal"
    [ "$step" -lt 2 ] || mv "$data" "$data.old"
    [ "$step" -lt 3 ] || mv "$data.restore" "$data"
    [ "$step" -lt 4 ] || mv "$work/far.dbf.d" "$work/far.dbf.d.old"
    [ "$step" -lt 5 ] || mv "$work/far.dbf.d.restore" "$work/far.dbf.d"
    expect_ok "$lab" start "$home" "$instance"
    [ ! -e "$data/old-data" ] && [ ! -e "$work/far.dbf.d/old-data" ] || fail "old data after step $step"
    expect_equal "leftovers of step $step" "" "$(side_leftovers)"
    expect_match "data" "newer" "$(isql -c "select t from public.far where i = 0")"
  done
}

test_50_backup_under_load_is_consistent() {
  local bench=(/usr/lib/postgresql/15/bin/pgbench -h 127.0.0.1 -p "$port" -U sysdba)
  export PGPASSWORD=secret PGDATABASE=oscar
  "${bench[@]}" -i -q -s 4 >/dev/null 2>&1 || fail "pgbench -i"
  "${bench[@]}" -n -c 3 -T 30 >/dev/null 2>&1 &
  local load=$!
  background+=("$load")
  sleep 0.5
  backup_to "$work/load.image" || fail "backup: $(cat "$work/err")"
  kill -0 "$load" 2>/dev/null || fail "the load ended before the backup"
  kill "$load"
  wait "$load" 2>/dev/null
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$work/load.image" || fail "restore: $(cat "$work/err")"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "balances agree" " t" "$(isql -c "select (select sum(delta) from pgbench_history) = all (array[
    (select sum(abalance) from pgbench_accounts), (select sum(tbalance) from pgbench_tellers),
    (select sum(bbalance) from pgbench_branches)]) as agree" | sed -n 3p)"
  [ "$(isql -c "select count(*) from pgbench_history" | sed -n '3s/ //gp')" -gt 0 ] || fail "no transactions"
  isql -c "create extension if not exists amcheck" >/dev/null
  /usr/lib/postgresql/15/bin/pg_amcheck -h 127.0.0.1 -p "$port" -U sysdba -d oscar --heapallindexed >"$work/amcheck" 2>&1 ||
    fail "pg_amcheck: $(head -5 "$work/amcheck")"
  unset PGPASSWORD PGDATABASE
  rm "$work/load.image"
}

test_60_a_reader_that_goes_away() {
  local id
  backup_to "$work/x.image" || fail "backup"
  id=$(chain_value lastbackupid)
  head -c 1000000 "$fifo" >/dev/null &
  background+=($!)
  expect_status 1 brcmd_backup
  expect_match "message" "^brcmd: ERROR, cannot write to the pipe: Broken pipe" "$err"
  expect_equal "chain" "$id" "$(chain_value lastbackupid)"
  # Takes all but the last bytes, so that the last write succeeds.
  head -c $(($(stat -c %s "$work/x.image") - 30000)) "$fifo" >/dev/null &
  background+=($!)
  expect_status 1 brcmd_backup
  expect_equal "chain" "$id" "$(chain_value lastbackupid)"
}

test_61_a_killed_backup() {
  local id reader backup
  id=$(chain_value lastbackupid)
  { head -c 5000000; exec sleep 20; } <"$fifo" >/dev/null &
  reader=$!
  background+=("$reader")
  exec=exec brcmd_backup 2>/dev/null &
  backup=$!
  sleep 1
  kill -KILL "$backup"
  wait "$backup" 2>/dev/null
  kill "$reader"
  wait "$reader" 2>/dev/null
  expect_equal "chain" "$id" "$(chain_value lastbackupid)"
  no_slots() { [ "$(isql -c "select count(*) from pg_replication_slots" | sed -n '3s/ //gp')" = 0 ]; }
  wait_for 5 no_slots || fail "the server still keeps log for the dead backup"
  backup_to "$work/x.image" || fail "next backup: $(cat "$work/err")"
}

test_62_one_backup_at_a_time() {
  { sleep 2; cat; } <"$fifo" >/dev/null &
  background+=($!)
  exec=exec brcmd_backup &
  local first=$!
  sleep 0.5
  mkfifo "$work/fifo2"
  expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$work/fifo2" -e "$brcmd_log"
  expect_match "message" "another backup" "$err"
  wait "$first" || fail "the first backup failed"
}

test_70_errors_come_at_once_and_without_opening_the_pipe() {
  local base=("$home/bin/brcmd" -O backup)
  local rest=(-t full -k pipe -f "$fifo" -e "$brcmd_log")
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p n0tright -P "$port" "${rest[@]}"
  expect_match "password" "password authentication failed" "$err"
  [[ $out$err$(cat "$brcmd_log") != *n0tright* ]] || fail "the password was printed"
  expect_status 1 timeout 3 "${base[@]}" -d NOSUCH -u sysdba -p secret -P "$port" "${rest[@]}"
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p secret -P "$(free_port)" "${rest[@]}"
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u guest -p x -P "$port" "${rest[@]}"
  expect_match "rights" "permission denied" "$err"
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$work/nofifo" -e "$brcmd_log"
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$brcmd_log" -e "$brcmd_log"
  expect_match "no pipe" "is not a pipe" "$err"
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$fifo" -e /nonexistent/log
  "$lab" stop "$home" "$instance" >/dev/null
  expect_status 1 timeout 3 "${base[@]}" -d "$instance" -u sysdba -p secret -P "$port" "${rest[@]}"
  expect_match "server down" "not running" "$err"
  "$lab" start "$home" "$instance" >/dev/null
}

test_71_forms_of_the_command_line() {
  cat "$fifo" >/dev/null &
  expect_ok "$home/bin/brcmd" -Obackup "-d${instance,,}" -usysdba -psecret "-P$port" -tfull -kpipe "-f$fifo" \
    "-e$brcmd_log"
  wait $!
  expect_match "log" "backup [0-9]+-[0-9]+ of $instance: [0-9]+ bytes" "$(tail -1 "$brcmd_log")"
}

test_72_refused_command_lines() {
  local b=("$home/bin/brcmd")
  local all=(-O backup -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe -f "$fifo" -e "$brcmd_log")
  local restore=(-O restore -d "$instance" -t backup_point_last -k pipe -f "$fifo" -e "$brcmd_log")
  local i
  expect_status 2 "${b[@]}"
  for ((i = 0; i < ${#all[@]}; i += 2)); do
    expect_status 2 "${b[@]}" "${all[@]:0:i}" "${all[@]:i+2}"
  done
  for ((i = 0; i < ${#restore[@]}; i += 2)); do
    expect_status 2 "${b[@]}" "${restore[@]:0:i}" "${restore[@]:i+2}"
  done
  expect_status 2 "${b[@]}" "${all[@]}" stray
  expect_status 2 "${b[@]}" "${all[@]}" -x
  expect_status 2 "${b[@]}" "${all[@]}" -t
  expect_status 2 "${b[@]}" "${all[@]}" -t full
  expect_status 2 "${b[@]}" "${restore[@]}" -u sysdba
  expect_status 2 "${b[@]}" "${restore[@]}" -p secret
  expect_status 2 "${b[@]}" "${restore[@]}" -P "$port"
  expect_status 2 "${b[@]}" -O other "${all[@]:2}"
  expect_status 2 "${b[@]}" "${all[@]:0:10}" -t weekly "${all[@]:12}"
  expect_status 2 "${b[@]}" "${all[@]:0:12}" -k file "${all[@]:14}"
  expect_status 2 "${b[@]}" -O restore -d "$instance" -t full -k pipe -f "$fifo" -e "$brcmd_log"
  expect_status 2 "${b[@]}" --version -O backup
  expect_ok "${b[@]}" --version
  expect_ok "${b[@]}" --help
}

test_80_offline_backup_needs_a_stopped_server() {
  "$lab" destroy "$home" "$instance" >/dev/null
  new_instance "$instance" --archive-log off
  "$lab" load "$home" "$instance" --megabytes 8 >/dev/null
  before=$(check)
  expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$fifo" -e "$brcmd_log"
  expect_match "message" "must be shut down" "$err"
  kill -KILL "$(server_pid)"
  sleep 1
  expect_status 1 timeout 3 "$home/bin/brcmd" -O backup -d "$instance" -u sysdba -p secret -P "$port" -t full -k pipe \
    -f "$fifo" -e "$brcmd_log"
  expect_match "message" "not shut down cleanly" "$err"
}

test_81_offline_backup_and_restore() {
  "$lab" start "$home" "$instance" >/dev/null
  isql -c "shutdown immediate" >/dev/null
  backup_to "$image" || fail "backup: $(cat "$work/err")"
  local lsn scn
  lsn=$(chain_value lastbackuplsn) scn=$(chain_value lastbackupscn)
  [ "$lsn" -gt 0 ] && [ "$scn" -gt 0 ] || fail "zero in the chain"
  "$lab" start "$home" "$instance" >/dev/null
  isql -c "truncate docs.documents" >/dev/null
  "$lab" stop "$home" "$instance" >/dev/null
  backup_to "$work/x.image" || fail "second backup: $(cat "$work/err")"
  [ "$(chain_value lastbackuplsn)" -gt "$lsn" ] || fail "the lsn does not grow"
  [ "$(chain_value lastbackupscn)" -gt "$scn" ] || fail "the scn does not grow"
  restore_from "$image" || fail "restore: $(cat "$work/err")"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "data" "$before" "$(check)"
  ! grep -q "redo starts" <(tail -8 "$home/odbs/$instance/server.log") || fail "an offline backup needs no recovery"
}

test_82_the_server_stays_down_during_an_offline_backup() {
  "$lab" stop "$home" "$instance" >/dev/null
  { head -c 1000000; sleep 1; cat; } <"$fifo" >/dev/null &
  local reader=$!
  background+=("$reader")
  exec=exec brcmd_backup &
  local backup=$!
  sleep 0.5
  # Waits for the lock; the backup is finished by then.
  expect_ok "$lab" start "$home" "$instance"
  # A backup that never opened the pipe leaves its reader waiting.
  wait "$backup" || { fail "the backup failed"; : 1<>"$fifo"; }
  wait "$reader"
}

run_tests
