#!/usr/bin/env bash
# The demo end to end, as README's main command runs it: the manager and the
# heartbeat in one agent, reports over TLS with gzip, the status as XML; a
# manager with another certificate is refused.
source "$(dirname "$0")/testlib.sh" "$1"
for tool in curl xmllint openssl; do
  command -v "$tool" >/dev/null || { echo "skipped: needs the tool '$tool'"; exit 0; }
done
zip="$(dirname "$agent")/lua/demo.zip"

run() {  # run LOG ARGS...: the agent in the background; $! is its pid
  local log=$1; shift
  "$agent" --zip-path "$zip" --set demo.manager.port=0 --set demo.interval=300 "$@" \
    >/dev/null 2>"$log" &
}
port_of() {  # port_of LOG
  await "$1" "listening on https://" || return 1
  grep -o 'listening on https://\[::1\]:[0-9]*' "$1" | grep -o '[0-9]*$'
}
stop() {  # stop PID NAME: SIGTERM, and a clean exit
  kill -TERM "$1"; wait "$1"; local status=$?
  [ "$status" -eq 0 ] || fail "$2" "agent exited $status"
}

# Both services: at least three reports arrive, compressed, and read as XML.
run "$tmp/both" --service vesk.demo.Manager --service vesk.demo.Heartbeat --state-dir "$tmp/state"
agentPid=$!
port=$(port_of "$tmp/both") || fail demo "the manager did not start"
await "$tmp/both" "report 3 sent" || fail demo "three reports were not sent"
curl -sk --compressed "https://[::1]:$port/agent/status" >"$tmp/status.xml"
xmllint --noout "$tmp/status.xml" || fail demo "the status is no XML document"
[ "$(grep -c '<AgentReport ' "$tmp/status.xml")" -ge 3 ] || fail demo "fewer than three reports"
[ "$(grep -c 'encoding="gzip"' "$tmp/status.xml")" -ge 3 ] || fail demo "reports not compressed"
contains demo "$tmp/status.xml" "<Interfaces>"
stat -c %a "$tmp/state/manager-key.pem" | grep -qx 600 || fail demo "manager key not 0600"
contains demo "$tmp/both" "trusting the manager with the certificate"

# An agent that knows another certificate for the manager: the handshake
# fails with the verification's message, and no report goes out.
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=impostor -addext subjectAltName=IP:::1 \
  -keyout "$tmp/other.key" -out "$tmp/other.pem" 2>/dev/null
"$agent" --zip-path "$zip" --service vesk.demo.Heartbeat --state-dir "$tmp/other-state" \
  --set demo.interval=300 --set "demo.manager.url=https://[::1]:$port/agent/report" \
  --set "demo.manager.certificate=$tmp/other.pem" >/dev/null 2>"$tmp/wrong" &
otherPid=$!
await "$tmp/wrong" "could not be reached" || fail refused "no failed beat"
stop $otherPid refused
contains refused "$tmp/wrong" "SSLVerifyCallback() - verify error"
grep -q "report 1 sent" "$tmp/wrong" && fail refused "a report went to an unverified manager"
stop $agentPid demo

# The manager comes back with a new certificate: the agent that trusted the
# old one refuses it.
rm "$tmp/state/manager-cert.pem" "$tmp/state/manager-key.pem"
run "$tmp/again" --service vesk.demo.Manager --service vesk.demo.Heartbeat --state-dir "$tmp/state"
agentPid=$!
await "$tmp/again" "refusing the manager" || fail trust "a new certificate was not refused"
stop $agentPid trust
grep -q "report 1 sent" "$tmp/again" && fail trust "a report went to the new manager"

summary
