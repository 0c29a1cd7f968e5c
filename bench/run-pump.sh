#!/usr/bin/env bash
# Compares the pumps of backup and restore with dd and zstd on the same data, the same disk and in the same run.
#   bench/run-pump.sh [-b bin_dir] [-d work_dir] [-s size_mib] [-r rounds] [-o results]
# Every contender runs once a round, in turn, so that a slow minute of the machine hits all of them; the round before
# the first is not counted. Without -o the medians are printed, else rows are added for bench/run.sh.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bin=$top/build/bench/bin
work=${TMPDIR:-/tmp}
size=1024
rounds=5
results=
while getopts b:d:s:r:o: option; do
  case $option in
    b) bin=$OPTARG ;;
    d) work=$OPTARG ;;
    s) size=$OPTARG ;;
    r) rounds=$OPTARG ;;
    o) results=$OPTARG ;;
    *) exit 2 ;;
  esac
done
bench=$bin/pump_bench
print=
work=$(mktemp -d "$work/pump-bench.XXXXXX")
feeder=
trap '[ -z "$feeder" ] || kill "$feeder" 2>/dev/null || true; rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
[ -n "$results" ] || { results=$work/results print=1; }
. "$top/bench/lib.sh"

mkdir "$work/pool"
mkfifo "$work/fifo"
"$bench" fill "$work/data" "$size"
bytes=$(stat -c %s "$work/data")
stored=$work/pool/pump-bench
sync "$work/data"

# measure NAME in|out COMMAND...: the FIFO's other end is cat, from the data file or to nowhere.
measure() {
  local name=$1 direction=$2
  shift 2
  if [ "$direction" = in ]; then cat "$work/data" >"$work/fifo" & else cat "$work/fifo" >/dev/null & fi
  feeder=$!
  timed "$name" "$@"
  wait "$feeder"
  feeder=
}

backup_round() {
  rm -f "$work"/out.* "$stored"/*
  measure dd in dd if="$work/fifo" of="$work/out.dd" bs=8k conv=fsync
  rm -f "$work/out.dd"
  measure plain in "$bench" write "$work/fifo" "$work/pool" plain none 1 1
  measure zstd in sh -c 'zstd -q -1 -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out.1"
  measure packed in "$bench" write "$work/fifo" "$work/pool" packed zstd 1 1
  measure zstd_single in sh -c 'zstd -q -1 --single-thread -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out.single"
  measure packed_2 in "$bench" write "$work/fifo" "$work/pool" packed_2 zstd 1 2
  measure zstd_2 in sh -c 'zstd -q -1 -T2 -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out.2"
}

# A stored file is seldom in the page cache when it is restored, so every one is dropped from it first, or with warm
# read into it. All contenders read the files that the pump stored in this round.
cold() { sync "$1"; dd if="$1" iflag=nocache count=0 status=none; }
warm() { cat "$1" >/dev/null; }

restore_round() {
  cold "$stored/plain"
  measure dd_cold out dd if="$stored/plain" of="$work/fifo" bs=8k
  cold "$stored/plain"
  measure plain_cold out "$bench" read "$work/pool" plain "$work/fifo" "$bytes"
  warm "$stored/plain"
  measure dd_out out dd if="$stored/plain" of="$work/fifo" bs=8k
  measure plain_out out "$bench" read "$work/pool" plain "$work/fifo" "$bytes"
  warm "$stored/packed"
  measure zstd_out out sh -c 'zstd -q -d -c < "$1" > "$2"' - "$stored/packed" "$work/fifo"
  measure packed_out out "$bench" read "$work/pool" packed "$work/fifo" "$bytes"
}

same_bytes() {
  cmp "$stored/plain" "$work/data"
  zstd -q -d -c "$stored/packed_2" | cmp - "$work/data"
}

for round in $(seq 0 "$rounds"); do
  backup_round
  [ "$round" -gt 0 ] || same_bytes
  restore_round
done

section "Backup pump, $size MiB, from a FIFO to a synced file"
compare_speed "no compression, speed" plain dd "dd bs=8k conv=fsync" "$bytes" '>=' 0.85
compare_cpu "no compression, CPU time" plain dd "dd bs=8k conv=fsync" "$bytes" '<=' 1.3
compare_speed "zstd level 1, one worker" packed zstd "zstd -1" "$bytes" '>=' 0.95
compare_speed "zstd level 1, one worker" packed zstd_single "zstd -1 --single-thread" "$bytes" '>=' 0.95
compare_speed "zstd level 1, two workers" packed_2 zstd "zstd -1" "$bytes" '>=' 1.6
compare_speed "zstd level 1, two workers" packed_2 zstd_single "zstd -1 --single-thread" "$bytes" '>=' 1.6
compare_speed "zstd itself, for comparison" zstd_2 zstd "-T2 against zstd -1" "$bytes"
compare_speed "zstd level 1, two workers" packed_2 zstd_2 "zstd -1 -T2" "$bytes"
compare_cpu "zstd level 1, CPU time" packed zstd "zstd -1" "$bytes"
section "Restore pump, $size MiB, from a stored file to a FIFO"
compare_speed "no compression, from the disk" plain_cold dd_cold "dd bs=8k" "$bytes" '>=' 0.85
compare_cpu "no compression, from the disk, CPU time" plain_cold dd_cold "dd bs=8k" "$bytes" '<=' 1.3
compare_speed "no compression, from the page cache" plain_out dd_out "dd bs=8k" "$bytes" '>=' 0.85
compare_cpu "no compression, from the page cache, CPU time" plain_out dd_out "dd bs=8k" "$bytes" '<=' 1.3
compare_speed "zstd, speed" packed_out zstd_out "zstd -d" "$bytes" '>=' 0.95
compare_cpu "zstd, CPU time" packed_out zstd_out "zstd -d" "$bytes"
remark "pump data: zstd level 1 makes $(calculate "$bytes / $(stat -c %s "$stored/packed")" | cut -c1-4) bytes into one"
[ -z "$print" ] || print_table
