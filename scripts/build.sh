#!/usr/bin/env bash
# Installs what is missing, then configures and builds into build/ (or $BUILD_DIR).
# Extra arguments go to the CMake configure step.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -G Ninja "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
