#!/usr/bin/env bash
# The agent's command line as an operator meets it: exit codes and streams.
source "$(dirname "$0")/testlib.sh" "$1"

expect help 0 "$agent" --help && contains help "$tmp/out" "vesk-agent --run FILE"
printf 'print(require("vesk_core").version)\n' >"$tmp/version.lua"
version=$("$agent" --run "$tmp/version.lua")
expect version 0 "$agent" --version && contains version "$tmp/out" "vesk-agent $version"
expect unknown 2 "$agent" --no-such-option && contains unknown "$tmp/err" "unknown option '--no-such-option'"
expect nothing 2 "$agent"

printf 'print("out", 1)\n' >"$tmp/ok.lua"
expect run-ok 0 "$agent" --run "$tmp/ok.lua" && contains run-ok "$tmp/out" "out	1"

# Script text reaches print and the log functions literally, never as a format.
printf 'print("100%% literal %%s")\nrequire("vesk_core").wxLogMessage("50%% %%d %%s")\n' >"$tmp/literal.lua"
expect literal 0 "$agent" --run "$tmp/literal.lua" &&
  contains literal "$tmp/out" "100% literal %s" && contains literal "$tmp/err" "Message: 50% %d %s"

printf 'print("before")\nos.exit(5)\nprint("after")\n' >"$tmp/exit.lua"
expect os-exit 5 "$agent" --run "$tmp/exit.lua" && contains os-exit "$tmp/out" "before"
if grep -q after "$tmp/out"; then echo "FAIL os-exit: ran past os.exit"; failures=$((failures + 1)); fi

printf 'local function f() error("broken here") end\nf()\n' >"$tmp/fail.lua"
expect run-error 1 "$agent" --run "$tmp/fail.lua" &&
  contains run-error "$tmp/err" "Error: $tmp/fail.lua:1: broken here" &&
  contains run-error "$tmp/err" "stack traceback:"
JOURNAL_STREAM=8:1 expect run-error-journal 1 "$agent" --run "$tmp/fail.lua" &&
  contains run-error-journal "$tmp/err" "<3>stack traceback:"

expect api-doc 0 "$agent" --api-doc && contains api-doc "$tmp/out" "# SLB reference" &&
  contains api-doc "$tmp/out" '## `SLB.wx.MemoryOutputStream` — class' &&
  contains api-doc "$tmp/out" "Class wrapper for wxMemoryOutputStream" &&
  contains api-doc "$tmp/out" "  - 3: App object or nil" &&
  contains api-doc "$tmp/out" 'function `GetHostInfo`'

printf 'x = = 1\n' >"$tmp/syntax.lua"
expect syntax 1 "$agent" --run "$tmp/syntax.lua" && contains syntax "$tmp/err" "luaL_loadbuffer() returned 3"

expect missing 1 "$agent" --run "$tmp/none.lua" && contains missing "$tmp/err" "cannot read"

printf 'print("traced")\n' >"$tmp/trace.lua"
JOURNAL_STREAM=8:1 expect journal 0 "$agent" --run "$tmp/trace.lua" --trace 'Main.verbose' &&
  contains journal "$tmp/err" "<6>[Main.verbose] Line:" && contains journal "$tmp/out" "traced"

# Services: the demo service from the zip archive the build makes, stopped by
# SIGTERM; its configuration is kept in the state directory across restarts.
serve() {  # serve LABEL: runs the agent until the service has started, then stops it
  rm -f "$tmp/err"  # the start line waited for must be this run's
  "$agent" --service vesk.demo.Heartbeat --zip-path "$(dirname "$agent")/lua/demo.zip" \
    --state-dir "$tmp/state" >"$tmp/out" 2>"$tmp/err" &
  local pid=$! polls=0
  until grep -q "time(s) before" "$tmp/err" || [ $polls -ge 600 ]; do
    sleep 0.05; polls=$((polls + 1))
  done
  kill -TERM "$pid"
  wait "$pid"
  local status=$?
  if [ "$status" -ne 0 ]; then
    echo "FAIL $1: status $status"; sed 's/^/  err: /' "$tmp/err"; failures=$((failures + 1))
  fi
}
serve first-start && contains first-start "$tmp/err" "Heartbeat: started 0 time(s) before" &&
  contains first-start "$tmp/err" "Heartbeat: stopping after"
serve restart && contains restart "$tmp/err" "Heartbeat: started 1 time(s) before"
modes=$(stat -c '%a' "$tmp/state" "$tmp/state/config.xml" | paste -sd' ')
if [ "$modes" != "700 600" ]; then echo "FAIL state modes: $modes"; failures=$((failures + 1)); fi

summary
