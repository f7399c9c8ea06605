#!/usr/bin/env bash
# Configures one scratch tree as the demo does, then as the test suite does,
# then as the demo again, and checks after each step that the tree holds what
# that command builds, whatever the step before left in the cache.
#   build_order.sh SOURCE_DIR SCRATCH_DIR
set -euo pipefail
src=$1
scratch=$2
rm -rf "$scratch"
mkdir -p "$(dirname "$scratch")"

failures=0
configure() {
  "$src/scripts/build.sh" release "$1" --build-dir "$scratch" --configure-only
}
cached() {
  sed -n "s/^$1:[A-Z]*=//p" "$scratch/CMakeCache.txt"
}
targets=""
has_target() {
  case "$targets" in *"
$1:"*) return 0 ;; esac
  return 1
}
expect() {
  local what=$1 wanted=$2 actual=$3
  if [ "$wanted" != "$actual" ]; then
    echo "FAIL after '$step': $what is '$actual', wanted '$wanted'"
    failures=$((failures + 1))
  fi
}
check() {
  local tests=$1 bench=$2
  targets="
$(ninja -C "$scratch" -t targets all)"
  expect LUM_BUILD_TESTS "$tests" "$(cached LUM_BUILD_TESTS)"
  expect LUM_BUILD_BENCH "$bench" "$(cached LUM_BUILD_BENCH)"
  expect LUM_BUILD_TOOLS ON "$(cached LUM_BUILD_TOOLS)"
  local t
  for t in lum lum-host lum-backend; do
    expect "target $t" yes "$(has_target "$t" && echo yes || echo no)"
  done
  # The agent benchmarks use the test helpers: whenever they are built, the
  # helpers must be too.
  if [ "$bench" = ON ]; then
    expect "target lum_testsupport" yes "$(has_target lum_testsupport && echo yes || echo no)"
    expect "target bench_agent" yes "$(has_target bench_agent && echo yes || echo no)"
  fi
  if [ "$tests" = ON ]; then
    expect "target test_core" yes "$(has_target test_core && echo yes || echo no)"
  fi
}

for step in demo tests demo tests; do
  configure "$step"
  if [ "$step" = demo ]; then check OFF OFF; else check ON ON; fi
done

# A hand-made tree with benchmarks but no tests still links them.
step="benchmarks without tests"
cmake -S "$src" -B "$scratch" -DLUM_BUILD_TESTS=OFF -DLUM_BUILD_BENCH=ON >/dev/null
check OFF ON

rm -rf "$scratch"
[ "$failures" -eq 0 ] && echo "build order: all checks passed"
exit "$failures"
