#!/usr/bin/env bash
# Installs the Debian packages the build needs. As root it runs apt-get itself; otherwise it
# prints the exact command and exits 1. Sourced by test.sh and demo.sh.
set -euo pipefail

TOVARIN_PACKAGES=(
    build-essential cmake ninja-build pkg-config clang
    libgtest-dev libgmock-dev libbenchmark-dev
    libsystemd-dev dbus
    android-libutils-dev android-liblog-dev
    blueprint-tools android-platform-frameworks-native-headers
    gnuplot-nox libsodium-dev
)

# The 32-bit ARM build and its run under qemu-user (scripts/test-armhf.sh): a cross compiler and
# the target's libraries through Debian multiarch.
TOVARIN_ARMHF_PACKAGES=(
    crossbuild-essential-armhf qemu-user-static
    android-libutils-dev:armhf android-liblog-dev:armhf libgtest-dev:armhf libgmock-dev:armhf
    libsodium-dev:armhf
)

# Prints the packages of the list given (TOVARIN_PACKAGES by default) that are not installed.
tovarin_missing_packages() {
    local missing=()
    [ $# -gt 0 ] || set -- "${TOVARIN_PACKAGES[@]}"
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$p")
        fi
    done
    echo "${missing[@]:-}"
}

tovarin_install_deps() {
    local missing
    missing=$(tovarin_missing_packages)
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing Debian packages. Install them with:" >&2
        echo "  sudo apt-get install -y $missing" >&2
        exit 1
    fi
    echo "Installing: $missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing
}

tovarin_install_armhf_deps() {
    local missing
    missing=$(tovarin_missing_packages "${TOVARIN_ARMHF_PACKAGES[@]}")
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing Debian packages. Install them with:" >&2
        dpkg --print-foreign-architectures | grep -qx armhf ||
            echo "  sudo dpkg --add-architecture armhf && sudo apt-get update" >&2
        echo "  sudo apt-get install -y $missing" >&2
        exit 1
    fi
    echo "Installing: $missing"
    export DEBIAN_FRONTEND=noninteractive
    dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf
    # A mirror caught mid-sync fails one index; the install below says if that one mattered.
    apt-get update -qq || echo "apt-get update reported errors; trying the install anyway" >&2
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing
}
