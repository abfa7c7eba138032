/*
 * hostbinder: MemoryBase, an IMemory naming the range [offset, offset + size) of a heap.
 */
#pragma once

#include <binder/IMemory.h>

#include <stdlib.h>
#include <stdint.h>

namespace android {

class MemoryBase : public BnMemory {
public:
    MemoryBase(const sp<IMemoryHeap>& heap, ssize_t offset, size_t size);
    virtual ~MemoryBase();
    virtual sp<IMemoryHeap> getMemory(ssize_t* offset, size_t* size) const;

protected:
    size_t getSize() const { return mSize; }
    ssize_t getOffset() const { return mOffset; }
    const sp<IMemoryHeap>& getHeap() const { return mHeap; }

private:
    size_t mSize;
    ssize_t mOffset;
    sp<IMemoryHeap> mHeap;
};

}  // namespace android
