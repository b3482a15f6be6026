#!/usr/bin/env bash
# Builds MirelsFoundation and runs its whole test suite (the default preset: GCC, RelWithDebInfo).
# Works on a fresh machine: installs what it needs first. Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh test
werror=${MIRELS_WERROR:-OFF}
# Benchmarks come along only where their peers are installed (bootstrap.sh bench or ci).
bench=OFF
if scripts/bootstrap.sh --check bench; then bench=ON; fi
cmake --preset default -DMIRELS_WERROR="$werror" -DMIRELS_BUILD_TESTS=ON -DMIRELS_BUILD_BENCH="$bench" >/dev/null
cmake --build --preset default
ctest --preset default "$@"
