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
# The whole road: host simulator, the real fido2Client.dll and the software authenticator.
# Extra arguments go to the demo, e.g. --json out.json for the WebAuthn JSON of both ceremonies.
"$build/wine-run.sh" "$build/bin/fido2sim.exe" demo "$@"
