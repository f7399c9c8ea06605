#!/usr/bin/env bash
# Configures one scratch tree as the demo does, then as the test suite does,
# and again, and checks after each step that the cache holds what that command
# builds, whatever the step before left there; then that a tree with
# benchmarks but no tests still has the helpers the benchmarks link.
#   build_order.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
src=$1
scratch=$2
rm -rf "$scratch"
mkdir -p "$(dirname "$scratch")"
failures=0
check() {
  local what=$1 wanted=$2 actual
  actual=$(sed -n "s/^$what:[A-Z]*=//p" "$scratch/CMakeCache.txt")
  if [ "$actual" != "$wanted" ]; then
    echo "FAIL after '$step': $what is '$actual', wanted '$wanted'"
    failures=$((failures + 1))
  fi
}

for step in demo tests demo tests; do
  "$src/scripts/build.sh" release "$step" --build-dir "$scratch" --configure-only
  wanted=$([ "$step" = demo ] && echo OFF || echo ON)
  check LUM_BUILD_TESTS "$wanted"
  check LUM_BUILD_BENCH "$wanted"
  check LUM_BUILD_TOOLS ON
done

step="benchmarks without tests"
cmake -S "$src" -B "$scratch" -DLUM_BUILD_TESTS=OFF -DLUM_BUILD_BENCH=ON >/dev/null
targets=$(ninja -C "$scratch" -t targets all)
if ! grep -q '^lum_testsupport:' <<<"$targets"; then
  echo "FAIL after '$step': no lum_testsupport for bench_agent to link"
  failures=$((failures + 1))
fi

rm -rf "$scratch"
[ "$failures" -eq 0 ] && echo "build order: all checks passed"
exit "$failures"
