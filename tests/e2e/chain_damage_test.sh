#!/usr/bin/env bash
# A member of a chain that is gone, cut, changed or another set's: verification says which restores are lost, a restore
# that meets the damage fails with a clear line, the instance is up afterwards, and a repaired chain restores.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)
make_instance "$name" 20
make_site
take "$name" full && full=$taken
change "$name"
take "$name" incr && incr=$taken
change "$name"
take "$name" incr && last=$taken
change "$name"
take "$name" diff && diff=$taken
catalog=$KESTREL_ROOT/var/opt/tarnvik/kestrel3/agent/catalog.db

result_of() { value ".verified[] | select(.id == \"$1\") | .result"; }
# verdicts FULL INCR LAST DIFF: what the verification of everything says of each.
verdicts() {
  local expected=1
  [ "$*" != "good good good good" ] || expected=0
  run "$expected" "$kestrel" --json verify --all
  equal "$(result_of "$full"), $(result_of "$incr"), $(result_of "$last"), $(result_of "$diff")" \
    "$1, $2, $3, $4" "verdicts on full, incr, last, diff"
}
# spoil_file FILE HOW
spoil_file() {
  case $2 in
    missing) rm "$1" ;;
    truncated) truncate -s -100 "$1" ;;
    flipped) printf '\x55' | dd of="$1" bs=1 seek=$(($(stat -c %s "$1") / 2)) conv=notrunc 2>/dev/null ;;
    another) cp "$(stored_file "$diff")" "$1" && cp "$(stored_file "$diff").meta" "$1.meta" ;;
  esac
}
# met_by_restore ID: nobody verified; the restore itself finds the damage. Afterwards the instance is up, with its old data
# or with what a whole restore of an earlier member would give, and never with half of a set.
met_by_restore() {
  check_data "$name" "$work/before"
  run_timeout=300 run 1 "$kestrel" restore "$1" --yes
  said "the restore of $name failed: .+|backup $1 cannot be restored: .+; nothing was changed"
  nothing_left
  equal "$(state_of "$name")" online
  check_data "$name" "$work/after"
  local id
  for id in "$full" "$incr" "$last" "$diff"; do ! cmp -s "$work/data.$id" "$work/after" || return 0; done
  same_data "$work/before" "$work/after"
}

for how in missing truncated flipped another; do
  note "the incremental set is $how"
  file=$(stored_file "$incr")
  cp -p "$file" "$work/kept" && cp -p "$file.meta" "$work/kept.meta"
  spoil_file "$file" "$how"
  met_by_restore "$last"
  verdicts good damaged "no chain" good
  run 1 "$kestrel" restore "$last" --yes
  said "backup $last cannot be restored: .*$incr"
  run 0 "$kestrel" --json backups
  equal "$(value '[.backups[] | .state] | join(" ")')" "available chain_broken unusable available"
  cp -p "$work/kept" "$file" && cp -p "$work/kept.meta" "$file.meta"
  verdicts good good good good
done

note "the full set is cut"
file=$(stored_file "$full")
cp -p "$file" "$work/kept"
truncate -s -1 "$file"
met_by_restore "$diff"
run 1 "$kestrel" verify "$last"
said "damaged"
equal "$(grep -c 'no chain' "$work/out")" 2 "members lost with it"
verdicts damaged "no chain" "no chain" "no chain"
cp -p "$work/kept" "$file"
verdicts good good good good

note "the record of a member is gone from the catalog"
sqlite3 "$catalog" 'pragma wal_checkpoint(truncate)' >/dev/null
cp "$catalog" "$work/catalog.kept"
catalog_sql "delete from backup_set where backup_id = '$incr'"
run 1 "$kestrel" restore "$last" --yes
said "backup $last cannot be restored: .*$incr"
run 1 "$kestrel" --json verify --all
equal "$(result_of "$last"), $(result_of "$diff")" "no chain, good"
restored_to "$name" "$diff"
rm -f "$catalog-wal" "$catalog-shm"
cp "$work/catalog.kept" "$catalog"
verdicts good good good good

note "the files lie in another pool now"
mkdir "$work/second"
cp -r "$pool/." "$work/second/"
run 0 "$kestrel" pool add second --path "$work/second"
mv "$pool" "$pool.away"
run 1 "$kestrel" restore "$last" --yes
run 1 "$kestrel" verify "$last"
said "not verified"
damage "$name"
run_timeout=300 run 0 "$kestrel" restore "$last" --yes --pool second
check_data "$name" "$work/after"
same_data "$work/data.$last" "$work/after"
mv "$pool.away" "$pool"
verdicts good good good good

restored_to "$name" "$last"
job_logs_hide_password
nothing_left

if [ "$(id -u)" -eq 0 ]; then
  note "the disk of the instance is full"
  mkdir "$work/tmpfs"
  mount -t tmpfs -o size=1g tmpfs "$work/tmpfs"
  chmod 755 "$work/tmpfs"
  home=$work/tmpfs/oscar
  small=$(instance_name S)
  make_instance "$small" 60
  run 0 "$kestrel" instances
  run 0 "$kestrel" login "$small" --user sysdba --password-file "$work/password"
  take "$small" full
  change "$small"
  take "$small" incr
  check_data "$small" "$work/before"
  # Room for the server and its log, too little for a second copy of the data.
  free_kib=$(df --output=avail "$work/tmpfs" | tail -1)
  head -c $(((free_kib - 61440) * 1024)) /dev/zero >"$work/tmpfs/filler"
  run_timeout=300 run 1 "$kestrel" restore "$taken" --yes
  said "the restore of $small failed: .+"
  rm "$work/tmpfs/filler"
  equal "$(state_of "$small")" online
  check_data "$small" "$work/after"
  same_data "$work/before" "$work/after"
  nothing_left
  restored_to "$small" "$taken"
  "$lab" destroy "$home" "$small" >/dev/null
  home=$work/oscar
  umount "$work/tmpfs"
else
  left_out "a full disk: only root can mount one"
fi
echo "all right"
