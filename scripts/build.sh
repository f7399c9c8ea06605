#!/usr/bin/env bash
# Configures and builds one flavour of the project into build/<flavour>.
#   scripts/build.sh release|asan|tsan [extra cmake arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-release}
shift || true

case "$flavour" in
  release) sanitize="" ;;
  asan) sanitize="address" ;;
  tsan) sanitize="thread" ;;
  *) echo "unknown flavour $flavour" >&2; exit 2 ;;
esac

cmake -S "$root" -B "$root/build/$flavour" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUM_SANITIZE="$sanitize" "$@" >/dev/null
cmake --build "$root/build/$flavour" -j "$(nproc)"
