#!/usr/bin/env bash
# Export and import of the stand-in at the three levels: in place, under other names, and what they refuse.
. "$(dirname "$0")/lab_support.sh"

osrexp() { "$home/bin/osrexp" -Usysdba/secret "-p$port" "-d$instance" "$@"; }
osrimp() { "$home/bin/osrimp" -Usysdba/secret "-p$port" "-d$instance" "$@"; }
value() { "$lab" sql "$home" "${2:-$instance}" "$1" | sed -n 3p | sed 's/^ *//;s/ *$//'; }

# The parameters as agents pass them.
table_export=(mode=entirety ignore=false view=false procedure=false sequence=false constraint=true trigger=true
  index=true)
schema_export=(mode=entirety ignore=false view=true sequence=true procedure=true constraint=true trigger=true
  index=true)
table_import=(level=table mode=entirety ignore=false recreateschema=false view=false sequence=true procedure=false
  recreateotherobject=false recreatetable=true constraint=true deletetabledata=true trigger=true index=true)
schema_import=(level=schema mode=entirety ignore=false recreateschema=true view=true sequence=true procedure=true
  recreateotherobject=true recreatetable=true constraint=false deletetabledata=true trigger=false index=false)

test_10_export_at_three_levels() {
  new_instance "$instance"
  "$lab" load "$home" "$instance" --megabytes 4 --seed 3 >/dev/null
  "$lab" check "$home" "$instance" >"$work/before"
  expect_ok osrexp "file=$work/database.dmp"
  expect_equal "stdout" "osrexp: exported database $instance" "$out"
  expect_ok osrexp level=schema "file=$work/schema.dmp" schema=SALES "${schema_export[@]}"
  expect_ok osrexp level=table "file=$work/table.dmp" table=SALES.ORDERS "${table_export[@]}"
  expect_equal "stdout" "osrexp: exported table SALES.ORDERS" "$out"
  expect_equal "files" "database.dmp schema.dmp table.dmp" "$(cd "$work" && echo *.dmp*)"
}

test_20_dropped_table_comes_back_alone() {
  "$lab" sql "$home" "$instance" "drop table sales.orders" >/dev/null
  expect_ok osrimp "file=$work/table.dmp" table=SALES.ORDERS "${table_import[@]}"
  expect_equal "stdout" "osrimp: imported table SALES.ORDERS" "$out"
  expect_equal "data" "$(cat "$work/before")" "$("$lab" check "$home" "$instance")"
}

test_30_schema_in_place() {
  "$lab" sql "$home" "$instance" "delete from sales.orders; create table sales.stray(i int)" >/dev/null
  expect_ok osrimp "file=$work/schema.dmp" schema=SALES "${schema_import[@]}"
  expect_equal "data" "$(cat "$work/before")" "$("$lab" check "$home" "$instance")"
}

test_40_whole_database_in_place() {
  "$lab" sql "$home" "$instance" "drop schema docs cascade" >/dev/null
  expect_ok osrimp "file=$work/database.dmp" recreateSchema=true tablespace=true
  expect_equal "data" "$(cat "$work/before")" "$("$lab" check "$home" "$instance")"
}

run_tests
