#!/usr/bin/env bash
# Keeps a tool's documentation in step with its command line: every long option that
# `TOOL --help` lists must appear in the tool's man page and in the option table of the tool's
# README section ("## TOOL", rows starting with "|"), every option of that table must still be
# one that --help lists, and the man page's title line must carry the version that
# `TOOL --version` prints.
#
#   scripts/check-options.sh TOOL_BINARY MAN_PAGE README NAME
set -euo pipefail
tool="$1"
man="$2"
readme="$3"
name="$4"
fail=0

help=$("$tool" --help)
options=$(printf '%s\n' "$help" | grep -o -- '--[a-z][a-z0-9-]*' | LC_ALL=C sort -u)
if [ -z "$options" ]; then
    echo "check-options: $name --help lists no long option" >&2
    exit 1
fi
# Man pages write a dash as "\-".
man_text=$(sed 's/\\-/-/g' "$man")
table=$(awk -v heading="## $name" '
    $0 == heading { on = 1; next }
    on && /^## / { on = 0 }
    on && /^\|/ { print }' "$readme")
if [ -z "$table" ]; then
    echo "check-options: $readme has no option table under \"## $name\"" >&2
    exit 1
fi

mentions() {  # TEXT OPTION: the option as a whole word, not the start of a longer one
    # Not through a pipe: grep -q leaves at the first match, and with pipefail a printf still
    # writing a long text would then fail the check.
    grep -q -E -- "$2([^a-z0-9-]|\$)" <<<"$1"
}
for option in $options; do
    if ! mentions "$man_text" "$option"; then
        echo "check-options: $name $option is missing from $man" >&2
        fail=1
    fi
    if ! mentions "$table" "$option"; then
        echo "check-options: $name $option is missing from the option table of \"## $name\" in $readme" >&2
        fail=1
    fi
done
# The table's first column names options; each must still exist.
for option in $(printf '%s\n' "$table" | awk -F'|' '{ print $2 }' | grep -o -- '--[a-z][a-z0-9-]*' | sort -u); do
    if ! printf '%s\n' "$options" | grep -q -x -- "$option"; then
        echo "check-options: the README table of $name lists $option, which $name --help does not" >&2
        fail=1
    fi
done
if version=$("$tool" --version 2>/dev/null) && [ -n "$version" ]; then
    number=$(printf '%s\n' "$version" | grep -o -E '[0-9]+(\.[0-9]+)+' | head -n 1)
    if [ -n "$number" ] && ! grep -q -E "^\.TH .*$number" "$man"; then
        echo "check-options: the title line of $man does not carry version $number" >&2
        fail=1
    fi
fi
if [ "$fail" = 0 ]; then
    echo "check-options: $(printf '%s\n' "$options" | wc -l) options of $name documented in $man and $readme"
fi
exit $fail
