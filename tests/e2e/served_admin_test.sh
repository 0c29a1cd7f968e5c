#!/usr/bin/env bash
# What the one who runs the server does: hosts get new keys and lose their rights, the certificate is renewed, the server
# is saved and brought back.
here=$(dirname "$0")
# shellcheck source=tests/e2e/kestrel_support.sh
source "$here/kestrel_support.sh"
# shellcheck source=tests/e2e/served_support.sh
source "$here/served_support.sh"
# shellcheck source=tests/e2e/served_one_host.sh
source "$here/served_one_host.sh"

instance=$(instance_name A)
make_instance "$instance" 4
make_one_host "$instance"
define_backup nightly "$instance" 0
tell 0 job run nightly --wait
said completed
on_server() { run "$1" "${server_side[@]}" "$kestrel" server "${@:2}"; }
serial() { openssl x509 -serial -noout -in "$server_files/tls/server.crt"; }

note "a host gets a new key: the old one is worth nothing"
cp "$agent_root/var/opt/tarnvik/kestrel3/agent/server_key.json" "$work/old_key.json"
first_uuid=$(host_uuid here)
enroll here
wait_until 60 host_is_offline here || fail "the connection with the old key goes on"
end_process "$agent_pid" TERM
start_agent
equal "$(host_uuid here)" "$first_uuid" "identity of the host"
equal "$(stat -c %a "$agent_root/var/opt/tarnvik/kestrel3/agent/server_key.json")" 600 "mode of the key"
! cmp -s "$work/old_key.json" "$agent_root/var/opt/tarnvik/kestrel3/agent/server_key.json" || fail "the key is the old one"

note "a revoked host is out, with what it told staying"
host_is_offline_or_gone() { ! host_is_online here; }
on_server 0 revoke here
wait_until 60 host_is_offline_or_gone || fail "the revoked host stays"
equal "$(served_backup_count)" 1 "backups of a revoked host"
end_process "$agent_pid" TERM
enroll here
start_agent

note "a renewed certificate: agents and consoles go on"
before=$(serial)
on_server 0 renew
[ "$(serial)" != "$before" ] || fail "the certificate is the old one"
restart_server TERM
wait_until 100 host_is_online here || fail "the agent does not come back"
tell 0 job run nightly --wait
said completed

note "users on the machine itself; a lost password"
printf 'another.secret.%s\n' "$$" >"$work/another.password"
on_server 0 user add bob --role viewer --password-file "$work/another.password"
on_server 0 user password admin --password-file "$work/another.password"
tell 1 hosts
sign_in admin "$work/another.password"
on_server 0 audit --limit 100
said "local:"

note "saved, lost, and brought back"
on_server 0 save "$work/saved"
equal "$(stat -c %a "$work/saved")" 700 "mode of the saved directory"
run 1 "${server_side[@]}" "$kestrel" server save "$work/saved"
tell 0 job run nightly --wait # after the save: its record comes again, its backup is in no catalog
end_process "$server_pid" KILL
rm -rf "$server_files"
cp -a "$work/saved" "$server_files"
start_server
ask 0 hosts
wait_until 100 host_is_online here || fail "the agent does not come back"
equal "$(served_backup_count)" 2 "backups of the saved server"
tell 0 job run nightly --wait
said completed
backup=$(asked '.backups[0].id' backups)
check_data "$instance" "$work/before"
damage "$instance"
ask 0 restore "$backup" --host here --yes
check_data "$instance" "$work/after"
same_data "$work/before" "$work/after"
! grep -rqF -e "$(cat "$work/admin.password")" -e "$(cat "$work/another.password")" -e "$password" "$server_root" "$agent_root" \
  "$work"/*.out || fail "a password stands in a file"
note "done"
