#!/usr/bin/env bash
# Configures and builds the Windows targets into $BUILD_DIR (default: build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
config=${BUILD_TYPE:-Release}
cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE="$config" >/dev/null
cmake --build "$build"
