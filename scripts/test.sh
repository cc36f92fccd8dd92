#!/usr/bin/env bash
# Set-up, build and the whole test suite: the one command CI runs.
# VORN_JOBS sets the parallelism of the build and of ctest (default: the number of processors,
# as in demo.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh --tests
jobs=${VORN_JOBS:-$(nproc)}
# The options the suite relies on, set even when build/ was configured otherwise before (a
# build without tests would leave ctest running stale test programs).
cmake -S . -B build -G Ninja -DVORN_BUILD_TESTS=ON -DVORN_BUILD_TOOLS=ON -DVORN_SANITIZE=
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
