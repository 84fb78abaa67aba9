# Shared by the agent's shell tests: a scratch folder, and checks that count.
# Sourced with the agent's path as $1.
set -u
agent=$1
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vesk-agent-test.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
failures=0
passes=0

expect() {  # expect NAME WANTED_STATUS COMMAND...
  local name=$1 wanted=$2; shift 2
  "$@" >"$tmp/out" 2>"$tmp/err"
  local status=$?
  if [ "$status" -ne "$wanted" ]; then
    echo "FAIL $name: status $status, wanted $wanted"; sed 's/^/  err: /' "$tmp/err"
    failures=$((failures + 1)); return 1
  fi
  passes=$((passes + 1))
}
contains() {  # contains NAME FILE TEXT
  if ! grep -qF -- "$3" "$2"; then
    echo "FAIL $1: '$3' not in $(basename "$2")"; sed 's/^/  /' "$2"
    failures=$((failures + 1)); return 1
  fi
  passes=$((passes + 1))
}
fail() {  # fail NAME TEXT
  echo "FAIL $1: $2"; failures=$((failures + 1)); return 1
}
# Polls (up to 30 s) until FILE contains TEXT.
await() {  # await FILE TEXT
  local polls=0
  until grep -qF -- "$2" "$1" 2>/dev/null || [ $polls -ge 600 ]; do
    sleep 0.05; polls=$((polls + 1))
  done
  grep -qF -- "$2" "$1" 2>/dev/null
}
summary() {
  echo "$passes passed, $failures failed"
  [ "$failures" -eq 0 ]
}
