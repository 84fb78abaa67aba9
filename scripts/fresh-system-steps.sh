#!/usr/bin/env bash
# The checks of the Debian packages on a fresh Debian 12 system, run as root
# inside it: a chroot made by scripts/check-fresh-system.sh, or a container
# or VM where systemd runs (then the service is started too).
#   fresh-system-steps.sh DIR
# DIR holds vesk-agent_*.deb, libvesk-core-dev_*.deb and consumer/ (the host
# program of tests/packaging/consumer). Prints "N passed, N failed".
set -u
dir=$(cd "$1" && pwd)
export DEBIAN_FRONTEND=noninteractive
work=$(mktemp -d /tmp/vesk-fresh.XXXXXX)
passes=0 failures=0 skips=0
check() {  # check NAME COMMAND...
  local name=$1; shift
  if "$@" >"$work/log" 2>&1; then echo "ok   $name"; passes=$((passes + 1)); else
    echo "FAIL $name"; sed 's/^/  /' "$work/log" | tail -n 40; failures=$((failures + 1)); fi
}
skip() { echo "skip $1: $2"; skips=$((skips + 1)); }
# expect NAME LINE COMMAND...: COMMAND succeeds and prints exactly LINE, which
# is shown, so that the log says what the installed programs answered.
expect() {
  local name=$1 line=$2; shift 2
  local out
  if out=$("$@" 2>"$work/log") && [ "$out" = "$line" ]; then
    echo "ok   $name: $out"; passes=$((passes + 1))
  else
    echo "FAIL $name: printed '$out', not '$line'"; sed 's/^/  /' "$work/log" | tail -n 40
    failures=$((failures + 1))
  fi
}
apt_get() { apt-get -y -q -o Dpkg::Use-Pty=0 "$@"; }
agent_deb=$(ls "$dir"/vesk-agent_*.deb)
dev_deb=$(ls "$dir"/libvesk-core-dev_*.deb)
version=$(dpkg-deb -f "$agent_deb" Version)

# What exists before the package: purge must come back to it.
snapshot() {  # snapshot FILE: every path on the root file system but the volatile ones
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp \
    -o -path /var/cache -o -path /var/log -o -path /var/lib/apt -o -path /var/lib/dpkg \
    -o -path /root \) -prune -o -print | sort >"$1"
}
# Waits up to 60 s for TEXT in FILE.
await() { local i=0; until grep -qF -- "$2" "$1" 2>/dev/null || [ $i -ge 600 ]; do sleep 0.1; i=$((i + 1)); done; grep -qF -- "$2" "$1"; }

check apt-update apt_get update
check install-agent apt_get install "$agent_deb"
echo "     apt set up: $(sed -n 's/^Setting up \([^ :]*\).*/\1/p' "$work/log" | tr '\n' ' ')"
expect version "vesk-agent $version" vesk-agent --version
expect lua-require "$version" env -u LUA_PATH -u LUA_CPATH -u LUA_PATH_5_2 -u LUA_CPATH_5_2 \
  lua5.2 -e 'print(require "vesk_core".version)'
cat >"$work/modules.lua" <<'LUA'
-- vesk.Config is a factory of configurations; the demo is found, not loaded.
local newConfig = require "vesk.Config"
assert(type(newConfig) == "function", "vesk.Config: " .. type(newConfig))
assert(type(newConfig().Fetch_Internal) == "function", "vesk.Config: no Fetch_Internal")
local found = package.searchpath("vesk.Config", package.path)
assert(found == "/usr/share/lua/5.2/vesk/Config.lua", "vesk.Config from " .. tostring(found))
assert(package.searchpath("vesk.demo.Manager", package.path), "vesk.demo.Manager")
LUA
check agent-finds-modules vesk-agent --run "$work/modules.lua"
check state-directory sh -c '[ "$(stat -c %a:%U /var/lib/vesk-agent)" = 700:root ]'

# A host program outside any source tree, against the installed packages.
check install-dev apt_get install "$dev_deb" cmake g++ make
cp -r "$dir/consumer" "$work/consumer"
check cmake-consumer-build sh -c "cmake -S '$work/consumer' -B '$work/cmake' && cmake --build '$work/cmake'"
expect cmake-consumer-runs "vesk_core $version" "$work/cmake/consumer"
check pkg-config-consumer-build sh -c "g++ -std=c++17 -o '$work/pc-consumer' '$work/consumer/consumer.cpp' \
  \$(pkg-config --cflags --libs vesk_core)"
expect pkg-config-consumer-runs "vesk_core $version" "$work/pc-consumer"

# man: the unit's documentation is checked to be there.
check install-tools apt_get install systemd man-db curl
unit=/lib/systemd/system/vesk-agent.service
check systemd-analyze-verify sh -c "systemd-analyze verify '$unit' 2>&1 | tee /dev/stderr | (! grep .)"

# The service as systemd runs it, where systemd runs; elsewhere the unit's
# command line by hand, on a free port (the host may use the demo's).
stop_limit=$(sed -n 's/^TimeoutStopSec=\([0-9]*\)s$/\1/p' "$unit")
if [ -d /run/systemd/system ]; then
  # The packaged options put the demo's manager on port 48443: a container
  # that shares the host's network shares that port too.
  check demo-port-free bash -c '! (exec 3<>/dev/tcp/::1/48443)'
  check systemctl-start systemctl start vesk-agent
  check demo-up sh -c 'for i in $(seq 60); do
    curl -skf --compressed "https://[::1]:48443/agent/status" | grep -q "<AgentReport " && exit 0; sleep 1
  done; exit 1'
  start=$(date +%s)
  check systemctl-stop systemctl stop vesk-agent
  check stopped-in-time sh -c "[ \$(( \$(date +%s) - $start )) -lt $stop_limit ] &&
    [ \"\$(systemctl show -p ExecMainStatus --value vesk-agent)\" = 0 ]"
  echo "     stopped after $(( $(date +%s) - start )) s (TimeoutStopSec=${stop_limit}s); the journal:"
  journalctl -q -o cat -u vesk-agent --no-pager | tail -n 15 | sed 's/^/       /'
else
  skip systemctl "systemd is not running here"
  (set -a; . /etc/default/vesk-agent; set +a
   eval "exec $(sed -n 's/^ExecStart=//p' "$unit") --set demo.manager.port=0") \
    >/dev/null 2>"$work/agent.log" &
  agent=$!
  check demo-up-by-hand await "$work/agent.log" "report 2 sent"
  start=$(date +%s)
  kill -TERM $agent; wait $agent; status=$?
  check stopped-in-time sh -c "[ $status -eq 0 ] && [ \$(( \$(date +%s) - $start )) -lt $stop_limit ]"
  [ "$failures" -eq 0 ] || tail -n 20 "$work/agent.log"
fi

# Remove keeps the state and the configuration; purge takes both.
check remove apt_get remove vesk-agent libvesk-core-dev
check remove-keeps-state test -e /var/lib/vesk-agent/config.xml -a -e /etc/default/vesk-agent
check removed-agent test ! -e /usr/bin/vesk-agent
check purge apt_get purge vesk-agent
check purge-takes-state test ! -e /var/lib/vesk-agent -a ! -e /etc/default/vesk-agent

# Again by dpkg -i, enabled by the operator this time: purge leaves nothing.
snapshot "$work/before"
check dpkg-install dpkg -i "$agent_deb" "$dev_deb"
check enable systemctl enable vesk-agent
check enabled test -L /etc/systemd/system/multi-user.target.wants/vesk-agent.service
check purge-again apt_get purge vesk-agent libvesk-core-dev
snapshot "$work/after"
check system-clean diff "$work/before" "$work/after"

rm -rf "$work"
echo "$passes passed, $failures failed, $skips skipped"
[ "$failures" -eq 0 ]
