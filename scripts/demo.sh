#!/usr/bin/env bash
# Sets up, builds and runs the end-to-end demo: a temporary runtime and apps directory
# holding the sample apps, a private dbus-daemon as the system bus, the window-manager
# simulator, and the demo client. Everything it starts or makes is removed on exit, also
# after Ctrl-C. Exits non-zero when a step did not give the expected answer.
set -euo pipefail
cd "$(dirname "$0")/.."
echo "Installing what is missing and building (the first run takes a few minutes)..."
scripts/build.sh >/dev/null
build=$(pwd)/${BUILD_DIR:-build}

. scripts/session.sh
trap session_stop EXIT
trap 'exit 130' INT TERM
session_start "$(mktemp -d /tmp/talvo-demo.XXXXXX)" "$build"
export VELNA_LOG_FILE=$session_work/log VELNA_LOG_LEVEL=${VELNA_LOG_LEVEL:-info}
export VELNA_APP_ID=org.velna.talvo.demo

status=0
"$build/tools/demo/talvo-demo" || status=$?
if [ "$status" -ne 0 ] && [ "$status" -ne 130 ]; then
  echo "The library's log of this session (last 40 lines):"
  tail -n 40 "$session_work/log" || true
fi
exit "$status"
