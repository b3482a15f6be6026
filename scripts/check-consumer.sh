#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a tiny consumer against it twice: through
# find_package(MirelsFoundation) and through pkg-config. Expects build/default to be built.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install build/default --prefix "$prefix" >/dev/null

cmake -S tests/consumer -B "$prefix/consumer-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer-build/consumer"

PKG_CONFIG_PATH="$prefix/lib/pkgconfig" \
  g++ -std=c++20 tests/consumer/main.cpp -o "$prefix/consumer-pc" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs mirels-foundation)
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer-pc"
echo "consumer check: find_package and pkg-config both work"
