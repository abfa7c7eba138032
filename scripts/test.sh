#!/usr/bin/env bash
# Checks the platform build (Android.bp, the library against Android 10's libbinder headers),
# then builds and runs every test: a normal build, one under AddressSanitizer and
# UndefinedBehaviorSanitizer, one under ThreadSanitizer, and a 32-bit ARM cross build under
# qemu-user; in between, the libFuzzer targets are built with clang and each runs for a short
# while from its seed corpus. Prints how long each stage took.
# Usage: scripts/test.sh [--quick]   (--quick: platform check and normal build only)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
tovarin_install_deps

jobs=$(nproc)
run_suite() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null &&
        cmake --build "$dir" -j "$jobs" &&
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
    listed=$(grep -oE '"[a-z]+/[A-Za-z0-9_]+\.cpp"' Android.bp | tr -d '"' | sort)
    if ! diff -u <(echo "$listed") <(printf '%s\n' "${sources[@]}" | sort) >&2; then
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

# Runs "$@" as the stage named $1 and reports its wall time and the CPU time of its processes
# (on a shared machine the CPU time is the figure to compare).
stage_times=()
children_cpu=0
update_children_cpu() {  # user + system seconds of this shell's finished children, from `times`
    local f
    f=$(mktemp)
    times >"$f"  # in this shell: a subshell would count only its own children
    children_cpu=$(tail -n 1 "$f" | awk '{ t = 0; for (i = 1; i <= 2; i++) {
                                             split($i, a, /[ms]/); t += a[1] * 60 + a[2] }
                                         printf "%d", t }')
    rm -f "$f"
}
stage() {
    local name=$1 start=$SECONDS cpu; shift
    update_children_cpu
    cpu=$children_cpu
    echo "== $name =="
    "$@"
    update_children_cpu
    stage_times+=("$name: $((SECONDS - start)) s wall, $((children_cpu - cpu)) s CPU")
    echo "== ${stage_times[-1]} =="
}

# Each fuzzer starts from a scratch copy of its seed corpus in fuzz/<area>/corpus, so that the
# run explores past what earlier runs found without writing into the tree.
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
        if [ -d "fuzz/${f%%/*}/corpus" ]; then cp -r "fuzz/${f%%/*}/corpus/." "$corpus"; fi
        log="$dir/${f##*/}.log"
        "$dir/fuzz/$f" -max_total_time="$seconds" -rss_limit_mb=1024 -print_final_stats=1 \
            "$corpus" >"$log" 2>&1 || rc=$?
        rm -rf "$corpus"
        if [ "$rc" -ne 0 ]; then
            tail -n 60 "$log" >&2
            echo "${f##*/} failed (exit $rc): see $log" >&2
            exit 1
        fi
        echo "${f##*/}: $(grep -m1 number_of_executed_units "$log" | awk '{print $2}')" \
             "inputs in ${seconds}s, $(grep -o 'cov: [0-9]*' "$log" | tail -n1), no crash"
    done
}

asan_suite() {
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        run_suite build-asan -DTOVARIN_SANITIZE=ON -DTOVARIN_BUILD_BENCH=OFF
}

# Every process of the suite, helpers and tools included, writes its ThreadSanitizer reports
# to a file of its own; any such file fails the stage, also from a helper that a test kills.
tsan_suite() {
    local dir=build-tsan
    local reports=$PWD/$dir/tsan-reports
    rm -rf "$reports" && mkdir -p "$reports"
    local rc=0 options
    options="suppressions=$PWD/scripts/tsan.supp:log_path=$reports/report:second_deadlock_stack=1"
    TSAN_OPTIONS=$options run_suite "$dir" -DTOVARIN_TSAN=ON -DTOVARIN_BUILD_BENCH=OFF || rc=$?
    if compgen -G "$reports/report.*" >/dev/null; then
        cat "$reports"/report.* >&2
        echo "ThreadSanitizer reported the above (files in $reports)" >&2
        exit 1
    fi
    return "$rc"
}

stage "platform build check" platform_check
stage "normal build" run_suite build
if [ "${1:-}" != "--quick" ]; then
    stage "libFuzzer targets (clang, ASan + UBSan)" fuzz_smoke
    stage "AddressSanitizer + UndefinedBehaviorSanitizer build" asan_suite
    stage "ThreadSanitizer build" tsan_suite
fi

# 32-bit ARM, the device's architecture: cross build and the whole suite under qemu-user.
# scripts/test-armhf.sh runs it alone.
if [ "${1:-}" != "--quick" ]; then
    stage "armhf cross build, suite under qemu-user" scripts/test-armhf.sh
fi
printf '%s\n' "${stage_times[@]}"
