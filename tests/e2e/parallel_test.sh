#!/usr/bin/env bash
# Several jobs at once: on one instance, from two processes of one installation, and on two instances of one home.
. "$(dirname "$0")/kestrel_support.sh"
one=$(instance_name A)
two=$(instance_name B)
make_instance "$one" 20
make_instance "$two" 20
make_site

# together NAME...: commands given as functions run at once; each must end with 0. Output in $work/NAME.out.
together() {
  local job status pids=()
  for job in "$@"; do
    "$job" >"$work/$job.out" 2>"$work/$job.err" </dev/null &
    pids+=($!)
  done
  for job in "$@"; do
    status=0
    wait "${pids[0]}" || status=$?
    pids=("${pids[@]:1}")
    [ "$status" -eq 0 ] || fail "$job ended with $status: $(cat "$work/$job.out" "$work/$job.err")"
  done
  nothing_left
}
of() { jq -r "$2" "$work/$1.out"; }
full_of_one() { timeout 300 "$kestrel" --json backup "$one"; }
full_of_two() { timeout 300 "$kestrel" --json backup "$two"; }
incr_of_one() { timeout 300 "$kestrel" --json backup "$one" --level incr; }
incr_of_one_too() { timeout 300 "$kestrel" --json backup "$one" --level incr; }
diff_of_two() { timeout 300 "$kestrel" --json backup "$two" --level diff; }

note "two instances of one home"
together full_of_one full_of_two
equal "$(of full_of_one .instance), $(of full_of_two .instance)" "$one, $two"
for name in "$one" "$two"; do
  grep -q "^${name}_lastfullbackupid=" "$home/agent/lastlsn.dat" || fail "no state of $name: $(cat "$home/agent/lastlsn.dat")"
done
change "$one"
change "$two"
together incr_of_one diff_of_two
equal "$(of incr_of_one .level), $(of diff_of_two .level)" "incr, diff"
equal "$(of incr_of_one .parent)" "$(of full_of_one .backup)" "parent"
equal "$(of diff_of_two .parent)" "$(of full_of_two .backup)" "parent"
check_data "$one" "$work/data.$(of incr_of_one .backup)"
check_data "$two" "$work/data.$(of diff_of_two .backup)"
kept_one=$(of incr_of_one .backup)
kept_two=$(of diff_of_two .backup)

note "two jobs of one instance, from two processes"
together incr_of_one incr_of_one_too
first=$(of incr_of_one .backup)
second=$(of incr_of_one_too .backup)
[ "$first" != "$second" ] || fail "both jobs report backup $first"
run 0 "$kestrel" --json backups "$one"
equal "$(value '.backups | length')" 4
# Whichever came first builds on what was there, the other on the first.
parents=$(for id in "$first" "$second"; do value ".backups[] | select(.id == \"$id\") | .parent"; done | sort)
equal "$parents" "$(printf '%s\n' "$kept_one" "$(value '.backups[1].id')" | sort)" "parents of the two"
equal "$(value '[.backups[].state] | unique | join(" ")')" available
check_data "$one" "$work/data.$(value '.backups[0].id')"
newest=$(value '.backups[0].id')

note "a restore and a backup of one instance, and a listing all the while"
restore_of_one() { timeout 300 "$kestrel" --json restore "$kept_one" --yes; }
listing() {
  for _ in $(seq 1 20); do
    "$kestrel" --json backups | jq -e '.backups | length >= 6' >/dev/null || return 1
    sleep 0.2
  done
}
together restore_of_one incr_of_one listing
# The backup took the data of before or of after the restore, nothing between; after it the chain is a new one.
last=$(of incr_of_one .backup)
case $(of incr_of_one .level) in
  incr) cp "$work/data.$newest" "$work/data.$last" ;;
  full) cp "$work/data.$kept_one" "$work/data.$last" ;;
esac
run 0 "$kestrel" verify --all
restored_to "$one" "$last"
restored_to "$one" "$newest"
restored_to "$one" "$kept_one"
restored_to "$two" "$kept_two"

job_logs_hide_password
nothing_left
echo "all right"
