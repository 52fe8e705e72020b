#!/usr/bin/env bash
# Configures and builds the Windows targets into $BUILD_DIR (default: build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
config=${BUILD_TYPE:-Release}
# Worktrees and fresh clones build the same sources; the compiler cache makes those builds cheap.
launcher=()
if command -v ccache >/dev/null; then
  export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$(dirname "$root")}
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_BUILD_TYPE="$config" "${launcher[@]}" >/dev/null
cmake --build "$build"
