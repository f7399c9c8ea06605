#!/usr/bin/env bash
# Builds the fuzz targets with clang's libFuzzer and runs them.
#   scripts/fuzz.sh SECONDS [TARGET...]   run every target (or those named) at
#                                         the same time for SECONDS each
#   scripts/fuzz.sh --merge [TARGET...]   minimise a run's working corpus back
#                                         into the checked-in tests/fuzz/<t>/corpus
# Build tree build/fuzz; working corpora build/fuzz/corpus/<t> (seeded from
# the checked-in ones); findings build/fuzz/findings/<t>/; logs
# build/fuzz/logs/<t>.log. Exit status 1 when any target found something.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"

# The Debian packages for clang's fuzzer runtime, only those missing.
missing=()
for p in clang-14 libclang-rt-14-dev llvm-14; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
"$root/scripts/deps.sh"

mode=run
if [ "${1:-}" = "--merge" ]; then
  mode=merge
  shift
else
  seconds=${1:?usage: scripts/fuzz.sh SECONDS [TARGET...] | --merge [TARGET...]}
  shift
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for d in "$root"/tests/fuzz/*/; do
    [ -f "$d/CMakeLists.txt" ] && targets+=("$(basename "$d")")
  done
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DLUM_FUZZ=ON -DLUM_SANITIZE= -DLUM_BUILD_TOOLS=ON -DLUM_BUILD_TESTS=ON \
  -DLUM_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/logs"
if [ "$mode" = merge ]; then
  for t in "${targets[@]}"; do
    work="$build/corpus/$t"
    [ -d "$work" ] || { echo "$t: no working corpus in $work" >&2; continue; }
    keep="$root/tests/fuzz/$t/corpus"
    fresh=$(mktemp -d)
    "$build/tests/fuzz/$t/fuzz_$t" -merge=1 -rss_limit_mb=2048 -timeout=10 "$fresh" "$keep" "$work" \
      >"$build/logs/$t.merge.log" 2>&1
    rm -f "$keep"/*
    cp "$fresh"/* "$keep"/
    rm -rf "$fresh"
    echo "$t: $(ls "$keep" | wc -l) corpus files kept"
  done
  exit 0
fi

mkdir -p "$build/logs"
pids=()
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/findings/$t"
  cp -n "$root/tests/fuzz/$t/corpus/"* "$build/corpus/$t/" 2>/dev/null || true
  dict=()
  [ -f "$root/tests/fuzz/$t/$t.dict" ] && dict=("-dict=$root/tests/fuzz/$t/$t.dict")
  # Each target runs on in its own process group until its time is up; a
  # finding stops that target only.
  "$build/tests/fuzz/$t/fuzz_$t" "$build/corpus/$t" ${dict[@]+"${dict[@]}"} \
    -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=2048 -timeout=10 \
    -artifact_prefix="$build/findings/$t/" >"$build/logs/$t.log" 2>&1 &
  pids+=($!)
done
for p in "${pids[@]}"; do
  wait "$p" || true
done

status=0
printf '%-18s %8s %12s %9s %8s %8s %9s\n' target seconds executions exec/s corpus cov findings
for t in "${targets[@]}"; do
  log="$build/logs/$t.log"
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  corpus=$(ls "$build/corpus/$t" | wc -l)
  findings=$(find "$build/findings/$t" -type f | wc -l)
  [ "$findings" -gt 0 ] && status=1
  printf '%-18s %8s %12s %9s %8s %8s %9s\n' "$t" "$seconds" "${runs:-?}" "${rate:-?}" \
    "$corpus" "${cov:-?}" "$findings"
done
[ $status -ne 0 ] && echo "findings under $build/findings (logs in $build/logs)"
exit $status
