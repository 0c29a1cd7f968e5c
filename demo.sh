#!/usr/bin/env bash
# A backup and a restore on real data, from nothing: installs what is needed, builds, makes a stand-in OSCAR instance
# with about 200 MB on a real PostgreSQL, backs it up, damages it, restores it, and proves by SQL that all is back.
# Everything happens below one private directory, which is removed at the end (KESTREL_DEMO_KEEP=1 keeps it).
set -euo pipefail
cd "$(dirname "$0")"
megabytes=${KESTREL_DEMO_MEGABYTES:-200}

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
say() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
show() { printf '%s$ %s%s\n' "$bold" "$*" "$plain"; }

./tools/install-deps.sh
say "Building (the first time takes some minutes)"
./tools/build.sh release kestrel_cli oscar kestrel-lab
bin=$PWD/build/release/bin

work=$(mktemp -d /tmp/kestrel-demo.XXXXXX)
chmod 755 "$work"
export KESTREL_ROOT=$work/kestrel
unset SZ_OSCAR_HOME
home=$work/oscar
instance=DEMO$$
cleanup() {
  local status=$?
  trap - EXIT
  "$bin/kestrel-lab" destroy "$home" "$instance" >/dev/null 2>&1 || true
  if [ -n "${KESTREL_DEMO_KEEP:-}" ]; then echo "kept: $work"; else rm -rf --one-file-system "$work"; fi
  [ "$status" -eq 0 ] || echo "demo: failed (exit $status)" >&2
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
mkdir -p "$KESTREL_ROOT" "$work/backups"

# Without the right to install the start script, the stand-in's own systemctl starts the server.
[ "$(id -u)" -eq 0 ] || export PATH="$home/systemctl-bin:$PATH"
kestrel() { show "kestrel $*"; "$bin/kestrel" "$@"; }
phases=()
# timed NAME MEGABYTES COMMAND...
timed() {
  local name=$1 begin end
  shift
  begin=$(date +%s.%N)
  "$@"
  end=$(date +%s.%N)
  phases+=("$(awk -v n="$name" -v b="$begin" -v e="$end" 'BEGIN {printf "%s|%.1f s", n, e - b}')")
}

say "A stand-in OSCAR installation with one instance, $instance, on a real PostgreSQL"
head -c 18 /dev/urandom | base64 | tr '+/' 'xy' >"$work/password"
chmod 600 "$work/password"
make_instance() {
  "$bin/kestrel-lab" create "$home" "$instance" --user sysdba --password-file "$work/password"
  "$bin/kestrel-lab" start "$home" "$instance"
  "$bin/kestrel-lab" load "$home" "$instance" --megabytes "$megabytes"
}
timed "create and load the instance" make_instance
check() { "$bin/kestrel-lab" check "$home" "$instance" >"$1"; }
timed "checksums before, by SQL" check "$work/before.json"

say "Discover it, log in, choose where backups go"
kestrel instances
kestrel login "$instance" --user sysdba --password-file "$work/password"
kestrel pool add demo --path "$work/backups" --default

say "Back it up"
timed "full backup (zstd)" kestrel backup "$instance" --compression zstd
kestrel backups
kestrel show latest
timed "verify" kestrel verify

say "A bad day: a table is dropped, the rows of another are deleted"
for statement in "drop table sales.orders cascade" "delete from docs.documents"; do
  show "isql: $statement"
  "$bin/kestrel-lab" sql "$home" "$instance" "$statement"
done
check "$work/damaged.json"
if cmp -s "$work/before.json" "$work/damaged.json"; then echo "demo: the damage did not show" >&2; exit 1; fi

say "Bring it back"
timed "restore" kestrel restore latest --yes
timed "checksums after, by SQL" check "$work/after.json"
diff "$work/before.json" "$work/after.json" || { echo "demo: the tables differ after the restore" >&2; exit 1; }

say "Every table is back: the same row counts and checksums before and after"
jq -r '["TABLE", "TABLESPACE", "ROWS", "CHECKSUM"], (.tables[] | ["\(.schema).\(.table)", .tablespace, .rows, .checksum]) | @tsv' \
  "$work/after.json" | column -t -s "$(printf '\t')"

say "What was done"
"$bin/kestrel" --json backups >"$work/backups.json"
size=$(jq -r '.backups[0].size' "$work/backups.json")
stored=$(jq -r '.backups[0].stored_size' "$work/backups.json")
{
  echo "PHASE|TIME"
  printf '%s\n' "${phases[@]}"
} | column -t -s '|'
echo
awk -v s="$size" -v t="$stored" 'BEGIN {
  printf "Bytes moved: %.1f MB out of the database, stored as %.1f MB (%.1f to 1); %.1f MB back into it.\n",
         s / 1e6, t / 1e6, s / t, s / 1e6 }'
echo "A backup and each backup set of a restore include 3 s of waiting that OSCAR's tools ask for."

cat <<'END'

To do it yourself:
  kestrel instances                                   what runs on this host
  kestrel login INSTANCE --user USER                  keep an account
  kestrel pool add NAME --path DIR --default          where backups go
  kestrel backup INSTANCE                             make one
  kestrel restore latest                              bring it back
END
