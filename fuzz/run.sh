#!/usr/bin/env bash
# Builds the native fuzz harnesses and runs one of them over its committed corpus.
#   fuzz/run.sh <harness> [seconds]      harness: make_credential, get_assertion, guid, frame
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
harness=$1
seconds=${2:-10}
out=${FUZZ_BUILD_DIR:-$root/build/fuzz-native}
if ! command -v clang++ >/dev/null; then
  echo "fuzz: clang++ is not installed; skipped"
  exit 0
fi
# One build at a time when several harnesses start together.
(
  flock 9
  cmake -S "$root/fuzz" -B "$out" -G Ninja -DCMAKE_CXX_COMPILER=clang++ >/dev/null
  cmake --build "$out" >/dev/null
) 9>"$out.lock"
work=$(mktemp -d)
trap 'rm -rf "$work" "$work.log"' EXIT
# New inputs go to a scratch folder; the committed corpus stays as it is, and a failing input
# to the build folder. The fuzzer's own status is the result: a filter in a pipe would hide it.
status=0
"$out/fuzz_$harness" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$out/" "$work" \
  "$root/fuzz/corpus/$harness" >"$work.log" 2>&1 || status=$?
grep -E "^(stat::number_of_executed_units|stat::average_exec_per_sec|==[0-9]+==ERROR|SUMMARY|harness check)|Test unit written" \
  "$work.log" || true
exit "$status"
