#!/usr/bin/env bash
# The main road: every compression method there and back, proven by checksums that SQL computed.
. "$(dirname "$0")/kestrel_support.sh"
name=$(instance_name)
make_instance "$name" 40
make_site

note "discovery and login"
run 0 "$kestrel" --json instances
equal "$(value ".instances[] | select(.name == \"$name\") | .state")" online
equal "$(value ".instances[] | select(.name == \"$name\") | .home")" "$home"
equal "$(value ".instances[] | select(.name == \"$name\") | .users[0]")" sysdba
equal "$(value ".instances[] | select(.name == \"$name\") | .port")" "$(sed -n 's/^port *= *//p' "$home/admin/$name.conf")"
check_data "$name" "$work/before"

for method in none zlib lz4 zstd; do
  note "backup with $method"
  run 0 "$kestrel" --json backup "$name" --compression "$method"
  id=$(value .backup)
  stored=$pool/$(ls "$pool")/$(value .file)
  [ -s "$stored" ] || fail "no stored file $stored"
  case $method in
    none) cat "$stored" ;;
    zlib) gzip -dc "$stored" ;;
    lz4) lz4 -dc "$stored" 2>/dev/null ;;
    zstd) zstd -dqc "$stored" ;;
  esac | wc -c >"$work/size"
  equal "$(cat "$work/size")" "$(value .size)" "size after the ordinary $method tool"
  run 0 "$kestrel" --json show "$id"
  equal "$(value .level)" full
  equal "$(value .compression)" "$method"
  equal "$(value .state)" available
  equal "$(value .chain[0])" "$id"
  equal "$(value .pump_checksum)" "$(value .original_checksum)"
  run 0 "$kestrel" verify "$id"
  said "good"
  nothing_left

  note "restore of $method"
  damage "$name"
  run 0 "$kestrel" --json restore "$id" --yes
  check_data "$name" "$work/after"
  same_data "$work/before" "$work/after"
  nothing_left
done

note "ways to name a backup"
run 0 "$kestrel" --json show latest
equal "$(value .id)" "$id"
run 0 "$kestrel" --json show latest --instance "$name"
equal "$(value .id)" "$id"
run 0 "$kestrel" --json show "${id:0:$((${#id} - 1))}"
run 1 "$kestrel" show "${id:0:4}"
said "4 backups begin with ${id:0:4}; give more of the id"
run 1 "$kestrel" show nonsense
said "there is no backup nonsense"
equal "$(backup_count)" 4
run 0 "$kestrel" --json backups --limit 3
equal "$(value '.backups | length')" 3
equal "$(value .more)" true
run 0 "$kestrel" verify
equal "$(grep -c good "$work/out")" 4

note "pools"
run 1 "$kestrel" pool remove main
said "4 backups live in it"
mkdir "$work/second"
run 0 "$kestrel" pool add second --path "$work/second"
cp -r "$pool/." "$work/second/"
mv "$pool" "$pool.away"
run 1 "$kestrel" restore "$id" --yes
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
damage "$name"
run 0 "$kestrel" restore "$id" --yes --pool second
check_data "$name" "$work/after"
same_data "$work/before" "$work/after"
run 0 "$kestrel" pool remove second
mv "$pool.away" "$pool"

note "a restore asks, and without anyone to answer does nothing"
run 2 "$kestrel" restore latest
said "give --yes"
said "the instance $name is stopped"

note "a definition document"
uuid=$(jq -r .host_id "$KESTREL_ROOT/var/opt/tarnvik/kestrel3/agent/host.json")
run 0 "$kestrel" --json pool list
cat >"$work/job.json" <<JSON
{"id": "$uuid", "uid": "$uuid", "name": "by document", "type": "backup", "subtype": "full",
 "target": {"id": "$(value '.pools[0].id')"},
 "source": {"id": "$uuid", "name": "x", "entries": ["oscar/$name"]}, "options": {"compression": "lz4"}}
JSON
run 0 "$kestrel" run "$work/job.json"
equal "$(backup_count)" 5
sed 's/"lz4"/"lzma"/' "$work/job.json" >"$work/compression.json"
run 1 "$kestrel" run "$work/compression.json"
said '"compression" in "options" is "lzma"; it may be one of none, zlib, lz4, zstd'
sed 's/"backup"/"standby"/' "$work/job.json" >"$work/standby.json"
run 1 "$kestrel" run "$work/standby.json"
sed "s/\"oscar.$name\"//" "$work/job.json" >"$work/empty.json"
run 4 "$kestrel" run "$work/empty.json"
said "Source entry is empty"
sed 's/"subtype"/"rsrc_form": "x", "subtype"/' "$work/job.json" >"$work/cluster.json"
# This instance is no member of a cluster, so no node can be chosen.
run 4 "$kestrel" run "$work/cluster.json"
said "Failed to get instance $name vip"
equal "$(backup_count)" 5
sed 's/"full"/9/' "$work/job.json" >"$work/other.json"
run 1 "$kestrel" run "$work/other.json"
said "no backup level for subtype 9"

job_logs_hide_password
nothing_left
echo "all right"
