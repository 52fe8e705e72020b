#!/usr/bin/env bash
# The demo's WebAuthn JSON, verified by a relying-party check of its own.
set -euo pipefail
build=$1
json=$(mktemp --suffix=.json)
trap 'rm -f "$json"' EXIT
"$build/wine-run.sh" "$build/bin/fido2sim.exe" demo --json "$json" >/dev/null
/usr/bin/python3 "$(dirname "$0")/verify_webauthn_json.py" "$json"
