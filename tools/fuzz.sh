#!/usr/bin/env bash
# Searches with libFuzzer for inputs that break a parser: tools/fuzz.sh [SECONDS [NAME...]]
#   SECONDS  for each target, default 600
#   NAME     folders of tests/fuzz, default all
# Needs clang. New inputs are kept in build/fuzz/corpus, findings in build/fuzz/findings; a finding that was mended goes
# into tests/fuzz/NAME/corpus, which the tests replay. Ends with status 1 when there is a finding.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
shift || true
[ $# -gt 0 ] || set -- $(ls tests/fuzz)
targets=()
for name in "$@"; do targets+=("${name}_fuzz"); done
./tools/build.sh fuzz "${targets[@]}"
mkdir -p build/fuzz/findings
status=0
for name in "$@"; do
  corpus=build/fuzz/corpus/$name
  mkdir -p "$corpus"
  cp -n "tests/fuzz/$name/corpus/"* "$corpus/"
  # A length field may ask for gigabytes. That is refused as any other lack of memory, and quickly.
  ASAN_OPTIONS=max_allocation_size_mb=256:allocator_may_return_null=1:log_path=build/fuzz/findings/$name \
    UBSAN_OPTIONS=print_stacktrace=1:log_path=build/fuzz/findings/$name \
    "build/fuzz/bin/${name}_fuzz" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -max_len=16384 -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="build/fuzz/findings/${name}_" "$corpus" >"build/fuzz/$name.log" 2>&1 ||
    { echo "fuzz: $name: FINDING, see build/fuzz/findings and build/fuzz/$name.log"; status=1; }
  echo "fuzz: $name: $(sed -n 's/^stat::number_of_executed_units: *//p' "build/fuzz/$name.log") inputs, " \
    "$(sed -n 's/^stat::new_units_added: *//p' "build/fuzz/$name.log") new"
done
exit $status
