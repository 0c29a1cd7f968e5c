#!/bin/bash
# Compares the storage client with dd and zstd on the same data, the same disk and in the same run.
#   bench/run-pump.sh [-b bin_dir] [-d work_dir] [-s size_mib] [-r rounds]
# Every contender runs once a round, in turn, so that a slow minute of the machine hits all of them. Printed are the
# medians: wall and CPU seconds, MB/s of the uncompressed stream, peak memory, and for the storage client the ratios
# to the tool it is measured against (speed: higher is better, CPU: lower is better).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bin=$top/build/bench/bin
work=${TMPDIR:-/tmp}
size=1024
rounds=5
while getopts b:d:s:r: option; do
  case $option in
    b) bin=$OPTARG ;;
    d) work=$OPTARG ;;
    s) size=$OPTARG ;;
    r) rounds=$OPTARG ;;
    *) exit 2 ;;
  esac
done
bench=$bin/pump_bench
work=$(mktemp -d "$work/pump-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/pool"
mkfifo "$work/fifo"
"$bench" fill "$work/data" "$size"
sync

# measure NAME in|out COMMAND...: the FIFO's other end is cat, from the data file or to nowhere.
measure() {
  local name=$1 direction=$2 other
  shift 2
  sync
  if [ "$direction" = in ]; then cat "$work/data" > "$work/fifo" & other=$!; else cat "$work/fifo" > /dev/null & other=$!; fi
  "$bench" time "$@" 2>"$work/stderr" >> "$work/result.$name" || { cat "$work/stderr"; kill $other 2>/dev/null || true; exit 1; }
  wait $other
}

backup_round() {
  rm -f "$work"/out* "$work"/pool/*/*
  measure dd in dd if="$work/fifo" of="$work/out" bs=8k conv=fsync
  rm -f "$work/out"
  measure kestrel in "$bench" write "$work/fifo" "$work/pool" none none 1 1
  measure zstd in sh -c 'zstd -q -1 -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out1"
  measure kestrel_zstd in "$bench" write "$work/fifo" "$work/pool" one zstd 1 1
  measure zstd_single in sh -c 'zstd -q -1 --single-thread -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out1"
  measure zstd_2 in sh -c 'zstd -q -1 -T2 -c < "$1" > "$2" && sync "$2"' - "$work/fifo" "$work/out2"
  measure kestrel_zstd_2 in "$bench" write "$work/fifo" "$work/pool" two zstd 1 2
}

# A stored file is seldom in the page cache when it is restored, so every file is dropped from it first, or with hot
# read into it.
cold() { sync "$1"; dd if="$1" iflag=nocache count=0 status=none; }
hot() { cat "$1" > /dev/null; }

restore_round() {
  local stored=$work/pool/pump-bench
  cold "$stored/none"
  measure dd_out out dd if="$stored/none" of="$work/fifo" bs=8k
  cold "$stored/none"
  measure kestrel_out out "$bench" read "$work/pool" none "$work/fifo"
  hot "$stored/none"
  measure dd_hot out dd if="$stored/none" of="$work/fifo" bs=8k
  measure kestrel_hot out "$bench" read "$work/pool" none "$work/fifo"
  cold "$stored/one"
  measure zstd_d out sh -c 'zstd -q -d -c < "$1" > "$2"' - "$stored/one" "$work/fifo"
  cold "$stored/one"
  measure kestrel_zstd_out out "$bench" read "$work/pool" one "$work/fifo"
}

for round in $(seq "$rounds"); do
  backup_round
  restore_round
done

# column NAME NUMBER: the median of one column; 5 = CPU, user and system together.
column() {
  awk -v c="$2" '{print c == 5 ? $2 + $3 : $c}' "$work/result.$1" | sort -n | awk '{v[NR] = $1} END {print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2}'
}
row() {
  local against=${2:-} wall cpu
  wall=$(column "$1" 1) cpu=$(column "$1" 5)
  printf '%-18s %8.3f s %8.3f s CPU %8.0f MB/s %8d KiB' "$1" "$wall" "$cpu" \
    "$(awk -v s="$size" -v w="$wall" 'BEGIN {print s * 1.048576 / w}')" "$(column "$1" 4)"
  [ -z "$against" ] || printf '   speed %.2f, CPU %.2f of %s' \
    "$(awk -v a="$(column "$against" 1)" -v b="$wall" 'BEGIN {print a / b}')" \
    "$(awk -v a="$(column "$against" 5)" -v b="$cpu" 'BEGIN {print b / a}')" "$against"
  echo
}
echo "$size MiB, medians of $rounds rounds, load $(cut -d' ' -f1-3 /proc/loadavg)"
row dd
row kestrel dd
row zstd
row zstd_single
row kestrel_zstd zstd
row kestrel_zstd zstd_single
row zstd_2
row kestrel_zstd_2 zstd_2
row kestrel_zstd_2 zstd
row dd_out
row kestrel_out dd_out
row dd_hot
row kestrel_hot dd_hot
row zstd_d
row kestrel_zstd_out zstd_d
