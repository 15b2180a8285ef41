#!/usr/bin/env bash
# policy_test.sh POLICY: runs a bus that, like a system bus, lets nobody own a name unless
# a policy says so, and includes POLICY (the installed system-bus policy, with its user
# set to the user under test). The named user may own "org.velna.talvo.sdk.proxy" and no
# other name; any other user may not own it.
set -euo pipefail
policy=$1
work=$(mktemp -d /tmp/talvo-policy.XXXXXX)
trap 'rm -rf "$work"' EXIT
me=$(id -un)
other=root
[ "$me" != root ] || other=nobody

# own USER NAME: asks a bus of its own, whose policy names USER, for NAME; prints
# "granted" or "denied". The bus ends with the call.
own() {
  local bus_pid answer=denied
  sed "s/<policy user=\"[^\"]*\">/<policy user=\"$1\">/" "$policy" > "$work/policy.conf"
  cat > "$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
  <include>$work/policy.conf</include>
</busconfig>
CONF
  rm -f "$work/bus"
  dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" \
    2>/dev/null &
  bus_pid=$!
  for _ in $(seq 100); do [ -s "$work/address" ] && break; sleep 0.05; done
  if dbus-send --bus="unix:path=$work/bus" --print-reply --reply-timeout=5000 \
       --dest=org.freedesktop.DBus \
       /org/freedesktop/DBus org.freedesktop.DBus.RequestName string:"$2" uint32:0 \
       2>/dev/null | grep -q "uint32 1"; then
    answer=granted
  fi
  kill "$bus_pid"
  wait "$bus_pid" 2>/dev/null || true
  echo "$answer"
}

grep -q '<policy user="[^"]*">' "$policy" || { echo "no per-user policy in $policy"; exit 1; }
[ "$(own "$me" org.velna.talvo.sdk.proxy)" = granted ] || { echo "$me may not own the name"; exit 1; }
[ "$(own "$me" org.velna.talvo.other)" = denied ] || { echo "the policy grants other names"; exit 1; }
[ "$(own "$other" org.velna.talvo.sdk.proxy)" = denied ] || { echo "a policy for $other lets $me own it"; exit 1; }
echo "only the policy's user owns org.velna.talvo.sdk.proxy"
