#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the agent with the demo
# services (loaded from a zip archive) until Ctrl-C or SIGTERM: a manager on
# https://[::1]:48443 and the heartbeat, which reports this host to it over
# TLS every two seconds. `curl -k https://[::1]:48443/agent/status` shows the
# reports that arrived. The state (configuration, the manager's certificate)
# is kept in build/demo-state (or $VESK_STATE_DIR), so a second run
# remembers the first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(bash scripts/build.sh --target vesk-agent | tail -n 1)
exec "$dir/vesk-agent" --service vesk.demo.Manager --service vesk.demo.Heartbeat \
  --zip-path "$dir/lua/demo.zip" --state-dir "${VESK_STATE_DIR:-$dir/demo-state}" "$@"
