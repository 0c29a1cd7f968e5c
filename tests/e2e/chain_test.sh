#!/usr/bin/env bash
# Backup chains: every level, the listing as a tree, and restores to each member, proven by checksums that SQL computed
# when the member was made.
. "$(dirname "$0")/kestrel_support.sh"
export LC_ALL=C.UTF-8
name=$(instance_name)
make_instance "$name" 20
make_site

note "a chain of every level"
take "$name" full && full=$taken
full_size=$(value .size)
equal "$(value .parent)" null
change "$name"
run 0 "$kestrel" backup "$name" --level incremental --quiet
said "Backup .* of $name \(incr on $full\)"
incr1=$("$kestrel" --json show latest | jq -r .id)
check_data "$name" "$work/data.$incr1"
change "$name"
take "$name" diff && diff1=$taken
equal "$(value .parent)" "$full" "what the differential backup builds on"
change "$name"
take "$name" incr && incr2=$taken
equal "$(value .parent)" "$diff1" "what the incremental backup after it builds on"
[ "$(value .size)" -lt $((full_size / 4)) ] || fail "an incremental backup of few changes has $(value .size) bytes"
change "$name"
# The server's log begins a new segment early, as it does for a backup that is then killed.
"$lab" sql "$home" "$name" "select pg_catalog.pg_switch_wal()" >/dev/null
take "$name" incr && incr3=$taken
change "$name"
take "$name" diff && diff2=$taken
equal "$(value .requested_level)" diff
equal "$(value .fallback_reason)" ""
nothing_left

note "the listing is a tree"
# The drawing and the ids: everything before the second column.
drawn() { sed -E 's/ +(LEVEL|full|incr|diff) .*//' "$work/out"; }
run 0 "$kestrel" backups
drawn >"$work/tree"
cmp "$work/tree" - <<END || fail "the tree is: $(cat "$work/tree")"
BACKUP
$name
$full
├─ $incr1
├┬ $diff1
│├ $incr2
│└ $incr3
└─ $diff2
END
[ "$(wc -L <"$work/out")" -le 80 ] || fail "wider than a terminal: $(cat "$work/out")"
LC_ALL=C run 0 "$kestrel" backups "$name"
! grep -q '[^ -~]' "$work/out" || fail "not plain in the C locale"
run 0 "$kestrel" backups --limit 2
said "older not shown, from full $full on"
equal "$(drawn | tail -2 | head -1)" "├─ $incr3"
run 0 "$kestrel" --json backups
equal "$(value '[.backups[].id] | join(" ")')" "$diff2 $incr3 $incr2 $diff1 $incr1 $full" "newest first"
equal "$(value ".backups[] | select(.id == \"$full\") | .children | join(\" \")")" "$incr1 $diff1 $diff2"
equal "$(value ".backups[] | select(.id == \"$incr3\") | \"\(.parent) \(.chain_length) \(.parent_missing)\"")" "$incr2 4 false"

note "one member"
run 0 "$kestrel" show "$incr3"
said "Builds on +$incr2"
said "1\. $full \(full"
said "4\. $incr3 \(incr"
run 0 "$kestrel" --json show "$diff1"
equal "$(value '.chain | join(" ")')" "$full $diff1"
equal "$(value '.children | join(" ")')" "$incr2"
[ "$(value .restore_size)" -gt "$full_size" ] || fail "a restore of two sets reads more than the full one"

note "all of them read back, each once"
run 0 "$kestrel" --json verify --all
equal "$(value '[.verified[].id] | join(" ")')" "$full $incr1 $diff1 $incr2 $incr3 $diff2" "order of the walk"
equal "$(value '[.verified[].result] | unique | join(" ")')" good
run 0 "$kestrel" --json verify "$incr2"
equal "$(value '[.verified[].id] | join(" ")')" "$full $diff1 $incr2" "what a restore reads"
run 2 "$kestrel" verify --all "$full"

note "a restore says what it will read"
run 2 "$kestrel" restore "$incr3"
said "2\. backup $full \(full"
said "5\. backup $incr3 \(incr"
said "that is .* from 4 backups"

for id in "$incr3" "$full" "$diff2" "$incr1" "$incr2" "$diff1"; do
  note "restore to $(jq -r .level <("$kestrel" --json show "$id")) $id"
  restored_to "$name" "$id"
done

note "life goes on after a restore"
run 0 "$kestrel" --json backup "$name" --level incr
equal "$(value .level)" full "the old chain belongs to data that is gone"
equal "$(value .requested_level)" incr
[ -n "$(value .fallback_reason)" ] || fail "no reason for the full backup"
change "$name"
take "$name" incr && later=$taken
equal "$(value .state)" available
change "$name"
take "$name" diff
restored_to "$name" "$later"
restored_to "$name" "$incr3"

note "a periodic restore takes the newest"
run 0 "$kestrel" --json show latest
cat >"$work/periodic.json" <<JSON
{"id": "0d1f7a53-0a39-4f3c-9d0e-6b7d35d1a001", "uid": "0d1f7a53-0a39-4f3c-9d0e-6b7d35d1a001", "name": "$name",
 "type": "restore", "subtype": "full", "periodic": true, "target": {"id": "$(value .pool_uuid)"},
 "source": {"id": "$(value .resource_uuid)", "name": "$name", "catalog_id": "$full"}, "options": {}}
JSON
run_timeout=300 run 0 "$kestrel" run "$work/periodic.json"
check_data "$name" "$work/after"
same_data "$work/data.$taken" "$work/after"

job_logs_hide_password
nothing_left
echo "all right"
