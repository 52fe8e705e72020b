#!/usr/bin/env bash
# The main job: installs what is missing, builds, and shows what the plug-in does so far.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
bash "$root/scripts/setup.sh"
BUILD_DIR="$build" bash "$root/scripts/build.sh" >/dev/null
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
echo "== The plug-in on the host simulator: GetClientInfo, GetWebauthnApiVersion, a bad frame"
printf '%s\n' \
  "07 00 00 00 01 00 00 00 04 00 00 00 03 00 01 02" \
  "08 00 00 00 02 00 00 00 00 00 00 00" \
  "09 00 00 00 01 00 00 00 01 00 00 00" |
  while read -r request; do
    answer=$(echo "$request" | wine "$build/bin/fido2sim.exe" replay --wait-ms 500 2>/dev/null)
    echo "request  $request"
    echo "answer   $answer"
  done
cat <<TXT
GetClientInfo answers the client version 1.0.0; GetWebauthnApiVersion answers 0 while no
WebAuthn library is bound; a frame whose dataLen overruns the blob gets no answer (-).
The credential operations, the software authenticator and the full demo come next.
TXT
