#!/usr/bin/env bash
# The main job: builds the library, the mirels tool and the examples, then shows the tool at
# work on what ships with the project:
#   1. `mirels crash run` on the programs in examples/crashing/, which crash the ways the
#      crash-text parsers know (the reports go to build/run/crash-reports);
#   2. `mirels crash explain` on the sample reports in examples/reports/;
#   3. the example programs in examples/ (the first lines of each).
# Works on a fresh machine: installs what building needs first (nothing for tests or benchmarks).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh run
build=build/run
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMIRELS_BUILD_TESTS=OFF -DMIRELS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "${MIRELS_JOBS:-$(nproc)}" >/dev/null

mirels="$build/tools/mirels/mirels"
reports="$build/crash-reports"
bold=$'\e[1m'
plain=$'\e[0m'
if [ ! -t 1 ]; then bold="" plain=""; fi
step() { printf '\n%s$ %s%s\n' "$bold" "$*" "$plain"; }

echo "${bold}== Crashes, run under the crash reporter and explained${plain}"
for program in uncaught_exception failed_assert null_dereference missing_library; do
  step mirels crash run --brief "examples/crashing/$program"
  # The program's own error output comes first, then the explanation; the status is the
  # program's (128 + signal, or 127 when it could not start).
  set +e
  "$mirels" crash run --brief --folder "$reports" "$build/examples/crashing/$program"
  status=$?
  set -e
  echo "(exit status $status)"
done

echo
echo "${bold}== Sample reports, explained${plain}"
step mirels crash explain --brief examples/reports/*.json
"$mirels" crash explain --brief examples/reports/*.json

echo
echo "${bold}== The example programs${plain}"
status=0
for program in "$build"/examples/example_*; do
  [ -x "$program" ] || continue
  step "$(basename "$program")"
  if output=$(timeout 60 "$program" 2>&1); then
    lines=$(printf '%s\n' "$output" | wc -l)
    printf '%s\n' "$output" | head -n 4
    if [ "$lines" -gt 4 ]; then echo "  ... ($((lines - 4)) more lines)"; fi
  else
    printf '%s\n' "$output" | tail -n 10
    echo "!! $(basename "$program") failed" >&2
    status=1
  fi
done
echo
echo "Reports written: $reports. More: $mirels --help"
exit $status
