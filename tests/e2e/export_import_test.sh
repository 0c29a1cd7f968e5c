#!/usr/bin/env bash
# Exports at the three levels and what imports make of them: a dropped table back alone while its instance works on, a
# schema under a new name, a table under a new name, a whole database in a second, empty instance with its tablespaces.
# SQL checksums prove each. Then damage, refusals and a job definition document.
. "$(dirname "$0")/kestrel_support.sh"
one=$(instance_name A)
other=$(instance_name B)
make_instance "$one" 20
# An instance without any user data, and without the tablespaces that the data needs.
for _ in 1 2 3 4 5; do
  "$lab" create "$home" "$other" --port $((20000 + RANDOM % 12000)) --user sysdba --password-file "$work/password" \
    --no-users-tablespace >"$work/lab.log" 2>&1 || fail "$(cat "$work/lab.log")"
  "$lab" start "$home" "$other" >"$work/lab.log" 2>&1 && break
  "$lab" destroy "$home" "$other" >/dev/null
done
instances+=("$other")
places+=("$home/$other")
make_site

sql() { "$lab" sql "$home" "$1" "$2"; }
change() { sql "$one" "$1" >/dev/null 2>"$work/lab.log" || fail "cannot run: $1: $(cat "$work/lab.log")"; }
# rows INSTANCE SCHEMA: rows and checksums, without the names of instance and schema.
rows() {
  "$lab" check "$home" "$1" --schema "$2" 2>"$work/lab.log" |
    sed -e 's/"instance": "[^"]*"//' -e 's/"schema": "[^"]*"//' || fail "check: $(cat "$work/lab.log")"
}
everything() { "$lab" check "$home" "$1" | sed 's/"instance": "[^"]*"//'; }
no_dump_left() {
  equal "$(find "$KESTREL_ROOT/var/cache" -name '*.dump' 2>/dev/null | wc -l)" 0 "dump files left behind"
  equal "$(pgrep -fc "^$home/bin/osr" || true)" 0 "export or import tools left behind"
}
server() { cat "$home/admin/$one.db"; }

note "export at the three levels"
everything "$one" >"$work/before"
rows "$one" sales >"$work/sales"
run 0 "$kestrel" --json export "$one"
database=$(value .backup)
equal "$(value '.objects[0].level')" database
run 0 "$kestrel" --json export "$one/$one/SALES"
schema=$(value .backup)
equal "$(value '.objects[0].object')" "$one/$one/SALES"
run 0 "$kestrel" export "$one/$one/SALES/ORDERS" "$one/$one/DOCS/DOCUMENTS" --compression none
said "^$one/SALES/ORDERS \(1 of 2\)$"
said "^$one/DOCS/DOCUMENTS \(2 of 2\)$"
run 0 "$kestrel" --json backups
equal "$(value '.exports | length')" 3
equal "$(value '[.exports[].number] | tostring')" "[3,2,1]"
tables=$(value '.exports[0].id')
equal "$(value '.exports[0].objects | length')" 2
equal "$(value '.exports[0].compression')" none
equal "$(value '.backups | length')" 0
run 0 "$kestrel" backups
said "$tables .* $one/$one/SALES/ORDERS $one/$one/DOCS/DOCUMENTS"
run 0 "$kestrel" show "$tables"
said "$one/$one/SALES/ORDERS \(table, "
run 0 "$kestrel" verify
said "$database +export"
said "$schema +export +.* +good"
no_dump_left

note "a dropped table comes back alone, the instance stays up"
pid=$(server)
change "drop table sales.orders cascade"
change "update docs.documents set body = 'changed later' where id = (select min(id) from docs.documents)"
rows "$one" docs >"$work/docs-changed"
run 2 "$kestrel" import "$tables" --yes
said "several objects; say which one with --original: $one/$one/SALES/ORDERS, $one/$one/DOCS/DOCUMENTS"
run 0 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --yes
said "the dump file \(.*\) is read from pool main"
said "it takes the place of the table $one/$one/SALES/ORDERS and of its rows; .* $one stays up"
said "The table $one/$one/SALES/ORDERS is imported from export $tables"
rows "$one" sales >"$work/after"
same_data "$work/sales" "$work/after"
rows "$one" docs >"$work/after"
same_data "$work/docs-changed" "$work/after"
equal "$(server)" "$pid" "the server was restarted"
no_dump_left

note "a table under another name, in a schema that is not there yet"
run 0 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --as "$one/$one/ARCHIVE/OLD_ORDERS" --yes
equal "$(sql "$one" 'select count(*) - (select count(*) from sales.orders) from archive.old_orders' | sed -n 3p | tr -d ' ')" 0
change "drop schema archive cascade"

note "a schema under a new name, then in its own place"
run 0 "$kestrel" import "$schema" --as "$one/$one/SALES_COPY" --yes
rows "$one" sales_copy >"$work/after"
same_data "$work/sales" "$work/after"
rows "$one" sales >"$work/after"
same_data "$work/sales" "$work/after"
change "drop schema sales_copy cascade"
change "delete from sales.orders"
run 0 "$kestrel" import "$schema" --yes
rows "$one" sales >"$work/after"
same_data "$work/sales" "$work/after"

note "the whole database in an empty instance"
equal "$(sql "$other" "select count(*) from pg_tablespace where spcname = 'labspace'" | sed -n 3p | tr -d ' ')" 0
run 0 "$kestrel" --json import "$database" --as "$other" --yes
equal "$(value .object)" "$other/$other"
everything "$other" >"$work/after"
same_data "$work/before" "$work/after"
ls "$home/odbs/$other"/LABSPACE_*.dbf >/dev/null || fail "no data file of the tablespace"
ls "$home/odbs/$other"/USERS_*.dbf >/dev/null || fail "no data file of the default tablespace"
no_dump_left

note "in its own place"
change "drop schema docs cascade"
run 0 "$kestrel" import "$database" --yes
everything "$one" >"$work/after"
same_data "$work/before" "$work/after"

note "what cannot be done says so"
run 1 "$kestrel" export "$one/$one/SALES/NOTHING"
said "the export of $one/$one/SALES/NOTHING failed: .*table SALES.NOTHING does not exist; read in the job log which step"
run 1 "$kestrel" export "$one/$one/SALES/ORDERS" "$one/$one/SALES/NOTHING" "$one/$one/SALES/ITEMS"
run 2 "$kestrel" export "$one/OTHER/SALES"
said "there is no database OTHER in $one"
run 2 "$kestrel" export "$one/$one/a b"
said "holds a blank"
run 2 "$kestrel" export "$one/$one/SALES" "$other/$other/SALES"
said "one call takes objects of one instance"
run 1 "$kestrel" export NONE
run 2 "$kestrel" import "$schema" --as "$one/$one/SALES/ORDERS" --yes
said "a schema cannot be imported as a table"
run 2 "$kestrel" import "$schema"
said "nobody is there to confirm the import; give --yes"
run 1 "$kestrel" restore "$schema" --yes
said "is an export; bring it back with: kestrel import $schema"
run 0 "$kestrel" --json backup "$one"
physical=$(value .backup)
run 1 "$kestrel" import "$physical" --yes
said "is a physical backup; bring it back with: kestrel restore $physical"
run 0 "$kestrel" --json backups
equal "$(value '.exports | length')" 3 "a failed export is listed"
no_dump_left

note "a damaged archive"
run 0 "$kestrel" --json show "$tables"
file=$pool/$(value .folder)/$(value .file)
cp "$file" "$work/good"
printf 'X' | dd of="$file" bs=1 seek=$(($(stat -c %s "$file") / 2)) conv=notrunc status=none
run 1 "$kestrel" verify "$tables"
said "$tables +export .*damaged"
run 1 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --yes
said "cannot be used"
cp "$work/good" "$file"
run 0 "$kestrel" verify "$tables"
run 0 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --yes

note "a damaged record"
catalog=$KESTREL_ROOT/var/opt/tarnvik/kestrel3/agent/catalog.db
tablespaces=$(sqlite3 "$catalog" "select tablespaces from backup_set where uuid = '$tables'")
sqlite3 "$catalog" "update backup_set set tablespaces = '[' where uuid = '$tables'"
run 0 "$kestrel" --json backups
equal "$(value "[.exports[] | select(.id == \"$tables\") | .state] | first")" unusable
equal "$(value '.exports | map(select(.state == "available")) | length')" 2 "the others are as they were"
run 1 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --yes
said "cannot be used: its record in the catalog is damaged: the stored field tablespaces is not readable"
run 1 "$kestrel" verify "$tables"
said "its record in the catalog is damaged"
sqlite3 "$catalog" "update backup_set set tablespaces = '$tablespaces' where uuid = '$tables'"
run 0 "$kestrel" verify "$tables"
run 0 "$kestrel" import "$tables" --original "$one/$one/SALES/ORDERS" --yes

note "a job definition document"
run 0 "$kestrel" --json instances
uuid=$(value ".instances[] | select(.name == \"$one\") | .uuid")
run 0 "$kestrel" --json pool list
target=$(value '.pools[0].id')
id=5d0f3f0e-2f64-4f5c-8a2b-6b7c8d9e0f1
jq -n --arg uuid "$uuid" --arg target "$target" --arg name "$one" --arg id "${id}1" '{id: $id, uid: $id, name: "nightly",
  type: "backup", subtype: "export", target: {id: $target}, source: {id: $uuid, name: $name,
  entries: ["oscar/\($name)/\($name)/SALES/ORDERS"]}, options: {compression: "lz4"}}' >"$work/export.json"
run 0 "$kestrel" run "$work/export.json"
run 0 "$kestrel" --json backups
latest=$(value '.exports[0].id')
equal "$(value '.exports[0].compression')" lz4
jq -n --arg uuid "$uuid" --arg target "$target" --arg name "$one" --arg id "${id}2" --arg backup "$latest" '{id: $id,
  uid: $id, name: "back", type: "restore", subtype: "import", target: {id: $target}, source: {id: $uuid, name: $name,
  catalog_id: $backup, original: {database: $name, schema: "SALES", table: "ORDERS"}}, options: {}}' >"$work/import.json"
change "delete from sales.orders"
run 0 "$kestrel" run "$work/import.json"
rows "$one" sales >"$work/after"
same_data "$work/sales" "$work/after"
no_dump_left
job_logs_hide_password
echo "all right"
