/*
 * The allocation counter (see AllocHook.h). Runs inside malloc: it must not allocate, lock or
 * log. Allocations made before the constructor below has mapped the shared file (by the
 * dynamic loader and earlier constructors) go to the process-local counter.
 */
#include "AllocHook.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

static_assert(std::atomic<uint64_t>::is_always_lock_free, "the shared counter needs no lock");

std::atomic<uint64_t> sLocalCount{0};
std::atomic<std::atomic<uint64_t>*> sCount{&sLocalCount};

inline void count() {
    sCount.load(std::memory_order_relaxed)->fetch_add(1, std::memory_order_relaxed);
}

__attribute__((constructor)) void mapSharedCounter() {
    const char* path = getenv(morvel::tovarin::bench::kAllocCounterEnv);
    if (path == nullptr || path[0] == '\0') {
        return;
    }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* shared = mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (shared == MAP_FAILED) {
        return;
    }
    auto* counter = static_cast<std::atomic<uint64_t>*>(shared);
    counter->fetch_add(sLocalCount.load(), std::memory_order_relaxed);
    sCount.store(counter, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

uint64_t tovarin_bench_allocations() {
    return sCount.load(std::memory_order_relaxed)->load(std::memory_order_relaxed);
}

void* malloc(size_t size) noexcept {
    count();
    return __libc_malloc(size);
}

void* calloc(size_t count_, size_t size) noexcept {
    count();
    return __libc_calloc(count_, size);
}

void* realloc(void* pointer, size_t size) noexcept {
    count();
    return __libc_realloc(pointer, size);
}

void* memalign(size_t alignment, size_t size) noexcept {
    count();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    count();
    void* pointer = __libc_memalign(alignment, size);
    if (pointer == nullptr) {
        return ENOMEM;
    }
    *out = pointer;
    return 0;
}

}  // extern "C"
