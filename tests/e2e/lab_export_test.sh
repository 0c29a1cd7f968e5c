#!/usr/bin/env bash
# Export and import of the stand-in at the three levels: in place, and under other names.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_export_support.sh"

test_10_export_at_three_levels() {
  new_instance "$instance"
  "$lab" load "$home" "$instance" --megabytes 4 --seed 3 --rich >/dev/null
  before=$(state)
  expect_ok export_database "$work/database.dmp"
  expect_equal "stdout" "osrexp: exported database $instance" "$out"
  expect_ok export_schema "$work/crm.dmp" CRM
  expect_equal "stdout" "osrexp: exported schema CRM" "$out"
  expect_ok export_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_equal "stdout" "osrexp: exported table CRM.ACCOUNTS" "$out"
  expect_ok export_table "$work/contacts.dmp" CRM.CONTACTS
  expect_ok export_table "$work/items.dmp" Mixed.Items
  no_leftovers
}

test_20_everything_in_place() {
  local name
  for name in CRM.ACCOUNTS:accounts CRM.CONTACTS:contacts Mixed.Items:items; do
    expect_ok import_table "$work/${name#*:}.dmp" "${name%:*}"
    expect_equal "stdout" "osrimp: imported table ${name%:*}" "$out"
    expect_unchanged "after table $name"
  done
  expect_ok import_whole_schema "$work/crm.dmp" CRM
  expect_unchanged "after the schema"
  expect_ok import_database "$work/database.dmp"
  expect_equal "stdout" "osrimp: imported database $instance" "$out"
  expect_unchanged "after the database"
  no_leftovers
}

test_21_a_dropped_table_comes_back_alone() {
  change "drop table sales.orders"
  expect_ok export_table "$work/unused.dmp" CRM.ACCOUNTS
  expect_status 1 export_table "$work/orders.dmp" SALES.ORDERS
  expect_match "no such table" "^osrexp: ERROR, table SALES.ORDERS does not exist$" "$err"
  expect_ok import_database "$work/database.dmp"
  expect_ok export_table "$work/orders.dmp" SALES.ORDERS
  change "drop table sales.orders"
  expect_ok import_table "$work/orders.dmp" SALES.ORDERS
  expect_unchanged
}

test_22_changes_since_the_export_are_undone() {
  change "update crm.accounts set credit = 0; insert into crm.accounts (code, opened) values ('new', now())"
  expect_ok import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_unchanged "table"
  change "delete from crm.activity; create table crm.stray (i int); alter table crm.contacts add column extra int"
  expect_ok import_whole_schema "$work/crm.dmp" CRM
  expect_unchanged "schema"
  change "drop schema docs cascade; drop schema sales cascade; drop table \"Mixed\".\"Items\""
  expect_ok import_database "$work/database.dmp"
  expect_unchanged "database"
}

test_23_positions_of_sequences_come_back() {
  local next='select last_value from crm.accounts_id_seq' number='select last_value from crm.account_number'
  local before_next before_number
  before_next=$(value "$next")
  before_number=$(value "$number")
  change "select nextval('crm.accounts_id_seq') from generate_series(1, 50)"
  change "select nextval('crm.account_number') from generate_series(1, 50)"
  expect_ok import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_equal "own sequence" "$before_next" "$(value "$next")"
  [ "$(value "$number")" != "$before_number" ] || fail "a table's import moved a sequence that is not its own"
  expect_ok import_whole_schema "$work/crm.dmp" CRM
  expect_equal "free sequence" "$before_number" "$(value "$number")"
}

test_24_what_depends_on_the_replaced_objects_survives() {
  change "grant select on reports.account_totals to guest"
  expect_ok import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_unchanged
  expect_equal "view" 3 "$(value 'select count(*) from reports.account_totals')"
  expect_equal "privilege" t "$(value "select has_table_privilege('guest', 'reports.account_totals', 'select')")"
  expect_equal "materialized view" "$(value 'select count(*) from crm.active_accounts where contacts > 1')" \
    "$(value 'select count(*) from reports.busy_accounts')"
  expect_equal "foreign key" t \
    "$(value "select convalidated from pg_constraint where conname = 'snapshot_of_account'")"
}

test_25_a_foreign_key_that_no_longer_fits_holds_for_new_rows() {
  change "insert into crm.accounts (id, code, opened) values (900001, 'late', now())"
  change "insert into reports.snapshots values (now(), 900001, 1)"
  expect_ok import_table "$work/accounts.dmp" CRM.ACCOUNTS
  expect_match "note" "NOTE, rows of reports.snapshots do not satisfy its foreign key snapshot_of_account" "$out"
  expect_equal "foreign key" f \
    "$(value "select convalidated from pg_constraint where conname = 'snapshot_of_account'")"
  expect_ok import_database "$work/database.dmp"
  expect_unchanged
}

test_30_table_under_another_name() {
  expect_ok import_table "$work/contacts.dmp" CRM.CONTACTS2
  expect_equal "stdout" "osrimp: imported table CRM.CONTACTS2" "$out"
  expect_equal "rows" "$(value 'select count(*), sum(hashtext(c::text)) from crm.contacts c')" \
    "$(value 'select count(*), sum(hashtext(c::text)) from crm.contacts2 c')"
  expect_equal "indexes" "contacts2_name,contacts2_pkey" \
    "$(value "select string_agg(relname, ',' order by relname) from pg_class join pg_index on oid = indexrelid where indrelid = 'crm.contacts2'::regclass")"
  expect_equal "own sequence" crm.contacts2_id_seq "$(value "select pg_get_serial_sequence('crm.contacts2', 'id')")"
  expect_equal "next number" 5001 "$(value "insert into crm.contacts2 (account, name) values (1, 'x') returning id")"
  expect_equal "trigger" 1 "$(value "update crm.contacts2 set name = 'y' where id = 5001 returning changes")"
  expect_equal "foreign key" crm.accounts \
    "$(value "select confrelid::regclass from pg_constraint where contype = 'f' and conrelid = 'crm.contacts2'::regclass")"
  change "drop table crm.contacts2"
  expect_unchanged
}

test_31_table_into_another_schema() {
  expect_ok isql -c "create schema if not exists ARCHIVE"
  expect_ok import_table "$work/accounts.dmp" ARCHIVE.ACCOUNTS
  expect_equal "rows" "$(rows_of crm | grep accounts)" "$(rows_of archive | grep accounts | sed 's/}$/},/')"
  expect_equal "indexes keep their names" "accounts_code_key,accounts_opened,accounts_pkey" \
    "$(value "select string_agg(relname, ',' order by relname) from pg_class join pg_index on oid = indexrelid where indrelid = 'archive.accounts'::regclass")"
  expect_ok import_table "$work/items.dmp" ARCHIVE.ACCOUNTS
  expect_equal "replaced by another table" 300 "$(value 'select count(*) from archive.accounts')"
  change "drop schema archive cascade"
  expect_unchanged
}

test_32_names_with_capitals_and_blanks() {
  expect_ok isql -c "create schema if not exists Archive"
  expect_equal "schema" 1 "$(value "select count(*) from pg_namespace where nspname = 'Archive'")"
  expect_ok import_table "$work/items.dmp" Archive.OldItems
  expect_equal "rows" 300 "$(value 'select count(*) from "Archive"."OldItems"')"
  expect_ok import_table "$work/items.dmp" '"Archive"."Old items, 1.0 ""x"""'
  expect_equal "rows" 300 "$(value 'select count(*) from "Archive"."Old items, 1.0 ""x"""')"
  expect_ok export_table "$work/odd.dmp" '"Archive"."Old items, 1.0 ""x"""'
  change 'drop table "Archive"."Old items, 1.0 ""x"""'
  expect_ok osrimp "file=$work/odd.dmp"
  expect_equal "rows" 300 "$(value 'select count(*) from "Archive"."Old items, 1.0 ""x"""')"
  expect_ok export_schema "$work/odd.dmp" Archive
  expect_ok import_whole_schema "$work/odd.dmp" '"With blank"'
  expect_equal "tables" "$(rows_of Archive)" "$(rows_of 'With blank')"
  change 'create schema "UP"; create table "UP"."T" (i int)'
  expect_ok export_table "$work/odd.dmp" up.t # as the catalog shows it
  change 'drop schema "UP" cascade; drop schema "Archive" cascade; drop schema "With blank" cascade'
  expect_unchanged
}

test_33_small_letters_mean_the_same_where_nothing_else_does() {
  expect_ok export_table "$work/small.dmp" crm.accounts
  expect_equal "stdout" "osrexp: exported table CRM.ACCOUNTS" "$out"
  expect_ok import_table "$work/small.dmp" crm.accounts
  expect_unchanged
}

test_40_schema_under_another_name() {
  expect_ok import_schema "$work/crm.dmp" CRM2
  expect_equal "rows" "$(rows_of crm)" "$(rows_of crm2)"
  local counts='"views": 1, "sequences": 4, "indexes": 0, "functions": 2, "foreign_keys": 0, "constraints": 0, "triggers": 0'
  expect_match "objects" "\"crm2\".*$counts" "$(state | grep '"schema": "crm2", "tables"')"
  expect_ok import_whole_schema "$work/crm.dmp" CRM3
  expect_equal "objects" "$(state | grep '"crm", "tables"')" "$(state | grep '"crm3", "tables"' | sed s/crm3/crm/)"
  expect_equal "a view of its own" crm3 "$(value "select view_schema from information_schema.view_table_usage where table_schema = 'crm3' limit 1")"
  expect_ok import_schema "$work/crm.dmp" CRM2 # replaces it
  change "drop schema crm2 cascade"
  change "drop schema crm3 cascade"
  expect_unchanged "the source"
}

test_41_schema_whose_source_is_gone() {
  change "drop schema crm cascade"
  expect_ok import_whole_schema "$work/crm.dmp" OTHER
  expect_equal "schemas" "other" "$(value "select string_agg(nspname, ',') from pg_namespace where nspname in ('crm', 'other')")"
  expect_ok import_database "$work/database.dmp"
  change "drop schema other cascade"
  expect_unchanged
}

test_42_schema_public() {
  change "create table public.notes (id serial primary key, t text)"
  change "insert into public.notes (t) select 'n' || i from generate_series(1, 20) i"
  expect_ok export_schema "$work/public.dmp" PUBLIC
  expect_ok import_whole_schema "$work/public.dmp" PUBLIC
  expect_ok import_whole_schema "$work/public.dmp" COPY_OF_PUBLIC
  expect_equal "rows" "$(rows_of public)" "$(rows_of copy_of_public)"
  change "drop table public.notes; drop schema copy_of_public cascade"
  expect_unchanged
}

test_43_kinds_left_out_by_either_tool() {
  local kind file=$work/part.dmp
  declare -A zero=([view]=views [procedure]=functions [constraint]=constraints [trigger]=triggers [index]=none)
  expect_ok osrexp level=schema "file=$file" schema=CRM view=false constraint=false
  expect_ok osrimp "file=$file" level=schema schema=PART recreateschema=true
  expect_match "left out at export" '"views": 0, .*"foreign_keys": 0, "constraints": 0, "triggers": 1' "$(state | grep '"part", "tables"')"
  for kind in view trigger constraint; do
    expect_ok osrimp "file=$work/crm.dmp" level=schema schema=PART recreateschema=true "$kind=false"
    expect_match "left out at import" "\"${zero[$kind]}\": 0" "$(state | grep '"part", "tables"')"
    expect_equal "rows" "$(rows_of crm)" "$(rows_of part)"
  done
  expect_ok osrimp "file=$work/crm.dmp" level=schema schema=PART recreateschema=true index=false
  expect_equal "indexes of constraints only" 4 \
    "$(value "select count(*) from pg_class where relkind = 'i' and relnamespace = 'part'::regnamespace")"
  # The table's default and generated column need what is left out.
  expect_status 1 osrimp "file=$work/crm.dmp" level=schema schema=PART recreateschema=true sequence=false
  expect_match "sequence" 'relation "crm.account_number" does not exist; nothing was changed' "$err"
  expect_status 1 osrimp "file=$work/crm.dmp" level=schema schema=PART recreateschema=true procedure=false
  expect_match "procedure" 'function crm.check_digit\(integer\) does not exist; nothing was changed' "$err"
  change "drop schema part cascade"
  expect_unchanged
  no_leftovers
}

test_44_a_view_that_needs_a_primary_key() {
  change "create view crm.keyed as select a.id, a.code, count(*) from crm.accounts a join crm.contacts c on c.account = a.id group by a.id"
  change "create view crm.on_keyed as select * from crm.keyed"
  change "comment on column crm.keyed.code is 'c'; grant select on crm.keyed to guest"
  expect_ok export_schema "$work/keyed.dmp" CRM
  expect_ok import_schema "$work/keyed.dmp" KEYED
  expect_match "note" "NOTE, view CRM.KEYED is left out: it needs a primary key.*NOTE, view CRM.ON_KEYED is" "$out"
  expect_equal "rows" "$(rows_of crm)" "$(rows_of keyed)"
  expect_ok import_whole_schema "$work/keyed.dmp" KEYED
  expect_equal "out" "osrimp: imported schema KEYED" "$out"
  expect_equal "view" "$(value 'select count(*) from crm.on_keyed')" "$(value 'select count(*) from keyed.on_keyed')"
  change "drop schema keyed cascade"
  change "drop view crm.on_keyed, crm.keyed"
  expect_unchanged
}

test_50_others_work_while_a_schema_is_imported() {
  make_slow_table
  expect_ok export_schema "$work/slow.dmp" CRM
  hold_imports
  import_whole_schema "$work/slow.dmp" CRM >"$work/import.out" 2>&1 &
  local pid=$!
  background+=("$pid")
  wait_for 60 import_waits || fail "the import does not get to the slow table"
  expect_equal "reading the old rows meanwhile" 2000 "$(value 'select count(*) from crm.accounts')"
  change "update crm.accounts set credit = 1 where id = 1"
  change "update sales.orders set note = note where id = 1"
  import_waits || fail "the import ended too soon to prove anything"
  let_imports_go
  wait "$pid" || fail "import: $(cat "$work/import.out")"
  expect_ok import_database "$work/database.dmp"
  expect_unchanged
  no_leftovers
}

run_tests
