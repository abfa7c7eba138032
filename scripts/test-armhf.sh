#!/usr/bin/env bash
# Cross-builds hostbinder, the library, the tools and the tests for 32-bit ARM (armhf, the
# device's architecture: 4-byte size_t, long and pointers) and runs the whole suite under
# qemu-user. binfmt_misc hands every ARM program to qemu, so hostbinderd and every helper and
# tool a test starts run as ARM programs too. The last stage of scripts/test.sh.
# Usage: scripts/test-armhf.sh
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
tovarin_install_deps
tovarin_install_armhf_deps

dir=build-armhf
jobs=$(nproc)

# binfmt_misc runs ARM programs through qemu-arm-static (its rule ships with qemu-user-static).
armhf_binfmt() {
    local binfmt=/proc/sys/fs/binfmt_misc
    if [ -e "$binfmt/qemu-arm" ] && grep -qx enabled "$binfmt/qemu-arm"; then
        return 0
    fi
    if [ "$(id -u)" -ne 0 ]; then
        echo "ARM programs need the qemu-arm binfmt_misc rule. As root:" >&2
        echo "  cat /usr/lib/binfmt.d/qemu-arm.conf > $binfmt/register" >&2
        exit 1
    fi
    [ -e "$binfmt/register" ] || mount -t binfmt_misc binfmt_misc "$binfmt"
    if [ -e "$binfmt/qemu-arm" ]; then
        echo 1 > "$binfmt/qemu-arm"
    else
        cat /usr/lib/binfmt.d/qemu-arm.conf > "$binfmt/register"
    fi
}

# libbacktrace (under libutils) needs 7z.so from p7zip-full, whose armhf build cannot be
# installed beside the build machine's: it is unpacked into the build folder instead, named to
# the linker with -rpath-link and to the loader with LD_LIBRARY_PATH.
armhf_p7zip() {
    local p7=$1
    [ -e "$p7/usr/lib/p7zip/7z.so" ] && return 0
    rm -rf "$p7"
    mkdir -p "$p7"
    # (As root apt-get warns that it downloads unsandboxed: harmless here.)
    (cd "$p7" && apt-get download -qq p7zip-full:armhf 2>/dev/null) ||
        { echo "apt-get download p7zip-full:armhf failed" >&2; exit 1; }
    dpkg-deb -x "$p7"/p7zip-full_*_armhf.deb "$p7"
}

start=$(date +%s)
armhf_binfmt
mkdir -p "$dir"
p7zip_dir=$PWD/$dir/p7zip
armhf_p7zip "$p7zip_dir"
p7zip_lib=$p7zip_dir/usr/lib/p7zip

echo "== armhf build =="
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
    -DTOVARIN_BUILD_BENCH=OFF -DTOVARIN_BUILD_FUZZ=OFF \
    "-DCMAKE_EXE_LINKER_FLAGS=-Wl,-rpath-link,$p7zip_lib" \
    "-DCMAKE_SHARED_LINKER_FLAGS=-Wl,-rpath-link,$p7zip_lib" >/dev/null
cmake --build "$dir" -j "$jobs"
built=$(date +%s)

echo "== armhf suite under qemu-user =="
readelf -h "$dir/host/tools/hostbinderd/hostbinderd" | grep -E 'Class|Machine'
(cd "$dir" && LD_LIBRARY_PATH="$p7zip_lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
    ctest --output-on-failure -j "$jobs")
echo "armhf: built in $((built - start)) s, suite ran in $(($(date +%s) - built)) s"
