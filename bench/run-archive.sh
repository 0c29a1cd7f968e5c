#!/usr/bin/env bash
# Compares the archive writer and reader of logical jobs with tar and zstd on the same files, the same disk and in the
# same run.
#   bench/run-archive.sh [-b bin_dir] [-d work_dir] [-s size_mib] [-l sparse_gib] [-r rounds] [-o results]
# Every contender runs once a round, in turn; the round before the first is not counted. Without -o the medians are
# printed, else rows are added for bench/run.sh.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
bin=$top/build/bench/bin
work=${TMPDIR:-/tmp}
size=512 sparse=20
rounds=5
results=
while getopts b:d:s:l:r:o: option; do
  case $option in
    b) bin=$OPTARG ;;
    d) work=$OPTARG ;;
    s) size=$OPTARG ;;
    l) sparse=$OPTARG ;;
    r) rounds=$OPTARG ;;
    o) results=$OPTARG ;;
    *) exit 2 ;;
  esac
done
bench=$bin/pump_bench
archive=$bin/archive_bench
print=
work=$(mktemp -d "$work/archive-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
[ -n "$results" ] || { results=$work/results print=1; }
. "$top/bench/lib.sh"

# Eight dump files, as an export of eight schemas makes them.
files=8
mkdir "$work/pool" "$work/dump" "$work/target"
for i in $(seq $files); do "$bench" fill "$work/dump/$i.dump" $((size / files)); done
bytes=$(cat "$work"/dump/*.dump | wc -c)
sync "$work"/dump/*

tar_zstd() { timed tar_zstd sh -c 'cd "$1" && tar -cf - dump | zstd -q -1 -c > out.tar.zst && sync out.tar.zst' - "$work"; }
write_zstd() {
  rm -rf "$work/pool/archive-bench"
  timed write_zstd "$archive" write "$work/pool" zstd 1 1 "$work"/dump/*.dump
}
zstd_tar() {
  rm -rf "$work/target"; mkdir "$work/target"
  timed zstd_tar sh -c 'zstd -q -d -c < "$1/out.tar.zst" | tar -C "$1/target" -xf - && sync "$1"/target/dump/*' - "$work"
}
read_zstd() {
  rm -rf "$work/target"; mkdir "$work/target"
  timed read_zstd "$archive" read "$work/pool" 1 "$work/target"
}
for _ in $(seq 0 "$rounds"); do
  tar_zstd
  write_zstd
  zstd_tar
  read_zstd
done
for i in $(seq $files); do cmp "$work/dump/$i.dump" "$work/target/dump/$i.dump"; done

section "Archive of $files dump files, $size MiB"
compare_speed "write, zstd -1, one worker" write_zstd tar_zstd "tar to zstd -1" "$bytes" '>=' 0.8
compare_cpu "write, zstd -1, one worker" write_zstd tar_zstd "tar to zstd -1" "$bytes"
compare_speed "read, zstd" read_zstd zstd_tar "zstd -d to tar -x" "$bytes"
compare_cpu "read, zstd" read_zstd zstd_tar "zstd -d to tar -x" "$bytes"

# One file out of a thousand.
rm -rf "$work/pool/archive-bench" "$work/target" "$work/dump" "$work/out.tar.zst"
mkdir "$work/dump" "$work/target"
head -c 100000 /dev/urandom >"$work/dump/1"
for i in $(seq 2 1000); do cp "$work/dump/1" "$work/dump/$i"; done
"$archive" write "$work/pool" none 0 1 "$work"/dump/* >/dev/null
read -r _ whole read <<<"$("$archive" read "$work/pool" 1 "$work/target" "$work/dump/517")"
cmp "$work/dump/517" "$work/target/dump/517"
share=$(calculate "100 * $read / $whole")
row "one of 1,000 files, uncompressed: read" "$(printf '%.2f' "$share") %" "-" "-" "-" "< 5 %" "$(judge "$share" '<' 5)"

# A file of holes: only memory is looked at.
rm -rf "$work/pool/archive-bench" "$work/dump"/*
truncate -s "${sparse}G" "$work/dump/large"
: >"$work/dump/empty"
timed small "$archive" write "$work/pool" zstd 1 1 "$work/dump/empty"
timed large "$archive" write "$work/pool" zstd 1 1 "$work/dump/large"
peak() { awk 'END {print $4}' "$work/times.$1"; }
memory=$(calculate "($(peak large) - $(peak small)) / 1024")
row "memory over an empty file's, $sparse GiB file" "$(printf '%.1f' "$memory") MiB" "-" "-" "-" "< 64 MiB" "$(judge "$memory" '<' 64)"
[ -z "$print" ] || print_table
