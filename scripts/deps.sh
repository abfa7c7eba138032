#!/usr/bin/env bash
# Installs the Debian packages the build needs. As root it runs apt-get itself; otherwise it
# prints the exact command and exits 1. Sourced by test.sh and demo.sh.
set -euo pipefail

TOVARIN_PACKAGES=(
    build-essential cmake ninja-build pkg-config clang
    libgtest-dev libgmock-dev libbenchmark-dev
    libsystemd-dev dbus
    android-libutils-dev android-liblog-dev
)

tovarin_missing_packages() {
    local missing=()
    for p in "${TOVARIN_PACKAGES[@]}"; do
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
