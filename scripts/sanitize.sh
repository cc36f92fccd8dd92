#!/usr/bin/env bash
# Builds and runs the tests under the sanitizers.
#   scripts/sanitize.sh asan   the whole suite with AddressSanitizer + UndefinedBehaviorSanitizer
#                              (build-asan); any report fails the run
#   scripts/sanitize.sh tsan   the engine's tests (service and io) with ThreadSanitizer
#                              (build-tsan)
# Extra arguments go to ctest, e.g. scripts/sanitize.sh tsan -R Timeout.
# Both builds stay apart from the normal build/ folder.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-asan}
shift || true
./scripts/setup.sh --sanitizers

jobs=2
case "$mode" in
asan)
    build=build-asan
    cmake -S . -B "$build" -G Ninja \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVORN_SANITIZE=address,undefined \
        -DCMAKE_C_FLAGS="-fno-sanitize-recover=undefined" \
        -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=undefined" \
        -DVORN_BUILD_BENCH=OFF
    cmake --build "$build" -j"$jobs"
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ctest --test-dir "$build" --output-on-failure -j"$jobs" "$@"
    ;;
tsan)
    build=build-tsan
    cmake -S . -B "$build" -G Ninja \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVORN_SANITIZE=thread \
        -DVORN_BUILD_BENCH=OFF
    cmake --build "$build" -j"$jobs"
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp"
    # The engine's tests: the service engine and the socket front end. ctest run in a folder
    # of the build tree runs only the tests defined there.
    status=0
    for dir in tests/service tests/io; do
        [ -d "$build/$dir" ] || continue
        ctest --test-dir "$build/$dir" --output-on-failure -j"$jobs" "$@" || status=1
    done
    exit $status
    ;;
*)
    echo "usage: $0 asan|tsan [ctest arguments]" >&2
    exit 2
    ;;
esac
