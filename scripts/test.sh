#!/usr/bin/env bash
# Set-up, build and the whole test suite: the one command CI runs.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
cmake -S . -B build -G Ninja
cmake --build build
ctest --test-dir build --output-on-failure -j"$(nproc)"
