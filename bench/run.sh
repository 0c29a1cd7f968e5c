#!/usr/bin/env bash
# Every benchmark in one run: builds, measures, prints a table of figures with what is demanded of them, and writes the
# same as Markdown. Takes about ten minutes and wants a machine with nothing else to do.
#   bench/run.sh [--quick] [--no-build] [--rounds N] [--dir DIR] [--output FILE] [pump] [instance] [archive] [isql] [catalog] [rpc]
#                [selection] [remote] [instances]
#     --quick     small sizes and two rounds: shows that all works; its figures mean nothing
#     --dir       where the private work directory is made; its disk is the one measured (TMPDIR, else /tmp)
#     --output    the Markdown file (build/bench/benchmarks.md)
# As root: the stand-in's server and pgbackrest then run as postgres.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
rounds=5 pump_mib=1024 instance_mb=2000 archive_mib=512 sparse_gib=20 stream_mib=8192 build=1 quick=
dir=${TMPDIR:-/tmp}
output=$top/build/bench/benchmarks.md
parts=()
while [ $# -gt 0 ]; do
  case $1 in
    --quick) rounds=2 pump_mib=64 instance_mb=100 archive_mib=64 sparse_gib=1 stream_mib=256 quick=1 ;;
    --no-build) build= ;;
    --rounds) rounds=$2; shift ;;
    --dir) dir=$2; shift ;;
    --output) output=$2; shift ;;
    pump | instance | archive | isql | catalog | rpc | selection | remote | instances) parts+=("$1") ;;
    *) sed -n '2,10s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
  shift
done
[ ${#parts[@]} -gt 0 ] || parts=(pump instance archive isql catalog rpc selection remote instances)
wants() { [[ " ${parts[*]} " == *" $1 "* ]]; }

bin=$top/build/bench/bin
programs=$top/build/release/bin
bench=$bin/pump_bench
if [ -n "$build" ]; then
  "$top/tools/install-deps.sh" --bench
  "$top/tools/build.sh" bench pump_bench archive_bench stream_tool catalog_bench isql_bench rpc_bench \
    selection_bench remote_bench instance_bench >/dev/null
  "$top/tools/build.sh" release kestrel_cli oscar kestrel-lab >/dev/null
fi
work=$(mktemp -d "$dir/kestrel-bench.XXXXXX")
chmod 755 "$work"
results=$work/results
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
. "$top/bench/lib.sh"

# repetitions PROGRAM: "name cpu wall items_per_second bytes_per_second longest_ms" of every repetition but the first of
# each benchmark; times in ms. A program that says nothing of repetitions is repeated as often as the rounds.
repetitions() {
  TMPDIR=$work KESTREL_BENCH_DIR=$work "$bin/$1" --benchmark_format=json --benchmark_repetitions=$((rounds + 1)) \
    ${quick:+--benchmark_min_time=0.05} 2>/dev/null |
    jq -r '.benchmarks[] | select(.run_type == "iteration" and .repetition_index > 0) | if .error_occurred then error(.error_message) else . end |
           [.run_name, .cpu_time, .real_time, (.items_per_second // 0), (.bytes_per_second // 0), (.longest_ms // 0)] | @tsv' |
    sed 's|/iterations:[0-9]*||; s|/repeats:[0-9]*||; s|/manual_time||; s|/real_time||' >"$work/$1.tsv"
  [ -s "$work/$1.tsv" ]
}
# of PROGRAM NAME COLUMN: the median
of() {
  awk -F'\t' -v n="$2" -v c="$3" '$1 == n {print $c}' "$work/$1.tsv" | median || { echo "bench: $1 measured no $2" >&2; return 1; }
}

measure_isql() {
  local name value
  repetitions isql_bench
  section "Rows of isql, parsed, 100,000 at once"
  for name in isql_three_columns isql_one_column; do
    value=$(of isql_bench "$name/100000" 4)
    row "$name" "$(printf '%.0f' "$value") rows/s" "-" "-" "-" ">= 500000 rows/s" "$(judge "$value" '>=' 500000)"
  done
}

# listing NAME TITLE [LIMIT_MSEC]
listing() {
  local value verdict='-' demand='-'
  value=$(of catalog_bench "$1" 3)
  [ $# -lt 3 ] || { demand="< $3 ms" verdict=$(judge "$value" '<' "$3"); }
  row "$2" "$(printf '%.2f' "$value") ms" "-" "-" "-" "$demand" "$verdict"
}
measure_catalog() {
  repetitions catalog_bench
  section "A catalog of 100,000 backups"
  listing newest_page_of_all "newest 100 of all" 50
  listing page_in_the_middle_of_all "100 in the middle of all" 50
  listing newest_page_of_one_resource "newest 100 of one instance" 50
  listing all_of_one_resource "all 1,000 of one instance" 50
  listing all_100000_rows "all 100,000 at once"
  listing chain_of_100 "chain of 100 for a restore" 20
  listing a_whole_chain_as_a_tree "chain of 100 as a tree"
  listing newest_page_with_its_chains "newest 100 of all with their chains" 50
  listing commit_one "commit of one backup"
}

# requests NAME TITLE
requests() {
  local value
  value=$(of rpc_bench "$1" 4)
  row "$2" "$(printf '%.0f' "$value") requests/s" "-" "-" "-" ">= 2000 requests/s" "$(judge "$value" '>=' 2000)"
}
measure_rpc() {
  repetitions rpc_bench
  section "Small JSON-RPC requests over one WebSocket with TLS"
  requests rpc_one_at_a_time "one at a time"
  requests rpc_pipelined/64 "up to 64 under way"
  requests rpc_pipelined_both_ways/64 "up to 64 under way, both sides ask"
}

measure_selection() {
  local middle longest
  repetitions selection_bench
  section "The choice among three nodes"
  middle=$(of selection_bench select_among_three_nodes 3)
  longest=$(awk -F'\t' '{print $6}' "$work/selection_bench.tsv" | sort -g | tail -1)
  row "last request to last announcement" "$(printf '%.2f' "$middle") ms" "-" "-" "-" "-" "-"
  row "the longest of all" "$(printf '%.2f' "$longest") ms" "-" "-" "-" "< 1000 ms" "$(judge "$longest" '<' 1000)"
}

# served_speed FIGURE NAME: MB/s of a pool of the server beside those of one of this host.
served_speed() {
  local served near
  served=$(of remote_bench "$2/served:1" 5) near=$(of remote_bench "$2/served:0" 5)
  row "$1" "$(printf '%.0f' "$(calculate "$served / 1e6")") MB/s" \
    "a pool of this host: $(printf '%.0f' "$(calculate "$near / 1e6")") MB/s" "$(printf '%.2f' "$(calculate "$served / $near")")" "-" "-" "-"
}
measure_remote() {
  local threads value
  repetitions remote_bench
  section "A backup server over HTTPS on the loopback device"
  for threads in 1 4; do
    value=$(of remote_bench "commits/threads:$threads" 4)
    row "durable catalog commits, clients at once: $threads" "$(printf '%.0f' "$value") commits/s" "-" "-" "-" ">= 200 commits/s" \
      "$(judge "$value" '>=' 200)"
  done
  row "queries for one row" "$(printf '%.0f' "$(of remote_bench queries/threads:1 4)") queries/s" "-" "-" "-" "-" "-"
  served_speed "a file of 256 MiB, stored" store
  served_speed "the same, fetched" fetch
}

measure_instances() {
  local name value
  repetitions instance_bench
  section "A list of 1,000 instances, from the end of discovery to its text"
  for name in first later; do
    value=$(of instance_bench "${name}_list/1000" 3)
    row "the $name time" "$(printf '%.1f' "$value") ms" "-" "-" "-" "< 50 ms" "$(judge "$value" '<' 50)"
  done
}

machine() {
  echo "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | sort -u | head -1), $(nproc) processors," \
    "$(awk '/MemTotal/ {printf "%.0f", $2 / 1048576}' /proc/meminfo) GiB, Linux $(uname -r)," \
    "$(. /etc/os-release && echo "$PRETTY_NAME"), $(df --output=fstype,source "$work" | awk 'END {print $1 " on " $2}')"
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
started=$SECONDS
! wants pump || "$top/bench/run-pump.sh" -b "$bin" -d "$work" -s "$pump_mib" -r "$rounds" -o "$results"
! wants instance || "$top/bench/run-instance.sh" -b "$bin" -p "$programs" -d "$work" -s "$instance_mb" -m "$stream_mib" \
  -r "$rounds" -o "$results"
! wants archive || "$top/bench/run-archive.sh" -b "$bin" -d "$work" -s "$archive_mib" -l "$sparse_gib" -r "$rounds" -o "$results"
! wants isql || measure_isql
! wants catalog || measure_catalog
! wants rpc || measure_rpc
! wants selection || measure_selection
! wants remote || measure_remote
! wants instances || measure_instances
remark "load average before the run $load_before, after it $(cut -d' ' -f1-3 /proc/loadavg); the run took $((SECONDS - started)) s"
[ -z "$quick" ] || remark "a quick run: sizes are too small for these figures to mean anything"

print_table
{
  echo "Medians of $rounds rounds after one that is not counted; $(date -u '+%Y-%m-%d %H:%M') UTC; $(cd "$top" && git describe --always --dirty 2>/dev/null || echo 'no version')."
  echo "$(machine)."
  print_markdown
} >"$work/markdown"
mkdir -p "$(dirname "$output")"
cp "$work/markdown" "$output"
echo "written: $output"
