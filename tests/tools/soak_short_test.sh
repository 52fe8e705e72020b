#!/usr/bin/env bash
# A short soak: two minutes of the whole road, sampled every 4 s; the command itself judges
# the answers, the trends and the log (VERBOSE, 1 MB rolling files, syslog to its own sink).
# Then the CSV must hold the samples and plot to an SVG.
set -euo pipefail
build=$1
seconds=${2:-120}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
status=0
"$build/wine-run.sh" "$build/bin/fido2sim.exe" soak --seconds "$seconds" --sample-seconds 4 \
  --csv "$dir/soak.csv" || status=$?
if [ "$status" -ne 0 ]; then
  echo "soak exited with $status"
  exit 1
fi
header=$(head -1 "$dir/soak.csv")
if [ "$header" != "seconds,iterations,private_bytes,handles,threads,heap_bytes,log_pool_bytes" ]; then
  echo "unexpected CSV header: $header"
  exit 1
fi
# One sample at the start and one per period; a loaded machine may lose one or two.
rows=$(($(wc -l < "$dir/soak.csv") - 1))
if [ "$rows" -lt $((seconds / 4 - 2)) ]; then
  echo "only $rows samples in $seconds s"
  exit 1
fi
/usr/bin/python3 "$(dirname "$0")/soak_plot.py" "$dir/soak.csv" "$dir/soak.svg" >/dev/null
grep -q '<polyline' "$dir/soak.svg"
