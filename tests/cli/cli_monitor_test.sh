#!/usr/bin/env bash
# talvo-cli monitor sees, from other client processes, an action and each piece of its
# chunked answer on the message port, and an action over rpc-port with its answer.
. "$(dirname "$0")/cli_lib.sh" "$@"

# start_monitor OUT ARGS...: a monitor in the background, once it listens.
start_monitor() {
  local out=$1
  shift
  : > "$session_work/monitor.err"
  "$cli" --timeout=60 monitor "$@" > "$out" 2> "$session_work/monitor.err" &
  monitor=$!
  for _ in $(seq 200); do grep -q monitoring "$session_work/monitor.err" && break; sleep 0.05; done
}

start_monitor "$session_work/monitor.txt"
expect 4 'another monitor listens' monitor
expect 0 'result: \{"actionId":"playMusic"' action "$port" actionId=playMusic sample_chunk_size=16
expect 0 'result: \{"actionId":"setAlarm"' action "$rpc" actionId=setAlarm
kill -INT "$monitor"
checks=$((checks + 1))
wait "$monitor" || fail "monitor exited $? on SIGINT"
cat "$session_work/monitor.txt"

# A burst of 18 pieces, more than the kernel queues of datagrams to one socket.
start_monitor "$session_work/monitor.json" --json "$port"
expect 0 'result: \{"actionId":"setAlarm"' action "$rpc" actionId=setAlarm
expect 0 'result: \{"actionId":"playMusic"' action "$port" actionId=playMusic sample_chunk_size=2
kill -TERM "$monitor"
wait "$monitor"

# saw PATTERN: one line of the text monitor matches PATTERN.
saw() {
  checks=$((checks + 1))
  grep -Eq -- "$1" "$session_work/monitor.txt" || fail "monitor never showed /$1/"
}
cli_id=org.velna.talvo.cli
saw "^[0-9:.]{12} $cli_id -> $port message-port TALVO_APP_SDK_PORT_516 [0-9]+ B actionId=playMusic sample_chunk_size=16$"
saw "^[0-9:.]{12} $port -> $cli_id message-port TALVO_APP_SDK_PORT_516 [0-9]+ B \[piece 1\] chunk_result=\(16 bytes\) last_chunk=false$"
saw "^[0-9:.]{12} $port -> $cli_id message-port TALVO_APP_SDK_PORT_516 [0-9]+ B \[piece 3, last\] status_code=ACTION_EXECUTION_SUCCESS status_msg=Handled by the sample compani\.\.\. chunk_result=\(4 bytes\) last_chunk=true$"
saw "^[0-9:.]{12} $cli_id -> $rpc rpc-port Send [0-9]+ B actionId=setAlarm$"
saw "^[0-9:.]{12} $rpc -> $cli_id rpc-port Callback [0-9]+ B id=$rpc status_code=ACTION_EXECUTION_SUCCESS .* result=\{\"actionId\":\"setAlarm\",\"done\"\.\.\.$"

# The JSON monitor shows only what concerns the app it was given, full values, one
# document per line.
checks=$((checks + 1))
python3 - "$session_work/monitor.json" "$port" <<'PY' || fail "JSON monitor lines"
import json, sys
lines = [json.loads(line) for line in open(sys.argv[1])]
assert lines and all(sys.argv[2] in (d["sender"], d["receiver"]) for d in lines), lines
pieces = [d for d in lines if "piece" in d]
assert [d["piece"] for d in pieces] == list(range(1, 19)), pieces
assert [d["lastPiece"] for d in pieces] == [False] * 17 + [True], pieces
assert pieces[-1]["keys"]["status_msg"] == "Handled by the sample companion app", pieces
assert pieces[-1]["keys"]["chunk_result"] == {"bytes": 2}, pieces
PY
finish
