#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite with CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh
cd "${BUILD_DIR:-build}"
# Most tests wait on real processes and timers rather than the CPU, so run more of
# them at once than there are cores.
ctest --output-on-failure --timeout 300 -j"$(( $(nproc) * 3 ))"
