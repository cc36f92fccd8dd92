#!/usr/bin/env bash
# The main job on a fresh Debian machine: set up, build, start vornd with the sample HAL on a
# private socket name, send a few commands with vornctl, show the decoded replies, stop vornd.
# Exits 0 when every reply and the shutdown were as expected.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
jobs=${VORN_JOBS:-$(nproc)}  # as in test.sh
# The tools are what the demo runs. It needs no tests, so a new build/ leaves them out (and
# the test packages uninstalled); one that test.sh set up keeps them.
tests=OFF
if grep -q '^VORN_BUILD_TESTS:BOOL=ON$' build/CMakeCache.txt 2>/dev/null; then tests=ON; fi
cmake -S . -B build -G Ninja -DVORN_BUILD_TOOLS=ON -DVORN_BUILD_TESTS=$tests -DVORN_SANITIZE=
cmake --build build -j"$jobs" --target vornd vornctl vorn_hal

socket="vorn_demo_$$"
log="$(mktemp -t vornd-demo.XXXXXX)"
build/bin/vornd --socket "$socket" 2>"$log" &
pid=$!
cleanup() {
    kill "$pid" 2>/dev/null || true
    rm -f "$log"
}
trap cleanup EXIT
fail() {
    echo "demo: $*" >&2
    echo "--- vornd log ---" >&2
    cat "$log" >&2
    exit 1
}

# The socket listens as soon as vornd has started; the first answer to "JXT" shows it serves.
for _ in $(seq 100); do
    build/bin/vornctl --socket "$socket" --timeout 1 JXT >/dev/null 2>&1 && break
    kill -0 "$pid" 2>/dev/null || fail "vornd ended early"
    sleep 0.05
done

echo
echo "== Commands the sample HAL serves (all expected to succeed)"
build/bin/vornctl --socket "$socket" JXT JXT+MEMORY JXT+GSENSOR=1 JXT+GYRO=1 JXT+ASENSOR \
    || fail "a command that should succeed did not"

echo
echo "== Commands that are refused (a malformed parameter, an unknown command)"
set +e
out=$(build/bin/vornctl --socket "$socket" JXT+GSENSOR=x JXT+UNKNOWN)
status=$?
set -e
echo "$out"
[ "$status" -eq 1 ] || fail "vornctl should exit 1 for failed results, got $status"
grep -q "result   22 " <<<"$out" || fail "JXT+GSENSOR=x should give 22 (EINVAL)"
grep -q "result   1001 (Normal error)" <<<"$out" || fail "JXT+UNKNOWN should give 1001"

echo
echo "== The same replies as JSON, for scripts"
build/bin/vornctl --socket "$socket" --json JXT+GSENSOR=1,2 JXT+MEMORY

echo
echo "== Stopping vornd (SIGTERM)"
kill -TERM "$pid"
set +e
wait "$pid"
status=$?
set -e
[ "$status" -eq 0 ] || fail "vornd exited with status $status"
echo "vornd stopped, exit status 0"
echo
echo "demo: all replies as expected"
