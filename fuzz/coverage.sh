#!/usr/bin/env bash
# Line coverage of the wire code by the native fuzz harnesses over their committed corpora:
# clang's source-based coverage, each harness running every corpus input once (no fuzzing).
#   fuzz/coverage.sh               summary of src/wire/ and every line that no input reached
#   fuzz/coverage.sh --html DIR    also an HTML report in DIR
#   fuzz/coverage.sh --add-seeds   first rewrites the seeds of make_seeds into fuzz/corpus/
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${COVERAGE_BUILD_DIR:-$root/build/fuzz-coverage}
html=""
add_seeds=0
while [ $# -gt 0 ]; do
  case $1 in
    --html) html=${2:?folder for the HTML report}; shift 2 ;;
    --add-seeds) add_seeds=1; shift ;;
    *) echo "usage: fuzz/coverage.sh [--add-seeds] [--html DIR]" >&2; exit 2 ;;
  esac
done
profdata=$(command -v llvm-profdata-14 || command -v llvm-profdata || true)
cov=$(command -v llvm-cov-14 || command -v llvm-cov || true)
if ! command -v clang++ >/dev/null || [ -z "$profdata" ] || [ -z "$cov" ]; then
  echo "coverage: clang++ with llvm-profdata and llvm-cov is needed" >&2
  exit 2
fi
flags="-fprofile-instr-generate -fcoverage-mapping"
cmake -S "$root/fuzz" -B "$out" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$out" >/dev/null
harnesses=(make_credential get_assertion guid frame)
if [ $add_seeds -eq 1 ]; then
  LLVM_PROFILE_FILE=/dev/null "$out/make_seeds" "$root/fuzz/corpus"
fi
rm -rf "$out/profiles"
mkdir -p "$out/profiles"
objects=()
for harness in "${harnesses[@]}"; do
  # -runs=0 runs the corpus and nothing else; a failing input fails the measurement.
  LLVM_PROFILE_FILE="$out/profiles/$harness-%p.profraw" \
    "$out/fuzz_$harness" -runs=0 "$root/fuzz/corpus/$harness" >"$out/profiles/$harness.log" 2>&1 ||
    { cat "$out/profiles/$harness.log" >&2; exit 1; }
  objects+=(-object "$out/fuzz_$harness")
done
"$profdata" merge -sparse "$out"/profiles/*.profraw -o "$out/wire.profdata"
# The wire sources that the harnesses build; the rest of src/wire/ isn't reached by them.
mapfile -t sources < <(grep -o 'src/wire/[A-Za-z0-9_]*\.cpp' "$root/cmake/native_wire_sources.cmake" | sed "s|^|$root/|")
"$cov" report "${objects[@]:1}" -instr-profile "$out/wire.profdata" "${sources[@]}"
echo
echo "Lines that no corpus input reaches:"
"$cov" show "${objects[@]:1}" -instr-profile "$out/wire.profdata" -format=text "${sources[@]}" |
  awk -v root="$root/" '
    /^\/.*:$/ { file = substr($0, 1, length($0) - 1); sub(root, "", file); next }
    /^ *[0-9]+\| *0\|/ { split($0, cell, "|"); line = cell[1]; gsub(/ /, "", line);
                         text = $0; sub(/^[^|]*\|[^|]*\|/, "", text); print file ":" line ":" text }'
if [ -n "$html" ]; then
  "$cov" show "${objects[@]:1}" -instr-profile "$out/wire.profdata" -format=html -output-dir "$html" "${sources[@]}"
  echo "HTML report: $html/index.html"
fi
