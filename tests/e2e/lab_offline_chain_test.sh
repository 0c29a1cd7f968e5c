#!/usr/bin/env bash
# Chains of backups that the stand-in's brcmd makes of a stopped server (archive logging off), with both ends of the
# pipe worked by hand.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_brcmd_support.sh"
. "$(dirname "$0")/lab_chain_support.sh"

offline=1

test_10_chain_of_a_stopped_server() {
  new_instance "$instance" --archive-log off
  sql "create unlogged table public.u as select i from generate_series(1, 1000) i"
  make_chain
  check_chain_file "$(chain_value lastfullbackupid)"
  sizes_are_small
}

test_11_every_member_of_it_restores() {
  every_member_restores
  sql "insert into public.u values (0)"
  # The pages that only became known as visible to everybody must say so themselves.
  back_to F I1 I2
  sql "create extension if not exists pg_visibility"
  expect_equal "visibility" "0" "$(one_value "select count(*) from pg_check_visible('public.quiet')")"
  ! grep -q "redo starts" <(tail -8 "$home/odbs/$instance/server.log") || fail "an offline backup needs no recovery"
}

test_12_backups_go_on_after_a_restore() { continues_after_a_restore; }

test_13_sets_out_of_order_are_refused() { refuses_sets_out_of_order; }

test_14_damaged_sets_are_refused() { refuses_damaged_sets; }

test_15_killed_restores_leave_old_data() { survives_kills; }

test_16_an_empty_incremental_is_small() {
  take F full
  take I1 incr
  [ "$(stat -c %s "$work/I1")" -lt 1000000 ] || fail "an empty backup of $(stat -c %s "$work/I1") bytes"
  back_to F I1
}

test_17_a_crash_between_backups() {
  take F full
  "$lab" change "$home" "$instance" --percent 5 --seed 3 >/dev/null
  kill -KILL "$(postmaster_pid)"
  wait_for 30 test ! -e "$home/admin/$instance.db" || fail "the server runs on"
  backup_to "$work/x" incr && fail "backed a crashed server up"
  expect_match "message" "not shut down cleanly" "$(cat "$work/err")"
  wait_for 30 "$lab" start "$home" "$instance" >/dev/null || fail "no start after the crash"
  take I1 incr
  back_to F I1
  whole
}

test_18_switching_archive_logging_ends_the_chain() {
  take F full
  "$lab" stop "$home" "$instance" >/dev/null
  sed -i 's/^archivelog = off/archivelog = on/' "$home/admin/$instance.conf"
  "$lab" start "$home" "$instance" >/dev/null
  backup_to "$work/x" incr && fail "continued after a switch"
  expect_match "message" "take a full backup" "$(cat "$work/err")"
  sql "create table public.switched as select 1 as i"
  offline=
  take F full
  take I1 incr
  back_to F I1
}

test_19_the_data_of_a_restore_are_what_the_next_backup_holds() {
  "$lab" stop "$home" "$instance" >/dev/null
  sed -i 's/^archivelog = on/archivelog = off/' "$home/admin/$instance.conf"
  "$lab" start "$home" "$instance" >/dev/null
  offline=1
  take F full
  sql "create table public.lost as select 1 as i"
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$work/F" || fail "restore: $(cat "$work/err")"
  # Without a start in between.
  cp "$work/F.check" "$work/again.check"
  backup_to "$work/again" full || fail "backup: $(cat "$work/err")"
  "$lab" start "$home" "$instance" >/dev/null
  back_to again
}

run_tests
