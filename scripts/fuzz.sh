#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) into build-fuzz/ and
# runs one for a fixed time, starting from its seed corpus in fuzz/corpus/.
#   bash scripts/fuzz.sh [TARGET] [SECONDS]      (default: pkcs7_unwrap 60)
# Targets: pkcs7_unwrap (configuration packages), xml_record (XML records),
# hostseal_decrypt (blobs sealed by libhostseal), credentials (credentials files
# and their sealed passwords), http_url, http_reply, http_content (URLs, replies and
# encoded bodies from a peer), http_request (requests as a server reads them),
# hmd_netlink, hmd_proc_net (sock_diag replies and /proc texts behind the
# connection tables), unzip (archives unpacked into a scratch folder), ovf_env
# (the OVF environment that vmtoolsd prints).
# New inputs the fuzzer finds stay in build-fuzz/corpus/TARGET; a crash is
# written to the current directory as crash-*.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-debian.sh
extras=()
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || extras+=("$p")
done
if [ ${#extras[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq --no-install-recommends "${extras[@]}" >/dev/null
fi
target=${1:-pkcs7_unwrap}
seconds=${2:-60}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVESK_FUZZ=ON -DVESK_BUILD_TESTS=OFF -DVESK_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j2 --target "fuzz_$target" >&2
mkdir -p "build-fuzz/corpus/$target"
exec "build-fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -print_final_stats=1 \
  "build-fuzz/corpus/$target" "fuzz/corpus/$target"
