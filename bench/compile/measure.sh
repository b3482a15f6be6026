#!/usr/bin/env bash
# Compile time of one tool with 15 options, on our toolkit and on CLI11: wall time of the
# compile (best of N runs, the machine is shared) and GCC's -ftime-report total.
# Usage: bench/compile/measure.sh [runs]   (from the project root)
set -euo pipefail
runs=${1:-3}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
declare -A best
for _ in $(seq "$runs"); do
  for tool in mirels cli11; do  # interleaved, so that load on the machine hits both alike
    start=$(date +%s.%N)
    g++ -std=c++20 -O2 -I"$root/include" -c "$here/tool_$tool.cpp" -o "$out/$tool.o"
    end=$(date +%s.%N)
    t=$(echo "$end - $start" | bc)
    if [ -z "${best[$tool]:-}" ] || [ "$(echo "$t < ${best[$tool]}" | bc)" = 1 ]; then
      best[$tool]=$t
    fi
  done
done
for tool in mirels cli11; do
  report=$(g++ -std=c++20 -O2 -I"$root/include" -ftime-report -c "$here/tool_$tool.cpp" \
             -o "$out/$tool.o" 2>&1 | grep -E '^ TOTAL' | head -1)
  echo "$tool: best wall ${best[$tool]}s; -ftime-report TOTAL:${report#* TOTAL *:}"
done
echo "ratio mirels/cli11 (wall): $(echo "scale=3; ${best[mirels]} / ${best[cli11]}" | bc)"
