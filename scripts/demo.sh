#!/usr/bin/env bash
# The agent's main job. For now: build liblum.so.0 and install it with its
# header and pkg-config file under build/install.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" release -DLUM_BUILD_TESTS=OFF -DLUM_BUILD_BENCH=OFF
prefix="$root/build/install"
cmake --install "$root/build/release" --prefix "$prefix" >/dev/null
echo "Installed:"
find "$prefix" -type f -o -type l | sort | sed 's/^/  /'
echo "Build against it with: PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs lum"
