#!/usr/bin/env bash
# The main job: installs what is missing, builds, and shows what the plug-in does so far.
set -euo pipefail
. "$(dirname "$0")/built-env.sh"
# The whole road: host simulator, the real fido2Client.dll and the software authenticator.
# Extra arguments go to the demo, e.g. --json out.json for the WebAuthn JSON of both ceremonies.
"$build/wine-run.sh" "$build/bin/fido2sim.exe" demo "$@"
