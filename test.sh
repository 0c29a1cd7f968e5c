#!/usr/bin/env bash
# Installs what is missing, builds, and runs every tier of the tests:
#   release build    unit, component, fuzz corpora, checks and end to end on a real PostgreSQL
#   asan, tsan       unit, component and fuzz corpora under the sanitizers
# ./test.sh --quick runs the release build's tests only. docs/testing.md tells how to run one test.
set -euo pipefail
cd "$(dirname "$0")"

presets=(release asan tsan)
[ "${1:-}" = "--quick" ] && presets=(release)

./tools/install-deps.sh
export CTEST_OUTPUT_ON_FAILURE=1
for preset in "${presets[@]}"; do
  echo "== $preset: build"
  ./tools/build.sh "$preset"
  echo "== $preset: test"
  labels=()
  [ "$preset" = release ] || labels=(-L '^(unit|component|fuzz)$' -LE check)
  ctest --test-dir "build/$preset" -j "$(nproc)" "${labels[@]}"
done
