#!/usr/bin/env bash
# Builds the release flavour with its benchmarks and runs every benchmark
# program; extra arguments go to each (e.g. --benchmark_filter=Queue).
#   scripts/bench.sh [benchmark arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" release tests
for bench in "$root"/build/release/bench/bench_*; do
  [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  "$bench" "$@"
done
