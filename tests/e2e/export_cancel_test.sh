#!/usr/bin/env bash
# Ctrl-C at exports and imports: one signal ends the tool that runs, the exit code says so, nothing is kept of an export,
# no dump file stays, and the next run works. Then two jobs at once.
. "$(dirname "$0")/kestrel_support.sh"
one=$(instance_name C)
make_instance "$one" 60
make_site
check_data "$one" "$work/before"

dumps() { find "$KESTREL_ROOT/var/cache/tarnvik/kestrel3/oscar/dump" -mindepth 1 2>/dev/null | wc -l; }
nothing_on_the_way() {
  equal "$(dumps)" 0 "dump files left behind"
  equal "$(pgrep -fc "^$home/bin/osr" || true)" 0 "tools left behind"
}
# interrupt_when CONDITION COMMAND...: starts it, interrupts it once the condition holds; the exit code is in $status.
interrupt_when() {
  local condition=$1 pid i
  shift
  status=0
  timeout --kill-after=5 100 "$@" >"$work/out" 2>"$work/err" </dev/null &
  pid=$!
  for i in $(seq 1 400); do
    eval "$condition" && break
    sleep 0.05
  done
  [ "$i" -lt 400 ] || fail "it never came to: $condition"
  pkill -INT -P "$pid" || true
  wait "$pid" || status=$?
}

note "an export while the tool works"
interrupt_when 'pgrep -f "^$home/bin/osrexp" >/dev/null' "$kestrel" export "$one" --compression none
equal "$status" 3 "exit code"
said "the export of $one/$one was canceled; nothing of it was kept"
nothing_on_the_way

note "an export while the archive is written, slowed down"
interrupt_when 'grep -q "10%" "$work/err"' "$kestrel" export "$one" --compression none --rate-limit 2m
equal "$status" 3 "exit code"
said "the export of $one/$one was canceled; nothing of it was kept"
nothing_on_the_way
run 0 "$kestrel" --json backups
equal "$(value '.exports | length')" 0 "exports after two cancels"

note "an import while the tool works"
run 0 "$kestrel" --json export "$one" --compression none
first=$(value .backup)
interrupt_when 'pgrep -f "^$home/bin/osrimp .*file=" >/dev/null' "$kestrel" import "$first" --yes
equal "$status" 3 "exit code"
said "the import of $one/$one was canceled; look at $one/$one before anybody works with it, or import again"
nothing_on_the_way
run 0 "$kestrel" import "$first" --yes
check_data "$one" "$work/after"
same_data "$work/before" "$work/after"

note "an export waits for a physical backup of its instance, and is then made"
"$kestrel" backup "$one" --compression none --rate-limit 4m >"$work/backup.out" 2>"$work/backup.err" </dev/null &
physical=$!
for _ in $(seq 1 200); do
  pgrep -f "^$home/bin/brcmd" >/dev/null && break
  sleep 0.05
done
run 0 "$kestrel" export "$one/$one/SALES/ORDERS"
said "waiting for another job on the same instance to end"
wait "$physical" || fail "the backup failed: $(cat "$work/backup.err")"
run 0 "$kestrel" verify
nothing_on_the_way

if [ "$(id -u)" -eq 0 ]; then
  note "an export whose dump files fill the disk"
  run 0 "$kestrel" --json backups
  exports=$(value '.exports | length')
  mkdir -p "$KESTREL_ROOT/var/cache/tarnvik/kestrel3/oscar"
  mount -t tmpfs -o size=8m tmpfs "$KESTREL_ROOT/var/cache/tarnvik/kestrel3/oscar"
  run 1 "$kestrel" export "$one" --compression none
  said "No space left on device"
  nothing_on_the_way
  umount "$KESTREL_ROOT/var/cache/tarnvik/kestrel3/oscar"
  run 0 "$kestrel" --json backups
  equal "$(value '.exports | length')" "$exports" "exports after a full disk"
  run 0 "$kestrel" export "$one/$one/SALES/ORDERS"
else
  left_out "a full disk: only root can mount one"
fi
echo "all right"
