#!/usr/bin/env bash
# talvo-cli run: several requests in one process. An action to an alias app succeeds once
# an earlier line connected it; a second action to the same app replaces the first; a
# script from standard input is answered line by line.
. "$(dirname "$0")/cli_lib.sh" "$@"

cat > "$session_work/alias.script" <<SCRIPT
# The alias app is reached only over a connection that an earlier request made.
launch $alias_app
state $alias_app
wait
action $alias_app actionId=openGallery
SCRIPT
expect 0 "line 5: answer
app: $alias_app
status_code: ACTION_EXECUTION_SUCCESS
status_msg: .*
result: \{\"actionId\":\"openGallery\"" --timeout=40 run "$session_work/alias.script"

# Replacement: the app answers the first request late, after the second was sent; the
# library hands that answer to the second request and drops the other.
expect 0 "line 1: replaced by line 2
line 2: answer" run - <<SCRIPT
action $port actionId=first sample_delay_ms=500
action $port actionId=second
SCRIPT

# JSON lines, per-line options, and the first failure's exit code.
checks=$((checks + 1))
printf '%s\n' "registered $port playMusic" "--timeout=2 action $port actionId=x sample_reply=wrong_keys" \
  "registered $port nope" "action $rpc actionId=setAlarm" |
  "$cli" --json run - > "$session_work/run.json"
rc=$?
python3 - "$session_work/run.json" <<'PY' && [ "$rc" -eq 3 ] || { fail "run --json (exit $rc)"; cat "$session_work/run.json"; }
import json, sys
docs = [json.loads(line) for line in open(sys.argv[1])]
assert docs[0] == {"registered": True, "exitCode": 0}, docs
assert docs[1] == {"registered": False, "exitCode": 1}, docs
answer = [d for d in docs if d.get("line") == 4][0]
assert answer["answer"]["result"]["actionId"] == "setAlarm", docs
error = [d for d in docs if "error" in d][0]
assert error["exitCode"] == 3 and error["details"]["line"] == 2, docs
PY

expect 2 'line 1: wait takes a number of seconds' run - <<<"wait soon"
expect 2 'line 2: run cannot be nested' run - <<<$'# comment\nrun other'
expect 2 'cannot read .*/nofile' run "$session_work/nofile"
finish
