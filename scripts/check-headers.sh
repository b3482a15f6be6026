#!/usr/bin/env bash
# Compiles every public header on its own (syntax only), so that each one includes what it uses.
# Needs a configured build directory for the generated headers (default: build/default).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
compiler=${CXX:-g++}
[ -f "$build/include/mirels/Export.h" ] || { echo "check-headers: configure $build first"; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export compiler build scratch
check() {
  local header=$1
  local unit="$scratch/$(echo "$header" | tr '/' '_').cpp"
  printf '#include <%s>\n#include <%s>\n' "$header" "$header" >"$unit"
  if ! "$compiler" -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror \
       -Iinclude -I"$build/include" "$unit" 2>"$unit.log"; then
    echo "check-headers: $header does not compile on its own:"
    head -20 "$unit.log"
    return 1
  fi
}
export -f check
cd include
headers=$(find mirels -name '*.h' | sort)
cd ..
count=$(echo "$headers" | wc -l)
echo "$headers" | xargs -P "$(nproc)" -I{} bash -c 'check "$@"' _ {}
echo "check-headers: all $count public headers compile on their own"
