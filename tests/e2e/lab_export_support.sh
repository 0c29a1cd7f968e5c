# Sourced by the lab_export_*_test.sh scripts after lab_support.sh: the tools, and their parameters as agents pass them.
# shellcheck shell=bash
osrexp() { "$home/bin/osrexp" -Usysdba/secret "-p$port" "-d$instance" "$@"; }
osrimp() { "$home/bin/osrimp" -Usysdba/secret "-p$port" "-d$instance" "$@"; }

export_table() { # FILE SCHEMA.TABLE
  osrexp level=table "file=$1" mode=entirety ignore=false "table=$2" view=false procedure=false sequence=false \
    constraint=true trigger=true index=true
}
export_schema() { # FILE SCHEMA
  osrexp level=schema "file=$1" mode=entirety ignore=false "schema=$2" view=true sequence=true procedure=true \
    constraint=true trigger=true index=true
}
export_database() { osrexp "file=$1"; } # FILE

import_table() { # FILE SCHEMA.TABLE
  osrimp "file=$1" level=table mode=entirety ignore=false "table=$2" recreateschema=false view=false sequence=true \
    procedure=false recreateotherobject=false recreatetable=true constraint=true deletetabledata=true trigger=true \
    index=true
}
import_schema() { # FILE SCHEMA
  osrimp "file=$1" level=schema mode=entirety ignore=false "schema=$2" recreateschema=true view=true sequence=true \
    procedure=true recreateotherobject=true recreatetable=true constraint=false deletetabledata=true trigger=false \
    index=false
}
import_database() { osrimp "file=$1" recreateSchema=true tablespace=true; } # FILE
# Everything of a schema, with its constraints, triggers and indexes.
import_whole_schema() { osrimp "file=$1" level=schema "schema=$2" recreateschema=true; } # FILE SCHEMA

# A statement as the system user; the first cell of its result.
value() { "$lab" sql "$home" "${2:-$instance}" "$1" | sed -n 3p | sed 's/^ *//; s/ *$//'; }
change() { "$lab" sql "$home" "$instance" "$1" >/dev/null || fail "cannot run: $1"; }
# Tables, rows, checksums and objects of an instance, without its name.
state() { "$lab" check "$home" "${1:-$instance}" --objects | sed 's/"instance": "[^"]*"//'; }
rows_of() { "$lab" check "$home" "${2:-$instance}" --schema "$1"; } # SCHEMA [INSTANCE]
expect_unchanged() { expect_equal "${1:-data}" "$before" "$(state)"; }
no_leftovers() { # no schema of an import, no half-written file
  expect_equal "leftover schemas" 0 "$(value "select count(*) from pg_namespace where nspname like 'osrimp%'")"
  expect_equal "half-written files" "" "$(find "$work" -name '*.part')"
}

# Imports of crm with this table stop at its rows while hold_imports has the lock, which they need for its check.
make_slow_table() {
  change "create function crm.slow(i int) returns int language sql immutable as 'select i from pg_advisory_xact_lock_shared(4711)'"
  change "create table crm.slow (i int check (crm.slow(i) = i))"
  change "insert into crm.slow values (1)"
}
hold_imports() {
  "$lab" sql "$home" "$instance" "select pg_advisory_lock(4711), pg_sleep(900)" >/dev/null 2>&1 &
  background+=("$!")
  wait_for 30 imports_are_held || fail "the lock is not taken"
}
imports_are_held() {
  [ "$(value "select count(*) from pg_locks where locktype = 'advisory' and objid = 4711 and granted")" = 1 ]
}
import_waits() {
  [ "$(value "select count(*) from pg_locks where locktype = 'advisory' and objid = 4711 and not granted")" = 1 ]
}
let_imports_go() {
  change "select pg_terminate_backend(pid) from pg_locks where locktype = 'advisory' and objid = 4711 and granted"
}
