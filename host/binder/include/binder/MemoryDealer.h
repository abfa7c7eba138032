/*
 * hostbinder: MemoryDealer, a best-fit allocator handing out IMemory ranges of one
 * MemoryHeapBase. An allocation returns its range to the dealer when its last reference goes;
 * the allocation keeps the dealer (and so the heap) alive.
 */
#pragma once

#include <binder/IMemory.h>
#include <binder/MemoryHeapBase.h>

#include <stdint.h>
#include <sys/types.h>

namespace android {

class SimpleBestFitAllocator;

class MemoryDealer : public RefBase {
public:
    // A heap of `size` bytes rounded up to whole pages; `flags` as MemoryHeapBase's.
    explicit MemoryDealer(size_t size, const char* name = nullptr, uint32_t flags = 0);

    // Null when no free range of `size` bytes (rounded up to the alignment) is left, or for a
    // size of 0.
    virtual sp<IMemory> allocate(size_t size);
    // Returns the range starting at `offset`. Called by the allocation itself when it dies.
    virtual void deallocate(size_t offset);
    // Logs the allocator's chunk list, headed by `what`.
    virtual void dump(const char* what) const;

    // Every allocation starts at a multiple of this many bytes and spans a multiple of it.
    static size_t getAllocationAlignment();

    sp<IMemoryHeap> getMemoryHeap() const { return heap(); }

protected:
    virtual ~MemoryDealer();

private:
    const sp<IMemoryHeap>& heap() const;
    SimpleBestFitAllocator* allocator() const;

    sp<IMemoryHeap> mHeap;
    SimpleBestFitAllocator* mAllocator;
};

}  // namespace android
