#!/usr/bin/env bash
# The whole test suite: every test in a normal build, again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded tests under
# ThreadSanitizer, after a clang build that checks the thread-safety
# annotations (any finding fails it); then line and branch coverage against
# the checked-in floor (scripts/coverage.sh). Exits non-zero on any failure,
# sanitizer report or coverage below the floor.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"

jobs=$(nproc)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/scripts/tsan.supp"

failed=()
run_suite() {
  local flavour=$1
  shift
  echo "=== $flavour: build"
  "$root/scripts/build.sh" "$flavour" tests
  echo "=== $flavour: test"
  if ! ctest --test-dir "$root/build/$flavour" --output-on-failure -j "$jobs" "$@"; then
    failed+=("$flavour")
  fi
}

echo "=== tsafety: build (clang -Wthread-safety)"
if ! "$root/scripts/build.sh" tsafety tests; then
  failed+=(tsafety)
fi

run_suite release
run_suite asan
run_suite tsan -L threaded

echo "=== coverage"
if ! "$root/scripts/coverage.sh"; then
  failed+=("coverage")
fi

if [ ${#failed[@]} -ne 0 ]; then
  echo "FAILED suites: ${failed[*]}"
  exit 1
fi
echo "All suites passed: tsafety, release, asan, tsan, coverage"
