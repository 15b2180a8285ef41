#!/usr/bin/env bash
# Sets up, builds and runs the whole test suite with CTest twice: a plain build, then a
# build under AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer, where any
# report fails the test that produced it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

# Most tests wait on real processes and timers rather than the CPU, so run more of them
# at once than there are cores.
jobs=$(( $(nproc) * 3 ))

echo "== plain build"
BUILD_DIR=build scripts/build.sh
(cd build && ctest --output-on-failure --timeout 300 -j"$jobs")

echo "== sanitized build (ASan, LSan, UBSan)"
BUILD_DIR=build-sanitize scripts/build.sh -DTALVO_SANITIZE=ON -DTALVO_BUILD_BENCH=OFF
# Every process, the apps that tests launch included, writes its reports into one
# directory; any report there fails the run, also one from an app whose test passed.
reports=$(mktemp -d /tmp/talvo-sanitizer.XXXXXX)
trap 'rm -rf "$reports"' EXIT
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=0:log_path=$reports/asan
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:log_path=$reports/ubsan
status=0
(cd build-sanitize && ctest --output-on-failure --timeout 300 -j"$jobs") || status=$?
if [ -n "$(ls -A "$reports")" ]; then
  echo "sanitizer reports:"
  cat "$reports"/*
  status=1
fi
exit "$status"
