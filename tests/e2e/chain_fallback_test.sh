#!/usr/bin/env bash
# When a chain cannot be continued: the job makes a full backup and says why; and a set that was made although its
# predecessor is unknown is flagged wherever it is shown.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)
make_instance "$name" 20
make_site
mkdir "$work/second"
run 0 "$kestrel" pool add second --path "$work/second"
state_file=$home/agent/lastlsn.dat

# falls_back LEVEL REASON [OPTION...]: asked for LEVEL, the record says full, and the user reads why.
falls_back() {
  local level=$1 reason=$2
  shift 2
  run 0 "$kestrel" --json backup "$name" --level "$level" "$@"
  equal "$(value .level)" full "level of the record"
  equal "$(value .requested_level)" "$level"
  value .fallback_reason | grep -qE -- "$reason" || fail "the reason is '$(value .fallback_reason)', not $reason"
  grep -q "Lack of backup info, run full backup instead" "$(value .log)" || fail "the job log does not say it"
  case $(value .file) in "${name}_full_"*) ;; *) fail "the file is called $(value .file)" ;; esac
  equal "$("$kestrel" --json show "$(value .backup)" | jq -r .level)" full
}

note "no chain yet"
falls_back incr "lastlsn.dat"
note "what is said to people"
rm "$state_file"
run 0 "$kestrel" backup "$name" --level diff
said "A full backup was made in place of the diff one: .*lastlsn.dat"
said "Backup .* of $name \(full, not diff\)"
take "$name" incr && equal "$(value .fallback_reason)" ""

note "the state of another instance only, or incomplete"
sed "s/^$name/${name}X/" "$state_file" >"$work/state"
cp "$state_file" "$work/state.kept"
cp "$work/state" "$state_file"
falls_back incr "Failed to get $name backup info"
grep -v lastbackupscn "$state_file" >"$work/state"
cp "$work/state" "$state_file"
falls_back diff "Failed to get $name backup info"

note "another pool, and back again"
falls_back incr "it lies in another pool" --pool second
take "$name" incr --pool second
falls_back diff "it lies in another pool" --pool main

note "the full backup cannot be used"
take "$name" full
full=$taken
mv "$(stored_file "$full")" "$work/full.kept"
run 1 "$kestrel" verify "$full"
falls_back incr "its stored file cannot be used"

note "the full backup is not in the catalog any more"
take "$name" full
catalog_sql "delete from backup_set where backup_id = '$taken'"
falls_back diff "it is not in the catalog"

note "a set whose predecessor is unknown"
take "$name" full && full=$taken
change "$name"
take "$name" incr && first=$taken
# What brcmd knows and the catalog does not: as after a commit that never came.
catalog_sql "delete from backup_set where backup_id = '$first'"
change "$name"
run 0 "$kestrel" backup "$name" --level incr
said "This backup cannot be restored: .*$first"
second=$("$kestrel" --json backups | jq -r '.backups[0].id')
run 0 "$kestrel" backups
said "\? builds on $first, which is not in the catalog"
said "2 of these cannot be restored"
run 0 "$kestrel" --json backups
equal "$(value ".backups[] | select(.id == \"$second\") | \"\(.state) \(.parent) \(.parent_missing) \(.chain_length)\"")" \
  "chain_broken $first true 0"
run 0 "$kestrel" show "$second"
said "A restore reads +impossible: .*$first"
run 1 "$kestrel" --json verify --all
equal "$(value ".verified[] | select(.id == \"$second\") | .result")" "no chain"
run 1 "$kestrel" verify "$second"
said "builds on $first, which is not in the catalog"
check_data "$name" "$work/before"
run 1 "$kestrel" restore "$second" --yes
said "backup $second cannot be restored"
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
note "what continues it is no better, a differential one is"
run 0 "$kestrel" --json backup "$name" --level incr
equal "$(value .state)" chain_broken
take "$name" diff
equal "$(value .state)" available
restored_to "$name" "$taken"
restored_to "$name" "$full"

job_logs_hide_password
nothing_left
echo "all right"
