#!/usr/bin/env bash
# What the stand-in's export and import refuse, and what they leave when they are killed or fail half-way.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_export_support.sh"

test_10_set_up() {
  new_instance "$instance"
  "$lab" load "$home" "$instance" --megabytes 2 --seed 5 --rich >/dev/null
  before=$(state)
  expect_ok export_database "$work/database.dmp"
  expect_ok export_schema "$work/crm.dmp" CRM
  expect_ok export_table "$work/accounts.dmp" CRM.ACCOUNTS
}

test_11_forms_of_the_login() {
  expect_ok "$home/bin/osrexp" -U sysdba/secret -p "$port" -d "${instance,,}" "file=$work/x.dmp"
  expect_ok "$home/bin/osrexp" -Usysdba/secret "-d$instance" -h localhost "file=$work/x.dmp"
  expect_ok "$home/bin/osrimp" -U sysdba/secret -d "$instance" -p "$port" "file=$work/x.dmp" recreateSchema=true
  expect_ok env LC_ALL=en_US.UTF8 "LD_LIBRARY_PATH=$home/bin" PGHOST=nowhere PGUSER=x PGPASSWORD=y PGDATABASE=z \
    PGOPTIONS=-cbad PGPORT=1 "$home/bin/osrexp" -Usysdba/secret "-d$instance" "file=$work/x.dmp"
  expect_unchanged
}

test_20_parameters_that_neither_tool_takes() {
  local tool word
  for tool in osrexp osrimp; do
    rm -f "$work/no.dmp"
    for word in stray stray=1 '' =x file=other level= level=row level=schema level=table schema=CRM table=CRM.ACCOUNTS mode= \
      mode=data ignore=true ignore=maybe view=yes index= FILE=twice; do
      expect_status 2 "$tool" "file=$work/no.dmp" "$word"
      expect_match "$tool $word" "^$tool: ERROR, " "$err"
    done
    for word in CRM CRM. .ACCOUNTS A.B.C '"CRM"x.B' '"CRM.B' '""."B"'; do
      expect_status 2 "$tool" "file=$work/no.dmp" level=table "table=$word"
    done
    expect_status 2 "$tool" "file=$work/no.dmp" level=schema schema=A.B
    expect_status 2 "$tool" "file=$work/no.dmp" level=schema schema=CRM table=CRM.ACCOUNTS
    expect_status 2 "$tool" level=database
    expect_status 2 "$home/bin/$tool" -Usysdba/secret "file=$work/no.dmp"
    expect_status 2 "$home/bin/$tool" "-d$instance" "file=$work/no.dmp"
    expect_status 2 "$home/bin/$tool" -U/secret "-d$instance" "file=$work/no.dmp"
    expect_status 2 "$home/bin/$tool" -Usysdba/secret "-d$instance" -pmany "file=$work/no.dmp"
    expect_status 2 "$home/bin/$tool" -Usysdba/se cret "-d$instance" "file=$work/no.dmp"
    [[ $out$err != *cret* ]] || fail "a piece of a password was printed"
    [ ! -e "$work/no.dmp" ] || fail "a file in spite of the error"
  done
}

test_21_parameters_of_the_other_tool() {
  local word
  for word in tablespace=true recreateschema=false recreatetable=true recreateotherobject=false deletetabledata=true; do
    expect_status 2 osrexp "file=$work/no.dmp" "$word"
  done
  for word in view procedure sequence; do
    expect_status 2 osrexp "file=$work/no.dmp" level=table table=CRM.ACCOUNTS "$word=true"
    expect_match "message" "$word=true cannot be used with level=table" "$err"
  done
}

test_22_parameters_that_contradict_each_other() {
  local target
  for target in "level=schema schema=CRM" ""; do
    # shellcheck disable=SC2086
    for words in recreatetable=true recreateotherobject=true deletetabledata=true "recreateschema=true recreatetable=false" \
      "recreateschema=true recreateotherobject=false" "recreateschema=true deletetabledata=false"; do
      expect_status 2 osrimp "file=$work/crm.dmp" $target $words
      expect_match "message" "must be the same" "$err"
    done
  done
  for words in recreateschema=true recreateotherobject=true deletetabledata=true "recreatetable=true deletetabledata=false"; do
    # shellcheck disable=SC2086
    expect_status 2 osrimp "file=$work/accounts.dmp" level=table table=CRM.ACCOUNTS $words
  done
  expect_unchanged
}

test_23_nothing_is_replaced_without_being_asked() {
  expect_status 1 osrimp "file=$work/accounts.dmp" level=table table=CRM.ACCOUNTS
  expect_match "table" 'table CRM.ACCOUNTS exists; recreatetable=true replaces it; nothing was changed$' "$err"
  expect_status 1 osrimp "file=$work/crm.dmp" level=schema schema=CRM
  expect_match "schema" 'schema CRM exists; recreateschema=true replaces it; nothing was changed$' "$err"
  expect_status 1 osrimp "file=$work/database.dmp"
  expect_match "database" 'exists; recreateschema=true replaces it; nothing was changed$' "$err"
  expect_ok osrimp "file=$work/accounts.dmp" level=table table=CRM.NEW
  expect_ok osrimp "file=$work/crm.dmp" level=schema schema=NEW
  change "drop schema new cascade; drop table crm.new"
  expect_unchanged
}

test_30_objects_that_cannot_be_exported() {
  local name
  for name in NOSUCH.TABLE CRM.NOSUCH; do
    expect_status 1 export_table "$work/no.dmp" "$name"
    expect_match "$name" "does not exist" "$err"
  done
  for name in CRM.ACTIVE_ACCOUNTS CRM.ACCOUNT_NUMBER REPORTS.BUSY_ACCOUNTS; do
    expect_status 1 export_table "$work/no.dmp" "$name"
    expect_match "$name" "is not a table" "$err"
  done
  for name in NOSUCH; do
    expect_status 1 export_schema "$work/no.dmp" "$name"
    expect_match "$name" "schema $name does not exist" "$err"
  done
  for name in OSCAR_SYS INFORMATION_SCHEMA PG_CATALOG; do
    expect_status 1 export_schema "$work/no.dmp" "$name"
    expect_match "$name" "belongs to the system" "$err"
    expect_status 1 import_whole_schema "$work/crm.dmp" "$name"
    expect_match "$name" "belongs to the system" "$err"
  done
  change "create table crm.parts (i int) partition by range (i); create table crm.part1 partition of crm.parts for values from (1) to (9)"
  for name in CRM.PARTS CRM.PART1; do
    expect_status 1 export_table "$work/no.dmp" "$name"
    expect_match "$name" "with their schema only" "$err"
  done
  change "drop table crm.parts"
  expect_equal "no file" "" "$(find "$work" -name 'no.dmp*')"
}

test_31_logins_and_instances_that_fail() {
  local tool
  for tool in osrexp osrimp; do
    expect_status 1 "$home/bin/$tool" -Usysdba/wrong "-p$port" "-d$instance" "file=$work/accounts.dmp.$tool"
    [[ $out$err != *wrong* ]] || fail "a password was printed"
  done
  expect_status 1 "$home/bin/osrexp" -Usysdba/wrong "-p$port" "-d$instance" "file=$work/no.dmp"
  expect_equal "login" 'osrexp: ERROR, password authentication failed for user "sysdba"' "$err"
  expect_status 1 "$home/bin/osrexp" -Usysdba/secret "-p$port" -dOTHER "file=$work/no.dmp"
  expect_match "instance" 'database "OTHER" does not exist' "$err"
  expect_status 1 "$home/bin/osrimp" -Usysdba/secret "-p$(free_port)" "-d$instance" "file=$work/crm.dmp"
  expect_match "port" '^osrimp: ERROR, .*Connection refused' "$err"
  change "create role limited login password 'weak'; grant usage on schema crm to limited"
  expect_status 1 "$home/bin/osrexp" -Ulimited/weak "-p$port" "-d$instance" "file=$work/no.dmp"
  expect_match "privileges" 'osrexp: ERROR, the export failed: permission denied' "$err"
  expect_status 1 "$home/bin/osrimp" -Ulimited/weak "-p$port" "-d$instance" "file=$work/crm.dmp" recreateSchema=true
  expect_match "privileges" 'osrimp: ERROR, .*(permission denied|must be owner).*; nothing was changed' "$err"
  expect_unchanged
  change "revoke usage on schema crm from limited; drop role limited"
  expect_equal "no file" "" "$(find "$work" -name 'no.dmp*')"
}

test_32_a_failed_export_removes_the_older_file() {
  cp "$work/accounts.dmp" "$work/old.dmp"
  expect_status 1 export_table "$work/old.dmp" CRM.NOSUCH
  [ ! -e "$work/old.dmp" ] || fail "the file of another export looks like this one's"
  expect_status 1 osrexp "file=$work"
  expect_match "directory" "is not a regular file" "$err"
  expect_status 1 osrexp "file=$work/none/x.dmp"
  expect_match "parent" "cannot open $work/none/x.dmp.part: No such file" "$err"
  expect_status 1 osrexp file=/dev/full
  no_leftovers
}

test_33_disk_full() {
  mkdir -p "$work/small"
  local text="cd '$work' && mount -t tmpfs -o size=512k,mode=777 none small && '$home/bin/osrexp' -Usysdba/secret -d$instance file=$work/small/x.dmp; status=\$?; ls -A small; exit \$status"
  if unshare -m true 2>/dev/null; then
    expect_status 1 unshare -m sh -c "$text"
  elif unshare -Urm true 2>/dev/null; then
    expect_status 1 unshare -Urm sh -c "$text"
  else # a limit on the size of files comes nearest
    expect_status 1 sh -c "ulimit -f 512; '$home/bin/osrexp' -Usysdba/secret -d$instance file=$work/small/x.dmp; status=\$?; ls -A '$work/small'; exit \$status"
  fi
  expect_match "message" "osrexp: ERROR, the export failed: .*(No space left on device|File too large)" "$err"
  expect_equal "leftovers" "" "$out"
}

test_40_files_that_are_no_exports() {
  local size
  size=$(stat -c %s "$work/crm.dmp")
  head -c $((size - 1)) "$work/crm.dmp" >"$work/bad.dmp"
  expect_status 1 osrimp "file=$work/bad.dmp" recreateSchema=true
  expect_equal "cut" "osrimp: ERROR, $work/bad.dmp is not a complete export file" "$err"
  head -c $((size / 2)) "$work/crm.dmp" >"$work/bad.dmp"
  expect_status 1 osrimp "file=$work/bad.dmp" recreateSchema=true
  expect_match "half" "is not a complete export file" "$err"
  : >"$work/bad.dmp"
  expect_status 1 osrimp "file=$work/bad.dmp" recreateSchema=true
  expect_match "empty" "is not a complete export file" "$err"
  cp "$work/crm.dmp" "$work/bad.dmp"
  printf 'X' | dd of="$work/bad.dmp" bs=1 seek=$((size / 2)) conv=notrunc 2>/dev/null
  expect_status 1 osrimp "file=$work/bad.dmp" recreateSchema=true
  expect_equal "changed byte" "osrimp: ERROR, $work/bad.dmp is damaged: its checksum is wrong" "$err"
  expect_status 1 osrimp "file=$work/none.dmp" recreateSchema=true
  expect_match "missing" "cannot open $work/none.dmp: No such file" "$err"
  expect_status 1 osrimp "file=$work" recreateSchema=true
  expect_unchanged
}

test_41_levels_that_do_not_fit_the_file() {
  expect_status 1 import_table "$work/crm.dmp" CRM.ACCOUNTS
  expect_match "table" "the file holds a schema, not a table; nothing was changed" "$err"
  expect_status 1 import_schema "$work/accounts.dmp" CRM
  expect_match "schema" "the file holds a table, not a schema" "$err"
  expect_status 1 import_schema "$work/database.dmp" CRM
  expect_match "database" "the file holds a database, not a schema" "$err"
  # At database level a file brings back what it holds under its own name.
  change "delete from crm.activity; delete from reports.snapshots"
  expect_ok import_database "$work/crm.dmp"
  expect_equal "rows" 10000 "$(value 'select count(*) from crm.activity')"
  expect_equal "other schemas" 0 "$(value 'select count(*) from reports.snapshots')"
  change "update crm.accounts set credit = 5"
  expect_ok import_database "$work/accounts.dmp"
  expect_ok import_database "$work/database.dmp"
  expect_unchanged
}

test_42_targets_that_do_not_work() {
  expect_status 1 import_table "$work/accounts.dmp" NOSUCH.ACCOUNTS
  expect_match "schema" "schema NOSUCH does not exist; create it first" "$err"
  expect_status 1 import_table "$work/accounts.dmp" CRM.ACTIVE_ACCOUNTS
  expect_match "view" "CRM.ACTIVE_ACCOUNTS is not a table" "$err"
  change "create table docs.uses_type (s crm.status)"
  expect_status 1 import_whole_schema "$work/crm.dmp" CRM
  expect_match "dependent column" "column s of table docs.uses_type depends on what the import replaces; remove it first; nothing was changed" "$err"
  change "drop table docs.uses_type; create function docs.uses_row(a crm.accounts) returns int language sql as 'select 1'"
  expect_status 1 import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_match "dependent function" "function docs.uses_row\(crm.accounts\) depends on" "$err"
  change "drop function docs.uses_row; create view docs.needs as select extra from (select 1 as extra) x"
  change "alter table crm.accounts add column extra int; create or replace view docs.needs as select extra from crm.accounts"
  expect_status 1 import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_match "view that no longer fits" 'column accounts.extra does not exist; nothing was changed' "$err"
  change "drop view docs.needs; alter table crm.accounts drop column extra"
  expect_unchanged
  no_leftovers
}

test_43_rows_that_break_a_constraint_roll_back_everything() {
  # The function says no to what the file holds: the import fails in the middle of the rows.
  change "create function crm.strict(i int) returns bool language sql immutable as 'select true'"
  change "create table crm.zz_last (i int check (crm.strict(i)))"
  change "insert into crm.zz_last values (1)"
  expect_ok export_table "$work/strict.dmp" CRM.ZZ_LAST
  change "create or replace function crm.strict(i int) returns bool language sql immutable as 'select false'"
  expect_status 1 import_table "$work/strict.dmp" CRM.ZZ_LAST
  expect_match "message" 'violates check constraint .*; nothing was changed' "$err"
  expect_equal "old row" 1 "$(value 'select count(*) from crm.zz_last')"
  expect_status 1 import_table "$work/strict.dmp" DOCS.OTHER
  expect_equal "old row" 1 "$(value 'select count(*) from crm.zz_last')"
  change "drop table crm.zz_last; drop function crm.strict"
  expect_unchanged
  no_leftovers
}

test_50_killed_export() {
  "$lab" sql "$home" "$instance" "do 'begin lock table crm.accounts; perform pg_sleep(900); end'" >/dev/null 2>&1 &
  background+=("$!")
  wait_for 30 accounts_are_locked || fail "the lock is not taken"
  local name pid signal
  for signal in KILL TERM; do
    export_schema "$work/killed.dmp" CRM >/dev/null 2>&1 &
    background+=("$!")
    wait_for 30 dump_waits || fail "the export does not get to the lock"
    pid=$(pgrep -f "^$home/bin/osrexp") || fail "no export runs"
    name=$(pgrep -P "$pid" pg_dump) || fail "no pg_dump runs"
    kill "-$signal" "$pid"
    wait_for 30 gone "$name" || fail "pg_dump outlives its tool"
    wait_for 30 dump_is_gone || fail "its session stays"
    [ ! -e "$work/killed.dmp" ] || fail "a file after SIG$signal"
    [ "$signal" = KILL ] || [ ! -e "$work/killed.dmp.part" ] || fail "a half-written file after SIGTERM"
  done
  change "select pg_terminate_backend(pid) from pg_locks where relation = 'crm.accounts'::regclass and mode = 'AccessExclusiveLock' and granted"
  : >"$work/killed.dmp.part" # as SIGKILL may leave it
  expect_ok export_schema "$work/killed.dmp" CRM
  no_leftovers
}
accounts_are_locked() {
  [ "$(value "select count(*) from pg_locks where relation = 'crm.accounts'::regclass and mode = 'AccessExclusiveLock' and granted")" = 1 ]
}
dump_waits() { [ "$(value "select count(*) from pg_stat_activity where application_name = 'pg_dump' and wait_event_type = 'Lock'")" = 1 ]; }
dump_is_gone() { [ "$(value "select count(*) from pg_stat_activity where application_name = 'pg_dump'")" = 0 ]; }

test_51_killed_import_leaves_the_old_data() {
  local victim pid signal
  make_slow_table
  expect_ok export_schema "$work/slow.dmp" CRM
  local slow_state
  slow_state=$(state)
  hold_imports
  for victim in osrimp psql; do
    import_whole_schema "$work/slow.dmp" CRM >"$work/import.out" 2>&1 &
    local job=$!
    background+=("$job")
    wait_for 60 import_waits || fail "the import does not get to the slow table"
    pid=$(pgrep -f "^$home/bin/osrimp") || fail "no import runs"
    local children
    children=$(pgrep -P "$pid")
    [ "$victim" = osrimp ] || pid=$(pgrep -P "$pid" psql)
    kill -KILL "$pid"
    wait "$job" 2>/dev/null && fail "a killed import succeeds"
    for pid in $children; do wait_for 30 gone "$pid" || fail "a program outlives its tool"; done
    wait_for 60 import_is_gone || fail "the session of a killed import stays"
    expect_equal "data after the death of $victim" "$slow_state" "$(state)"
  done
  expect_match "message" "osrimp: ERROR, psql was ended by signal 9; nothing was changed" "$(cat "$work/import.out")"
  let_imports_go
  expect_ok import_whole_schema "$work/slow.dmp" CRM
  expect_equal "data after all" "$slow_state" "$(state)"
  no_leftovers
}
import_is_gone() { [ "$(value "select count(*) from pg_stat_activity where application_name = 'psql'")" = 0 ]; }

test_52_two_imports_into_one_schema() {
  hold_imports
  import_whole_schema "$work/slow.dmp" CRM >"$work/import.out" 2>&1 &
  local pid=$!
  background+=("$pid")
  wait_for 60 import_waits || fail "the import does not get to the slow table"
  expect_status 1 import_whole_schema "$work/slow.dmp" CRM
  expect_match "second one" "another import into the same object is running; nothing was changed" "$err"
  let_imports_go
  wait "$pid" || fail "first one: $(cat "$work/import.out")"
  expect_ok import_database "$work/database.dmp"
  expect_unchanged
}

test_60_server_that_dies() {
  make_slow_table
  expect_ok export_schema "$work/slow.dmp" CRM
  local slow_state
  slow_state=$(state)
  hold_imports
  import_whole_schema "$work/slow.dmp" CRM >"$work/import.out" 2>&1 &
  local pid=$!
  background+=("$pid")
  wait_for 60 import_waits || fail "the import does not get to the slow table"
  kill -KILL "$(server_pid)"
  wait "$pid" && fail "an import without a server succeeds"
  expect_match "message" "^osrimp: ERROR, .*; nothing was changed$" "$(cat "$work/import.out")"
  "$lab" start "$home" "$instance" >/dev/null || fail "the server does not start again"
  expect_equal "data" "$slow_state" "$(state)"
}

run_tests
