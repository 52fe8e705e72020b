#!/usr/bin/env bash
# Builds and runs every benchmark: dispatch and the poll scheduler under Wine, the wire decode natively.
#   bench/run.sh [--json] [--rounds N]     --json: one JSON object of figures per program and line
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
BUILD_DIR="$build" bash "$root/scripts/build.sh" >/dev/null
bash "$root/bench/native/build.sh" "$build/bench-native"
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
json=0
for arg in "$@"; do [ "$arg" = "--json" ] && json=1; done
[ $json -eq 1 ] || echo "== dispatch_bench (Wine)"
"$build/wine-run.sh" "$build/bin/dispatch_bench.exe" "$@"
[ $json -eq 1 ] || echo "== poll_bench (Wine)"
"$build/wine-run.sh" "$build/bin/poll_bench.exe" "$@"
[ $json -eq 1 ] || echo "== decode_bench (native)"
"$build/bench-native/decode_bench" "$@"
