#!/usr/bin/env bash
# Builds and runs the benchmarks under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
BUILD_DIR="$build" bash "$root/scripts/build.sh" >/dev/null
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
wine "$build/bin/dispatch_bench.exe" "${1:-500}" 2> >(grep -v -E '^[0-9a-f]{4}:|wine32|multiarch|dpkg|apt-get' >&2)
