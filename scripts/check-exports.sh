#!/usr/bin/env bash
# Compares the dynamic symbols that libvorn_core.so defines with the checked-in list
# cmake/vorn_core.symbols (demangled, one a line, sorted). Any symbol added or removed fails:
# an addition means an internal class leaked into the interface that hosts bind to, a removal
# means a host built against the previous library would no longer load.
#
#   scripts/check-exports.sh LIBRARY [LIST] [NM]    check
#   scripts/check-exports.sh --update LIBRARY       rewrite the list after an intended change
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
update=0
if [ "${1:-}" = "--update" ]; then
    update=1
    shift
fi
lib="${1:?usage: $0 [--update] LIBRARY [LIST] [NM]}"
list="${2:-$root/cmake/vorn_core.symbols}"
nm="${3:-nm}"

actual=$(LC_ALL=C "$nm" -D --defined-only -C "$lib" | awk '{ $1 = ""; $2 = ""; sub(/^  /, ""); print }' |
    LC_ALL=C sort)
if [ -z "$actual" ]; then
    echo "check-exports: $lib defines no dynamic symbols (or $nm cannot read it)" >&2
    exit 1
fi
if [ "$update" = 1 ]; then
    {
        echo "# Dynamic symbols of libvorn_core.so, demangled (nm -D --defined-only -C), sorted."
        echo "# Checked by scripts/check-exports.sh; regenerate with its --update after an intended change."
        printf '%s\n' "$actual"
    } >"$list"
    echo "check-exports: wrote $(printf '%s\n' "$actual" | wc -l) symbols to $list"
    exit 0
fi
expected=$(grep -v -e '^#' -e '^$' "$list" | LC_ALL=C sort)
if [ "$actual" != "$expected" ]; then
    echo "check-exports: the symbols exported by $lib differ from $list:" >&2
    diff <(printf '%s\n' "$expected") <(printf '%s\n' "$actual") |
        sed -n 's/^< /  removed: /p; s/^> /  added:   /p' >&2
    cat >&2 <<MSG
An added symbol is usually an internal class or template instance that lost its hidden
visibility; a removed one breaks hosts built against the previous library. If the change is
intended (a new exported class or function), update the list and commit it with the change:
  scripts/check-exports.sh --update $lib
MSG
    exit 1
fi
echo "check-exports: $(printf '%s\n' "$actual" | wc -l) exported symbols as listed"
