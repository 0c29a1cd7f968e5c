#!/usr/bin/env bash
# Certificates that change under connected agents and consoles: renewed, of an authority of the operator's, expired, for another
# name. Both sides say what is wrong and what to do, and go on once it is right, with nothing lost.
# shellcheck source=tests/e2e/kestrel_support.sh
. "$(dirname "$0")/kestrel_support.sh"
# shellcheck source=tests/e2e/server_support.sh
. "$(dirname "$0")/server_support.sh"
server_files=$KESTREL_ROOT/var/opt/tarnvik/kestrel3/server
agent_log() { cat "$work/alpha.log" "$work"/alpha/var/log/kestrel3/*.log 2>/dev/null; }

# authority NAME: a CA of the operator's.
authority() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj "/CN=$1" \
    -keyout "$work/$1.key" -out "$work/$1.crt" 2>/dev/null
}
# certificate FILE NAMES ENDDATE: of the operator's authority, for these names, until then.
certificate() {
  openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=kestrel" -keyout "$work/$1.key" -out "$work/$1.csr" 2>/dev/null
  printf 'subjectAltName=%s\nextendedKeyUsage=serverAuth\n' "$2" >"$work/$1.ext"
  rm -rf "$work/ca.files" && mkdir "$work/ca.files" && : >"$work/ca.files/index" && echo 01 >"$work/ca.files/serial"
  printf '[ca]\ndefault_ca=c\n[c]\ndatabase=%s/index\nserial=%s/serial\nnew_certs_dir=%s\ndefault_md=sha256\npolicy=p\nrand_serial=yes\n[p]\ncommonName=supplied\n' \
    "$work/ca.files" "$work/ca.files" "$work/ca.files" >"$work/ca.files/conf"
  openssl ca -batch -notext -config "$work/ca.files/conf" -cert "$work/operator.crt" -keyfile "$work/operator.key" \
    -startdate 20200101000000Z -enddate "$3" -extfile "$work/$1.ext" -in "$work/$1.csr" -out "$work/$1.crt" 2>"$work/openssl.log" ||
    fail "$(cat "$work/openssl.log")"
}
serial() { echo | openssl s_client -connect "${server_url#https://}" 2>/dev/null | openssl x509 -noout -serial; }
# use_certificate FILE: the server begins to use it without a restart of its own.
use_certificate() {
  local before
  before=$(serial)
  cp "$work/$1.crt" "$work/live.crt" && cp "$work/$1.key" "$work/live.key"
  kill -HUP "$server_pid"
  changed() { [ "$(serial)" != "$before" ]; }
  wait_for 30 "the certificate $1" changed
}
# host_is STATE: as the server's own database and hub say; asked for by a way that trusts anything.
host_is() { curl -sk -H "Authorization: Bearer $(token_of root)" "$server_url/k2/r/hosts" | jq -e ".hosts[0].online == $1" >/dev/null; }
# drop_connections: the agent must dial again.
drop_agent() { kill -TERM "${agent_pids[-1]}"; wait "${agent_pids[-1]}" 2>/dev/null || true; unset 'agent_pids[-1]'; }
agent_again() {
  : >"$work/alpha.log"
  rm -f "$work"/alpha/var/log/kestrel3/*.log
  KESTREL_ROOT=$work/alpha "$kestrel" agent >"$work/alpha.log" 2>&1 </dev/null &
  agent_pids+=($!)
}
agent_says() { agent_log | grep -qE -- "$1"; }

start_server
start_agent alpha
said_connected() { grep -q "^The agent of alpha is connected to $1" "$work/alpha.log"; }
wait_for 30 "the agent's word that it is connected" said_connected https
sign_in root admin
run 0 "$kestrel" hosts
printf '{"name": "kept", "type": "backup", "subtype": "full", "source": {"id": "48bfe436-d3c7-8c92-a702-cfafa43fd264", "name": "NONE", "entries": ["oscar/NONE"]}, "schedules": [{"type": 7}]}' >"$work/kept.json"
run 0 "$kestrel" pool add main --path "$pool" --default
run 0 "$kestrel" job define "$work/kept.json" --host alpha

note "renewed under a connected agent and a signed-in console: nobody needs anything"
before=$(serial)
run 0 "$kestrel" server renew
kill -HUP "$server_pid"
renewed() { [ "$(serial)" != "$before" ]; }
wait_for 30 "the renewed certificate" renewed
run 0 "$kestrel" --json hosts
equal "$(value '.hosts[0].online')" true "the agent after the renewal"
drop_agent
agent_again
wait_for 30 "the agent over the renewed certificate" host_is true

note "an authority of the operator's: agent and console do not know it, and say so"
authority operator
certificate good "DNS:localhost,IP:127.0.0.1" 20991231235959Z
certificate expired "DNS:localhost,IP:127.0.0.1" 20210101000000Z
certificate other "DNS:backup.elsewhere.example" 20991231235959Z
cp "$work/good.crt" "$work/live.crt" && cp "$work/good.key" "$work/live.key"
printf '\n[tls]\ncertificate = "%s"\nkey = "%s"\n' "$work/live.crt" "$work/live.key" >>"$server_files/server.toml"
kill -TERM "$server_pid" && wait "$server_pid" || true
own_ca=$ca
ca=$work/operator.crt
launch_server
run 1 "$kestrel" hosts
said "the server at $server_url cannot be trusted: its certificate is not signed by an authority that is known here.*--ca FILE"
wait_for 30 "the agent's word about the authority" agent_says "certificate of .* is not signed by the CA that this host trusts.*give this host the server.s CA"
host_is false || fail "an agent is connected that does not trust the server"
! agent_says "$(jq -r .access_key "$work/alpha.key")" || fail "the key stands in the agent's log"

note "the authority is given to both: they go on, as whom they were"
run 1 "$kestrel" --ca "$own_ca" sign-in --user root --password-file "$work/password"
sign_in root admin
drop_agent
printf '[server]\nca_file = "%s"\n' "$ca" >"$work/alpha/var/opt/tarnvik/kestrel3/agent/agent.toml"
agent_again
wait_for 30 "the agent with the new authority" host_is true
run 0 "$kestrel" --json hosts
equal "$(value '.hosts | length')" 1 "hosts"
equal "$(value '.hosts[0].uuid')" "$(jq -r .host_uuid "$work/alpha.key")" "identity of the host"
run 0 "$kestrel" --json jobs
equal "$(value '[.jobs[].name] | join(" ")')" kept "jobs"

# wrong FILE CONSOLE AGENT: with this certificate both sides say what these patterns are; what was asked for meanwhile is done
# once a good one is there.
wrong() {
  use_certificate "$1"
  run 1 "$kestrel" hosts
  said "${server_url}"
  said "$2"
  drop_agent
  agent_again
  wait_for 30 "the agent's word about the certificate" agent_says "$3"
  host_is false || fail "the agent is connected over a certificate that is $1"
  curl -sfk -H "Authorization: Bearer $(token_of root)" -H 'Content-Type: application/json' -X PUT \
    -d "{\"enabled\": $4}" "$server_url/k2/r/jobs/$job" >/dev/null || fail "the job cannot be changed"
  use_certificate good
  wait_for 60 "the agent after the certificate was put right" host_is true
  synced() { "$kestrel" --json jobs | jq -e ".jobs[0] | .enabled == $4 and ([.states[].synced] | all)"; }
  wait_for 30 "the change of the job" synced "$@"
}
job=$(value '.jobs[0].id')

note "expired"
certificate good "DNS:localhost,IP:127.0.0.1" 20991231235959Z
wrong expired "cannot be trusted: its certificate has expired; renew it on the server" "certificate of .* has expired; renew it on the server" false
note "for another name"
wrong other "cannot be trusted: its certificate is not for the name or address" "certificate of .* is not for the name" true
echo "certificates: ok"
