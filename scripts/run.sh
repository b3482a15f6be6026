#!/usr/bin/env bash
# The main job: builds the library and runs every program in examples/ against it.
# Works on a fresh machine: installs what it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh run
cmake --preset default -DMIRELS_BUILD_TESTS=OFF -DMIRELS_BUILD_BENCH=OFF >/dev/null
cmake --build --preset default
status=0
for program in build/default/examples/example_*; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  if ! timeout 60 "$program"; then
    echo "!! $(basename "$program") failed" >&2
    status=1
  fi
done
exit $status
