#!/usr/bin/env bash
# The one benchmark command: installs what only the benchmarks need (the gRPC and
# protobuf development files and compiler plugin for the gRPC floor, gnuplot for the
# plots), builds in release mode into build-release/ (or $BUILD_DIR), and runs
# scripts/bench-report.sh, which writes docs/perf/report.md and its plots.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc gnuplot-nox)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "bench: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

export BUILD_DIR=${BUILD_DIR:-build-release}
scripts/build.sh -DCMAKE_BUILD_TYPE=Release -DTALVO_BUILD_TESTS=OFF
scripts/bench-report.sh "$@"
