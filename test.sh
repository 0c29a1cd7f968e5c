#!/usr/bin/env bash
# Installs what is missing, builds, and runs every tier of the tests:
#   release build    unit, component, fuzz corpora, checks and end to end on a real PostgreSQL
#   asan             unit, component, fuzz corpora and two scenarios with checks of addresses and undefined behaviour
#   tsan             unit and component tests with checks of threads
# ./test.sh --quick runs the release build's tests only. docs/testing.md tells how to run one test.
set -euo pipefail
cd "$(dirname "$0")"

presets=(release asan tsan)
[ "${1:-}" = "--quick" ] && presets=(release)

# What the user's shell may bring: another language, or one that is not installed here, and modes.
export LC_ALL=C.UTF-8
unset LANGUAGE
umask 022

./tools/install-deps.sh
export CTEST_OUTPUT_ON_FAILURE=1
KESTREL_LEFT_OUT=$(mktemp)
export KESTREL_LEFT_OUT
trap '[ ! -s "$KESTREL_LEFT_OUT" ] || { echo "== left out:"; sort -u "$KESTREL_LEFT_OUT"; }; rm -f "$KESTREL_LEFT_OUT"' EXIT
for preset in "${presets[@]}"; do
  echo "== $preset: build"
  ./tools/build.sh "$preset"
  echo "== $preset: test"
  case "$preset" in
  release) labels=() ;;
  asan) labels=(-L '^(unit|component|fuzz|e2e)$' -LE check) ;;
  tsan) labels=(-L '^(unit|component)$' -LE check) ;;
  esac
  # Many tests wait for time limits and child processes: twice as many as processors keep those busy.
  ctest --test-dir "build/$preset" -j "$((2 * $(nproc)))" "${labels[@]}"
done
