#!/usr/bin/env bash
# Configures and builds one preset of CMakePresets.json: tools/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:?usage: tools/build.sh PRESET [TARGET...]}
shift
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >"/tmp/kestrel-configure.$$" || { cat "/tmp/kestrel-configure.$$"; exit 1; }
rm -f "/tmp/kestrel-configure.$$"
exec cmake --build "build/$preset" --target "${@:-all}"
