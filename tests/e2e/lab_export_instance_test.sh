#!/usr/bin/env bash
# Imports of the stand-in into another instance: tablespaces first, users that are not there, tables without their kin.
. "$(dirname "$0")/lab_support.sh"
. "$(dirname "$0")/lab_export_support.sh"

tablespaces="select tsname from sys_tablespace where tsname not in ('SYSTEM', 'AUDIT', 'CDC') and tskind not in ('u', 't')"
list_tablespaces() { isql -c "$tablespaces" | sed -n '3,$p' | grep -v ' row' | tr -d ' ' | LC_ALL=C sort | tr '\n' ' '; }
# As agents create one: no quotes around the name.
create_tablespace() { isql -c "create tablespace $1 datafile '$home/odbs/$instance/$1_20260102_030405.dbf'"; }

test_10_export_from_the_first_instance() {
  source=$instance
  new_instance "$source"
  "$lab" load "$home" "$source" --megabytes 2 --seed 9 --rich >/dev/null
  expect_ok create_tablespace MixedSpace
  change 'create table "Mixed"."Far" (i int) tablespace "MixedSpace"'
  change 'insert into "Mixed"."Far" select generate_series(1, 100)'
  change 'create role clerk login; alter table reports.snapshots owner to clerk; grant select on crm.accounts to clerk'
  expect_equal "tablespaces" "LABSPACE MixedSpace USERS " "$(list_tablespaces)"
  expect_ok export_database "$work/database.dmp"
  expect_ok export_schema "$work/crm.dmp" CRM
  expect_ok export_table "$work/contacts.dmp" CRM.CONTACTS
  before=$(state)
}

test_20_an_instance_without_the_tablespaces() {
  instance=${source}B
  new_instance "$instance" --no-init-script --no-users-tablespace
  empty=$(state)
  expect_equal "tablespaces" "" "$(list_tablespaces)"
  expect_status 1 import_database "$work/database.dmp"
  expect_match "message" 'osrimp: ERROR, tablespace (LABSPACE|MixedSpace) does not exist; create it first, or import with tablespace=false; nothing was changed' "$err"
  expect_equal "data" "$empty" "$(state)"
  expect_ok osrimp "file=$work/database.dmp" recreateSchema=true tablespace=false
  expect_equal "rows" "$(rows_of crm "$source")" "$(rows_of crm)"
  expect_equal "tables elsewhere" 0 "$("$lab" check "$home" "$instance" | grep -c '"tablespace": "[^p]')"
}

test_21_with_the_tablespaces() {
  local name
  for name in LABSPACE MixedSpace USERS; do
    expect_ok create_tablespace "$name"
    [ -f "$home/odbs/$instance/${name}_20260102_030405.dbf" ] || fail "no data file of $name"
  done
  expect_equal "tablespaces" "LABSPACE MixedSpace USERS " "$(list_tablespaces)"
  for name in LABSPACE MixedSpace USERS SYSTEM AUDIT TEMP; do
    expect_status 1 isql -c "create tablespace $name datafile '$home/odbs/$instance/again.dbf'"
    expect_match "$name again" "already exists" "$err"
  done
  expect_status 1 isql -c "create tablespace NEW datafile '$home/odbs/NOSUCH/x.dbf'"
  expect_match "no such folder" "^isql: ERROR, cannot open .*No such file" "$err"
  isql -c "create role clerk login" >/dev/null
  expect_ok import_database "$work/database.dmp"
  expect_equal "stdout" "osrimp: imported database $instance" "$out"
  expect_unchanged
  expect_equal "owner" clerk "$(value "select relowner::regrole from pg_class where oid = 'reports.snapshots'::regclass")"
  expect_equal "privilege" t "$(value "select has_table_privilege('clerk', 'crm.accounts', 'select')")"
  no_leftovers
}

test_30_users_that_are_not_there() {
  change "drop schema crm cascade; drop schema reports cascade"
  change "drop owned by clerk; drop role clerk"
  expect_ok import_database "$work/database.dmp"
  expect_match "note" "osrimp: NOTE, user CLERK does not exist here: owners and privileges are left out" "$out"
  expect_unchanged
  expect_equal "owner" sysdba "$(value "select relowner::regrole from pg_class where oid = 'reports.snapshots'::regclass")"
}

test_40_a_table_without_its_kin() {
  change "drop schema crm cascade; drop table reports.snapshots"
  expect_ok isql -c "create schema if not exists CRM"
  expect_ok import_table "$work/contacts.dmp" CRM.CONTACTS
  expect_match "foreign key" "NOTE, foreign key CONTACTS_ACCOUNT_FKEY of CRM.CONTACTS is left out: there is no table CRM.ACCOUNTS" "$out"
  expect_match "trigger" "NOTE, trigger CONTACTS_CHANGED of CRM.CONTACTS is left out: there is no function CRM.COUNT_CHANGE" "$out"
  expect_equal "rows" 5000 "$(value 'select count(*) from crm.contacts')"
  change "drop schema crm"' cascade'
  expect_ok isql -c "create schema if not exists ELSEWHERE"
  expect_ok import_table "$work/contacts.dmp" ELSEWHERE.CONTACTS
  expect_equal "rows" 5000 "$(value 'select count(*) from elsewhere.contacts')"
  expect_equal "the source's schema is not left behind" 0 "$(value "select count(*) from pg_namespace where nspname = 'crm'")"
  no_leftovers
}

test_50_a_schema_under_another_name() {
  expect_ok import_schema "$work/crm.dmp" CRM_OF_A
  expect_equal "rows" "$(rows_of crm "$source")" "$(rows_of crm_of_a)"
  expect_equal "the source's schema is not left behind" 0 "$(value "select count(*) from pg_namespace where nspname = 'crm'")"
  instance=$source
  port=$(sed -n 's/^port = //p' "$home/admin/$source.conf")
  expect_unchanged "the first instance"
}

run_tests
