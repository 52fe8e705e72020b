#!/usr/bin/env bash
# The full log storm: 8 threads x 100,000 lines at full speed into the real file writer, with
# the writer's own batch threshold. The program reads its files back and exits non-zero when a
# line is neither in a file nor counted as dropped, or memory outgrew the threshold's bound.
#   scripts/log_storm.sh [more log_storm arguments, e.g. --json]
set -euo pipefail
. "$(dirname "$0")/built-env.sh"
"$build/wine-run.sh" "$build/bin/log_storm.exe" --threads 8 --lines 100000 "$@"
