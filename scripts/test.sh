#!/usr/bin/env bash
# Runs every test: installs what is missing, builds, and runs CTest under Wine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
bash "$root/scripts/setup.sh"
BUILD_DIR="$build" bash "$root/scripts/build.sh"
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
ctest --test-dir "$build" --output-on-failure -j2 "$@"
