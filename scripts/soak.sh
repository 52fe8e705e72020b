#!/usr/bin/env bash
# The long soak: the whole road in a loop through the host simulator in strict mode, with the
# real plug-in and the software authenticator, sampled every 10 s.
#   scripts/soak.sh [minutes, default 30] [output folder, default $BUILD_DIR/soak]
# Leaves soak.csv and soak.svg in the output folder; exits non-zero on a wrong or missing
# answer, a breach of the host's contract, or a resource that keeps rising after warm-up.
set -euo pipefail
. "$(dirname "$0")/built-env.sh"
minutes=${1:-30}
outdir=$(realpath -m "${2:-$build/soak}")
mkdir -p "$outdir"
csv=$outdir/soak.csv
status=0
"$build/wine-run.sh" "$build/bin/fido2sim.exe" soak --seconds $((minutes * 60)) --sample-seconds 10 \
  --csv "$csv" || status=$?
/usr/bin/python3 "$root/tests/tools/soak_plot.py" "$csv" "$outdir/soak.svg"
exit $status
