#!/usr/bin/env bash
# fido2sim replay against the real plug-in: every request of the case file gets exactly
# the answer the file names, or "-" for silence.
set -euo pipefail
build=$1
cases=${2:-$(dirname "$0")/replay_cases.txt}
shift $(( $# > 1 ? 2 : 1 ))
requests=$(mktemp)
expected=$(mktemp)
actual=$(mktemp)
trap 'rm -f "$requests" "$expected" "$actual"' EXIT
grep -v '^#' "$cases" | sed 's/ *|.*//' > "$requests"
grep -v '^#' "$cases" | sed 's/.*| *//' > "$expected"
# Comments and blank lines in the input are skipped by the tool itself.
printf '# a comment\n\n' | cat - "$requests" | "$build/wine-run.sh" "$build/bin/fido2sim.exe" replay --wait-ms 500 "$@" > "$actual" 2>/dev/null
status=$?
if ! diff -u "$expected" "$actual"; then
  echo "replay answers differ"
  exit 1
fi
echo "replay: $(wc -l < "$expected") requests answered as expected, exit status $status"
