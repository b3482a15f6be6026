#!/usr/bin/env bash
# Installs the Debian packages one job needs, and no more:
#
#   scripts/bootstrap.sh [--check] [run|test|bench|ci|docs|all]    (default: run)
#
#   run    toolchain and the library's runtime dependencies: build the library and its examples
#   test   run + the test frameworks and what the tests start
#   bench  run + Google Benchmark, the peers measured beside our types, and the measuring tools
#   docs   run + doxygen for the API documentation
#   ci     test + bench + docs + the Clang toolchain (sanitizers, libFuzzer, format, tidy)
#   all    everything above
#
# --check installs nothing: exits 0 when every package of the job is present, 1 otherwise.
# Every package list lives here, one array per group. Idempotent: refreshes the package index
# only when something is missing, then installs just that.
set -euo pipefail

# Toolchain for the default (GCC) build.
toolchain=(build-essential cmake ninja-build pkg-config git)
# What the library itself links against (see CMakeLists.txt).
runtime=(libplist-dev libsystemd-dev libpcre2-dev libsimdjson-dev libdw-dev)
# GoogleTest/GMock; python3 runs the property-list interoperability test against its plistlib.
# patch and diffutils: the line-diff tests apply our unified diffs and compare with diff -u.
test_only=(libgtest-dev libgmock-dev python3 patch diffutils)
# Google Benchmark, the peers in bench/, and instruction counts (callgrind) / system-call counts.
bench_only=(
  libbenchmark-dev
  libabsl-dev libasio-dev libboost-thread1.81-dev libsigc++-3.0-dev libtsl-ordered-map-dev
  libboost1.81-dev # Boost.Process v1 (headers), beside bench_process
  libcli11-dev libcxxopts-dev
  librange-v3-dev nlohmann-json3-dev rapidjson-dev
  libdtl-dev libgit2-dev libicu-dev # line diffs and IDNA, beside bench_text
  valgrind strace
)
# API documentation (the `docs` build target).
docs_only=(doxygen)
# Clang 16: sanitizer presets, libFuzzer targets, clang-format and clang-tidy checks.
clang_toolchain=(clang-16 libclang-rt-16-dev clang-format-16 clang-tidy-16)

check=0
if [ "${1:-}" = "--check" ]; then
  check=1
  shift
fi
job=${1:-run}
packages=("${toolchain[@]}" "${runtime[@]}")
case "$job" in
  run) ;;
  test) packages+=("${test_only[@]}") ;;
  bench) packages+=("${bench_only[@]}") ;;
  docs) packages+=("${docs_only[@]}") ;;
  ci | all) packages+=("${test_only[@]}" "${bench_only[@]}" "${docs_only[@]}" "${clang_toolchain[@]}") ;;
  -h | --help)
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print; next } NR > 1 { exit }' "$0"
    exit 0
    ;;
  *)
    echo "bootstrap: unknown job '$job' (expected run, test, bench, ci, docs or all)" >&2
    exit 2
    ;;
esac

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  [ "$check" -eq 1 ] || echo "bootstrap ($job): all ${#packages[@]} packages present"
  exit 0
fi
if [ "$check" -eq 1 ]; then exit 1; fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "bootstrap ($job): installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "bootstrap ($job): done"
