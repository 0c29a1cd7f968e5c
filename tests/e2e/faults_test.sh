#!/usr/bin/env bash
# Faults and bad input: a clear error and the right exit code, nothing lost, nothing left behind, and the next run works.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)

note "before there is anything"
run 2 "$kestrel"
run 2 "$kestrel" frobnicate
run 0 "$kestrel" backups
said "There is no backup yet"
run 1 "$kestrel" backup NOWHERE
said "there is no instance NOWHERE"
run 1 "$kestrel" show latest
said "there is no backup yet"
run 1 "$kestrel" pool add main --path "$work/missing"
run 1 "$kestrel" pool remove main
run 1 "$kestrel" run "$work/missing.json"
for document in '' '[]' '{' '{"id": 1}' '"x"'; do
  printf '%s' "$document" >"$work/bad.json"
  run 1 "$kestrel" run "$work/bad.json"
  said "is refused"
done

make_instance "$name" 20
run 0 "$kestrel" instances
note "without a pool, without an account, with a wrong password"
run 1 "$kestrel" backup "$name"
said "pool"
run 0 "$kestrel" pool add main --path "$pool" --default
run 1 "$kestrel" backup "$name"
said "kestrel login"
for wrong in 'wrong' "it's" 'two words' 'a"b' 'per%cent' 'sl/ash' '%s%s%n'; do
  printf '%s\n' "$wrong" >"$work/wrong"
  run 1 "$kestrel" login "$name" --user sysdba --password-file "$work/wrong"
  said "the login of sysdba at $name failed"
done
run 1 "$kestrel" login "$name" --user sysdba --password-file "$work/missing"
said "cannot open the password file"
run 0 "$kestrel" login "$name" --user sysdba --password-file "$work/password"
run 0 "$kestrel" --json backup "$name"
good=$(value .backup)
check_data "$name" "$work/before"
still_fine() {
  nothing_left
  equal "$("$kestrel" --json backups | jq -r ".backups | length")" "${1:-1}" "listed backups"
  run 0 "$kestrel" verify "$good"
}

note "the tool is missing, not executable, or fails"
brcmd=$home/bin/brcmd
mv "$brcmd" "$brcmd.real"
run 1 "$kestrel" backup "$name"
said "the backup of $name failed"
printf '#!/bin/sh\nexit 0\n' >"$brcmd"
run 1 "$kestrel" backup "$name"
chmod +x "$brcmd"
run 1 "$kestrel" backup "$name"
printf '#!/bin/sh\necho brcmd: out of order >&2\nexit 3\n' >"$brcmd"
run 1 "$kestrel" backup "$name"
said "out of order"
printf '#!/bin/sh\nsleep 4\nexit 3\n' >"$brcmd"
run 1 "$kestrel" backup "$name"
run 1 "$kestrel" restore "$good" --yes
mv -f "$brcmd.real" "$brcmd"
still_fine
run 0 "$kestrel" --json instances
equal "$(value ".instances[] | select(.name == \"$name\") | .state")" online

note "the pool is gone, read-only, or full"
mv "$pool" "$pool.away"
run 1 "$kestrel" backup "$name"
said "$pool"
run 1 "$kestrel" verify
mkdir "$pool" # as the empty mount point of a file system that is not mounted
run 1 "$kestrel" backup "$name"
said "its mark $pool/.kestrel-pool is missing; mount the pool's file system"
run 1 "$kestrel" verify
said "pool main cannot be reached"
said "were not verified, .* nothing was recorded"
run 1 "$kestrel" delete latest --yes
said "mount the pool's file system"
run 1 "$kestrel" restore latest --yes
said "mount the pool's file system"
run 0 "$kestrel" --json backups
equal "$(value '[.backups[] | select(.state != "available")] | length')" 0 "backups judged without their pool"
rmdir "$pool" || fail "something was stored in the mount point"
mv "$pool.away" "$pool"
still_fine
if [ "$(id -u)" -eq 0 ]; then
  mkdir "$work/tmpfs"
  mount -t tmpfs -o size=4m tmpfs "$work/tmpfs"
  run 0 "$kestrel" pool add small --path "$work/tmpfs"
  run 1 "$kestrel" backup "$name" --pool small --compression none
  said "No space left on device"
  still_fine
  mount -o remount,ro "$work/tmpfs"
  run 1 "$kestrel" backup "$name" --pool small
  said "Read-only file system"
  still_fine
  umount "$work/tmpfs"
  run 1 "$kestrel" backup "$name" --pool small
  said "mount the pool's file system"
  equal "$(find "$work/tmpfs" | wc -l)" 1 "what lies in the mount point: itself"
  run 0 "$kestrel" pool remove small
else
  left_out "a full pool, and a catalog without room: only root can mount them"
fi

note "a stored file is cut, changed, replaced, gone"
run 0 "$kestrel" --json show "$good"
stored=$pool/$(value .folder)/$(value .file)
cp -p "$stored" "$work/kept"
spoil() {
  run 1 "$kestrel" verify "$good"
  said "damaged"
  run 1 "$kestrel" restore "$good" --yes
  said "cannot be restored"
  cp -p "$work/kept" "$stored"
  run 0 "$kestrel" verify "$good"
  run 0 "$kestrel" --json show "$good"
  equal "$(value .state)" available
}
truncate -s -1 "$stored"; spoil
truncate -s 0 "$stored"; spoil
printf 'x' >>"$stored"; spoil
printf '\x55' | dd of="$stored" bs=1 seek=$(($(stat -c %s "$stored") / 2)) conv=notrunc 2>/dev/null; spoil
rm "$stored"; spoil
note "damage that nobody noticed before the restore: the old data stays"
printf '\x55' | dd of="$stored" bs=1 seek=$(($(stat -c %s "$stored") / 2)) conv=notrunc 2>/dev/null
run 1 "$kestrel" restore "$good" --yes
cp -p "$work/kept" "$stored"
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
still_fine

note "the catalog is damaged, locked, on a full disk"
catalog=$KESTREL_ROOT/var/opt/tarnvik/kestrel3/agent/catalog.db
sqlite3 "$catalog" 'pragma wal_checkpoint(truncate)' >/dev/null
cp "$catalog" "$work/catalog.kept"
head -c 8192 /dev/urandom | dd of="$catalog" conv=notrunc 2>/dev/null
run 1 "$kestrel" backups
said "catalog.db"
cp "$work/catalog.kept" "$catalog"
still_fine

# A writer that holds the catalog for a while is waited for.
{ printf 'begin immediate;\n'; sleep 7; printf 'rollback;\n'; } | sqlite3 "$catalog" &
locker=$!
run 0 "$kestrel" --json backup "$name"
wait "$locker"
equal "$(backup_count)" 2
if [ "$(id -u)" -eq 0 ]; then
  # A small private tree that fills up: the pool is elsewhere and has room, the record cannot be written.
  mount -t tmpfs -o size=3m tmpfs "$work/tmpfs"
  cp -a "$KESTREL_ROOT/var" "$work/tmpfs/"
  full() { KESTREL_ROOT=$work/tmpfs "$kestrel" "$@"; }
  head -c 8m /dev/zero >"$work/tmpfs/filler" 2>/dev/null || true
  status=0
  full backup "$name" >"$work/out" 2>"$work/err" </dev/null || status=$?
  equal "$status" 1 "exit code of a backup whose catalog has no room"
  said "kestrel"
  rm "$work/tmpfs/filler"
  equal "$(full --json backups | jq -r '.backups | length')" 2
  full backup "$name" >/dev/null 2>&1 || fail "no backup after room was made"
  equal "$(full --json backups | jq -r '.backups | length')" 3
  umount "$work/tmpfs"
fi
still_fine 2

note "the instance is stopped"
"$lab" stop "$home" "$name" >/dev/null
run 1 "$kestrel" backup "$name"
said "the backup of $name failed"
still_fine 2
run 0 "$kestrel" restore "$good" --yes
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"

note "a name longer than the file names that OSCAR's tools form"
long=$(instance_name)ABCDEFGHIJKLMNOPQRSTUVWXYZ
run 1 "$kestrel" backup "$long"
said "there is no instance $long"

job_logs_hide_password
echo "all right"
