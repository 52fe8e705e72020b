#!/usr/bin/env bash
# Builds and runs the benchmarks under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
BUILD_DIR="$build" bash "$root/scripts/build.sh" >/dev/null
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
"$build/wine-run.sh" "$build/bin/dispatch_bench.exe" "${1:-500}"
