#!/usr/bin/env bash
# talvo-cli against the sample apps in a private session: every subcommand, the exit codes
# the help documents, and one clear line for bad input. A request is made before the CLI
# runs its loop, so the launch wait of an app that is not running yet is exercised too.
set -u
source_dir=$1 build=$2
. "$source_dir/scripts/session.sh"
trap session_stop EXIT
session_start "$(mktemp -d /tmp/talvo-cli-test.XXXXXX)" "$build"
export VELNA_LOG_FILE=$session_work/log
cli=$build/tools/cli/talvo-cli
failures=0

# expect CODE PATTERN ARGS...: the CLI exits with CODE and its output matches PATTERN.
expect() {
  local code=$1 pattern=$2 out rc
  shift 2
  out=$("$cli" "$@" 2>&1); rc=$?
  if [ "$rc" -ne "$code" ] || ! grep -Eq -- "$pattern" <<<"$out"; then
    echo "FAILED: talvo-cli $* -> exit $rc (wanted $code, /$pattern/):"; echo "$out"
    failures=$((failures + 1))
  fi
}

port=org.velna.sample.portcompanion rpc=org.velna.sample.rpccompanion
expect 0 '^yes$' registered "$port" playMusic
expect 1 '^no$' registered "$port" play
expect 0 'mechanism: +message port' explain "$port"
expect 0 'alias app: +yes' explain org.velna.sample.aliascompanion
expect 0 '"result" : "\{\\"actionId\\":\\"playMusic\\"' --json action "$port" actionId=playMusic
expect 0 'result: \{"actionId":"setAlarm"' action "$rpc" actionId=setAlarm
expect 0 '^      "appId" : "org.velna.sample.rpccompanion",$' --json state "$rpc"
expect 1 'no app has the focus' focused
expect 2 "'bad' is not KEY=VALUE" action "$port" bad
expect 4 "'org.nope.app' is not installed" action org.nope.app actionId=x
DBUS_SYSTEM_BUS_ADDRESS=unix:path=$session_work/none expect 4 '^talvo-cli: no system bus' focused
expect 0 '^Usage: talvo-cli state' state --help

echo "$((12 - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
