#!/usr/bin/env bash
# The SQL client of the stand-in: command lines, shape of the output, error texts, OSCAR's views.
. "$(dirname "$0")/lab_support.sh"

test_10_shape_of_a_result() {
  new_instance "$instance"
  expect_ok isql -c "select 1 as id, 'x' as name, null as nothing union all select 20, 'longer', '' order by 1"
  expect_equal "result" " id | name   | nothing
----+--------+---------
  1 | x      | 
 20 | longer | 
(2 rows)" "$out"
  expect_equal "stderr" "" "$err"
  expect_equal "lines without anything" 0 "$(grep -c '^$' "$work/out")"
  expect_ok isql -c "select 'one' as word"
  expect_equal "one row" "(1 row)" "$(tail -1 "$work/out")"
  expect_ok isql -c "select 1 as n where false"
  expect_equal "no row" " n"$'\n'"---"$'\n'"(0 rows)" "$out"
  expect_ok isql -c "select e'two\nlines\r' as t"
  expect_equal "a cell is one line" 4 "$(wc -l <"$work/out")"
  expect_ok isql -c "select 'Grüße' as greeting, 'x' as y"
  expect_equal "width of UTF-8" " Grüße    | x" "$(sed -n 3p "$work/out")"
}

test_11_no_notices() {
  expect_ok isql -c "create schema if not exists s1"
  expect_ok isql -c "create schema if not exists s1"
  expect_equal "stderr" "" "$err"
  expect_equal "stdout" "CREATE SCHEMA" "$out"
}

test_20_forms_of_the_command_line() {
  expect_ok "$home/bin/isql" -U sysdba/secret -h localhost -d "$instance" -p "$port" -c "select 1"
  expect_ok "$home/bin/isql" -Usysdba/secret -d "${instance,,}" "-p$port" -l
  expect_ok "$home/bin/isql" -Usysdba/secret "-d$instance" -l
  expect_ok "$home/bin/isql" -hlocalhost -p "$port" -Usysdba/secret -d "$instance" -c "select 1"
  expect_ok "$home/bin/isql" -Usysdba/secret -h127.0.0.1 "-d$instance" -l
}

test_21_version_probes() {
  expect_ok "$home/bin/isql" --version
  expect_match "client" '\(build 2\.5\.6x20230817132129\) for' "$out"
  expect_ok "$home/bin/isql" -p "$port" -d "$instance" -c "select version()"
  expect_match "server" '\(build 2\.5\.6x20230817132129\) for' "$out"
  expect_ok "$home/bin/osrimp" -v
  expect_equal "osrimp" "osrimp 2.5.6x20230817132129" "$out"
  expect_ok "$home/bin/osrexp" -v
  expect_equal "osrexp" "osrexp 2.5.6x20230817132129" "$out"
}

test_22_a_guest_sees_the_version_only() {
  expect_status 1 "$home/bin/isql" -p "$port" -d "$instance" -c "create table t(i int)"
  expect_status 1 "$home/bin/isql" -p "$port" -d "$instance" -c "shutdown immediate"
  expect_match "message" "permission denied" "$err"
  expect_status 2 "$home/bin/isql" -p "$port" -d "$instance" -l
}

test_30_refused_command_lines() {
  expect_status 2 "$home/bin/isql"
  expect_status 2 isql
  expect_status 2 isql -l -c "select 1"
  expect_status 2 isql -x -c "select 1"
  expect_status 2 isql -c "select 1" stray
  expect_status 2 isql -c
  expect_status 2 isql -c "select 1" -c "select 2"
  expect_status 2 "$home/bin/isql" -Usysdba/secret "-d$instance" -pmany -l
  expect_status 2 "$home/bin/isql" -Usysdba/secret "-d$instance" -p70000 -l
  expect_status 2 "$home/bin/isql" -Usysdba/secret "-d$instance" --version
  expect_status 2 "$home/bin/isql" -U/secret "-d$instance" -l
}

test_31_error_lines() {
  expect_status 1 "$home/bin/isql" -Usysdba/wrong "-d$instance" "-p$port" -l
  expect_equal "login" 'isql: ERROR, password authentication failed for user "sysdba"' "$err"
  expect_equal "stdout" "" "$out"
  expect_status 1 isql -c "select * from nowhere"
  expect_equal "statement" 'isql: ERROR, relation "nowhere" does not exist' "$err"
  expect_status 1 isql -c "selec"
  expect_match "syntax" '^isql: ERROR, syntax error' "$err"
  expect_status 1 "$home/bin/isql" -Usysdba/secret -dNOSUCH "-p$port" -l
  expect_equal "instance" 'isql: ERROR, database "NOSUCH" does not exist' "$err"
  expect_status 1 "$home/bin/isql" -Usysdba/secret "-d$instance" "-p$(free_port)" -l
  expect_match "port" '^isql: ERROR, .*Connection refused$' "$err"
  expect_status 1 "$home/bin/isql" -Uosys/secret "-d$instance" "-p$port" -l
}

test_40_passwords_with_any_character() {
  local password user number=0
  for password in 'a/b/c' "it's" 'say "hi"' '100%s%n' 'pa ss' 'back\slash' '$HOME' '-p' 'ümläut' '/' 'x=y' ','; do
    number=$((number + 1))
    user=u$number
    printf '%s\n' "$password" >"$work/other"
    expect_ok isql -c "create role $user superuser login password '${password//\'/\'\'}'"
    expect_ok "$home/bin/isql" "-U$user/$password" "-d$instance" "-p$port" -l
    expect_ok "$home/bin/isql" -U "$user/$password" -d "$instance" -p "$port" -c "select 1"
    expect_status 1 "$home/bin/isql" "-U$user/$password!" "-d$instance" "-p$port" -c "select 1"
    [[ $out$err != *"$password!"* ]] || fail "a password was printed"
  done
}

test_41_nothing_typed_is_repeated() {
  expect_status 2 "$home/bin/isql" -Usysdba/se cret "-d$instance" "-p$port" -l
  [[ $out$err != *cret* ]] || fail "a piece of a password was printed"
  expect_status 2 "$home/bin/isql" "-Usysdba/se" "-cret" "-d$instance" -l
  [[ $out$err != *sysdba/* ]] || fail "the login was printed"
  expect_status 2 "$home/bin/brcmd" -O backup -p se cret
  [[ $out$err != *cret* ]] || fail "a piece of a password was printed"
}

test_50_archive_mode() {
  expect_ok isql -c "select archivemode from v_sys_database_info"
  expect_equal "archive log on" " ARCHIVELOG" "$(sed -n 3p "$work/out")"
  (
    instance=${instance}N
    new_instance "$instance" --archive-log off --no-init-script
    isql -c "select archivemode from v_sys_database_info" | sed -n 3p
    "$lab" destroy "$home" "$instance" >/dev/null
  ) >"$work/out"
  expect_equal "archive log off" " NOARCHIVELOG" "$(cat "$work/out")"
}

test_51_schemas_and_tables() {
  isql -c "create table s1.orders(i int)" >/dev/null
  isql -c "create view s1.v as select 1 as one" >/dev/null
  isql -c 'create schema "Mixed"' >/dev/null
  expect_ok isql -c "select TABLE_SCHEM from v_sys_schemas"
  expect_equal "schemas" " INFO_SCHEM
 Mixed
 PUBLIC
 S1
 SYSDBA" "$(sed -n '3,7p' "$work/out" | LC_ALL=C sort)"
  expect_ok isql -c "select TABLE_SCHEM,TABLE_NAME,TABLE_TYPE from v_sys_tables where TABLE_SCHEM='S1'"
  expect_equal "tables" " table_schem | table_name | table_type
-------------+------------+------------
 S1          | ORDERS     | TABLE
 S1          | V          | VIEW
(2 rows)" "$out"
}

test_52_tablespaces() {
  local query="select tsname from sys_tablespace where tsname not in ('SYSTEM', 'AUDIT', 'CDC') and tskind not in ('u', 't')"
  local file=$home/odbs/$instance/SPACE_20260101_000000.dbf
  expect_ok isql -c "$query"
  expect_equal "at first" " USERS" "$(sed -n '3,$p' "$work/out" | grep -v row)"
  expect_ok isql -c "create tablespace SPACE datafile '$file'"
  expect_ok isql -c "$query"
  expect_equal "then" " SPACE"$'\n'" USERS" "$(sed -n '3,$p' "$work/out" | grep -v row | sort)"
  [ -f "$file" ] || fail "no data file"
  expect_ok isql -c "create table s1.far(i int) tablespace space"
  expect_status 1 isql -c "create tablespace SPACE2 datafile '$file'"
  expect_match "message" "already exists" "$err"
  expect_status 1 isql -c "create tablespace SPACE datafile '$home/odbs/$instance/other.dbf'"
  expect_match "message" 'tablespace "space" already exists' "$err"
  [ ! -e "$home/odbs/$instance/other.dbf" ] && [ ! -e "$home/odbs/$instance/other.dbf.d" ] || fail "leftovers"
  expect_status 1 isql -c "create tablespace SPACE3 datafile 'relative.dbf'"
}

test_54_names_of_new_schemas_and_tablespaces() {
  local folder=$home/odbs/$instance
  isql -c "create schema UPPER" >/dev/null
  isql -c "create schema if not exists lower" >/dev/null
  isql -c "create schema if not exists Capital" >/dev/null
  isql -c 'create schema if not exists "With ""quotes"" and blanks"' >/dev/null
  expect_ok isql -c "select nspname from pg_namespace where nspname ~ 'pper|ower|apital|quotes' order by nspname collate \"C\""
  expect_equal "schemas" ' Capital
 With "quotes" and blanks
 lower
 upper' "$(sed -n '3,6p' "$work/out")"
  expect_status 1 isql -c "create schema UPPER"
  expect_equal "again" 'isql: ERROR, schema "upper" already exists' "$err"
  expect_ok isql -c "create schema if not exists UPPER"
  isql -c "create tablespace CapitalSpace datafile '$folder/c.dbf'" >/dev/null
  isql -c "create tablespace \"Blank space\" datafile '$folder/b.dbf'" >/dev/null
  expect_ok isql -c "select tsname from sys_tablespace where tsname like '%pace' order by 1"
  expect_equal "tablespaces" ' Blank space'$'\n'' CapitalSpace' "$(sed -n '3,4p' "$work/out")"
  expect_status 1 isql -c "create tablespace USERS datafile '$folder/u.dbf'"
  expect_equal "OSCAR's own" 'isql: ERROR, tablespace "users" already exists' "$err"
  [ ! -e "$folder/u.dbf" ] || fail "leftovers"
}

test_55_cluster_nodes() {
  local words
  for words in "" "--node 1:10.0.0.1" "--node x:10.0.0.1:master" "--node 1:host:master" "--node 1:10.0.0.1:Mas-ter" \
    "--node none --address host" "--node none --port 1"; do
    # shellcheck disable=SC2086
    expect_status 2 "$lab" cluster "$home" "$instance" $words
  done
  expect_status 1 "$lab" cluster "$home" "$instance" --node 1:10.0.0.1:master --node 1:10.0.0.2:slave
  expect_ok isql -c "select NODE_ID from v_sys_ha_slave_info"
  expect_match "what a failed change leaves" "\(0 rows\)" "$out"
  # The second address is free for the server on any Linux; the third belongs to nobody and is left out.
  expect_ok "$lab" cluster "$home" "$instance" --virtual-address 127.0.0.2 --address 192.0.2.1 \
    --node 2:10.0.0.2:slave --node 1:10.0.0.1:master
  expect_match "conf" "ha_server_ip_address = '127.0.0.2'"$'\n'"ha_node_address = '192.0.2.1'" \
    "$(cat "$home/admin/$instance.conf")"
  expect_ok "$home/bin/isql" -Usysdba/secret -h127.0.0.2 "-d$instance" -c "select NODE_ID,ADDRESS,STATUS from v_sys_ha_slave_info"
  expect_equal "nodes" " node_id | address  | status
---------+----------+--------
       1 | 10.0.0.1 | master
       2 | 10.0.0.2 | slave
(2 rows)" "$out"
  local pid
  pid=$(server_pid)
  expect_ok "$lab" cluster "$home" "$instance" --node none
  expect_equal "server after a change of nodes only" "$pid" "$(server_pid)"
  expect_ok isql -c "select NODE_ID from v_sys_ha_slave_info"
  expect_match "no nodes" "\(0 rows\)" "$out"
}

test_60_odd_environment() {
  expect_ok env LC_ALL=en_US.UTF8 LANG=en_US.UTF8 "LD_LIBRARY_PATH=$home/bin" PGHOST=nowhere PGUSER=x PGPASSWORD=y \
    PGDATABASE=z PGOPTIONS=-cbad "$home/bin/isql" -Usysdba/secret "-d$instance" -c "select 1"
  "$lab" stop "$home" "$instance" >/dev/null
  expect_ok env LC_ALL=en_US.UTF8 LANG=en_US.UTF8 "LD_LIBRARY_PATH=$home/bin" "$lab" start "$home" "$instance"
}

test_70_shutdown() {
  local pid
  pid=$(server_pid)
  expect_status 1 "$home/bin/isql" -Usysdba/wrong "-d$instance" "-p$port" -c "shutdown immediate"
  gone "$pid" && fail "shut down by a wrong password"
  expect_ok isql -c "shutdown immediate"
  gone "$pid" || fail "the server still runs"
  [ ! -e "$home/admin/$instance.db" ] || fail "the pid file stayed"
  expect_status 1 isql -c "shutdown immediate"
}

run_tests
