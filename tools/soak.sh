#!/usr/bin/env bash
# A backup server under a swarm of simulated agents, for as long as one likes:
#   tools/soak.sh [--seconds 600] [--agents 50] [--definitions 500] [--bin DIR]
#   --bin  where kestrel and agent_swarm lie, default build/release/bin, else build/dev/bin
# Makes a server of its own in a temporary directory and on a port that is free, enrolls the agents and lets them run,
# lose their connections and ask for nodes. Prints what became of the runs and how the server's memory and connections
# went. Ends with status 1 when a run was lost, when the server ended, or when its memory grew from the middle to the end
# by more than 16 MiB and more than a tenth: it has seen every definition, host and kind of request by then.
set -euo pipefail
umask 077
cd "$(dirname "$0")/.."

usage() {
  sed -n '2,4s/^# \{0,1\}//p' "$0" >&2
  exit 2
}
seconds=600 agents=50 definitions=500 bin=''
while [ $# -gt 0 ]; do
  [ $# -ge 2 ] || usage
  case $1 in
  --seconds) seconds=$2 ;;
  --agents) agents=$2 ;;
  --definitions) definitions=$2 ;;
  --bin) bin=$2 ;;
  *) usage ;;
  esac
  shift 2
done
case "$seconds$agents$definitions" in *[!0-9]*) usage ;; esac
[ -n "$bin" ] || { bin=build/release/bin; [ -x "$bin/agent_swarm" ] || bin=build/dev/bin; }
for program in kestrel agent_swarm; do
  [ -x "$bin/$program" ] || { echo "soak: $bin/$program is missing: tools/build.sh release kestrel_cli agent_swarm" >&2; exit 2; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/kestrel-soak.XXXXXX")
chmod 700 "$work"
server='' swarm=''
end() {
  local pid
  for pid in $swarm $server; do kill "$pid" 2>/dev/null || true; done
  for pid in $swarm $server; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap end EXIT
trap 'exit 130' INT TERM
fail() {
  echo "soak: $*" >&2
  exit 1
}

mkdir "$work/enrollments"
kestrel() { "$bin/kestrel" --root "$work/root" "$@"; }
head -c 18 /dev/urandom | base64 >"$work/password"
chmod 600 "$work/password"
kestrel server init --admin soak --password-file "$work/password" >"$work/out" 2>&1 || fail "$(cat "$work/out")"
# Every agent has two connections, and all come from one address.
cat >"$work/root/var/opt/tarnvik/kestrel3/server/server.toml" <<END
[server]
address = "127.0.0.1"
port = 0
[limits]
connections = $((agents * 6 + 100))
connections_per_address = $((agents * 6 + 100))
END
for i in $(seq -w "$agents"); do
  kestrel server enroll "db$i" --out "$work/enrollments/db$i.json" >"$work/out" 2>&1 || fail "$(cat "$work/out")"
done

"$bin/kestrel" --root "$work/root" server >"$work/server.out" 2>&1 &
server=$!
for _ in $(seq 300); do
  port=$(sed -n 's/^Serving on .* port \([0-9]*\)\.$/\1/p' "$work/server.out")
  [ -z "$port" ] || break
  kill -0 "$server" 2>/dev/null || fail "the server does not start: $(cat "$work/server.out")"
  sleep 0.1
done
[ -n "$port" ] || fail "the server does not start in 30 s"
url=https://127.0.0.1:$port
ca=$work/root/var/opt/tarnvik/kestrel3/server/tls/ca.crt
asked() { curl -sS --fail --cacert "$ca" "$@"; }
printf '{"user":"soak","password":"%s"}' "$(cat "$work/password")" >"$work/sign-in"
asked -X POST -H 'Content-Type: application/json' --data-binary "@$work/sign-in" "$url/k2/r/sessions" |
  sed 's/.*"token": *"\([^"]*\)".*/\1/' >"$work/token"
rm "$work/sign-in"
printf 'header = "Authorization: Bearer %s"\n' "$(cat "$work/token")" >"$work/curl"

memory() { sed -n 's/^VmRSS:[^0-9]*\([0-9]*\) kB$/\1/p' "/proc/$server/status" 2>/dev/null || true; }
connections() {
  asked --config "$work/curl" "$url/k2/r/metrics" | sed -n 's/^kestrel_connections \([0-9]*\).*/\1/p' || true
}
rows=
note() { # NAME
  local kib open
  kib=$(memory)
  open=$(connections)
  rows="$rows$(printf '%-8s %12s %12s' "$1" "${kib:-?}" "${open:-?}")"$'\n'
  noted=${kib:-0}
}
alive() { kill -0 "$server" 2>/dev/null || fail "the server ended: $(tail -3 "$work/root/var/log/kestrel3/server.log")"; }

"$bin/agent_swarm" --server "$url" --enrollments "$work/enrollments" --token-file "$work/token" --agents "$agents" \
  --definitions "$definitions" --seconds "$seconds" --server-pid "$server" >"$work/swarm.out" 2>&1 &
swarm=$!
until grep -q "definitions on" "$work/swarm.out"; do
  kill -0 "$swarm" 2>/dev/null || fail "the swarm does not start: $(cat "$work/swarm.out")"
  sleep 0.2
done
begin=$SECONDS
note start
while [ $((SECONDS - begin)) -lt $((seconds / 2)) ]; do
  alive
  sleep 1
done
note middle
middle=$noted
while [ $((SECONDS - begin)) -lt "$seconds" ] && kill -0 "$swarm" 2>/dev/null; do
  alive
  sleep 0.2
done
note end
last=$noted
status=0
wait "$swarm" || status=$?
swarm=
alive

grep -E "connected|runs found" "$work/swarm.out" | tail -2
printf '\n%-8s %12s %12s\n%s\n' "" "memory KiB" "connections" "$rows"
[ "$status" -eq 0 ] || fail "runs were lost, see above: $(grep -v "connected" "$work/swarm.out" | tail -5)"
if [ "$middle" -eq 0 ] || [ "$last" -eq 0 ]; then fail "the server's memory is not known"; fi
allowed=$((middle / 10 > 16384 ? middle / 10 : 16384))
[ $((last - middle)) -le "$allowed" ] || fail "the server's memory grew by $((last - middle)) KiB from the middle to the end, more than $allowed"
echo "soak: nothing lost in $seconds s; memory from the middle to the end: $((last - middle)) KiB (at most $allowed)"
