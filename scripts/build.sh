#!/usr/bin/env bash
# Configures and builds one flavour of the project.
#   scripts/build.sh <flavour> [<purpose>] [--build-dir DIR] [--configure-only]
#                    [extra cmake arguments]
#     flavour  release | asan (ASan + UBSan) | tsan | tsafety (clang's
#              thread-safety analysis, every warning an error; built, not
#              run) | coverage (clang-14, source-based coverage,
#              unoptimised); output in build/<flavour>
#     purpose  tests (default): the library, the tools, the tests and, for
#                               release, the benchmarks
#              demo:            the library and the tools only
# Every option the build depends on is stated on every run, never left to
# whatever the build tree's cache holds from an earlier run: the demo and the
# test suite share build/release, and either must work after the other, in
# any order, any number of times.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-release}
shift || true
purpose=tests
case "${1:-}" in
  tests|demo) purpose=$1; shift ;;
esac
build_dir="$root/build/$flavour"
configure_only=0
extra=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir=$2; shift 2 ;;
    --configure-only) configure_only=1; shift ;;
    *) extra+=("$1"); shift ;;
  esac
done

build_type=RelWithDebInfo
thread_safety=OFF
coverage=OFF
compilers=()
case "$flavour" in
  release) sanitize="" ;;
  asan) sanitize="address" ;;
  tsan) sanitize="thread" ;;
  tsafety)
    # Only compiled, so unoptimised; clang because g++ has no such analysis.
    sanitize=""
    build_type=Debug
    thread_safety=ON
    compilers=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14)
    ;;
  coverage)
    # Unoptimised, so that every source line keeps its own counter; clang,
    # because its coverage counts branches as well as lines.
    sanitize=""
    build_type=Debug
    coverage=ON
    compilers=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14)
    ;;
  *) echo "unknown flavour $flavour" >&2; exit 2 ;;
esac

tests=ON
bench=OFF
[ "$flavour" = release ] && bench=ON
if [ "$purpose" = demo ]; then
  tests=OFF
  bench=OFF
fi

cmake -S "$root" -B "$build_dir" -G Ninja \
  ${compilers[@]+"${compilers[@]}"} \
  -DCMAKE_BUILD_TYPE="$build_type" -DLUM_SANITIZE="$sanitize" -DLUM_THREAD_SAFETY="$thread_safety" \
  -DLUM_COVERAGE="$coverage" \
  -DLUM_BUILD_TOOLS=ON -DLUM_BUILD_TESTS="$tests" -DLUM_BUILD_BENCH="$bench" \
  ${extra[@]+"${extra[@]}"} >/dev/null
[ "$configure_only" = 1 ] && exit 0
cmake --build "$build_dir" -j "$(nproc)"
