#!/usr/bin/env bash
# Requests per second of the Lua file server (tests/http/file_server.lua run by
# vesk-agent) against nginx serving the same 1 KiB file, each measured with wrk
# on one keep-alive connection (-t1 -c1), plain and over TLS with the same
# certificate, all in this run. Prints the speed ratios in the form the
# benchmark programs use; like theirs, a missed goal is reported, not failed.
#   bash bench/http/server_vs_nginx.sh BUILD_DIR     (scripts/bench.sh passes build-release)
# BENCH_SECONDS (default 10) is the length of each measured wrk run.
set -euo pipefail
cd "$(dirname "$0")/../.."
dir=${1:?usage: server_vs_nginx.sh BUILD_DIR}
agent=$PWD/$dir/vesk-agent
seconds=${BENCH_SECONDS:-10}
for tool in wrk nginx openssl curl python3; do
  command -v "$tool" >/dev/null || { echo "server_vs_nginx: $tool is missing, skipped"; exit 0; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
# nginx's workers drop root: they must be able to read the file.
chmod 755 "$work"
mkdir "$work/www" "$work/tmp"
head -c 1024 /dev/urandom >"$work/www/small"
chmod 644 "$work/www/small"
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/server.key" -out "$work/server.pem" \
  -subj /CN=localhost -days 2 2>/dev/null

free_port() {
  python3 -c 'import socket; s = socket.socket(socket.AF_INET6); s.bind(("::1", 0)); print(s.getsockname()[1])'
}

# One worker and no access log, as the Lua server has one thread for one
# connection and logs nothing per request; keep-alive without a request limit,
# so that no run pays for a new handshake.
nginx_plain=$(free_port)
nginx_tls=$(free_port)
cat >"$work/nginx.conf" <<EOF
worker_processes 1;
pid $work/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 64; }
http {
  access_log off;
  client_body_temp_path $work/tmp;
  proxy_temp_path $work/tmp;
  fastcgi_temp_path $work/tmp;
  uwsgi_temp_path $work/tmp;
  scgi_temp_path $work/tmp;
  keepalive_requests 100000000;
  keepalive_timeout 60s;
  default_type application/octet-stream;
  server {
    listen [::1]:$nginx_plain;
    listen [::1]:$nginx_tls ssl;
    ssl_certificate $work/server.pem;
    ssl_certificate_key $work/server.key;
    root $work/www;
  }
}
EOF
nginx -p "$work" -c "$work/nginx.conf" -g 'daemon off;' 2>>"$work/nginx-error.log" &
pids+=($!)

# Starts the Lua server (plain or tls) and sets port.
lua_server() {
  local tls=() log=$work/agent-$1.log
  [ "$1" = tls ] && tls=(TLS_CERT="$work/server.pem" TLS_KEY="$work/server.key")
  env ROOT="$work/www" PORT=0 "${tls[@]}" "$agent" --service file_server \
    --state-dir "$work/state-$1" --lua-path "$PWD/tests/http/?.lua" >"$log" 2>&1 &
  pids+=($!)
  for _ in $(seq 1 100); do
    port=$(awk '/^PORT / { print $2; exit }' "$log")
    [ -n "$port" ] && return 0
    sleep 0.1
  done
  echo "server_vs_nginx: the Lua server did not start" >&2
  cat "$log" >&2
  exit 1
}
lua_server plain
lua_plain=$port
lua_server tls
lua_tls=$port

# Both must serve the same bytes, or the comparison means nothing.
for port in "$nginx_plain" "$lua_plain"; do
  for _ in $(seq 1 50); do
    curl -sf "http://[::1]:$port/small" -o "$work/got" && break
    sleep 0.1
  done
  cmp -s "$work/got" "$work/www/small" || { echo "server_vs_nginx: port $port sends another body"; exit 1; }
  rm -f "$work/got"
done
for port in "$nginx_tls" "$lua_tls"; do
  curl -sfk "https://[::1]:$port/small" -o "$work/got"
  cmp -s "$work/got" "$work/www/small" || { echo "server_vs_nginx: port $port sends another body"; exit 1; }
  rm -f "$work/got"
done

# Requests/s of one keep-alive connection, after a 2 s warm-up.
rate() {
  wrk -t1 -c1 -d2s "$1" >/dev/null
  wrk -t1 -c1 -d"${seconds}s" "$1" | tee "$work/wrk.txt" | grep -E 'Requests/sec|errors|Non-2xx' >&2
  awk '/^Requests\/sec:/ { print $2 }' "$work/wrk.txt"
}
ratio() {  # name subject baseline goal
  awk -v n="$1" -v s="$2" -v b="$3" -v g="$4" 'BEGIN {
    r = (b > 0 ? s / b : 0)
    printf "speed %s = %.2f (goal >= %.2f: %s)\n", n, r, g, (r >= g ? "met" : "missed") }'
}

echo "nginx plain:" >&2
np=$(rate "http://[::1]:$nginx_plain/small")
echo "Lua plain:" >&2
lp=$(rate "http://[::1]:$lua_plain/small")
echo "nginx TLS:" >&2
nt=$(rate "https://[::1]:$nginx_tls/small")
echo "Lua TLS:" >&2
lt=$(rate "https://[::1]:$lua_tls/small")
printf 'requests/s, one keep-alive connection, 1 KiB: nginx %s, Lua %s plain; nginx %s, Lua %s TLS\n' \
  "$np" "$lp" "$nt" "$lt"
ratio "lua_plain / nginx_plain" "$lp" "$np" 0.25
ratio "lua_tls / nginx_tls" "$lt" "$nt" 0.30
