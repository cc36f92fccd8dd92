#!/usr/bin/env bash
# Installs every Debian package the build, the tests (pytest for the Python client's), the
# benchmark and the fuzzers need.
# Idempotent; run as root (or with sudo available) on Debian 12.
set -euo pipefail
packages=(
    cmake ninja-build g++ pkg-config binutils dpkg
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    android-libcutils-dev android-liblog-dev libjsoncpp-dev
    clang libclang-rt-14-dev
    python3 python3-pytest
)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
    exit 0
fi
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "setup: installed ${missing[*]}"
