#!/usr/bin/env bash
# Backups and exports are deleted with their stored files, on one host and through a server: in the right order, asked for
# first, seen and repeatable when it ends half-way.
# shellcheck source=tests/e2e/kestrel_support.sh
. "$(dirname "$0")/kestrel_support.sh"
# shellcheck source=tests/e2e/server_support.sh
. "$(dirname "$0")/server_support.sh"
name=CONSDEL$$

files() { find "$1" -type f -not -name .kestrel-pool | wc -l; }
ids() { "$kestrel" --json backups | jq -r '[.backups[].id] | join(" ")'; }

make_instance "$name" 5 on
make_site
note "one host: a chain of three and a differential"
take "$name" full
full=$taken
change "$name"
take "$name" incr
one=$taken
change "$name"
take "$name" incr
two=$taken
run 0 "$kestrel" --json export "$name/$name/SALES"
export=$(value .backup)
equal "$(files "$pool")" 8 "files of three backups and an export"

run 1 "$kestrel" delete "$full" --yes
said "is needed to restore what builds on it \($one, $two\)"
run 2 "$kestrel" delete "$two"
said "nobody is there to confirm the deletion"
equal "$(files "$pool")" 8 "files after two refusals"
run 1 "$kestrel" delete nonsense --yes
run 2 "$kestrel" delete

note "the last one; what is left can be restored"
run 0 "$kestrel" --json delete "$two" --yes
equal "$(value '.deleted[0].id')" "$two"
equal "$(ids)" "$one $full"
equal "$(files "$pool")" 6 "files after one deletion"
run 1 "$kestrel" delete "$two" --yes
restored_to "$name" "$one"

note "a deletion that ends half-way is seen, and finished by the same command"
stored=$(stored_file "$one")
rm "$stored" # there the process ended: the file is gone, the record marked
catalog_sql "update backup_set set state = 'deleting', state_reason = 'its deletion has begun' where uuid = '$one'"
run 0 "$kestrel" show "$one"
said "State +unusable \(its deletion has begun\)"
run 1 "$kestrel" verify "$one"
said "the deletion of 1 of 2 backups has begun; finish it with kestrel delete"
run 0 "$kestrel" show "$one"
said "State +unusable \(its deletion has begun\)"
run 0 "$kestrel" delete "$one" --yes
[ ! -e "$stored.meta" ] || fail "the side file is left"

note "while a job of the instance runs, nothing goes"
"$kestrel" backup "$name" --rate-limit 200k >"$work/slow.out" 2>&1 </dev/null &
slow=$!
partial() { find "$pool" -name '*.partial' | grep -q .; }
wait_until 60 partial || fail "the backup does not begin"
run 1 "$kestrel" delete "$full" --yes
said "a job of $name is under way"
kill -INT $slow
wait $slow || true
run 0 "$kestrel" delete "$full" "$export" --yes
said "No backup is left then that $name can be restored from"
equal "$(files "$pool")" 0 "files in the end"

note "through a server: admins only, and the audit has it"
start_server
sign_in root admin
mkdir "$work/served"
run 0 "$kestrel" pool add served --path "$work/served" --default
start_agent alpha
run 0 "$kestrel" instances --host alpha
run 0 "$kestrel" login "$name" --user sysdba --password-file "$work/password"
run 0 "$kestrel" --json backup "$name"
full=$(value .backup)
run 0 "$kestrel" --json backup "$name" --level incr
incr=$(value .backup)
run 0 "$kestrel" user add olga --role operator --password-file "$work/password"
sign_in olga operator
run 1 "$kestrel" delete "$incr" --yes
said "role 'operator' does not allow"
equal "$(ids)" "$incr $full"
be root
run 1 "$kestrel" delete "$full" --yes
run 0 "$kestrel" delete "$full" --dependents --yes
said "Deleted: 2 backups"
equal "$(ids)" ""
equal "$(files "$work/served")" 0 "files of the served pool"
run 0 "$kestrel" --json audit
equal "$(value '[.audit[] | select(.method == "DELETE" and (.path | contains("/backups/"))) | .status] | join(" ")')" "200 200 403"
run 0 "$kestrel" pool remove served
echo "delete: ok"
