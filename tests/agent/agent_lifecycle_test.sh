#!/usr/bin/env bash
# The agent as a supervisor meets it: one agent per state directory, stops
# that end in time whatever the services do, and exit statuses that tell a
# failed agent from a stopped one.
source "$(dirname "$0")/testlib.sh" "$1"

mkdir -p "$tmp/mods"
service() {  # service NAME BODY: a module whose main runs BODY
  printf 'return function() return { main = function() %s end } end\n' "$2" >"$tmp/mods/$1.lua"
}
service cooperates 'app:Set("up", 1) io.stderr:write("UP\n") while not app:ShouldExit(1000) do end'
service spins 'io.stderr:write("UP\n") while true do end'
service returns 'io.stderr:write("UP\n")'
service fails 'error("cannot work")'

start() {  # start LOG SERVICE [OPTIONS...]: the agent in the background, $! its pid
  local log=$1 name=$2; shift 2
  "$agent" --service "$name" --lua-path "$tmp/mods/?.lua" "$@" >/dev/null 2>"$log" &
}
# Waits up to SECONDS for PID to end; its status is in $status, 124 if it didn't.
finish() {  # finish PID SECONDS
  local pid=$1 polls=0
  while kill -0 "$pid" 2>/dev/null && [ $polls -lt $(($2 * 20)) ]; do
    sleep 0.05; polls=$((polls + 1))
  done
  if kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid"; wait "$pid"; status=124; return; fi
  wait "$pid"; status=$?
}

# A second agent on a held state directory refuses to start; the first runs on.
start "$tmp/first" cooperates --state-dir "$tmp/state"
first=$!
await "$tmp/first" "UP" || fail lock "the first agent did not start"
expect lock 1 "$agent" --service cooperates --lua-path "$tmp/mods/?.lua" --state-dir "$tmp/state" &&
  contains lock "$tmp/err" "the state directory '$tmp/state' is in use by another agent (process $first)"
kill -0 "$first" 2>/dev/null || fail lock "the first agent ended"
kill -TERM "$first"; finish "$first" 10
[ "$status" -eq 0 ] || fail lock "first agent: status $status"

# Temporary files of a writer that was killed are gone at the next start.
touch "$tmp/state/config.xml.new" "$tmp/state/config.xml.new.4242.55d0"
start "$tmp/stale" cooperates --state-dir "$tmp/state"
pid=$!
await "$tmp/stale" "UP" || fail stale "the agent did not start"
kill -TERM "$pid"; finish "$pid" 10
[ -z "$(ls "$tmp/state" | grep '^config.xml.new')" ] || fail stale "left: $(ls "$tmp/state")"
contains stale "$tmp/stale" "removed '$tmp/state/config.xml.new'"

# A service that never looks at ShouldExit: the stop gives up after its
# time-out, names the service and exits 1, within a second of the deadline.
start "$tmp/spin" spins --stop-timeout 2
pid=$!
await "$tmp/spin" "UP" || fail deadline "the agent did not start"
before=$(date +%s%N)
kill -TERM "$pid"; finish "$pid" 10
elapsed=$((($(date +%s%N) - before) / 1000000))
[ "$status" -eq 1 ] || fail deadline "status $status, wanted 1"
# It waits the whole time-out, and then no longer than it takes to exit (a
# second here, more under a sanitizer): never for the service.
echo "stop with a spinning service ended after $elapsed ms (time-out 2 s)"
[ "$elapsed" -ge 2000 ] && [ "$elapsed" -le 8000 ] || fail deadline "ended after $elapsed ms"
contains deadline "$tmp/spin" "services still running 2 s after the stop: spins; exiting"

# SIGHUP stops the services as SIGTERM does.
start "$tmp/hup" cooperates
pid=$!
await "$tmp/hup" "UP" || fail hup "the agent did not start"
kill -HUP "$pid"; finish "$pid" 10
[ "$status" -eq 0 ] || fail hup "status $status, wanted 0"
contains hup "$tmp/hup" "signal 1, stopping the services" && contains hup "$tmp/hup" "vesk-agent: stopped"

# Services that all end, fail or never start leave an agent that exits 1,
# so that its supervisor restarts it.
for name in returns fails no.such.module "bad name"; do
  start "$tmp/ended" "$name"
  pid=$!; finish "$pid" 10
  [ "$status" -eq 1 ] || fail "ended $name" "status $status, wanted 1"
  contains "ended $name" "$tmp/ended" "no service is running"
done
expect empty-service 2 "$agent" --service "" && contains empty-service "$tmp/err" "needs a module name"
expect bad-timeout 2 "$agent" --service x --stop-timeout 1e3

# Stop signals the agent inherited as ignored are its own again.
printf 'io.stderr:write("UP\\n") while true do end\n' >"$tmp/spin.lua"
(trap '' TERM INT; exec "$agent" --run "$tmp/spin.lua" >/dev/null 2>"$tmp/run-ign") &
pid=$!
await "$tmp/run-ign" "UP" || fail ignored-run "the script did not start"
kill -TERM "$pid"; finish "$pid" 5
[ "$status" -eq 143 ] || fail ignored-run "status $status, wanted 143 (SIGTERM)"
(trap '' TERM INT HUP; exec "$agent" --service cooperates --lua-path "$tmp/mods/?.lua" \
  >/dev/null 2>"$tmp/serve-ign") &
pid=$!
await "$tmp/serve-ign" "UP" || fail ignored-serve "the agent did not start"
kill -INT "$pid"; finish "$pid" 10
[ "$status" -eq 0 ] || fail ignored-serve "status $status, wanted 0"

# Scripts fail with what lua(1) would print, and exit as os.exit asks.
expect run-dir 1 "$agent" --run "$tmp" && contains run-dir "$tmp/err" "cannot read '$tmp': is a directory"
for case in 'error({})|(no error message)' 'error()|(no error message)' \
  'error(setmetatable({}, {__tostring = function() error("bad tostring", 0) end}))|bad tostring'; do
  printf '%s\n' "${case%%|*}" >"$tmp/value.lua"
  expect "error value ${case%%|*}" 1 "$agent" --run "$tmp/value.lua" &&
    contains "error value ${case%%|*}" "$tmp/err" "Error: ${case#*|}"
done
printf 'os.exit(3)\n' >"$tmp/three.lua"
expect exit-three 3 "$agent" --run "$tmp/three.lua"

summary
