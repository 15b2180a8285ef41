#!/usr/bin/env bash
# install_test.sh BUILD_DIR README: installs BUILD_DIR into a temporary prefix, extracts the
# C example under "## Writing a client" from README, and builds and runs it against the
# installed tree through pkg-config and through CMake's find_package.
set -euo pipefail
build=$1 readme=$2
work=$(mktemp -d /tmp/talvo-install.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
awk '/^## Writing a client/{on=1} on&&/^```c$/{grab=1; next} grab&&/^```$/{exit} grab' \
  "$readme" > "$work/client.c"
grep -q talvo_proxy_initialize "$work/client.c" || { echo "no client example in README"; exit 1; }

libdir=$(dirname "$(find "$work/prefix" -name libtalvo-proxy.so -print -quit)")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
export VELNA_APPS_DIR=$work/apps VELNA_RUNTIME_DIR=$work/rt VELNA_LOG_LEVEL=silent
mkdir -p "$work/apps"

check() {  # runs a built client through all six functions: an unknown app declares nothing,
  # cannot be reached and does not run, and without a bus nothing has the focus
  local out
  out=$("$1")
  echo "$out"
  grep -q "declares playMusic: 0" <<<"$out" && grep -q "^request: -12, answered: 0$" <<<"$out" &&
    grep -q "^focused app: (none)$" <<<"$out" && grep -q "^state request: -1073741825$" <<<"$out"
}

cc -o "$work/client-pc" "$work/client.c" $(pkg-config --cflags --libs talvo-proxy)
check "$work/client-pc"

mkdir "$work/cm"
cp "$work/client.c" "$work/cm/client.c"
cat > "$work/cm/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(outside-client C)
find_package(TalvoProxy REQUIRED)
add_executable(client client.c)
target_link_libraries(client PRIVATE TalvoProxy::talvo-proxy)
CMAKE
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
check "$work/cm/build/client"
echo "installed tree usable through pkg-config and find_package"
