#!/usr/bin/env bash
# Builds and runs every test twice: a normal build, then one under AddressSanitizer and
# UndefinedBehaviorSanitizer; in between, the libFuzzer targets are built with clang and each
# runs for a short while. Usage: scripts/test.sh [--quick]   (--quick: normal build only)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
tovarin_install_deps

jobs=$(nproc)
run_suite() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

# The platform build, checked without a platform tree: Android.bp is well formed and lists
# every library source, and every library source compiles against Android 10's own libbinder
# headers (android-platform-frameworks-native-headers) instead of hostbinder's, so a library
# change that leans on something only hostbinder offers fails here. Those headers rely on
# <memory> and <limits> arriving through the platform's libc++; with libstdc++ they are
# included up front. The maker's headers are still the host versions.
platform_check() {
    local fmt listed sources
    fmt=$(bpfmt -d Android.bp)
    if [ -n "$fmt" ]; then
        echo "$fmt" >&2
        echo "Android.bp is not as bpfmt writes it (bpfmt -w Android.bp)" >&2
        exit 1
    fi
    sources=(parcel/*.cpp service/*.cpp listener/*.cpp debug/*.cpp client/*.cpp)
    # Compared by file name only: a source moving between the library's folders is no failure.
    listed=$(grep -oE '"[a-z]+/[A-Za-z0-9_]+\.cpp"' Android.bp | tr -d '"' | xargs -n1 basename |
             sort)
    if ! diff -u <(echo "$listed") <(printf '%s\n' "${sources[@]##*/}" | sort) >&2; then
        echo "Android.bp's srcs and the library's sources differ (- Android.bp, + sources)" >&2
        exit 1
    fi
    printf '%s\n' "${sources[@]}" |
        xargs -P "$jobs" -I{} g++ -std=c++17 -fsyntax-only -Wall -Wextra -Werror \
            -include memory -include limits -Iinclude -Ihost/tovarin_common/include \
            -isystem /usr/include/android {}
    echo "Android.bp formatted and complete; ${#sources[@]} sources compile against" \
         "Android 10's libbinder headers"
}

fuzz_smoke() {
    local dir=build-fuzz seconds=${TOVARIN_FUZZ_SECONDS:-15}
    CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTOVARIN_BUILD_FUZZ=ON -DTOVARIN_SANITIZE=ON -DTOVARIN_BUILD_TESTS=OFF \
        -DTOVARIN_BUILD_BENCH=OFF >/dev/null
    local fuzzers=(parcel/parcel_read_fuzzer parcel_forms/parcel_forms_fuzzer
                   debug/debug_stub_fuzzer service/tovarin_service_fuzzer
                   hostbinder_wire/hostbinder_wire_fuzzer)
    cmake --build "$dir" -j "$jobs" --target "${fuzzers[@]##*/}"
    for f in "${fuzzers[@]}"; do
        local corpus log rc=0
        corpus=$(mktemp -d)
        log="$dir/${f##*/}.log"
        "$dir/fuzz/$f" -max_total_time="$seconds" -print_final_stats=1 "$corpus" >"$log" 2>&1 ||
            rc=$?
        rm -rf "$corpus"
        if [ "$rc" -ne 0 ]; then
            tail -n 60 "$log" >&2
            echo "${f##*/} failed (exit $rc): see $log" >&2
            exit 1
        fi
        echo "${f##*/}: $(grep -m1 number_of_executed_units "$log" | awk '{print $2}')" \
             "inputs in ${seconds}s, no crash"
    done
}

echo "== platform build check =="
platform_check
echo "== normal build =="
run_suite build
if [ "${1:-}" != "--quick" ]; then
    echo "== libFuzzer targets (clang, ASan + UBSan) =="
    fuzz_smoke
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    run_suite build-asan -DTOVARIN_SANITIZE=ON -DTOVARIN_BUILD_BENCH=OFF
fi

# 32-bit ARM, the device's architecture: cross build and the whole suite under qemu-user
# (about 7 minutes on two busy cores). scripts/test-armhf.sh runs it alone.
if [ "${1:-}" != "--quick" ]; then
    echo "== armhf cross build, suite under qemu-user =="
    scripts/test-armhf.sh
fi
