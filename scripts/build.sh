#!/usr/bin/env bash
# Configures and builds into BUILD_DIR (default build/). VESK_SANITIZE=1 builds
# with ASan+UBSan into build-asan/, VESK_TSAN=1 with TSan into build-tsan/.
set -euo pipefail
cd "$(dirname "$0")/.."

flags=()
dir=build
if [ "${VESK_SANITIZE:-0}" = 1 ]; then dir=build-asan; flags+=(-DVESK_SANITIZE=ON); fi
if [ "${VESK_TSAN:-0}" = 1 ]; then dir=build-tsan; flags+=(-DVESK_TSAN=ON -DVESK_BUILD_BENCH=OFF); fi
dir=${BUILD_DIR:-$dir}
# VESK_WERROR=1 (the test runs set it) makes every warning an error.
flags+=(-DVESK_WERROR="$([ "${VESK_WERROR:-0}" = 1 ] && echo ON || echo OFF)")

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "${flags[@]}" >/dev/null
# Build output goes to stderr: callers take the directory from stdout, and
# compiler diagnostics must reach the reader all the same.
cmake --build "$dir" -j2 "$@" >&2
echo "$dir"
