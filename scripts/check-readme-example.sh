#!/usr/bin/env bash
# Compiles and links the host example of the README exactly as written: the first ```cpp block
# under the heading "## Embedding the library in another host", against the library's headers
# and the built libvorn_core.so. Nothing runs (the example would open the socket "vorn").
#
#   scripts/check-readme-example.sh README CXX INCLUDE_DIR LIBRARY
set -euo pipefail
readme=$1 cxx=$2 include=$3 library=$4
heading='## Embedding the library in another host'

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
awk -v heading="$heading" '
    $0 == heading { under = 1; next }
    under && /^## / { exit }
    under && !inblock && /^```cpp[[:space:]]*$/ { inblock = 1; next }
    inblock && /^```[[:space:]]*$/ { exit }
    inblock { print }' "$readme" >"$work/host.cpp"
if ! [ -s "$work/host.cpp" ]; then
    echo "check-readme-example: no \`\`\`cpp block under \"$heading\" in $readme" >&2
    exit 1
fi
if ! "$cxx" -std=c++17 -Wall -Wextra -pthread -I"$include" "$work/host.cpp" -o "$work/host" \
    "$library" -Wl,-rpath,"$(dirname "$library")" 2>"$work/log"; then
    echo "check-readme-example: the host example of $readme does not build:" >&2
    cat -n "$work/host.cpp" >&2
    cat "$work/log" >&2
    exit 1
fi
echo "check-readme-example: the host example ($(wc -l <"$work/host.cpp") lines) builds and links"
