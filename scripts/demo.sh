#!/usr/bin/env bash
# Installs what is missing, builds, and runs the end-to-end demo (build/tools/demo/
# talvo-demo): a temporary runtime and apps directory holding the sample apps, a private
# dbus-daemon as the system bus, the window-manager simulator, and the demo client.
# Everything it starts or makes is removed on exit, also after Ctrl-C. Exits non-zero when
# a step did not give the expected answer. One line per phase, with the time since start.
set -euo pipefail
cd "$(dirname "$0")/.."
export session_began
session_began=$(date +%s%N)
. scripts/session.sh
build=${BUILD_DIR:-build}
log=$(mktemp /tmp/talvo-demo-build.XXXXXX)
trap 'rm -f "$log"' EXIT

fail() {
  echo "$1 failed; its output (last 30 lines):"
  tail -n 30 "$log"
  exit 1
}

session_say "Checking the Debian packages that the build needs (installs what is missing)"
scripts/install-deps.sh >"$log" 2>&1 || fail "Installing the packages"

session_say "Configuring the build in $build/"
cmake -S . -B "$build" -G Ninja >"$log" 2>&1 || fail "Configuring"

# Ninja prints "[done/total] ..." per step: report every tenth of the way.
session_say "Building (the first build takes a few minutes)"
set +e
cmake --build "$build" -j"$(nproc)" 2>&1 | tee "$log" | awk '
  match($0, /^\[[0-9]+\/[0-9]+\]/) {
    split(substr($0, 2, RLENGTH - 2), n, "/")
    tenth = int(10 * n[1] / n[2])
    if (tenth > shown) { shown = tenth; printf "           built %3d%% (%d of %d steps)\n", 10 * tenth, n[1], n[2]; fflush() }
  }'
status=${PIPESTATUS[0]}
set -e
[ "$status" -eq 0 ] || fail "Building"
session_say "Built"

rm -f "$log"  # exec below ends this shell without its EXIT trap
exec "$build/tools/demo/talvo-demo"
