/*
 * Heap allocation counter for the benchmarks: a small shared library that takes the C
 * allocator's allocating entry points (malloc, calloc, realloc, the aligned forms) and counts
 * every call before handing it to the C library. operator new goes through malloc, so it is
 * counted too; free is left alone.
 *
 * Linked into the benchmark, it counts that process. Preloaded into another process
 * (LD_PRELOAD) with TOVARIN_BENCH_ALLOC_COUNTER naming a file of at least 8 bytes, it keeps the
 * count in that file, mapped shared, so the benchmark reads another process's count without
 * asking it anything.
 */
#pragma once

#include <stdint.h>

extern "C" {
// Allocations made by this process so far (all threads).
uint64_t tovarin_bench_allocations();
}

namespace morvel {
namespace tovarin {
namespace bench {

// The environment variable that names a process's shared counter file.
constexpr char kAllocCounterEnv[] = "TOVARIN_BENCH_ALLOC_COUNTER";

}  // namespace bench
}  // namespace tovarin
}  // namespace morvel
