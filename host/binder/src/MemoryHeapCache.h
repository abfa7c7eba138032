/*
 * hostbinder: the per-process cache of mappings of heaps owned by other processes.
 *
 * Every proxy of one heap binder shares one MemoryMapping: the first proxy that needs the heap
 * asks its owner once (HEAP_ID) and maps the descriptor; later proxies, and IMemory::fastPointer,
 * reuse that mapping. The mapping is unmapped when the last proxy holding it goes.
 */
#pragma once

#include <binder/IBinder.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdint.h>
#include <sys/types.h>

namespace android {

// One mapping of a received heap. Immutable once built; an invalid one has base MAP_FAILED.
struct MemoryMapping {
    MemoryMapping() = default;
    MemoryMapping(const MemoryMapping&) = delete;
    MemoryMapping& operator=(const MemoryMapping&) = delete;
    ~MemoryMapping();

    bool valid() const;

    int fd = -1;
    void* base = reinterpret_cast<void*>(-1);  // MAP_FAILED
    size_t size = 0;
    uint32_t flags = 0;
    off_t offset = 0;
};

class MemoryHeapCache {
public:
    static MemoryHeapCache& instance();

    // The mapping of the heap behind `binder`, created (one HEAP_ID transaction) when this
    // process holds none. Never null; an invalid mapping when the owner's answer is unusable
    // (invalid mappings are not cached, so a later call asks again).
    std::shared_ptr<const MemoryMapping> acquire(const sp<IBinder>& binder);

    // Builds a mapping from a HEAP_ID answer, checking every number against the descriptor.
    // Only a memory file sealed against shrinking (sealed here if it is not yet) is mapped.
    static std::shared_ptr<const MemoryMapping> map(int fd, int32_t size, uint32_t flags,
                                                    int32_t offset);

private:
    struct Entry {
        std::mutex lock;  // held while the entry's mapping is being created
        std::weak_ptr<const MemoryMapping> mapping;
    };

    MemoryHeapCache() = default;
    void pruneLocked();

    std::mutex mLock;
    // Keyed by the heap binder; an entry whose mapping has gone is pruned lazily. A live
    // mapping keeps its binder alive through the proxies that hold it, so a key can only be
    // reused by a new binder after the old entry's mapping has gone.
    std::map<const IBinder*, std::shared_ptr<Entry>> mEntries;
};

}  // namespace android
