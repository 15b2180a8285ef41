#!/usr/bin/env bash
# talvo-cli --json: one document on stdout for every outcome, errors included, parsed
# back; and a pipeline that reads the CLI's output to its end returns although the app
# that the CLI launched on demand goes on running.
. "$(dirname "$0")/cli_lib.sh" "$@"

# reads_to_end APP ARGS...: the pipeline ends within a bounded time, with a document
# whose "app" is APP, while APP still runs; APP's output went to its own log file.
reads_to_end() {
  local app=$1 rc
  shift
  checks=$((checks + 1))
  APP=$app timeout 30 bash -c '"$0" --json "$@" | python3 -c "import json, os, sys
assert json.load(sys.stdin)[\"app\"] == os.environ[\"APP\"]"' "$cli" "$@"
  rc=$?
  [ "$rc" -eq 0 ] || fail "talvo-cli --json $* | reader -> $rc (124: the pipe was held open)"
  expect_json 0 'd["running"] is True' --json explain "$app"
  [ -f "$session_work/rt/log/$app.log" ] || fail "no log file for $app"
}
reads_to_end "$port" action "$port" actionId=playMusic
reads_to_end "$rpc" action "$rpc" actionId=setAlarm

expect_json 0 'd["answer"]["result"] == {"actionId": "playMusic", "done": True} and d["exitCode"] == 0' \
  --json action "$port" actionId=playMusic
expect_json 1 'd["answer"]["status_code"] == "ACTION_EXECUTION_FAILURE" and d["exitCode"] == 1' \
  -j action "$rpc" actionId=x sample_status=ACTION_EXECUTION_FAILURE
# A result that is not JSON stays a string.
expect_json 0 'd["answer"]["result"] == "plain text"' --json action "$port" actionId=x \
  "sample_result=plain text"
expect_json 0 'd["answer"]["appContext"]["appId"] == "org.velna.sample.rpccompanion"' \
  --json state "$rpc"
expect_json 0 'd["mechanism"] == "rpc-port" and d["actionIds"] == ["setAlarm"] and d["alias"] is False' \
  --json explain "$rpc"
expect_json 0 'd["registered"] is True' --json registered "$port" playMusic
expect_json 0 'sorted(a["app"] for a in d["apps"] if a["alias"]) == ["org.velna.sample.aliascompanion"] and len(d["apps"]) == 5' \
  --json list
expect_json 1 'd["focused"] is None' --json focused

# Errors are documents too, with the exit code and its meaning.
expect_json 4 'd["exitCode"] == 4 and "not installed" in d["error"] and d["meaning"]' \
  --json action org.nope.app actionId=x
expect_json 2 'd["exitCode"] == 2 and "is not KEY=VALUE" in d["error"]' --json action "$port" bad
expect_json 2 'd["exitCode"] == 2 and "Unknown option" in d["error"]' --bogus --json focused
expect_json 3 'd["details"]["log"] == ["Unknown message recieved from app:" + d["details"]["app"]]' \
  --json --timeout=2 action "$port" actionId=x sample_reply=wrong_keys

# --json=short prints one line.
checks=$((checks + 1))
lines=$("$cli" --json=short registered "$port" playMusic | wc -l)
[ "$lines" -eq 1 ] || fail "--json=short printed $lines lines"
finish
