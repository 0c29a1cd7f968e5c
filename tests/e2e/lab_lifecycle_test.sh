#!/usr/bin/env bash
# Creating, starting, stopping, killing and removing instances of the stand-in installation.
. "$(dirname "$0")/lab_support.sh"

test_10_create_makes_what_agents_look_for() {
  port=$(free_port)
  echo secret >"$work/password"
  expect_ok "$lab" create "$home" "${instance,,}" --port "$port" --password-file "$work/password"
  for file in bin/oscar bin/isql bin/brcmd bin/osrexp bin/osrimp systemctl-bin/systemctl; do
    [ -x "$home/$file" ] || fail "no $file"
  done
  [ -f "$home/agent/lastlsn.dat" ] || fail "no lastlsn.dat"
  [ -d "$home/odbs/$instance" ] || fail "no odbs/$instance"
  expect_match "port line" "port = $port"$'\n' "$(cat "$home/admin/$instance.conf"; echo)"
  [ ! -e "$home/admin/$instance.db" ] || fail "a pid file before the start"
  if [ "$whoami" = root ]; then
    [ -f "/etc/init.d/oscardb_${instance}d" ] || fail "no start script"
    expect_equal "owner of the data" postgres "$(stat -c %U "$home/odbs/$instance/pgdata")"
  fi
}

test_11_create_refuses_what_exists() {
  expect_status 1 "$lab" create "$home" "$instance"
  expect_match "message" "already exists" "$err"
}

test_20_start_detaches_and_the_server_looks_right() {
  # Would hang on the pipe of the substitution if the server kept it.
  expect_equal "start" "instance $instance started" "$("$lab" start "$home" "$instance" 2>&1)"
  expect_equal "command line" "$home/bin/oscar -d $instance " "$(tr '\0' ' ' <"/proc/$(server_pid)/cmdline")"
  expect_equal "second start" "instance $instance is already running" "$("$lab" start "$home" "$instance")"
  local open
  open=$(readlink "/proc/$(server_pid)/fd/"* | grep -c pipe:)
  expect_equal "pipes kept by the server" 0 "$open"
}

test_30_load_is_deterministic_and_check_is_stable() {
  expect_ok "$lab" load "$home" "$instance" --megabytes 8 --seed 7
  first=$("$lab" check "$home" "$instance")
  expect_equal "second check" "$first" "$("$lab" check "$home" "$instance")"
  expect_match "extra tablespace" '"tablespace": "labspace", "rows": [1-9]' "$first"
  local megabytes
  megabytes=$("$lab" sql "$home" "$instance" "select (sum(pg_total_relation_size(c.oid)) / 1048576)::int as mb from pg_class c
    join pg_namespace n on n.oid = relnamespace where nspname in ('sales', 'docs') and relkind = 'r'" | sed -n 3p)
  [ "$((megabytes))" -ge 6 ] && [ "$((megabytes))" -le 10 ] || fail "8 MB became $megabytes MB"
  (
    instance=${instance}B
    new_instance "$instance" --no-init-script
    "$lab" load "$home" "$instance" --megabytes 8 --seed 7 >/dev/null
  ) || fail "second instance"
  expect_equal "same seed elsewhere" "${first/\"$instance\"/}" \
    "$("$lab" check "$home" "${instance}B" | sed "s/\"${instance}B\"//")"
  expect_ok "$lab" load "$home" "${instance}B" --megabytes 1 --seed 8
  [ "$("$lab" check "$home" "${instance}B" | sed "s/\"${instance}B\"//")" != "${first/\"$instance\"/}" ] ||
    fail "more rows, same checksums"
  expect_ok "$lab" destroy "$home" "${instance}B"
}

test_31_check_sees_one_changed_value() {
  "$lab" sql "$home" "$instance" "update docs.readings set value = value + 1 where id = 5" >/dev/null
  [ "$("$lab" check "$home" "$instance")" != "$first" ] || fail "a changed value was not seen"
  "$lab" sql "$home" "$instance" "update docs.readings set value = value - 1 where id = 5" >/dev/null
  expect_equal "changed back" "$first" "$("$lab" check "$home" "$instance")"
}

test_40_stop_leaves_no_process_and_no_pid_file() {
  local pid postmaster
  pid=$(server_pid)
  postmaster=$(postmaster_pid)
  expect_equal "stop" "instance $instance stopped" "$("$lab" stop "$home" "$instance")"
  gone "$pid" || fail "process $pid is still in the table: $(ps -o stat= -p "$pid")"
  gone "$postmaster" || fail "process $postmaster is still in the table"
  [ ! -e "$home/admin/$instance.db" ] || fail "the pid file stayed"
  expect_equal "second stop" "instance $instance is not running" "$("$lab" stop "$home" "$instance")"
  expect_status 1 "$lab" load "$home" "$instance" --megabytes 1
  expect_match "message" "not running" "$err"
}

test_50_a_killed_server_takes_its_database_with_it() {
  "$lab" start "$home" "$instance" >/dev/null
  local pid postmaster
  pid=$(server_pid)
  postmaster=$(postmaster_pid)
  kill -KILL "$pid"
  wait_for 5 gone "$pid" || fail "the killed process stays as a zombie"
  wait_for 5 gone "$postmaster" || fail "the database survived"
  [ -e "$home/admin/$instance.db" ] || fail "a killed server cannot remove its pid file"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "data after the crash" "$first" "$("$lab" check "$home" "$instance")"
}

test_51_a_restart_right_after_a_kill_waits_for_the_old_server() {
  kill -KILL "$(server_pid)"
  expect_ok "$lab" start "$home" "$instance"
  expect_equal "data" "$first" "$("$lab" check "$home" "$instance")"
}

test_52_a_killed_database_ends_the_server() {
  local pid
  pid=$(server_pid)
  kill -KILL "$(postmaster_pid)"
  wait_for 5 gone "$pid" || fail "oscar lives without its database"
  [ ! -e "$home/admin/$instance.db" ] || fail "the pid file stayed"
  expect_ok "$lab" start "$home" "$instance"
}
test_53_of_two_starts_at_once_both_end_with_a_server_that_takes_logins() {
  local round starters
  for round in 1 2 3; do
    expect_ok "$lab" stop "$home" "$instance"
    starters=()
    for starter in a b; do
      { "$lab" start "$home" "$instance" && "$lab" sql "$home" "$instance" "select 1" >/dev/null; } >"$work/start.$starter" 2>&1 &
      starters+=($!)
    done
    for starter in "${starters[@]}"; do wait "$starter" || fail "round $round: $(cat "$work"/start.?)"; done
    expect_equal "round $round" "instance $instance is already running"$'\n'"instance $instance started" \
      "$(sort "$work"/start.?)"
  done
}
stopping_or_gone() { ! grep -q '^ready' "$home/odbs/$instance/pgdata/postmaster.pid" 2>/dev/null; }
test_54_a_start_during_a_stop_begins_anew() {
  local round
  for round in 1 2 3; do
    kill -TERM "$(server_pid)"
    wait_for 10 stopping_or_gone || fail "round $round: the server does not stop"
    expect_ok "$lab" start "$home" "$instance"
    expect_ok "$lab" sql "$home" "$instance" "select 1"
  done
}
test_55_a_start_waits_for_what_is_left_of_a_server_and_not_for_a_restore() {
  local holder lock=$home/odbs/$instance/instance.lock
  expect_ok "$lab" stop "$home" "$instance"
  for use in server restore; do
    echo "$use" >"$lock"
    flock "$lock" sleep 8 &
    holder=$!
    background+=("$holder")
    wait_for 5 locked "$lock" || fail "the lock is not held"
    case $use in
      server) expect_ok "$lab" start "$home" "$instance" && expect_ok "$lab" stop "$home" "$instance" ;;
      restore)
        expect_status 1 "$lab" start "$home" "$instance"
        expect_match "message" "in use by a server, a backup or a restore" "$err"
        ;;
    esac
    wait "$holder"
  done
  expect_ok "$lab" start "$home" "$instance"
}

test_60_term_signal_is_a_clean_shutdown() {
  local pid
  pid=$(server_pid)
  kill -TERM "$pid"
  wait_for 10 gone "$pid" || fail "does not end"
  expect_match "state" "shut down" "$(/usr/lib/postgresql/15/bin/pg_controldata -D "$home/odbs/$instance/pgdata" |
    grep 'cluster state')"
}

test_61_the_ways_an_agent_starts_an_instance() {
  if [ "$whoami" = root ]; then
    expect_ok /bin/sh -c "/etc/init.d/oscardb_${instance}d start"
    "$lab" check "$home" "$instance" >/dev/null || fail "start script"
    "$lab" stop "$home" "$instance" >/dev/null
  fi
  PATH="$home/systemctl-bin:$PATH" expect_ok systemctl start "oscard@$instance"
  PATH="$home/systemctl-bin:$PATH" expect_ok systemctl is-active "oscard@$instance"
  PATH="$home/systemctl-bin:$PATH" expect_status 1 systemctl start "oscard@NOSUCH"
  PATH="$home/systemctl-bin:$PATH" expect_status 1 systemctl start other
  "$lab" stop "$home" "$instance" >/dev/null
}

test_62_the_server_can_run_in_the_foreground() {
  local pause pid
  # Stopped while it starts, and at once.
  for pause in 0 0.01 0.03 0.1 0.5; do
    "$home/bin/oscar" "-d${instance,,}" >/dev/null 2>&1 &
    pid=$!
    background+=("$pid")
    wait_for 10 grep -qs "^$pid$" "$home/admin/$instance.db" || fail "no pid file"
    sleep "$pause"
    kill -TERM "$pid"
    wait "$pid"
    expect_equal "exit status after $pause s" 0 $?
    [ ! -e "$home/admin/$instance.db" ] || fail "the pid file stayed"
  done
}

test_70_unusable_data_are_not_started() {
  echo "half restored" >"$home/odbs/$instance/incomplete"
  expect_status 1 "$lab" start "$home" "$instance"
  expect_match "message" "half restored" "$err"
  [ ! -e "$home/admin/$instance.db" ] || fail "a pid file of a refused start"
  rm "$home/odbs/$instance/incomplete"
  mv "$home/odbs/$instance/pgdata/global/pg_control" "$work/pg_control"
  expect_status 1 "$lab" start "$home" "$instance"
  expect_match "message" "incomplete" "$err"
  mv "$work/pg_control" "$home/odbs/$instance/pgdata/global/pg_control"
}

test_71_a_taken_port_is_reported() {
  python3 -c "
import socket, time
s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(('127.0.0.1', $port)); s.listen(); print('listening', flush=True); time.sleep(60)" >"$work/listener" &
  local listener=$!
  background+=("$listener")
  wait_for 10 grep -qs listening "$work/listener"
  expect_status 1 "$lab" start "$home" "$instance"
  expect_match "message" "ended with status" "$err"
  kill "$listener"
  wait "$listener" 2>/dev/null
  expect_ok "$lab" start "$home" "$instance"
}

test_80_wrong_command_lines() {
  expect_status 2 "$lab"
  expect_status 2 "$lab" create
  expect_status 2 "$lab" create "$home"
  expect_status 2 "$lab" explode "$home" "$instance"
  expect_status 2 "$lab" start "$home" "$instance" more
  expect_status 2 "$lab" start "$home" "$instance" --port 1
  expect_status 2 "$lab" create "$home" "1BAD"
  expect_status 2 "$lab" create "$home" "A2345678901234567890123456X"
  expect_status 2 "$lab" create "$home" XX --port 0
  expect_status 2 "$lab" create "$home" XX --port 65536
  expect_status 2 "$lab" create "$home" XX --archive-log maybe
  expect_status 2 "$lab" create "$home" XX --user a/b
  expect_status 2 "$lab" load "$home" "$instance"
  expect_status 2 "$lab" load "$home" "$instance" --megabytes many
  expect_status 1 "$lab" start "$home" NOSUCH
  expect_match "message" "does not exist" "$err"
  expect_status 1 "$lab" create "$work/ho me" XX
  expect_status 1 "$lab" create "$home" XX --password-file /nonexistent
  expect_ok "$lab" --help
  expect_match "help" "kestrel-lab COMMAND HOME INSTANCE" "$out"
  expect_ok "$home/bin/oscar" --help
  expect_status 2 "$home/bin/oscar" -d
  expect_status 1 "$home/bin/oscar" -d NOSUCH
}

test_81_a_closed_parent_directory_is_explained() {
  [ "$whoami" = root ] || return 0
  mkdir -m 700 "$work/closed"
  expect_status 1 "$lab" create "$work/closed/home" XX --no-init-script
  expect_match "message" "may not enter $work/closed; run \"chmod o\+x $work/closed\"" "$err"
  [ ! -e "$work/closed/home" ] || fail "something was made all the same"
}

test_82_a_foreign_start_script_is_left_alone() {
  [ "$whoami" = root ] || return 0
  expect_status 1 "$lab" create "$work/other" "$instance"
  expect_match "message" "belongs to $home" "$err"
}

test_83_generated_password() {
  local password
  expect_ok "$lab" create "$home" "${instance}G" --no-init-script --port "$(free_port)"
  password=$(cat "$home/admin/${instance}G.password")
  [ "${#password}" -ge 16 ] || fail "password of ${#password} characters"
  expect_equal "mode" 600 "$(stat -c %a "$home/admin/${instance}G.password")"
  [[ $out$err != *"$password"* ]] || fail "the password was printed"
  "$lab" start "$home" "${instance}G" >/dev/null
  expect_ok "$home/bin/isql" "-Usysdba/$password" "-d${instance}G" -l
  grep -rqsF "$password" "$home/odbs/${instance}G" && fail "the password is in the server's files"
  expect_ok "$lab" destroy "$home" "${instance}G"
}

test_90_destroy_leaves_nothing() {
  local pid
  pid=$(server_pid)
  expect_ok "$lab" destroy "$home" "$instance"
  gone "$pid" || fail "the server runs on"
  expect_equal "files" "" "$(find "$home" -name "*$instance*")"
  [ ! -e "/etc/init.d/oscardb_${instance}d" ] || fail "the start script stayed"
  expect_equal "chain file" "" "$(grep "^$instance" "$home/agent/lastlsn.dat")"
}

run_tests
