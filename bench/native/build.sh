#!/usr/bin/env bash
# Builds the native benchmarks into $1 (default: build/bench-native); exit 3 without clang++.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
out=${1:-$root/build/bench-native}
if ! command -v clang++ >/dev/null; then
  echo "bench: clang++ is not installed; native benchmarks skipped" >&2
  exit 3
fi
mkdir -p "$(dirname "$out")"
# One build at a time when several callers start together.
(
  flock 9
  cmake -S "$root/bench/native" -B "$out" -G Ninja -DCMAKE_CXX_COMPILER=clang++ >/dev/null
  cmake --build "$out" >/dev/null
) 9>"$out.lock"
