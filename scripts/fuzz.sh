#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each for N seconds.
#   scripts/fuzz.sh [seconds]          all targets, 60 s each by default
#   scripts/fuzz.sh 30 fuzz_config     one target
# The seeds in fuzz/corpus/<target> stay untouched; what the fuzzer learns goes to
# build-fuzz/corpus/<target>, crashes to build-fuzz/artifacts/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_parser fuzz_config fuzz_transmission)

./scripts/setup.sh --fuzz
build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVORN_BUILD_FUZZ=ON -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_TOOLS=OFF -DVORN_BUILD_BENCH=OFF \
    -DVORN_SANITIZE=fuzzer-no-link,address,undefined \
    -DCMAKE_C_FLAGS="-fno-sanitize-recover=undefined" \
    -DCMAKE_CXX_FLAGS="-fno-sanitize-recover=undefined"
cmake --build "$build" -j2 --target "${targets[@]}"

export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

max_len() {
    case "$1" in
    fuzz_parser) echo 3171 ;;        # commands reach the parser below the 3172-byte buffer
    fuzz_transmission) echo 1580 ;;  # every echo reply fits the staging record
    *) echo 8192 ;;
    esac
}

status=0
for t in "${targets[@]}"; do
    corpus="$build/corpus/$t"
    artifacts="$build/artifacts/$t"
    mkdir -p "$corpus" "$artifacts"
    echo "== $t: $seconds s"
    if ! "$build/fuzz/$t" -max_total_time="$seconds" -max_len="$(max_len "$t")" -timeout=20 \
        -rss_limit_mb=4096 -print_final_stats=1 -artifact_prefix="$artifacts/" \
        "$corpus" "fuzz/corpus/$t" >"$build/$t.log" 2>&1; then
        echo "$t FAILED: see $build/$t.log and $artifacts/"
        tail -40 "$build/$t.log"
        status=1
        continue
    fi
    grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb|^#[0-9]+.*DONE' "$build/$t.log" || true
done
exit $status
