#!/usr/bin/env bash
# Builds and runs every test twice: a normal build, then one under AddressSanitizer and
# UndefinedBehaviorSanitizer. Usage: scripts/test.sh [--quick]   (--quick: normal build only)
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

echo "== normal build =="
run_suite build
if [ "${1:-}" != "--quick" ]; then
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    run_suite build-asan -DTOVARIN_SANITIZE=ON -DTOVARIN_BUILD_BENCH=OFF
fi
