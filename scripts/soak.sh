#!/usr/bin/env bash
# Soak test of the server under steady load: wrk (2 threads, 50 keep-alive
# connections) asks the Lua file server (tests/http/file_server.lua, run by
# vesk-agent as a service) for a 1 KiB file, every other request with gzip,
# once over plain HTTP and once over TLS, each against an agent of its own on
# [::1]. For each it reports
#   - the agent's RSS 10 s into the load, near its end, and once wrk is done;
#   - wrk's socket errors and non-2xx answers;
#   - the time the agent takes to stop on SIGTERM with wrk still running.
#   bash scripts/soak.sh [SECONDS]    (default 120, or $SOAK_SECONDS; at least 15)
# BUILD_DIR picks the build (default build/), built here if need be.
# Exits 1 when a goal is missed: RSS after the run more than 10% above RSS at
# 10 s, any socket error or non-2xx answer, or a stop that is not clean
# within STOP_TIMEOUT (10) seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-${SOAK_SECONDS:-120}}
stop_timeout=${STOP_TIMEOUT:-10}
if [ "$seconds" -lt 15 ]; then
  echo "soak.sh: at least 15 seconds, so that the first 10 are a warm-up" >&2
  exit 2
fi
bash scripts/setup-debian.sh
dir=$(bash scripts/build.sh --target vesk-agent | tail -n 1)
agent=$PWD/$dir/vesk-agent

work=$(mktemp -d)
pid=
load=
cleanup() {
  if [ -n "$load" ]; then kill "$load" 2>/dev/null || true; fi
  if [ -n "$pid" ]; then kill -KILL "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
mkdir "$work/www"
head -c 1024 /dev/urandom >"$work/www/small"
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/server.key" -out "$work/server.pem" \
  -subj /CN=localhost -days 2 2>/dev/null

# Every second request asks for gzip, so that the per-response compressor is
# made and dropped as often as the rest.
cat >"$work/mixed.lua" <<'EOF'
local n = 0
request = function()
  n = n + 1
  if n % 2 == 0 then return wrk.format(nil, nil, { ["Accept-Encoding"] = "gzip" }) end
  return wrk.format()
end
EOF

rss_kib() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0; }

# Starts an agent (plain or tls) and sets pid and port.
start_agent() {
  local tls=() log=$work/agent-$1.log
  [ "$1" = tls ] && tls=(TLS_CERT="$work/server.pem" TLS_KEY="$work/server.key")
  env ROOT="$work/www" PORT=0 "${tls[@]}" "$agent" --service file_server \
    --stop-timeout "$stop_timeout" --state-dir "$work/state-$1" \
    --lua-path "$PWD/tests/http/?.lua" >"$log" 2>&1 &
  pid=$!
  port=
  for _ in $(seq 1 100); do
    port=$(awk '/^PORT / { print $2; exit }' "$log")
    [ -n "$port" ] && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "soak.sh: the $1 agent did not start:" >&2
  cat "$log" >&2
  exit 1
}

failed=0
results=()
for mode in plain tls; do
  scheme=http
  [ "$mode" = tls ] && scheme=https
  start_agent "$mode"
  url="$scheme://[::1]:$port/small"
  echo "== $mode: wrk -t2 -c50 -d${seconds}s $url, every other request with gzip"
  wrk -t2 -c50 -d"${seconds}s" -s "$work/mixed.lua" "$url" >"$work/wrk-$mode.txt" 2>&1 &
  load=$!
  sleep 10
  rss10=$(rss_kib "$pid")
  sleep $((seconds - 12))
  rss_late=$(rss_kib "$pid")
  wait "$load" || true
  load=
  sleep 1
  rss_end=$(rss_kib "$pid")
  cat "$work/wrk-$mode.txt"
  errors=$(awk '/Socket errors:/ { sub(/.*Socket errors: /, ""); print }' "$work/wrk-$mode.txt")
  non2xx=$(awk '/Non-2xx/ { print $NF }' "$work/wrk-$mode.txt")
  rate=$(awk '/^Requests\/sec:/ { print $2 }' "$work/wrk-$mode.txt")
  growth=$(awk -v a="$rss10" -v b="$rss_end" 'BEGIN { printf "%.3f", (a > 0 ? b / a : 0) }')

  # The stop, while 50 connections keep asking.
  wrk -t2 -c50 -d60s -s "$work/mixed.lua" "$url" >/dev/null 2>&1 &
  load=$!
  sleep 3
  start=$(date +%s%N)
  kill -TERM "$pid"
  status=0
  wait "$pid" || status=$?
  stop_ms=$((($(date +%s%N) - start) / 1000000))
  pid=
  kill "$load" 2>/dev/null || true
  wait "$load" 2>/dev/null || true
  load=

  line="$mode: ${rate:-?} requests/s; RSS at 10 s ${rss10} KiB, near the end ${rss_late} KiB,"
  line+=" after the run ${rss_end} KiB (ratio ${growth}); socket errors: ${errors:-none};"
  line+=" non-2xx: ${non2xx:-0}; stopped in ${stop_ms} ms with status ${status}"
  results+=("$line")
  if awk -v g="$growth" 'BEGIN { exit !(g > 1.10 || g == 0) }'; then failed=1; fi
  if [ -n "$errors" ] || [ -n "$non2xx" ]; then failed=1; fi
  if [ "$status" -ne 0 ] || [ "$stop_ms" -gt $((stop_timeout * 1000)) ]; then
    failed=1
    tail -n 20 "$work/agent-$mode.log"
  fi
done

echo "== soak, ${seconds} s per run"
printf '%s\n' "${results[@]}"
[ "$failed" = 0 ] && echo "all goals met" || echo "a goal was missed"
exit "$failed"
