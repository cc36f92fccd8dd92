#!/usr/bin/env bash
# Installs the Debian 12 packages a job needs; each script asks for its own:
#   scripts/setup.sh                 building the library, vornd, vornctl and the sample HAL
#   scripts/setup.sh --tests         also the test suite (GoogleTest, pytest, dpkg-deb, nm)
#   scripts/setup.sh --sanitizers    also the sanitizer runtimes of scripts/sanitize.sh
#   scripts/setup.sh --fuzz          also clang and its fuzzer runtime, for scripts/fuzz.sh
# Options combine. Idempotent: it installs only what is missing. Run as root, or with sudo.
# When sudo would ask for a password and there is no terminal to ask on, it prints the command
# an administrator must run and exits 1.
set -euo pipefail

build=(cmake ninja-build g++ pkg-config android-libcutils-dev android-liblog-dev libjsoncpp-dev)
tests=(googletest libgtest-dev libgmock-dev python3 python3-pytest binutils dpkg)
sanitizers=(libasan8 libubsan1 libtsan2)  # GCC 12's, which sanitize.sh builds with
fuzz=(clang libclang-rt-14-dev)

packages=("${build[@]}")
for option in "$@"; do
    case "$option" in
    --tests) packages+=("${tests[@]}") ;;
    --sanitizers) packages+=("${tests[@]}" "${sanitizers[@]}") ;;
    --fuzz) packages+=("${fuzz[@]}") ;;
    *)
        echo "usage: $0 [--tests] [--sanitizers] [--fuzz]" >&2
        exit 2
        ;;
    esac
done

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
    exit 0
fi
# De-duplicated, in the order asked for.
mapfile -t missing < <(printf '%s\n' "${missing[@]}" | awk '!seen[$0]++')

ask_admin() {
    echo "setup: missing Debian packages: ${missing[*]}" >&2
    echo "setup: $1; an administrator can install them with:" >&2
    echo "    sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}" >&2
    exit 1
}

SUDO=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null 2>&1 || ask_admin "not root and sudo is not installed"
    # A password can be typed only on a terminal; without one sudo would fail after its prompt.
    if ! sudo -n true 2>/dev/null && ! [ -t 0 ]; then
        ask_admin "sudo needs a password and there is no terminal to type it on"
    fi
    SUDO=(sudo)
fi
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${SUDO[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "setup: installed ${missing[*]}"
