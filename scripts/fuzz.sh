#!/usr/bin/env bash
# Runs a fuzzing campaign: builds every fuzz target with clang, libFuzzer, ASan and UBSan
# into build-fuzz-clang, runs each for SECONDS_PER_TARGET seconds (default 600) and
# prints its executions and executions per second. Each target grows a working corpus
# in fuzz/out/<name>/corpus from its seeds in fuzz/corpus/<name>; what it finds lands in
# fuzz/out/<name>/ (crash-*, leak-*, timeout-*, oom-*) and makes the script fail. A
# finding is fixed, then committed as a seed so that CTest replays it on every run.
#
# usage: scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-600}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(bundle_decode channel_frame answer manifest)
fi
build=build-fuzz-clang

scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DTALVO_FUZZ=ON -DTALVO_SANITIZE=ON -DTALVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"${FUZZ_BUILD_JOBS:-2}" --target "${targets[@]/%/_fuzz}"

export ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=0
export LSAN_OPTIONS=suppressions=$root/tests/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

status=0
summary=()
for name in "${targets[@]}"; do
  out=fuzz/out/$name
  mkdir -p "$out/corpus"
  echo "== $name: ${seconds}s"
  result=ok
  "$build/fuzz/${name}_fuzz" -max_total_time="$seconds" -max_len=8192 -timeout=30 \
    -print_final_stats=1 -artifact_prefix="$out/" "$out/corpus" "fuzz/corpus/$name" \
    >"$out/log" 2>&1 || result=FAILED
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$out/log" | tail -1)
  findings=$(find "$out" -maxdepth 1 -type f \
    \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  if [ "$result" != ok ] || [ "$findings" -gt 0 ]; then
    status=1
    result="FAILED ($findings findings, see $out/log)"
  fi
  summary+=("$(printf '%-18s %12s execs %8s exec/s  %s' "$name" "${execs:-?}" "${rate:-?}" "$result")")
done

echo "== summary"
printf '%s\n' "${summary[@]}"
exit "$status"
