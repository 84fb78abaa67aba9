#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(bash scripts/build.sh | tail -n 1)
cd "$dir"
ctest --output-on-failure -j2 "$@"
