#!/usr/bin/env bash
# The catalog on a PostgreSQL server: the tests of its rows, queries, chains, commits, exports and older schemas, a
# damaged record, and a server that is down.
set -euo pipefail
umask 022

built=$(cd "$1" && pwd)
postgres=${POSTGRES_BIN:-/usr/lib/postgresql/15/bin}
work=$(mktemp -d /tmp/kestrel-catalog.XXXXXX)
server="host=$work dbname=postgres user=catalog"

# The server refuses to run as root.
as_server=()
[ "$(id -u)" -ne 0 ] || as_server=(setpriv --reuid postgres --regid postgres --clear-groups)

cleanup() {
  [ ! -e "$work/data/postmaster.pid" ] || "${as_server[@]}" "$postgres/pg_ctl" -D "$work/data" -m immediate -w stop >/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

chmod 755 "$work"
mkdir "$work/data" "$work/root"
[ "$(id -u)" -ne 0 ] || chown postgres:postgres "$work/data" "$work"
cd "$work"
"${as_server[@]}" "$postgres/initdb" -D "$work/data" -U catalog -A trust -E UTF8 --no-sync >/dev/null
"${as_server[@]}" "$postgres/pg_ctl" -D "$work/data" -w -l "$work/data/log" \
  -o "-k $work -c listen_addresses='' -c fsync=off -c synchronous_commit=local -c synchronous_standby_names=nobody" \
  start >/dev/null

KESTREL_TEST_POSTGRESQL=$server "$built/unit_catalog" \
  --gtest_filter='Catalog_Rows.*:Catalog_Query_Test.*:Catalog_Sequence.*:Catalog_Commit.*:Catalog_Logical.*:Catalog_Damage.*:Catalog_Migration.*-*.a_held_catalog_*' >"$work/out" 2>&1 ||
  { cat "$work/out"; fail "the catalog behaves differently on the server"; }
grep -q 'PASSED.* [1-9][0-9]* tests' "$work/out" || fail "no test ran"

# A commit whose connection is lost after the server has written it. The server waits for a standby that is none.
KESTREL_TEST_POSTGRESQL=$server timeout 300 "$built/component_catalog" --gtest_filter='Catalog_Server.*' \
  >"$work/out" 2>&1 || { cat "$work/out"; fail "a commit that lost its connection is taken for a failure"; }
grep -q 'PASSED.* 1 test\.' "$work/out" || { cat "$work/out"; fail "the test of a lost commit did not run"; }

# The command line reads the catalog of the server, and says which one it misses when the server is down.
state=$work/root/var/opt/tarnvik/kestrel3/agent
mkdir -p "$state"
echo "{\"postgresql\": \"$server\"}" >"$state/catalog.json"
export KESTREL_ROOT=$work/root
"$built/kestrel" --json backups >"$work/out" 2>"$work/err" </dev/null || fail "backups: $(cat "$work/err")"
[ "$(jq '.backups | length' "$work/out")" = 0 ] || fail "a new catalog is not empty: $(cat "$work/out")"
[ ! -e "$state/catalog.db" ] || fail "a file was made beside the server's catalog"
tables=$("$postgres/psql" -h "$work" -U catalog -d postgres -Atc \
  "SELECT count(*) FROM information_schema.tables WHERE table_name LIKE 'backup_set%' AND table_schema = 'public'")
[ "$tables" = 4 ] || fail "the server holds $tables tables"

# One damaged record hides no others.
"$postgres/psql" -h "$work" -U catalog -d postgres -q -c "INSERT INTO backup_set (catalog, uuid, resource_uuid, tablespaces, start_time)
  VALUES ('oscar', 'good', 'R', '[]', 2), ('oscar', 'damaged', 'R', '[', 1)"
"$built/kestrel" --json backups >"$work/out" 2>"$work/err" </dev/null || fail "with a damaged record: $(cat "$work/err")"
[ "$(jq -r '[.exports[] | .id + " " + .state] | join(",")' "$work/out")" = "good available,damaged unusable" ] ||
  fail "with a damaged record: $(cat "$work/out")"
grep -q "record of backup damaged is damaged: the stored field tablespaces" "$work/root/var/log/kestrel3/kestrel.log" ||
  fail "no warning in the log"

"${as_server[@]}" "$postgres/pg_ctl" -D "$work/data" -m fast -w stop >/dev/null
if timeout 120 "$built/kestrel" backups >"$work/out" 2>"$work/err" </dev/null; then
  fail "a server that is down gave an answer: $(cat "$work/out")"
fi
grep -q "Check that the server runs" "$work/err" || fail "no word of the server: $(cat "$work/err")"
[ ! -e "$state/catalog.db" ] || fail "the catalog fell back to a file"
