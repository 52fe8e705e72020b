#!/usr/bin/env bash
# Runs the socket writer's tests against a real syslog receiver: Debian's rsyslogd as an
# ordinary process with a configuration of its own, UDP on a free loopback port, each message
# written raw to one file and by its parsed RFC 5424 fields to another. No system service is
# touched. Usage: syslog_receiver.sh BUILD_DIR TEST_PROGRAM [gtest arguments]
set -euo pipefail
build=$1
program=$2
shift 2
work=$(mktemp -d "$build/syslog-receiver.XXXXXX")
port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat >"$work/rsyslog.conf" <<CONF
global(workDirectory="$work" maxMessageSize="8k")
module(load="imudp")
template(name="raw" type="string" string="%rawmsg%\n")
template(name="fields" type="string" string="%protocol-version%|%hostname%|%app-name%|%procid%|%msgid%|%msg%\n")
ruleset(name="capture") {
  action(type="omfile" file="$work/raw.txt" template="raw")
  action(type="omfile" file="$work/fields.txt" template="fields")
}
input(type="imudp" address="127.0.0.1" port="$port" ruleset="capture")
CONF
/usr/sbin/rsyslogd -n -f "$work/rsyslog.conf" -i "$work/rsyslogd.pid" >"$work/rsyslogd.out" 2>&1 &
receiver=$!
stop_receiver() {
  kill "$receiver" 2>/dev/null || true
  wait "$receiver" 2>/dev/null || true
}
trap stop_receiver EXIT
# Ready when the port is bound.
for _ in $(seq 1 100); do
  if ss -Hlun "sport = :$port" | grep -q .; then break; fi
  if ! kill -0 "$receiver" 2>/dev/null; then cat "$work/rsyslogd.out" >&2; exit 1; fi
  sleep 0.1
done
status=0
SYSLOG_TEST_PORT=$port SYSLOG_TEST_RAW="Z:${work//\//\\}\\raw.txt" SYSLOG_TEST_FIELDS="Z:${work//\//\\}\\fields.txt" \
  "$build/wine-run.sh" "$program" "$@" || status=$?
stop_receiver
trap - EXIT
if [ "$status" -eq 0 ]; then rm -rf "$work"; else echo "receiver files kept in $work" >&2; fi
exit "$status"
