#!/usr/bin/env bash
# Installs every Debian package that building, testing and benchmarking MirelsFoundation needs.
# Idempotent: refreshes the package index once, then installs only what is missing.
# With --run, only what building the library, its tool and its examples needs (scripts/run.sh).
set -euo pipefail

runtime=(libplist-dev libsystemd-dev libpcre2-dev libsimdjson-dev libdw-dev)

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config git
  clang-16 libclang-rt-16-dev clang-format-16 clang-tidy-16
  # test and benchmark frameworks (python3: the property-list test against its plistlib)
  libgtest-dev libgmock-dev libbenchmark-dev python3
  # runtime dependencies of the library
  "${runtime[@]}"
  # peers measured side by side in bench/
  libabsl-dev libasio-dev libboost-thread1.81-dev libsigc++-3.0-dev libtsl-ordered-map-dev
  libboost1.81-dev  # Boost.Process v1 (headers), beside bench_process
  libcli11-dev libcxxopts-dev
  librange-v3-dev nlohmann-json3-dev rapidjson-dev
  # benchmark tools: instruction counts (callgrind) and system calls per operation
  valgrind strace
)

if [ "${1:-}" = "--run" ]; then
  packages=(build-essential cmake ninja-build pkg-config "${runtime[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "bootstrap: all ${#packages[@]} packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "bootstrap: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "bootstrap: done"
