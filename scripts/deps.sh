#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, and
# only those that are missing. Works as root or through sudo.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config binutils openssl
  libjsoncpp-dev libcurl4-openssl-dev libssl-dev
  libgtest-dev libbenchmark-dev
  clang-14 llvm-14 libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
