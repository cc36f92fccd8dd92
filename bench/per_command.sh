#!/usr/bin/env bash
# Costs of one command that do not depend on the machine's load, for two vornd binaries:
#   bench/per_command.sh callgrind VORND [COMMAND]   user-space instructions per command
#   bench/per_command.sh switches VORND [COMMAND] [PACE_MS]
#                                                    context switches per command, per thread
# callgrind: two sessions under valgrind (1000 and 4000 round trips, look-ahead off, since
# valgrind runs one thread at a time); the difference of their totals over 3000.
# switches: voluntary and involuntary switches of each of vornd's threads over 2000 round
# trips (/proc/PID/task/*/status), one command every PACE_MS milliseconds (default 0).
set -euo pipefail
mode=${1:?usage: $0 callgrind|switches VORND [COMMAND] [PACE_MS]}
vornd=${2:?vornd path}
command=${3:-JXT}
pace=${4:-0}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo '{}' >"$work/empty.json"

client() {  # client NAME N PACE_MS: N round trips of $command
    python3 - "$1" "$2" "$3" "$command" <<'PY'
import socket, struct, sys, time
name, n, pace, cmd = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]) / 1000, sys.argv[4].encode()
for attempt in range(300):
    try:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect("\0" + name)
        break
    except OSError:
        time.sleep(0.1)
def rx(k):
    b = b""
    while len(b) < k:
        c = s.recv(k - len(b))
        if not c:
            sys.exit("connection closed")
        b += c
    return b
for _ in range(n):
    s.sendall(cmd)
    _, rl = struct.unpack("<iI", rx(8)); rx(rl)
    (sl,) = struct.unpack("<I", rx(4)); rx(sl)
    if pace:
        time.sleep(pace)
PY
}

case "$mode" in
callgrind)
    total() {
        local name="pc-cg-$$-$1"
        valgrind --tool=callgrind --callgrind-out-file="$work/cg.$1" "$vornd" -s "$name" \
            --queue-spin-us 0 -c "$work/empty.json" >/dev/null 2>&1 &
        local pid=$!
        client "$name" "$1" 0
        kill -TERM $pid
        wait $pid || true
        awk '/^(summary|totals):/ { print $2; exit }' "$work/cg.$1"
    }
    a=$(total 1000)
    b=$(total 4000)
    echo "$command: $(((b - a) / 3000)) instructions per command"
    ;;
switches)
    name="pc-sw-$$"
    "$vornd" -s "$name" -c "$work/empty.json" >/dev/null 2>&1 &
    pid=$!
    client "$name" 100 0
    snap() {
        for t in /proc/$pid/task/*; do
            echo "$(basename "$t") $(awk '/^voluntary/ {v=$2} /^nonvoluntary/ {n=$2} END {print v, n}' "$t/status")"
        done | sort
    }
    snap >"$work/before"
    client "$name" 2000 "$pace"
    snap >"$work/after"
    kill -TERM $pid
    wait $pid || true
    join "$work/before" "$work/after" | awk '{ v = ($4 - $2) / 2000; n = ($5 - $3) / 2000;
        if (v + n > 0.005) printf "thread %s: %.2f voluntary, %.2f involuntary per command\n", $1, v, n }'
    ;;
*)
    echo "usage: $0 callgrind|switches VORND [COMMAND] [PACE_MS]" >&2
    exit 2
    ;;
esac
