# Sourced, not run: a private session for the sample apps, shared by the demo and the CLI
# test. session_start WORK BUILD makes WORK/rt (runtime), WORK/apps (the sample manifests
# plus two broken variants), starts a private dbus-daemon as the system bus and the
# window-manager simulator, and exports the variables that a client needs. session_stop
# ends every app started from WORK/rt, the simulator and the bus, and removes WORK.
# What the session is made from is found in the build tree BUILD, unless the caller set
# session_manifests, session_wm_sim and session_bus_config (an installed tree does).
session_bus_pid=""
session_sim_pid=""
session_work=""
session_began=${session_began:-$(date +%s%N)}

# session_say TEXT: one line, prefixed with the seconds since the session script began.
session_say() {
  local now
  now=$(date +%s%N)
  printf '[%6.1f s] %s\n' "$(( (now - session_began) / 1000000 ))e-3" "$*"
}

session_start() {
  session_work=$1
  local build=${2:-}
  local manifests=${session_manifests:-$build/apps/manifests}
  local wm_sim=${session_wm_sim:-$build/tools/wm-sim/talvo-wm-sim}
  local bus_config=${session_bus_config:-$(dirname "${BASH_SOURCE[0]}")/../tools/dbus/talvo-private-bus.conf}
  mkdir -m 700 "$session_work/rt" && mkdir "$session_work/apps"
  cp "$manifests"/*.app "$session_work/apps/"
  local apps=$session_work/apps port_exec
  port_exec=$(sed -n 's/^Exec=//p' "$apps/org.velna.sample.portcompanion.app")
  # An app that starts but never registers its port, and an rpc-port app with nothing to run.
  sed -e "s|^Exec=.*|Exec=/usr/bin/env TALVO_SAMPLE_NO_PORT=1 $port_exec|" \
    -e 's|^Package=.*|Package=org.velna.sample.neverready|' \
    "$apps/org.velna.sample.portcompanion.app" > "$apps/org.velna.sample.neverready.app"
  sed -e '/^Exec=/d' -e 's|^Package=.*|Package=org.velna.sample.noexec|' \
    "$apps/org.velna.sample.rpccompanion.app" > "$apps/org.velna.sample.noexec.app"

  export VELNA_RUNTIME_DIR=$session_work/rt VELNA_APPS_DIR=$apps

  dbus-daemon --config-file="$bus_config" \
    --address="unix:path=$session_work/bus" --nofork --print-address=3 \
    3>"$session_work/bus.address" 2>/dev/null &
  session_bus_pid=$!
  for _ in $(seq 100); do [ -s "$session_work/bus.address" ] && break; sleep 0.05; done
  export DBUS_SYSTEM_BUS_ADDRESS
  DBUS_SYSTEM_BUS_ADDRESS=$(head -n1 "$session_work/bus.address")

  "$wm_sim" --layout 13 > "$session_work/sim.out" 2>&1 &
  session_sim_pid=$!
  for _ in $(seq 100); do grep -q ready "$session_work/sim.out" 2>/dev/null && break; sleep 0.05; done
}

session_stop() {
  [ -n "$session_work" ] || return 0
  # Any app process still started from this session's runtime directory.
  local environ pid
  for environ in /proc/[0-9]*/environ; do
    if grep -qsz "^VELNA_RUNTIME_DIR=$session_work/rt$" "$environ" 2>/dev/null; then
      pid=${environ#/proc/}; pid=${pid%/environ}
      case "$pid" in "$$" | "$session_bus_pid" | "$session_sim_pid") ;; *) kill -KILL "$pid" 2>/dev/null || true ;; esac
    fi
  done
  [ -n "$session_sim_pid" ] && kill "$session_sim_pid" 2>/dev/null && wait "$session_sim_pid" 2>/dev/null || true
  [ -n "$session_bus_pid" ] && kill "$session_bus_pid" 2>/dev/null && wait "$session_bus_pid" 2>/dev/null || true
  rm -rf "$session_work"
  session_work=""
}
