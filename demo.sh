#!/usr/bin/env bash
# Backup chains on real data, from nothing: installs what is needed, builds, makes a stand-in OSCAR instance with about
# 200 MB on a real PostgreSQL, backs it up full, incremental and differential while it changes, damages it, restores one
# chosen backup of the chain, and proves by SQL that exactly the data of that moment is back. Then an instance without
# archive logging, which is stopped for its backup; and exports, imported in place, under a new name and into another
# instance.
# Everything happens below one private directory, which is removed at the end (KESTREL_DEMO_KEEP=1 keeps it).
#
# ./demo.sh --cluster, as root: a backup server and three hosts made of namespaces, each with a node of one cluster and an
# agent; one definition runs on all of them while nodes die.
set -euo pipefail
cd "$(dirname "$0")"
case ${1:-} in
'' | --cluster) ;;
*) echo "usage: ./demo.sh [--cluster]" >&2; exit 2 ;;
esac
megabytes=${KESTREL_DEMO_MEGABYTES:-200}

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
say() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
show() { printf '%s$ %s%s\n' "$bold" "$*" "$plain"; }
give_up() { echo "demo: $*" >&2; exit 1; }

# The drawing of the chains needs UTF-8, programs complain about a language that is not installed, and the server's own
# account must be able to read what root makes here.
export LC_ALL=C.UTF-8
unset LANGUAGE
umask 022

./tools/install-deps.sh
say "Building (the first time takes some minutes)"
./tools/build.sh release kestrel_cli oscar kestrel-lab
bin=$PWD/build/release/bin
[ "${1:-}" != --cluster ] || exec tests/e2e/cluster_demo.sh "$bin"

work=$(mktemp -d /tmp/kestrel-demo.XXXXXX)
chmod 755 "$work"
export KESTREL_ROOT=$work/kestrel
unset SZ_OSCAR_HOME
home=$work/oscar
instance=DEMO$$
offline_instance=DEMOX$$
second_instance=DEMOY$$
cleanup() {
  local status=$? name
  trap - EXIT
  trap '' INT TERM HUP # a second Ctrl-C must not leave a server behind
  [ "$status" -ne 130 ] || printf '\ndemo: interrupted; clearing away\n' >&2
  for name in "$instance" "$offline_instance" "$second_instance"; do
    "$bin/kestrel-lab" destroy "$home" "$name" >/dev/null 2>&1 || true
  done
  if [ -n "${KESTREL_DEMO_KEEP:-}" ]; then echo "kept: $work"; else rm -rf --one-file-system "$work"; fi
  [ "$status" -eq 0 ] || [ "$status" -eq 130 ] || echo "demo: failed (exit $status)" >&2
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP
mkdir -p "$KESTREL_ROOT" "$work/backups"

# Without the right to install the start script, the stand-in's own systemctl starts the server.
[ "$(id -u)" -eq 0 ] || export PATH="$home/systemctl-bin:$PATH"

kestrel() { show "kestrel $*"; "$bin/kestrel" "$@"; }
lab() { "$bin/kestrel-lab" "$1" "$home" "${@:2}"; }
newest_backup() { "$bin/kestrel" --json backups "$1" --limit 1 | jq -r ".backups[0].$2"; }
phases=()
# timed NAME COMMAND...: and a line in the table at the end.
timed() {
  local name=$1 begin
  shift
  begin=$(date +%s.%N)
  "$@"
  phases+=("$(awk -v n="$name" -v b="$begin" -v e="$(date +%s.%N)" 'BEGIN {printf "%s|%.1f s", n, e - b}')")
}
# The row counts and checksums of every table, by SQL.
checksums() { lab check "$1" >"$2"; }
show_checksums() {
  jq -r '["TABLE", "TABLESPACE", "ROWS", "CHECKSUM"],
         (.tables[] | ["\(.schema).\(.table)", .tablespace, .rows, .checksum]) | @tsv' "$1" | column -t -s "$(printf '\t')"
}

# make_instance NAME MEGABYTES ARCHIVE_LOG
make_instance() {
  lab create "$1" --archive-log "$3" --user sysdba --password-file "$work/password"
  lab start "$1"
  lab load "$1" --megabytes "$2"
}

chapter_installation() {
  say "A stand-in OSCAR installation with one instance, $instance, on a real PostgreSQL"
  head -c 18 /dev/urandom | base64 | tr '+/' 'xy' >"$work/password"
  chmod 600 "$work/password"
  timed "create and load the instance" make_instance "$instance" "$megabytes" on
}

chapter_first_contact() {
  say "Discover it, log in, choose where backups go"
  kestrel instances
  kestrel login "$instance" --user sysdba --password-file "$work/password"
  kestrel pool add demo --path "$work/backups" --default
}

# back_up LEVEL LABEL: and what the tables hold at that moment.
back_up() {
  timed "$2" kestrel backup "$instance" --level "$1"
  checksums "$instance" "$work/data.$(newest_backup "$instance" id)"
}
change() {
  changes=$((${changes:-0} + 1))
  lab change "$instance" --percent 1 --seed "$changes"
}
chapter_chain() {
  say "Back it up, and again while it changes"
  back_up full "full backup"
  change
  back_up incr "incremental backup"
  change
  back_up diff "differential backup"
  chosen=$(newest_backup "$instance" id)
  change
  back_up incr "incremental backup"

  say "The chain: what stands below a backup builds on it"
  kestrel backups
  kestrel show latest
  timed "verify every backup" kestrel verify --all --quiet
}

chapter_damage() {
  say "A bad day: a table is dropped, the rows of another are deleted"
  local statement
  for statement in "drop table sales.orders cascade" "delete from docs.documents"; do
    show "isql: $statement"
    lab sql "$instance" "$statement"
  done
  checksums "$instance" "$work/damaged.json"
  ! cmp -s "$work/data.$chosen" "$work/damaged.json" || give_up "the damage did not show"
}

chapter_restore() {
  say "Bring back the moment of the differential backup, $chosen"
  timed "restore of two sets" kestrel restore "$chosen" --yes
  checksums "$instance" "$work/after.json"
  diff "$work/data.$chosen" "$work/after.json" || give_up "the tables differ after the restore"
  ! cmp -s "$work/data.$(newest_backup "$instance" id)" "$work/after.json" || give_up "that is another moment"
  say "Every table is as it was when that backup was made: the same row counts and checksums"
  show_checksums "$work/after.json"
}

chapter_offline() {
  say "An instance without archive logging, $offline_instance: stopped for its backup, started again whatever happens"
  make_instance "$offline_instance" 20 off
  checksums "$offline_instance" "$work/offline.before"
  kestrel instances
  local pid_before
  pid_before=$(cat "$home/admin/$offline_instance.db")
  kestrel login "$offline_instance" --user sysdba --password-file "$work/password"
  timed "full backup without archive logging" kestrel backup "$offline_instance"
  [ "$(cat "$home/admin/$offline_instance.db")" != "$pid_before" ] || give_up "the instance was not stopped"
  checksums "$offline_instance" "$work/offline.after"
  diff "$work/offline.before" "$work/offline.after" || give_up "the backup changed the data"
  kestrel backups "$offline_instance"
}

newest_export() { "$bin/kestrel" --json backups --limit 1 | jq -r '.exports[0].id'; }
# rows_of INSTANCE SCHEMA: rows and checksums of its tables, whatever its name.
rows_of() { lab check "$1" --schema "$2"; }
everything_of() { lab check "$1" | sed 's/"instance": "[^"]*"//'; }
chapter_logical() {
  local path=$instance/$instance database schema table pid
  say "Exports: the database, a schema and a table, while the instance works on"
  timed "export of the database" kestrel export "$instance"
  database=$(newest_export)
  timed "export of a schema" kestrel export "$path/SALES"
  schema=$(newest_export)
  timed "export of a table" kestrel export "$path/SALES/ORDERS"
  table=$(newest_export)
  kestrel backups "$instance"
  everything_of "$instance" >"$work/logical.all"
  rows_of "$instance" sales >"$work/logical.sales"

  say "A table is dropped; it comes back alone, the instance stays up"
  pid=$(cat "$home/admin/$instance.db")
  show "isql: drop table sales.orders cascade"
  lab sql "$instance" "drop table sales.orders cascade"
  timed "import of the table" kestrel import "$table" --yes
  everything_of "$instance" | diff "$work/logical.all" - || give_up "the tables differ after the import"
  [ "$(cat "$home/admin/$instance.db")" = "$pid" ] || give_up "the instance was restarted"

  say "The schema again, under the name SALES_COPY"
  timed "import of the schema" kestrel import "$schema" --as "$path/SALES_COPY" --yes
  rows_of "$instance" sales_copy | diff "$work/logical.sales" - || give_up "the copy differs"
  rows_of "$instance" sales | diff "$work/logical.sales" - || give_up "the original changed"

  say "The whole database in a second, empty instance, $second_instance, with its tablespaces"
  lab create "$second_instance" --user sysdba --password-file "$work/password" --no-users-tablespace
  lab start "$second_instance"
  kestrel instances
  kestrel login "$second_instance" --user sysdba --password-file "$work/password"
  timed "import of the database" kestrel import "$database" --as "$second_instance" --yes
  everything_of "$second_instance" | diff "$work/logical.all" - || give_up "the instances differ"
  ls "$home/odbs/$second_instance"/*.dbf
  say "Every table of $second_instance is as it was in $instance: the same row counts and checksums"
}

chapter_summary() {
  say "What was done"
  {
    echo "PHASE|TIME"
    printf '%s\n' "${phases[@]}"
  } | column -t -s '|'
  echo
  "$bin/kestrel" --json backups "$instance" | jq -r '
    def mb: . / 1e6 * 10 | round / 10;
    (.backups | reverse | .[] | "\(.level)|\(.size | mb) MB|\(.stored_size | mb) MB stored")' | column -t -s '|'
  echo
  echo "A backup and each backup set of a restore include 3 s of waiting that OSCAR's tools ask for."
}

chapter_yourself() {
  cat <<'END'

To do it yourself:
  kestrel instances                                   what runs on this host
  kestrel login INSTANCE --user USER                  keep an account
  kestrel pool add NAME --path DIR --default          where backups go
  kestrel backup INSTANCE [--level full|incr|diff]    make one
  kestrel backups                                     the chains
  kestrel verify                                      read them back
  kestrel restore BACKUP                              bring one back; "latest" is the newest
  kestrel export INSTANCE/DATABASE/SCHEMA/TABLE       a table; leave names off the end for more
  kestrel import EXPORT [--as OBJECT]                 bring it back, or under another name
END
}

begin_seconds=$SECONDS
chapter_installation
chapter_first_contact
chapter_chain
chapter_damage
chapter_restore
chapter_offline
chapter_logical
chapter_summary
echo "All of it took $((SECONDS - begin_seconds)) s, without building."
chapter_yourself
