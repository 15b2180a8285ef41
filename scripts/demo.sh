#!/usr/bin/env bash
# Sets up, builds and runs the end-to-end demo: a temporary runtime and apps directory
# holding the sample apps, a private dbus-daemon as the system bus, the window-manager
# simulator, and the demo client. Everything it starts or makes is removed on exit, also
# after Ctrl-C. Exits non-zero when a step did not give the expected answer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh >/dev/null
build=$(pwd)/${BUILD_DIR:-build}

work=$(mktemp -d /tmp/talvo-demo.XXXXXX)
bus_pid=""
sim_pid=""
cleanup() {
  trap - EXIT INT TERM
  # Any app process still started from this demo's runtime directory.
  for environ in /proc/[0-9]*/environ; do
    if grep -qsz "^VELNA_RUNTIME_DIR=$work/rt$" "$environ" 2>/dev/null; then
      pid=${environ#/proc/}; pid=${pid%/environ}
      case "$pid" in "$$" | "$bus_pid" | "$sim_pid") ;; *) kill -KILL "$pid" 2>/dev/null || true ;; esac
    fi
  done
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null || true
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null && wait "$bus_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

mkdir -m 700 "$work/rt" && mkdir "$work/apps"
cp "$build"/apps/manifests/*.app "$work/apps/"
port_exec=$(sed -n 's/^Exec=//p' "$work/apps/org.velna.sample.portcompanion.app")
# An app that starts but never registers its port, and an rpc-port app with nothing to run.
sed -e "s|^Exec=.*|Exec=/usr/bin/env TALVO_SAMPLE_NO_PORT=1 $port_exec|" \
  -e 's|^Package=.*|Package=org.velna.sample.neverready|' \
  "$work/apps/org.velna.sample.portcompanion.app" > "$work/apps/org.velna.sample.neverready.app"
sed -e '/^Exec=/d' -e 's|^Package=.*|Package=org.velna.sample.noexec|' \
  "$work/apps/org.velna.sample.rpccompanion.app" > "$work/apps/org.velna.sample.noexec.app"

export VELNA_RUNTIME_DIR=$work/rt VELNA_APPS_DIR=$work/apps
export VELNA_LOG_FILE=$work/log VELNA_LOG_LEVEL=${VELNA_LOG_LEVEL:-info}
export VELNA_APP_ID=org.velna.talvo.demo

dbus-daemon --config-file=tools/dbus/talvo-private-bus.conf --address="unix:path=$work/bus" \
  --nofork --print-address=3 3>"$work/bus.address" 2>/dev/null &
bus_pid=$!
for _ in $(seq 100); do [ -s "$work/bus.address" ] && break; sleep 0.05; done
export DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$work/bus.address")

"$build/tools/wm-sim/talvo-wm-sim" --layout 13 > "$work/sim.out" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do grep -q ready "$work/sim.out" 2>/dev/null && break; sleep 0.05; done

status=0
"$build/tools/demo/talvo-demo" || status=$?
if [ "$status" -ne 0 ] && [ "$status" -ne 130 ]; then
  echo "The library's log of this session (last 40 lines):"
  tail -n 40 "$work/log" || true
fi
exit "$status"
