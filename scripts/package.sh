#!/usr/bin/env bash
# Builds the Debian 12 binary packages into packages/ (or the directory given as the first
# argument): libtalvo-proxy1 (shared libraries, system-bus policy), libtalvo-proxy-dev
# (headers, pkg-config and CMake files), talvo-tools (talvo-cli, talvo-wm-sim) and
# talvo-samples (sample apps, demo). Configures its own build directory, build-deb/ (or
# $BUILD_DIR), for the prefix /usr; further arguments go to the CMake configure step, e.g.
# -DTALVO_CLIENT_USER=assistant for the user whose client owns the library's bus name.
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(mkdir -p "${1:-packages}" && cd "${1:-packages}" && pwd)
[ $# -gt 0 ] && shift
build_dir=${BUILD_DIR:-build-deb}
BUILD_DIR=$build_dir scripts/build.sh -DCMAKE_INSTALL_PREFIX=/usr -DTALVO_INSTALL_RPATH=OFF \
  -DTALVO_BUILD_TESTS=OFF -DTALVO_BUILD_BENCH=OFF "$@"
cpack --config "$build_dir/CPackConfig.cmake" -B "$out" >/dev/null
rm -rf "$out/_CPack_Packages"
ls -1 "$out"/*.deb
