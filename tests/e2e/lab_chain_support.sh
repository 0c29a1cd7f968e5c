# Chains of backups for the tests of the stand-in's brcmd: what must hold for those of a running server and, with
# $offline set, for those of a stopped one. Sourced after lab_support.sh and lab_brcmd_support.sh.
# shellcheck shell=bash
offline=
amcheck=/usr/lib/postgresql/15/bin/pg_amcheck

one_value() { isql -c "$1" | sed -n '3s/^ *//p'; }
sql() { isql -c "$1" >"$work/sql" 2>&1 || fail "$1: $(cat "$work/sql")"; }

# take NAME LEVEL: a backup into the file NAME; what the tables hold goes into NAME.check.
take() {
  check >"$work/$1.check"
  [ -z "$offline" ] || "$lab" stop "$home" "$instance" >/dev/null
  backup_to "$work/$1" "$2" || fail "$1 ($2): $(cat "$work/err")"
  expect_equal "stderr of $1" "" "$(cat "$work/err")"
  [ -z "$offline" ] || "$lab" start "$home" "$instance" >/dev/null
}

# back_to NAME...: restores these sets, in this order, and compares with what the last one saw.
back_to() {
  local name
  "$lab" stop "$home" "$instance" >/dev/null
  for name in "$@"; do
    restore_from "$work/$name" || fail "restore of $name in $*: $(cat "$work/err")"
  done
  "$lab" start "$home" "$instance" >/dev/null || fail "start after $*: $(tail -3 "$home/odbs/$instance/server.log")"
  expect_equal "data after $*" "$(cat "$work/${!#}.check")" "$(check)"
  expect_equal "leftovers after $*" "" "$(side_leftovers)"
}

whole() {
  sql "create extension if not exists amcheck"
  PGPASSWORD=secret "$amcheck" -h 127.0.0.1 -p "$port" -U sysdba -d oscar --heapallindexed >"$work/amcheck" 2>&1 ||
    fail "pg_amcheck: $(head -5 "$work/amcheck")"
}

# Everything that a chain must carry, between its sets: F, I1, I2, D, I3.
make_chain() {
  "$lab" load "$home" "$instance" --megabytes 6 >/dev/null
  sql "create table public.old as select i, md5(i::text) t from generate_series(1, 3000) i"
  sql "create table public.emptied as select i from generate_series(1, 5000) i"
  sql "create tablespace GONE datafile '$work/gone.dbf'"
  sql "create table public.gone tablespace gone as select 1 as i"
  sql "create table public.quiet as select i, repeat('q', 100) t from generate_series(1, 20000) i"
  take F full
  "$lab" change "$home" "$instance" --percent 2 --seed 11 >/dev/null || fail "change"
  sql "create tablespace LATE datafile '$work/late.dbf'"
  sql "create table public.late tablespace late as select i, md5(i::text) t from generate_series(1, 2000) i"
  sql "create tablespace SHORT datafile '$work/short.dbf'"
  sql "create table public.short tablespace short as select 1 as i"
  sql "drop table public.short"
  sql "drop tablespace short"
  sql "truncate public.emptied"
  sql "drop table public.old"
  sql "drop table public.gone"
  sql "drop tablespace gone"
  take I1 incr
  sql "create index late_t on public.late (t)"
  sql "delete from public.late where i % 3 = 0"
  sql "vacuum public.late"
  sql "vacuum (freeze) public.quiet"
  sql "create table public.old as select 'another one' as t"
  sql "alter system set work_mem = '6MB'"
  take I2 incr
  sql "update public.late set t = 'x' where i % 5 = 0"
  sql "create sequence public.seq"
  sql "select nextval('public.seq')"
  take D diff
  "$lab" change "$home" "$instance" --percent 1 --seed 12 >/dev/null || fail "change"
  sql "drop index public.late_t"
  sql "insert into public.quiet select i, 'new' from generate_series(1, 10) i"
  take I3 incr
  sql "drop table sales.orders"
  sql "drop table public.late"
}

check_chain_file() {
  local full=$1
  expect_equal "full id stays" "$full" "$(chain_value lastfullbackupid)"
  [ "$(chain_value lastbackupid)" != "$full" ] || fail "the last backup is not the full one"
  [ "$(chain_value lastbackuplsn)" -gt "$(chain_value lastfullbackuplsn)" ] || fail "the lsn does not grow"
  [ "$(chain_value lastbackupscn)" -gt "$(chain_value lastfullbackupscn)" ] || fail "the scn does not grow"
}

sizes_are_small() {
  local full name size
  full=$(stat -c %s "$work/F")
  for name in I1 I2 D I3; do
    size=$(stat -c %s "$work/$name")
    [ $((size * 5)) -lt "$full" ] || fail "$name has $size bytes, the full backup $full"
  done
  # What changed since the full backup is at least what changed in the first step.
  [ "$(stat -c %s "$work/D")" -gt "$(($(stat -c %s "$work/I1") / 2))" ] || fail "the differential backup is too small"
}

every_member_restores() {
  back_to F
  [ ! -e "$work/late.dbf.d" ] || fail "a tablespace of later stayed"
  back_to F I1
  back_to F I1 I2
  expect_equal "index" "1" "$(one_value "select count(*) from pg_indexes where indexname = 'late_t'")"
  expect_equal "setting" "6144" "$(one_value "select setting from pg_settings where name = 'work_mem'")"
  whole
  back_to F D
  # A running server has logged some numbers ahead.
  [ "$(one_value "select nextval('public.seq')")" -ge 2 ] || fail "the sequence began again"
  back_to F D I3
  whole
  [ ! -e "$work/gone.dbf.d" ] || [ -z "$(ls -A "$work/gone.dbf.d")" ] || fail "a dropped tablespace came back"
}

continues_after_a_restore() {
  expect_equal "chain" "" "$(grep "^${instance}_" "$home/agent/lastlsn.dat")"
  [ -z "$offline" ] || "$lab" stop "$home" "$instance" >/dev/null
  backup_to "$work/x" incr && fail "continued a chain of the replaced data"
  expect_match "message" "there is no backup of $instance to continue; take a full backup" "$(cat "$work/err")"
  [ -z "$offline" ] || "$lab" start "$home" "$instance" >/dev/null
  take F full
  sql "create table public.after as select 7 as i"
  take I1 incr
  sql "drop table public.after"
  back_to F I1
}

refuses_sets_out_of_order() {
  local order last
  take F full
  take I1 incr
  sql "create table public.order2 as select 1 as i"
  take I2 incr
  sql "create table public.live as select 'newer than all' as t"
  check >"$work/live.check"
  "$lab" stop "$home" "$instance" >/dev/null
  for order in "I1" "F I2" "F I1 I1" "F I1 I2 I1"; do
    for last in $order; do
      restore_from "$work/$last" && accepted=1 || accepted=
    done
    [ -z "$accepted" ] || fail "accepted $order"
    expect_match "message for $order" "must begin with a full|was restored last|continues" "$(cat "$work/err")"
    expect_equal "leftovers of $order" "" "$(side_leftovers)"
  done
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "data" "$(cat "$work/live.check")" "$(check)"
}

refuses_damaged_sets() {
  local size info name
  "$lab" stop "$home" "$instance" >/dev/null
  size=$(stat -c %s "$work/I1")
  info=$(info_bytes "$work/I1")
  head -c $((size - 1)) "$work/I1" >"$work/bad.1"
  head -c $((size / 2)) "$work/I1" >"$work/bad.2"
  { cat "$work/I1"; printf x; } >"$work/bad.3"
  for name in 4:$((info + 40)) 5:$((size / 2)); do
    cp "$work/I1" "$work/bad.${name%:*}"
    printf '\xa5\x5a\xa5' | dd of="$work/bad.${name%:*}" bs=1 seek="${name#*:}" conv=notrunc 2>/dev/null
  done
  for name in "$work"/bad.*; do
    restore_from "$work/F" || fail "restore: $(cat "$work/err")"
    restore_from "$name" && fail "accepted ${name##*/}"
    expect_match "${name##*/}" '^brcmd: ERROR, ' "$(cat "$work/err")"
    expect_equal "leftovers of ${name##*/}" "" "$(side_leftovers)"
    rm "$name"
  done
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "old data" "$(cat "$work/live.check")" "$(check)"
}

# killed_restore_of NAME BYTES: brcmd gets so many bytes of the stream and is killed then; not before it has
# noted that what the side directories hold is whole no more.
killed_restore_of() {
  local writer restore info
  info=$(info_bytes "$work/$1")
  { head -c "$info" "$work/$1"; head -c "$2" "$work/$1"; : >"$work/sent"; exec sleep 60; } >"$fifo" 2>/dev/null &
  writer=$!
  background+=("$writer")
  rm -f "$work/sent"
  exec=exec brcmd_restore 2>/dev/null &
  restore=$!
  background+=("$restore")
  wait_for 30 test -e "$work/sent" || fail "the stream was not taken"
  wait_for 30 grep -qs '^complete=0' "$home/odbs/$instance/restore.state" || fail "the restore did not begin"
  kill -KILL "$restore" "$writer"
  wait "$restore" "$writer" 2>/dev/null
}

survives_kills() {
  local bytes size
  size=$(stat -c %s "$work/I1")
  "$lab" stop "$home" "$instance" >/dev/null
  for bytes in 0 $((size / 2)) $((size - 10)); do
    restore_from "$work/F" || fail "restore: $(cat "$work/err")"
    killed_restore_of I1 "$bytes"
    "$lab" start "$home" "$instance" >/dev/null || fail "start after a kill at $bytes"
    expect_equal "old data after a kill at $bytes" "$(cat "$work/live.check")" "$(check)"
    expect_equal "leftovers" "" "$(side_leftovers)"
    expect_match "server's log" "was cut off; the data from before it stay" "$(tail -20 "$home/odbs/$instance/server.log")"
    "$lab" stop "$home" "$instance" >/dev/null
  done
  # Killed, and the chain restored again without a start in between.
  restore_from "$work/F" || fail "restore: $(cat "$work/err")"
  killed_restore_of I1 "$((size / 2))"
  restore_from "$work/I1" && fail "continued a restore that was cut off"
  back_to F I1
  # An agent that dies between two sets: the server starts with what was restored completely.
  "$lab" stop "$home" "$instance" >/dev/null
  restore_from "$work/F" || fail "restore: $(cat "$work/err")"
  restore_from "$work/I1" || fail "restore: $(cat "$work/err")"
  "$lab" start "$home" "$instance" >/dev/null
  expect_equal "data of the last whole set" "$(cat "$work/I1.check")" "$(check)"
  expect_match "server's log" "the restored data of $instance \(backup [0-9-]+\) are in place" \
    "$(grep "^oscar: " "$home/odbs/$instance/server.log" | tail -1)"
}

