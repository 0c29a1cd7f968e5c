#!/usr/bin/env bash
# Backs up a whole stand-in instance with kestrel and with pgbackrest, in turn, on the same cluster and disk; then changes
# 1 % of it before each of a row of incremental backups and compares those with the full ones; then looks at the memory of kestrel's process while streams of different lengths go through it.
#   bench/run-instance.sh [-b bench_bin_dir] [-p release_bin_dir] [-d work_dir] [-s size_mb] [-m longest_stream_mib]
#                         [-r rounds] [-o results]
# As root (the server then runs as postgres) with Debian's pgbackrest. The round before the first is not counted.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bin=$top/build/bench/bin
programs=$top/build/release/bin
work=${TMPDIR:-/tmp}
size=2000
longest=8192
rounds=5
results=
while getopts b:p:d:s:m:r:o: option; do
  case $option in
    b) bin=$OPTARG ;;
    p) programs=$OPTARG ;;
    d) work=$OPTARG ;;
    s) size=$OPTARG ;;
    m) longest=$OPTARG ;;
    r) rounds=$OPTARG ;;
    o) results=$OPTARG ;;
    *) exit 2 ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "run-instance: run it as root: the stand-in's server and pgbackrest work as postgres" >&2; exit 2; }
bench=$bin/pump_bench
kestrel=$programs/kestrel
lab=$programs/kestrel-lab
print=
work=$(mktemp -d "$work/instance-bench.XXXXXX")
chmod 755 "$work"
export KESTREL_ROOT=$work/kestrel
unset SZ_OSCAR_HOME
home=$work/oscar
instance=BENCH$$
finish() {
  local status=$?
  trap - EXIT
  "$lab" destroy "$home" "$instance" >/dev/null 2>&1 || true
  rm -rf --one-file-system "$work"
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM
[ -n "$results" ] || { results=$work/results print=1; }
. "$top/bench/lib.sh"

quietly() { "$@" >"$work/out" 2>&1 || { echo "bench: $* failed:" >&2; cat "$work/out" >&2; return 1; }; }

make_instance() {
  local port
  echo bench.secret >"$work/password"
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 12000))
    quietly "$lab" create "$home" "$instance" --port "$port" --user sysdba --password-file "$work/password"
    "$lab" start "$home" "$instance" >"$work/out" 2>&1 && break
    quietly "$lab" destroy "$home" "$instance"
  done
  quietly "$lab" load "$home" "$instance" --megabytes "$size" --seed 1
  # Nothing that the load left for later may fall into a measured round.
  quietly "$lab" sql "$home" "$instance" "vacuum analyze"
  quietly "$lab" sql "$home" "$instance" "checkpoint"
  server_port=$port
}

prepare_kestrel() {
  mkdir -p "$KESTREL_ROOT" "$work/pool"
  quietly "$kestrel" pool add bench --path "$work/pool" --default
  quietly "$kestrel" instances
  quietly "$kestrel" login "$instance" --user sysdba --password-file "$work/password"
}

# Directories of its own, two processes, the same compression. Its backup ends without waiting for archived log, as
# brcmd's does; it leaves the log out of the backup, which brcmd includes.
prepare_pgbackrest() {
  mkdir "$work/repo" "$work/pgb-log" "$work/pgb-lock" "$work/pgb-spool"
  chown postgres "$work/repo" "$work"/pgb-*
  cat >"$work/pgbackrest.conf" <<END
[global]
repo1-path=$work/repo
repo1-retention-full=1
expire-auto=n
lock-path=$work/pgb-lock
log-path=$work/pgb-log
spool-path=$work/pgb-spool
log-level-file=off
log-level-console=warn
process-max=2
compress-type=zst
compress-level=1
start-fast=y
archive-check=n

[bench]
pg1-path=$home/odbs/$instance/pgdata
pg1-socket-path=$home/odbs/$instance/run
pg1-port=$server_port
pg1-user=osys
END
  quietly pgbackrest_do stanza-create
}
pgbackrest_command=(runuser -u postgres -- pgbackrest "--config=$work/pgbackrest.conf" --stanza=bench)
pgbackrest_do() { (cd / && "${pgbackrest_command[@]}" "$@"); }

backup_rounds() {
  local round
  cd /
  for round in $(seq 0 "$rounds"); do
    sync -f "$work"
    timed kestrel "$kestrel" --json backup "$instance" --compression zstd --compression-level 1
    cp "$work/stdout" "$work/kestrel.json"
    sync -f "$work"
    timed pgbackrest "${pgbackrest_command[@]}" --type=full backup
    quietly pgbackrest_do expire
  done
  quietly "$kestrel" verify latest
}

report_backups() {
  local bytes
  bytes=$(jq .size "$work/kestrel.json")
  awk -v p="$pause_seconds" '{$1 -= p; print}' "$work/times.kestrel" >"$work/times.kestrel_working"
  section "Whole full backup of an instance of $(calculate "$bytes / 1e9" | cut -c1-4) GB, zstd level 1"
  compare_speed "with the fixed pause of $pause_seconds s" kestrel pgbackrest "pgbackrest, 2 processes" "$bytes" '>=' 2
  compare_speed "fixed pause of $pause_seconds s subtracted" kestrel_working pgbackrest "pgbackrest, 2 processes" "$bytes" '>=' 2
  compare_cpu "CPU time" kestrel pgbackrest "pgbackrest, 2 processes" "$bytes"
  remark "whole backup: kestrel $(middle kestrel wall) s, pgbackrest $(middle pgbackrest wall) s; stored" \
    "$(jq .stored_size "$work/kestrel.json") and" \
    "$(pgbackrest_do --output=json info | jq '.[0].backup[-1].info.repository.delta') bytes"
}

# The checkpoint before each change is the worst case: every page touched for the first time after it goes whole into the
# log, and the log is what an incremental backup holds.
incremental_rounds() {
  local round
  cd /
  for round in $(seq 0 "$rounds"); do
    quietly "$lab" sql "$home" "$instance" "checkpoint"
    quietly "$lab" change "$home" "$instance" --percent 1 --seed "$((round + 2))"
    sync -f "$work"
    timed incremental "$kestrel" --json backup "$instance" --level incr --compression zstd --compression-level 1
    [ "$(jq -r .level "$work/stdout")" = incr ] || { echo "bench: no incremental backup was made" >&2; return 1; }
    jq .size "$work/stdout" >>"$work/incremental.sizes"
  done
  quietly "$kestrel" verify latest
}

report_incremental() {
  local full part ratio
  full=$(jq .size "$work/kestrel.json") part=$(sort -n "$work/incremental.sizes" | tail -1)
  awk -v p="$pause_seconds" '{$1 -= p; print}' "$work/times.incremental" >"$work/times.incremental_working"
  section "Incremental backup after 1 % was changed"
  ratio=$(calculate "$part / $full")
  row "bytes, largest of $((rounds + 1))" "$part" "full: $full" "$ratio" "-" "< 0.05" "$(judge "$ratio" '<' 0.05)"
  ratio=$(calculate "$(middle incremental_working wall) / $(middle kestrel_working wall)")
  row "time, fixed pause of $pause_seconds s subtracted" "$(middle incremental_working wall) s" \
    "full: $(middle kestrel_working wall) s" "$ratio" "$(spread incremental_working wall kestrel_working)" "< 0.15" \
    "$(judge "$ratio" '<' 0.15)"
  row "time, with the pause" "$(middle incremental wall) s" "full: $(middle kestrel wall) s" \
    "$(calculate "$(middle incremental wall) / $(middle kestrel wall)")" "$(spread incremental wall kestrel)" "-" "-"
}

# peak KiB of kestrel (and its largest tool) in its only run under this name.
peak() { awk 'END {print $4}' "$work/times.$1"; }

# A backup of a stream of so many MiB from a tool that makes it up.
stream() {
  BENCH_STREAM_MIB=$2 timed "stream_$1_$2" "$kestrel" --json backup "$instance" --compression "$1"
  [ "$(jq .size "$work/stdout")" -ge $(($2 * 1048576)) ] || { echo "bench: the stream was cut" >&2; return 1; }
  rm -f "$work"/pool/*/*
}

memory_runs() {
  local method idle most
  mv "$home/bin/brcmd" "$home/bin/brcmd.kept"
  cp "$bin/stream_tool" "$home/bin/brcmd"
  timed idle "$kestrel" --json instances
  idle=$(peak idle)
  section "Memory of a backup, peak"
  for method in none zstd; do
    stream "$method" 64
    stream "$method" "$longest"
    most=$(calculate "($(peak "stream_${method}_$longest") - $idle) / 1024")
    row "$method, $longest MiB" "$(calculate "$(peak "stream_${method}_$longest") / 1024" | cut -d. -f1) MiB" \
      "idle: $((idle / 1024)) MiB" "+$(printf '%.1f' "$most") MiB" "-" "< 64 MiB more" "$(judge "$most" '<' 64)"
    most=$(calculate "($(peak "stream_${method}_$longest") - $(peak "stream_${method}_64")) / 1024")
    row "$method, $longest MiB against 64 MiB" "$(calculate "$(peak "stream_${method}_$longest") / 1024" | cut -d. -f1) MiB" \
      "$(($(peak "stream_${method}_64") / 1024)) MiB" "+$(printf '%.1f' "$most") MiB" "-" "no growth" "$(judge "$most" '<' 4)"
  done
  mv "$home/bin/brcmd.kept" "$home/bin/brcmd"
}

# Given by the module to a tool that cannot work at all, to end before the pipe is opened.
pause_seconds=3
make_instance
prepare_kestrel
prepare_pgbackrest
backup_rounds
report_backups
incremental_rounds
report_incremental
memory_runs
[ -z "$print" ] || print_table
