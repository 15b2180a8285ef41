# Sourced by the talvo-cli tests: a private session of the sample apps (scripts/session.sh),
# the CLI's path, and checks that count failures. Usage: . cli_lib.sh SOURCE_DIR BUILD_DIR
set -u
source_dir=$1 build=$2
. "$source_dir/scripts/session.sh"
trap session_stop EXIT
session_start "$(mktemp -d /tmp/talvo-cli-test.XXXXXX)" "$build"
cli=$build/tools/cli/talvo-cli
port=org.velna.sample.portcompanion rpc=org.velna.sample.rpccompanion
alias_app=org.velna.sample.aliascompanion
failures=0 checks=0

fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# matches TEXT PATTERN: one line of TEXT matches the extended regular expression PATTERN,
# or, for a PATTERN of several lines, a stretch of TEXT does.
matches() {
  if [[ $2 == *$'\n'* ]]; then
    [[ $1 =~ $2 ]]
  else
    grep -Eq -- "$2" <<<"$1"
  fi
}

# expect CODE PATTERN ARGS...: the CLI exits with CODE and its output (stdout and stderr)
# matches PATTERN.
expect() {
  local code=$1 pattern=$2 out rc
  shift 2
  checks=$((checks + 1))
  out=$("$cli" "$@" 2>&1); rc=$?
  if [ "$rc" -ne "$code" ] || ! matches "$out" "$pattern"; then
    fail "talvo-cli $* -> exit $rc (wanted $code, /$pattern/):"; echo "$out"
  fi
}

# expect_json CODE PYTHON_CONDITION ARGS...: the CLI exits with CODE, its stdout is one
# JSON document (stderr empty), and the condition holds for it as d.
expect_json() {
  local code=$1 condition=$2 rc
  shift 2
  checks=$((checks + 1))
  "$cli" "$@" > "$session_work/out.json" 2> "$session_work/err"; rc=$?
  if [ "$rc" -ne "$code" ] || [ -s "$session_work/err" ] ||
     ! python3 -c 'import json, sys
d = json.load(open(sys.argv[1]))
sys.exit(0 if eval(sys.argv[2]) else 1)' "$session_work/out.json" "$condition"; then
    fail "talvo-cli $* -> exit $rc (wanted $code, JSON with $condition):"
    cat "$session_work/out.json" "$session_work/err"
  fi
}

finish() {
  echo "$((checks - failures)) of $checks checks passed"
  [ "$failures" -eq 0 ]
}
