#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the agent's demo job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(bash scripts/build.sh --target vesk-agent | tail -n 1)
exec "$dir/vesk-agent" --run lua/demo/demo.lua "$@"
