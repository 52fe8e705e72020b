#!/usr/bin/env bash
# fido2sim doctor --json as tools read it: one JSON object of named fields. On Wine there is
# no webauthn.dll, so it must also say that redirection wouldn't work, why, and exit with 1.
set -uo pipefail
build=$1
out=$("$build/wine-run.sh" "$build/bin/fido2sim.exe" doctor --json)
status=$?
[ "$status" -eq 1 ] || { echo "exit status $status, expected 1"; exit 1; }
printf '%s\n' "$out" | python3 -c '
import json, sys
lines = [l for l in sys.stdin.read().splitlines() if l.strip()]
assert len(lines) == 1, f"expected one line of JSON, got {len(lines)}"
d = json.loads(lines[0])
assert isinstance(d, dict), "not an object"
assert d["redirection"] is False and d["reason"].startswith("no usable library: no webauthn.dll"), d["reason"]
lib = d["library"]
assert (lib["loaded"], lib["usable"], lib["apiVersion"], lib["loadError"]) == (False, False, 0, 126), lib
settings = {s["name"]: s for s in d["settings"]}
for name in ("logLevel", "logDirectory", "logMaxFileSizeMB", "logToSyslog", "tcpEnabled", "FIDO2Flags"):
    s = settings[name]
    assert set(s) == {"name", "set", "type", "data", "read", "wrongType", "readAs", "resolves"}, s
    assert isinstance(s["set"], bool) and isinstance(s["resolves"], str) and s["resolves"], s
log = d["log"]
assert isinstance(log["writable"], bool) and log["folder"] and log["level"] == "INFO", log
assert log["fileName"].startswith("orvane-fido2Client-"), log
assert d["sideChannel"] in ("none", "tcp", "virtual") and isinstance(d["strictVersions"], bool), d
print(f"doctor --json: one object, {len(d)} fields, {len(settings)} settings")
'
