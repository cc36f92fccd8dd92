#!/usr/bin/env bash
# Builds vornd, the sample HAL and vorn_bench in Release and runs the benchmark.
# Extra arguments go to vorn_bench (--quick, --iterations N, --check, ...).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${VORN_BENCH_BUILD_DIR:-build-release}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVORN_BUILD_TESTS=OFF \
    -DVORN_BUILD_TOOLS=ON -DVORN_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2 --target vorn_bench
exec "$build/bin/vorn_bench" "$@"
