#!/usr/bin/env bash
# Cross-builds the library and its tests for AArch64 and runs the suite under qemu-aarch64.
#   scripts/cross-aarch64.sh            set up (once), build in build-aarch64, run ctest
#   scripts/cross-aarch64.sh --no-setup skip the package set-up
# Further arguments go to ctest. Tests that start vornd, vornctl or a freshly built host as a
# child process need the kernel to run arm64 programs itself (binfmt_misc with qemu), which
# this script does not set up; without it they fail with "Exec format error". The soak test
# starts vornd under the emulator itself. To leave the others out:
#   scripts/cross-aarch64.sh --no-setup -E '^(Vornd|VorndStartup|Vornctl|Packaging)\.'
# Needs root (or sudo) for the set-up: it adds the arm64 architecture to dpkg and installs the
# cross compiler, user-mode qemu and the arm64 packages of the dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."

setup=1
if [ "${1:-}" = "--no-setup" ]; then
    setup=0
    shift
fi

if [ "$setup" -eq 1 ]; then
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    export DEBIAN_FRONTEND=noninteractive
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        $SUDO dpkg --add-architecture arm64
    fi
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends \
        cmake ninja-build pkg-config g++-aarch64-linux-gnu qemu-user-static \
        android-liblog-dev:arm64 android-libcutils-dev:arm64 libjsoncpp-dev:arm64 \
        libgtest-dev:arm64
fi

build=build-aarch64
start=$(date +%s)
cmake -S . -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVORN_BUILD_BENCH=OFF
cmake --build "$build" -j2
built=$(date +%s)
# Emulation is several times slower than the host: give each test more room.
status=0
ctest --test-dir "$build" --output-on-failure -j2 --timeout 600 "$@" || status=$?
echo "cross-aarch64: build $((built - start)) s, tests $(($(date +%s) - built)) s"
exit $status
