#!/usr/bin/env bash
# talvo-cli check in a private session: the three sample apps pass; each broken app (one
# fault each) fails with its own finding; no check leaves an app running that it started.
set -u
source_dir=$1 build=$2 test_app=$3
. "$source_dir/scripts/session.sh"
trap session_stop EXIT
session_start "$(mktemp -d /tmp/talvo-check-test.XXXXXX)" "$build"
export VELNA_LOG_FILE=$session_work/log VELNA_APP_ID=org.velna.talvo.cli
cli=$build/tools/cli/talvo-cli apps=$session_work/apps
key=http://velna.org/velna/metadata/talvo
port_exec=$(sed -n 's/^Exec=//p' "$apps/org.velna.sample.portcompanion.app")
failures=0 checks=0

# manifest ID EXEC SDK_VERSION [EXTRA METADATA LINE...]
manifest() {
  local id=$1 exec=$2 sdk=$3
  shift 3
  { printf '[Application]\nPackage=%s\nExec=%s\n\n[Metadata]\n' "$id" "$exec"
    printf '%s\n' "$key/companion-app/version=1.0" "$key/companion-app/capsule-id=broken.capsule" \
      "$key/sdk/version=$sdk" "$@"; } > "$apps/$id.app"
}

# Any process that runs as APP in this session.
running() {
  grep -lsz "^VELNA_APP_ID=$1$" /proc/[0-9]*/environ 2>/dev/null |
    xargs -r grep -lsz "^VELNA_RUNTIME_DIR=$session_work/rt$" 2>/dev/null | grep -q .
}

# expect CODE PATTERN APP [OPTIONS...]: check exits with CODE, its output matches PATTERN,
# and APP does not run afterwards.
expect() {
  local code=$1 pattern=$2 app=$3 out rc
  shift 3
  checks=$((checks + 1))
  out=$("$cli" "$@" check "$app" 2>&1); rc=$?
  if [ "$rc" -ne "$code" ] || ! grep -Eq -- "$pattern" <<<"$out"; then
    echo "FAILED: check $app -> exit $rc (wanted $code, /$pattern/):"; echo "$out"
    failures=$((failures + 1))
  elif running "$app"; then
    echo "FAILED: check $app left the app running"; failures=$((failures + 1))
  fi
}

for app in portcompanion rpccompanion aliascompanion; do
  expect 0 '^[0-9]+ passed, [0-9]+ warnings, 0 failed$' org.velna.sample.$app
done
expect 0 '"passed" : true' org.velna.sample.rpccompanion --json

manifest broken.noconcepts "$test_app no-concepts" 1.0-alpha "$key/companion-app/action-id=go"
expect 1 'fail  context request: the client gets the failure answer .*no "concepts"' broken.noconcepts
manifest broken.nostatus "$test_app no-status" 1.0-alpha "$key/companion-app/action-id=go"
expect 1 'fail  action "go": the answer has no "status_code"' broken.nostatus
manifest broken.wrongid "$test_app wrong-id" 1.1.0 "$key/companion-app/action-id=go"
expect 1 'answered as "org.velna.someone.else", not as itself' broken.wrongid --timeout 2
manifest broken.noport "$test_app no-port" 1.0-alpha "$key/companion-app/action-id=go"
expect 1 'fail  the app runs but did not register the port TALVO_APP_SDK_PORT_516' broken.noport
manifest broken.blanks "$port_exec" 1.0-alpha "$key/companion-app/action-id=playMusic, stop"
expect 1 'fail  action-id " stop" has blanks' broken.blanks
manifest broken.misspelled "$port_exec" 1.0-alpha "$key/companion-app/action_id=playMusic"
expect 1 "did you mean $key/companion-app/action-id\\?" broken.misspelled
manifest broken.badkeyfile "$port_exec" 1.0-alpha "this line is no key"
expect 1 "fail  manifest does not parse: $apps/broken.badkeyfile.app:9: \"this line is no key\"" \
  broken.badkeyfile

echo "$((checks - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
