# Sourced by the lab_*_test.sh scripts; argument 1 of those is the folder of the built programs.
#
# A script defines the functions test_* and ends with `run_tests`. Started as root, everything runs twice: as root
# (servers under the account postgres) and once more as nobody. Each run works in a folder of its own below /tmp,
# with instance names and ports that no other run uses, and removes all of it whatever happens.
# shellcheck shell=bash
set -uo pipefail
umask 022
export LC_ALL=C.UTF-8 # messages and order as the tests know them
unset LANGUAGE

built=$(cd "$1" && pwd) || exit 2
case $(id -u) in 0) whoami=root ;; *) whoami=user ;; esac

work=$(mktemp -d /tmp/kestrel-lab.XXXXXX)
chmod 755 "$work" # the server's own account has to get through
lab=$work/programs/kestrel-lab
home=$work/home
instance=T$$
failures=0
test_name=setup
background=()

cleanup() {
  local pid name
  for pid in "${background[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  for name in "$home"/admin/*.conf; do
    [ -e "$name" ] && "$lab" destroy "$home" "$(basename "$name" .conf)" >/dev/null
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

mkdir "$work/programs"
cp -r "$built/kestrel-lab" "$built/lab" "$work/programs/"

fail() {
  echo "FAILED $test_name ($whoami): $*" >&2
  failures=$((failures + 1))
}

# expect_equal WHAT EXPECTED ACTUAL
expect_equal() {
  [ "$2" = "$3" ] || fail "$1"$'\n'"  expected: $2"$'\n'"  found:    $3"
}

# expect_match WHAT EXTENDED_REGEX TEXT
expect_match() {
  [[ "$3" =~ $2 ]] || fail "$1"$'\n'"  expected to match: $2"$'\n'"  found: $3"
}

# expect_status STATUS COMMAND...: runs it, keeps stdout in $out and stderr in $err.
expect_status() {
  local wanted=$1 status
  shift
  "$@" >"$work/out" 2>"$work/err" </dev/null
  status=$?
  out=$(cat "$work/out")
  err=$(cat "$work/err")
  [ "$status" -eq "$wanted" ] || fail "${*:1:3}...: status $status instead of $wanted"$'\n'"  stderr: $err"
}

expect_ok() { expect_status 0 "$@"; }

# wait_for SECONDS COMMAND...: until the command succeeds.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

locked() { ! flock -n "$1" true; }
gone() { ! kill -0 "$1" 2>/dev/null; }

free_port() {
  local port
  while :; do
    port=$((10000 + RANDOM % 22000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
}

# new_instance NAME [create options]: created and started; its port is in $port, its password is "secret".
new_instance() {
  local name=$1
  shift
  port=$(free_port)
  [ -e "$work/password" ] || echo secret >"$work/password"
  "$lab" create "$home" "$name" --port "$port" --password-file "$work/password" "$@" >/dev/null &&
    "$lab" start "$home" "$name" >/dev/null || { echo "cannot set up $name" >&2; exit 1; }
}

isql() { "$home/bin/isql" -Usysdba/secret -hlocalhost "-d$instance" "-p$port" "$@"; }
server_pid() { cat "$home/admin/$instance.db"; }
postmaster_pid() { head -1 "$home/odbs/$instance/pgdata/postmaster.pid"; }

run_tests() {
  local name
  for name in $(compgen -A function test_); do
    test_name=$name
    local began=${EPOCHREALTIME/./}
    "$name"
    [ -z "${LAB_TEST_VERBOSE:-}" ] || echo "$(((${EPOCHREALTIME/./} - began) / 1000)) ms $name ($whoami)"
  done
  test_name=end
  [ "$failures" -eq 0 ] || { echo "$failures failures ($whoami)" >&2; exit 1; }
  if [ "$whoami" = root ] && [ "${LAB_TEST_ROOT_ONLY:-}" != 1 ]; then
    cleanup
    mkdir -m 755 "$work" "$work/bin" "$work/e2e"
    cp -r "$built/kestrel-lab" "$built/lab" "$work/bin/"
    cp "$(dirname "$0")"/lab_* "$work/e2e/"
    # Where this stands may be closed to others, as a checkout below /root is: the tools' own programs complain of that.
    cd "$work" || exit 1
    setpriv --reuid nobody --regid nogroup --clear-groups env HOME=/ "$work/e2e/${0##*/}" "$work/bin" || exit 1
  fi
}
