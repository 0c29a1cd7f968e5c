# Sourced after kestrel_support.sh by scenarios of the served way: a server, agents and consoles as processes of their own.
# A scenario sets server_side and console_side, the words that stand before a command of the server's machine and of the
# operator's, and $url.
# shellcheck shell=bash

server_root=$work/server
server_files=$server_root/var/opt/tarnvik/kestrel3/server
server_side=(env "KESTREL_ROOT=$server_root")
console_user=admin
run_timeout=180

# use_console USER: who the next commands of the console come from.
use_console() {
  console_user=$1
  console_side=("${console_prefix[@]}" env "KESTREL_CONSOLE_DIR=$work/console/$1")
}
console_prefix=()
use_console admin

# init_server NAME_OR_ADDRESS...: a CA, a certificate for these names, and the first user.
init_server() {
  local name names=()
  for name in "$@"; do
    case $name in *[!0-9.]*) names+=(--name "$name") ;; *) names+=(--address "$name") ;; esac
  done
  printf 'admin.secret.%s\n' "$$" >"$work/admin.password"
  mkdir -p "$server_root"
  run 0 "${server_side[@]}" "$kestrel" server init "${names[@]}" --port "${server_port:-7480}" --admin admin --password-file "$work/admin.password"
}
# ask EXIT COMMAND...: a command of the console; the JSON is in $work/out.
ask() { run "$1" "${console_side[@]}" "$kestrel" --json --server "$url" "${@:2}"; }
# tell EXIT COMMAND...: the same in the form for people.
tell() { run "$1" "${console_side[@]}" "$kestrel" --server "$url" "${@:2}"; }
# sign_in USER PASSWORD_FILE
sign_in() {
  use_console "$1"
  run 0 "${console_side[@]}" "$kestrel" --server "$url" --ca "$server_files/tls/ca.crt" sign-in --user "$1" --password-file "$2"
}
# enroll NAME: $work/NAME.enrollment is what its agent starts with.
enroll() { run 0 "${server_side[@]}" "$kestrel" server enroll "$1" --out "$work/$1.enrollment"; }

# asked JQ_FILTER COMMAND...: of the JSON of a command that may fail meanwhile.
asked() {
  local filter=$1
  shift
  timeout 30 "${console_side[@]}" "$kestrel" --json --server "$url" "$@" 2>/dev/null </dev/null | jq -r "$filter" 2>/dev/null
}
host_is_online() { [ "$(asked ".hosts[] | select(.name == \"$1\") | .online" hosts)" = true ]; }
host_is_offline() { [ "$(asked ".hosts[] | select(.name == \"$1\") | .online" hosts)" = false ]; }
host_uuid() { asked ".hosts[] | select(.name == \"$1\") | .uuid" hosts; }
# runs_of JOB JQ_FILTER_OF_ONE_RECORD: newest first, one line each.
runs_of() { asked ".runs[] | $2" job runs "$1"; }
run_count() { runs_of "$1" .run_id | wc -l; }
# state_of_run RUN
state_of_run() { asked ".runs[] | select(.run_id == \"$1\") | .state" job runs; }
run_has_ended() { [ -n "$(state_of_run "$1")" ]; }
served_backup_count() { asked '.backups | length' backups; }
