#!/usr/bin/env bash
# Android.bp and cmake/VornSources.cmake must list the same library sources, in any order.
# No Android toolchain builds here, so this check is what keeps the device build honest.
set -euo pipefail
root="${1:-$(dirname "$0")/..}"
bp="$root/Android.bp"
cm="$root/cmake/VornSources.cmake"

# The srcs list of the cc_library_shared module named "libvorn_core".
bp_srcs=$(awk '
    /^cc_library_shared[[:space:]]*\{/ { inmod = 1; name = ""; insrcs = 0; n = 0; next }
    inmod && /^\}/ { if (name == "libvorn_core") { for (i = 0; i < n; i++) print s[i] } inmod = 0; next }
    inmod && /^[[:space:]]*name:[[:space:]]*"libvorn_core"/ { name = "libvorn_core" }
    inmod && /^[[:space:]]*srcs:[[:space:]]*\[/ { insrcs = 1 }
    inmod && insrcs {
        line = $0
        while (match(line, /"[^"]+"/)) { s[n++] = substr(line, RSTART + 1, RLENGTH - 2); line = substr(line, RSTART + RLENGTH) }
        if ($0 ~ /\]/) insrcs = 0
    }' "$bp" | sort)

# The entries of set(VORN_CORE_SOURCES ...): one path a line, comments ignored.
cm_srcs=$(awk '
    /set\(VORN_CORE_SOURCES/ { inset = 1; next }
    inset && /\)/ { inset = 0 }
    inset { sub(/#.*/, ""); gsub(/[[:space:]]/, ""); if ($0 != "") print }' "$cm" | sort)

if [ -z "$bp_srcs" ]; then
    echo "check-android-bp: no srcs found for libvorn_core in $bp" >&2
    exit 1
fi
if [ "$bp_srcs" != "$cm_srcs" ]; then
    echo "check-android-bp: Android.bp and cmake/VornSources.cmake list different sources:" >&2
    diff <(echo "$cm_srcs") <(echo "$bp_srcs") | sed -n 's/^< /  only in VornSources.cmake: /p; s/^> /  only in Android.bp: /p' >&2
    exit 1
fi
echo "check-android-bp: $(echo "$bp_srcs" | wc -l) sources agree"
