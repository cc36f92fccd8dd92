#!/usr/bin/env bash
# No Android tree builds here, so this check is what keeps the device files honest. It holds
# Android.bp, daemon/vornd.rc, daemon/config.fs and sepolicy/ to each other and to CMake:
#   - the library's sources and its public headers are the ones CMake builds and installs;
#   - every file a module names exists, and every unit test source is in a test module;
#   - vornd's version, binary path, options and user agree across Android.bp, vornd.rc,
#     vornd.cpp, config.fs and CMake;
#   - the service's domain, exec type and properties are declared and labelled in sepolicy/;
#   - the license declaration matches LICENSE.
# With the path of a built vornd as second argument, the sample vorn.json must also pass
# `vornd --check-config`.
#
#   scripts/check-android-bp.sh [ROOT] [VORND]
set -euo pipefail
root="${1:-$(dirname "$0")/..}"
vornd="${2:-}"
bp="$root/Android.bp"
rc="$root/daemon/vornd.rc"
se="$root/sepolicy"
failures=0

fail() {
    echo "check-android-bp: $*" >&2
    failures=$((failures + 1))
}

# The items of a module property, one a line: a list ("srcs: [ ... ]", on one line or many)
# or a single string ("src: \"x\""). Only the module's own properties (four spaces in).
bp_values() {  # NAME PROPERTY
    awk -v want="$1" -v prop="$2" '
        /^[a-z_]+[[:space:]]*\{/ { inmod = 1; name = ""; n = 0; inlist = 0; next }
        inmod && /^\}/ { if (name == want) for (i = 0; i < n; i++) print v[i]; inmod = 0; next }
        !inmod { next }
        /^    name:[[:space:]]*"/ { line = $0; sub(/^[^"]*"/, "", line); sub(/".*/, "", line); name = line }
        $0 ~ "^    " prop ":" { inlist = 1 }
        inlist {
            line = $0
            if (line ~ "^    " prop ":") sub("^    " prop ":", "", line)
            while (match(line, /"([^"\\]|\\.)*"/)) { v[n++] = substr(line, RSTART + 1, RLENGTH - 2); line = substr(line, RSTART + RLENGTH) }
            if ($0 ~ /\]/ || $0 !~ /\[/ && $0 ~ "^    " prop ":") inlist = 0
        }' "$bp"
}

bp_modules() {  # TYPE: the names of all modules of that type
    awk -v type="$1" '
        $0 ~ "^" type "[[:space:]]*\\{" { inmod = 1; next }
        inmod && /^\}/ { inmod = 0 }
        inmod && /^    name:[[:space:]]*"/ { line = $0; sub(/^[^"]*"/, "", line); sub(/".*/, "", line); print line }' "$bp"
}

same_set() {  # WHAT LEFT_NAME LEFT RIGHT_NAME RIGHT
    if [ "$(printf '%s\n' "$3" | sort)" != "$(printf '%s\n' "$5" | sort)" ]; then
        fail "$1: $2 and $4 differ:"
        diff <(printf '%s\n' "$3" | sort) <(printf '%s\n' "$5" | sort) |
            sed -n "s|^< |  only in $2: |p; s|^> |  only in $4: |p" >&2 || true
    fi
}

# 1. The library's sources: the shared and the static library share one list, CMake's.
cm_srcs=$(awk '
    /set\(VORN_CORE_SOURCES/ { inset = 1; next }
    inset && /\)/ { inset = 0 }
    inset { sub(/#.*/, ""); gsub(/[[:space:]]/, ""); if ($0 != "") print }' "$root/cmake/VornSources.cmake")
bp_srcs=$(bp_values libvorn_core_defaults srcs)
[ -n "$bp_srcs" ] || fail "no srcs found in the cc_defaults libvorn_core_defaults"
same_set "library sources" "cmake/VornSources.cmake" "$cm_srcs" "Android.bp" "$bp_srcs"
for lib in libvorn_core libvorn_core_static; do
    bp_values "$lib" defaults | grep -qx libvorn_core_defaults ||
        fail "$lib does not build from libvorn_core_defaults"
done

# 2. The exported headers: the files `cmake --install` installs, copied under include/.
install_dirs=$(awk '/install\(DIRECTORY/ { on = 1 } on { while (match($0, /\$\{PROJECT_SOURCE_DIR\}\/[a-z]+/)) { print substr($0, RSTART + 22, RLENGTH - 22); $0 = substr($0, RSTART + RLENGTH) } } on && /DESTINATION/ { on = 0 }' "$root/cmake/VornInstall.cmake")
internal=$(sed -n 's/.*PATTERN "\([^"]*\.h\)" EXCLUDE.*/\1/p' "$root/cmake/VornInstall.cmake")
cm_headers=$( (echo vorn_core.h; for d in $install_dirs; do (cd "$root" && ls "$d"/*.h); done) |
    grep -v -x -F -f <(for h in $internal; do for d in $install_dirs; do echo "$d/$h"; done; done) | sort)
hdr_in=$(bp_values libvorn_core_headers srcs)
hdr_out=$(bp_values libvorn_core_headers out)
same_set "public headers" "cmake/VornInstall.cmake" "$cm_headers" "Android.bp" "$hdr_in"
# Soong takes an output with an input's name for a second place of that label, so the copies
# go under include/, which the genrule exports.
[ "$(printf '%s\n' "$hdr_in" | sed 's|^|include/|')" = "$hdr_out" ] ||
    fail "libvorn_core_headers: out must list the files of srcs, in the same order, under include/"
[ "$(bp_values libvorn_core_headers export_include_dirs)" = include ] ||
    fail "libvorn_core_headers does not export exactly its include folder"
bp_values libvorn_core export_generated_headers | grep -qx libvorn_core_headers ||
    fail "libvorn_core does not export libvorn_core_headers"
if bp_values libvorn_core export_include_dirs | grep -q .; then
    fail "libvorn_core exports an include folder; only libvorn_core_headers is public"
fi

# 3. The same version script as CMake's.
vs=$(bp_values libvorn_core version_script)
grep -q -- "--version-script=\${CMAKE_CURRENT_SOURCE_DIR}/$vs" "$root/CMakeLists.txt" ||
    fail "libvorn_core's version_script \"$vs\" is not the one CMakeLists.txt links with"

# 4. Every file a module names exists.
for module in $(for t in cc_defaults cc_library_shared cc_library_static cc_binary cc_test cc_test_library prebuilt_etc license; do bp_modules $t; done); do
    for prop in srcs init_rc src license_text version_script; do
        for f in $(bp_values "$module" "$prop"); do
            [ -f "$root/$f" ] || fail "$module: $prop names $f, which does not exist"
        done
    done
done

# 5. Every unit test that runs on a device is in a test module.
bp_tests=$(for m in $(bp_modules cc_test); do bp_values "$m" srcs; done)
for f in $(cd "$root" && ls tests/core/*Test.cpp tests/io/*Test.cpp tests/config/*Test.cpp tests/service/*Test.cpp tests/hal/*Test.cpp); do
    printf '%s\n' "$bp_tests" | grep -qx "$f" || fail "$f is in no cc_test module"
done

# 6. vornd: the version CMake gives it.
cm_version=$(sed -n 's/^project(vorn_core VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
bp_values vornd cflags | grep -qx -- "-DVORN_VERSION=\\\\\"$cm_version\\\\\"" ||
    fail "vornd's -DVORN_VERSION is not the project's version $cm_version"

# 7. vornd.rc: the binary, its options, its user and its properties.
service_line=$(grep -E '^service[[:space:]]' "$rc" | head -n 1)
service=$(echo "$service_line" | awk '{ print $2 }')
path=$(echo "$service_line" | awk '{ print $3 }')
[ "$path" = "/vendor/bin/$(basename "$path")" ] || fail "vornd.rc starts $path, not a /vendor/bin program"
binary=$(basename "$path")
bp_modules cc_binary | grep -qx "$binary" || fail "vornd.rc starts $binary, which no cc_binary builds"
bp_values "$binary" init_rc | grep -qx daemon/vornd.rc || fail "$binary does not install daemon/vornd.rc"
for option in $(echo "$service_line" | grep -o -- '--[a-z][a-z-]*'); do
    grep -q "{\"${option#--}\"," "$root/daemon/vornd.cpp" ||
        fail "vornd.rc passes $option, which vornd does not take"
done
user=$(awk '$1 == "user" { print $2; exit }' "$rc")
aid=$(sed -n 's/^\[AID_\(VENDOR_[A-Z0-9_]*\)\]$/\1/p' "$root/daemon/config.fs" | tr 'A-Z' 'a-z')
[ -n "$user" ] && [ "$user" = "$aid" ] || fail "vornd.rc runs as \"$user\", which daemon/config.fs does not define"
case "$user" in root | system) fail "vornd.rc runs vornd as $user" ;; esac
grep -qE '^[[:space:]]+disabled$' "$rc" || fail "vornd.rc does not mark $service disabled"
grep -qE "^[[:space:]]+start $service\$" "$rc" || fail "nothing in vornd.rc starts $service"
for prop in $(sed -n 's/^on property:\([a-z0-9_.]*\)=.*/\1/p' "$rc" | sort -u); do
    case "$prop" in ro.*) continue ;; esac
    grep -q "^$prop[[:space:]]" "$se/property_contexts" || fail "property $prop has no line in sepolicy/property_contexts"
done

# 8. sepolicy: the domain, the exec type labelling the binary, every type that a context names.
exec_type=$(awk -v p="$path" '$1 == p { split($2, c, ":"); print c[3] }' "$se/file_contexts")
[ -n "$exec_type" ] || fail "sepolicy/file_contexts does not label $path"
domain=${exec_type%_exec}
grep -q "^init_daemon_domain($domain)" "$se"/*.te || fail "no init_daemon_domain($domain) in sepolicy"
declared=$(sed -n 's/^type \([a-z0-9_]*\),.*/\1/p; s/^[a-z_]*_prop(\([a-z0-9_]*\))$/\1/p' "$se"/*.te)
for type in $(cat "$se/file_contexts" "$se/property_contexts" "$se/genfs_contexts" | grep -v '^#' |
    grep -o 'u:object_r:[a-z0-9_]*' | cut -d: -f3 | sort -u); do
    case "$type" in vendor_file | vendor_configs_file) continue ;; esac
    printf '%s\n' "$declared" | grep -qx "$type" || fail "sepolicy uses the type $type but declares it nowhere"
done
printf '%s\n' "$declared" | grep -qx "$domain" || fail "sepolicy does not declare the domain $domain"

# 9. The license.
grep -q "Apache License" "$root/LICENSE" && grep -q "Version 2.0" "$root/LICENSE" ||
    fail "LICENSE is not the Apache License 2.0"
bp_values vorn_license license_kinds | grep -qx "SPDX-license-identifier-Apache-2.0" ||
    fail "Android.bp does not declare the Apache-2.0 license"

# 10. The sample configuration that prebuilt_etc ships is clean.
sample=$(bp_values vorn.json src)
if [ -n "$vornd" ] && [ -n "$sample" ]; then
    if ! problems=$("$vornd" --check-config "$root/$sample" 2>&1); then
        fail "$sample does not pass vornd --check-config:"
        printf '%s\n' "$problems" | sed 's/^/  /' >&2
    fi
fi

if [ "$failures" -ne 0 ]; then
    echo "check-android-bp: $failures problem(s)" >&2
    exit 1
fi
echo "check-android-bp: $(echo "$bp_srcs" | wc -l) sources, $(echo "$hdr_in" | wc -l) headers, vornd.rc and sepolicy agree"
