#!/usr/bin/env bash
# Installs, only when missing, every Debian package that building, testing and running
# the project need. Idempotent; run as root (or with sudo available) on Debian 12.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libglib2.0-dev libjson-glib-dev libefl-all-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  dbus-daemon dbus dbus-bin
  clang libclang-rt-14-dev llvm
  binutils procps
  scdoc python3 dpkg-dev file
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
