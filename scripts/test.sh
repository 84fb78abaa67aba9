#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(VESK_WERROR=1 bash scripts/build.sh | tail -n 1)
# wx is not built with ThreadSanitizer: its own locks are suppressed by name.
if [ "${VESK_TSAN:-0}" = 1 ]; then
  export TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp ${TSAN_OPTIONS:-}"
fi
cd "$dir"
ctest --output-on-failure -j2 "$@"
