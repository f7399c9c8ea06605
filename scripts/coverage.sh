#!/usr/bin/env bash
# Line and branch coverage of the library (Base/, Platform/, Project/) over the
# whole test suite: builds build/coverage with clang's source-based coverage,
# runs every test with each process (children and forked ones included)
# writing its own profile, merges them and reports over every binary built
# from the library's code (test executables, tools, liblum.so). Exits
# non-zero when a test fails or when the total is below a floor of
# tests/coverage-floor.txt.
#   scripts/coverage.sh [ctest arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/coverage"
profiles="$build/profiles"
llvm_cov=llvm-cov-14
llvm_profdata=llvm-profdata-14

"$root/scripts/build.sh" coverage tests

rm -rf "$profiles"
mkdir -p "$profiles"
status=0
LLVM_PROFILE_FILE="$profiles/%p-%m.profraw" \
  ctest --test-dir "$build" --output-on-failure -j "$(nproc)" "$@" || status=$?
[ "$status" -ne 0 ] && echo "coverage: some tests failed (ctest exit $status)"

shopt -s nullglob
raw=("$profiles"/*.profraw)
if [ ${#raw[@]} -eq 0 ]; then
  echo "coverage: no profile was written" >&2
  exit 1
fi
"$llvm_profdata" merge -sparse -o "$build/coverage.profdata" "${raw[@]}"

# Every instrumented executable or shared object of the tree: a function of
# the library appears once in the report however many binaries hold it, and
# one a binary alone holds (liblum.so under lum-host) is counted as well.
objects=()
while IFS= read -r -d '' f; do
  if readelf -S "$f" 2>/dev/null | grep -q __llvm_covmap; then
    objects+=(-object "$f")
  fi
done < <(find "$build" -path "$build/testtmp" -prune -o -type f \
  \( -perm -u+x -o -name '*.so*' \) -print0)
if [ ${#objects[@]} -eq 0 ]; then
  echo "coverage: no instrumented binary found" >&2
  exit 1
fi

# Only the library's own sources: not the tests, the tools, the benchmarks
# or the system's headers.
"$llvm_cov" report "${objects[@]:1}" -instr-profile="$build/coverage.profdata" \
  -ignore-filename-regex='/(tests|tools|bench)/|^/usr/' >"$build/coverage-report.txt"

# A row per file: name, regions missed cover, functions missed cover, lines
# missed cover, branches missed cover; the sums of the rows under `prefix`.
summary() {
  awk -v what="$1" -v prefix="$2" '$1 ~ prefix && $2 ~ /^[0-9]+$/ {
      lines += $8; missedLines += $9; branches += $11; missedBranches += $12 }
    END { printf "%-9s lines %6.2f%% (%d of %d)  branches %6.2f%% (%d of %d)\n", what,
      lines ? 100 * (lines - missedLines) / lines : 100, lines - missedLines, lines,
      branches ? 100 * (branches - missedBranches) / branches : 100,
      branches - missedBranches, branches }' "$build/coverage-report.txt"
}
for dir in Base Platform Project; do
  summary "$dir/" "(^|/)$dir/"
done
total=$(summary total "(^|/)(Base|Platform|Project)/")
echo "$total"
echo "per file: $build/coverage-report.txt"

floor() { awk -v key="$1" '$1 == key { print $2 }' "$root/tests/coverage-floor.txt"; }
line_floor=$(floor lines)
branch_floor=$(floor branches)
read -r lines branches < <(awk '$1 == "total" { sub("%", "", $3); sub("%", "", $8); print $3, $8 }' <<<"$total")
if awk -v l="$lines" -v lf="$line_floor" -v b="$branches" -v bf="$branch_floor" \
  'BEGIN { exit !(l < lf || b < bf) }'; then
  echo "coverage: below the floor of lines $line_floor% / branches $branch_floor%"
  status=1
fi
exit "$status"
