#!/usr/bin/env bash
# Builds in release mode and runs the transport benchmarks, each beside its raw-socket
# baseline measured in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-release} scripts/build.sh -DCMAKE_BUILD_TYPE=Release
for bench in "${BUILD_DIR:-build-release}"/bench/*/*-bench; do
  [ -x "$bench" ] && "$bench" "$@"
done
