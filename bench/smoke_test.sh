#!/usr/bin/env bash
# Every benchmark program runs a few rounds with --json and prints one JSON object that holds
# each of its named figures as a positive number. Nothing about speed is checked.
#   bench/smoke_test.sh <build folder>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$1
check() {
  python3 -c '
import json, math, sys
program, names = sys.argv[1], sys.argv[2:]
lines = [l for l in sys.stdin.read().splitlines() if l.strip()]
if len(lines) != 1:
    sys.exit(f"{program}: expected one line of JSON, got {len(lines)}")
figures = json.loads(lines[0])
bad = [n for n in names if not isinstance(figures.get(n), (int, float)) or not math.isfinite(figures[n]) or figures[n] <= 0]
if bad:
    sys.exit(f"{program}: figures missing or not positive: {bad}")
print(f"{program}: {len(names)} figures")
' "$@"
}
"$build/wine-run.sh" "$build/bin/dispatch_bench.exe" --json --rounds 5 |
  check dispatch_bench own_request_p99_us own_answer_p99_us thread_start_p99_us bare_thread_start_p99_us \
    supersede_p99_ms own_request_floor_p99_us own_answer_floor_p99_us bare_supersede_p99_ms \
    own_request_median_us own_answer_median_us thread_start_median_us bare_thread_start_median_us \
    supersede_median_ms previous_stop_p99_us bare_join_p99_us kernel_mutex_pair_p99_us
"$build/wine-run.sh" "$build/bin/poll_bench.exe" --json --rounds 5 |
  check poll_bench wake_1_item_median_us wake_1_item_p99_us bare_wake_1_handle_median_us wake_60_items_median_us \
    bare_wake_60_handles_median_us zero_timeout_pass_median_us kernel_mutex_pair_median_us
status=0
bash "$root/bench/native/build.sh" "$build/bench-native" || status=$?
if [ $status -eq 3 ]; then exit 0; fi
[ $status -eq 0 ]
"$build/bench-native/decode_bench" --json --rounds 5 |
  check decode_bench decode_64k_mb_s memcpy_64k_mb_s decode_64k_p99_us memcpy_64k_p99_us request_bytes \
    decode_64k_one_field_mb_s allocations_64k_p99_us decode_share_of_memcpy_pct
