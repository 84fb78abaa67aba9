#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the agent with its demo
# service (loaded from a zip archive) until Ctrl-C or SIGTERM. The demo's
# configuration is kept in build/demo-state (or $VESK_STATE_DIR), so a second
# run remembers the first.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(bash scripts/build.sh --target vesk-agent | tail -n 1)
exec "$dir/vesk-agent" --service vesk.demo.Heartbeat --zip-path "$dir/lua/demo.zip" \
  --state-dir "${VESK_STATE_DIR:-$dir/demo-state}" "$@"
