#!/usr/bin/env bash
# Builds MirelsFoundation and runs its whole test suite (the default preset: GCC, RelWithDebInfo).
# Works on a fresh machine: installs what it needs first. Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
werror=${MIRELS_WERROR:-OFF}
cmake --preset default -DMIRELS_WERROR="$werror" >/dev/null
cmake --build --preset default
ctest --preset default "$@"
