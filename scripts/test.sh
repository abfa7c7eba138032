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
