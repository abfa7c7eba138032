#!/usr/bin/env bash
# Builds and runs the benchmarks: the runtime alone (hostbinder_bench) and what an application
# pays through the library (tovarin_bench). Each starts its own runtime instance and processes
# and prints its ratios at the end. Extra arguments go to tovarin_bench (Google Benchmark flags,
# e.g. --benchmark_filter=Alternate). See docs/performance.md.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
tovarin_install_deps

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target hostbinder_bench tovarin_bench

echo "== hostbinder_bench =="
build/bench/hostbinder/hostbinder_bench
echo
echo "== tovarin_bench =="
build/bench/tovarin/tovarin_bench "$@"
