#!/usr/bin/env bash
# install_test.sh BUILD_DIR README: installs BUILD_DIR into a temporary prefix, checks that
# nothing installed points back into the build tree, extracts the C example under
# "## Writing a client" from README, and builds it against the installed tree through
# pkg-config (with an rpath) and through CMake's find_package. Each build is run once with
# no apps and no bus, then once against the installed sample apps on a private bus with
# the installed window-manager simulator, with the apps found in the installed tree's
# default apps directory. No LD_LIBRARY_PATH anywhere: the installed tree must stand alone.
set -euo pipefail
build=$(cd "$1" && pwd) readme=$2
work=$(mktemp -d /tmp/talvo-install.XXXXXX)
prefix=$work/prefix
. "$(dirname "$0")/installed_tree.sh"
trap 'session_stop; rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH

install_tree "$build" "$prefix"
awk '/^## Writing a client/{on=1} on&&/^```c$/{grab=1; next} grab&&/^```$/{exit} grab' \
  "$readme" > "$work/client.c"
grep -q talvo_proxy_initialize "$work/client.c" || { echo "no client example in README"; exit 1; }

libdir=$(dirname "$(find "$prefix" -name libtalvo-proxy.so -print -quit)")
export PKG_CONFIG_PATH=$libdir/pkgconfig
cc -o "$work/client-pc" "$work/client.c" $(pkg-config --cflags --libs talvo-proxy) \
  -Wl,-rpath,"$libdir"

mkdir "$work/cm"
cp "$work/client.c" "$work/cm/client.c"
cat > "$work/cm/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(outside-client C)
find_package(TalvoProxy 1 REQUIRED)
add_executable(client client.c)
target_link_libraries(client PRIVATE TalvoProxy::talvo-proxy)
# The package brings nothing into this project's cache but its own directory.
get_cmake_property(cached CACHE_VARIABLES)
list(FILTER cached INCLUDE REGEX "GLIB|JSON|ECORE|PKG_CONFIG")
if(cached)
  message(FATAL_ERROR "find_package(TalvoProxy) left cache entries: ${cached}")
endif()
CMAKE
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null

# Without apps or a bus: an unknown app declares nothing, cannot be reached and does not
# run, and nothing has the focus.
export VELNA_RUNTIME_DIR=$work/rt-alone VELNA_APPS_DIR=$work/no-apps VELNA_LOG_LEVEL=silent
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/no-bus
mkdir -m 700 "$VELNA_RUNTIME_DIR" && mkdir "$VELNA_APPS_DIR"
for client in "$work/client-pc" "$work/cm/build/client"; do
  out=$("$client")
  echo "$out"
  expect "$out" "declares playMusic: 0" "^request: -12, answered: 0$" "^focused app: (none)$" \
    "^state request: -1073741825$"
done

# Against the installed sample apps. The apps directory is the installed tree's default
# one (VELNA_APPS_DIR unset), the alias app takes the focus when it starts.
session_from_tree "$prefix" "$work/session"
unset VELNA_APPS_DIR
mkdir -p "$prefix/share/velna/apps"
cp "$prefix"/share/talvo/samples/apps/*.app "$prefix/share/velna/apps/"
VELNA_APP_ID=org.velna.sample.aliascompanion "$prefix/libexec/talvo-samples/alias-companion" \
  >/dev/null 2>&1 &
port=org.velna.sample.portcompanion
for client in "$work/client-pc" "$work/cm/build/client"; do
  # Into a file, not a pipe: an app that the client launches may hold its output open.
  "$client" "$port" > "$work/out"
  out=$(cat "$work/out")
  echo "$out"
  expect "$out" "^declares playMusic: 1$" "^focused app: org.velna.sample.aliascompanion$" \
    "^$port answered: .*playMusic" "^request: 0, answered: 1$" \
    "^$port answered: {.*\"appId\" *: *\"$port\"" "^state request: 0$"
done
# The app answered from the installed tree: its manifest named the installed program.
pgrep -f "^$prefix/libexec/talvo-samples/port-companion" >/dev/null ||
  { echo "the port app did not run from $prefix"; exit 1; }
echo "installed tree usable through pkg-config and find_package, with its own apps and tools"
