#!/usr/bin/env bash
# Builds in Release and runs every benchmark, the programs and the scripts in
# bench/; each reports its ratio to a baseline measured in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
dir=$(BUILD_DIR=build-release BUILD_TYPE=Release bash scripts/build.sh | tail -n 1)
for b in "$dir"/bench/*_bench; do
  echo "== $(basename "$b")"
  "$b" --benchmark_min_time=0.5 "$@"
done
# Benchmarks against outside programs (servers measured with wrk) are scripts.
for b in bench/*/*.sh; do
  echo "== $b"
  bash "$b" "$dir"
done
