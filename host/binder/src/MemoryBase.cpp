/*
 * hostbinder: MemoryBase.
 */
#include <binder/MemoryBase.h>

namespace android {

MemoryBase::MemoryBase(const sp<IMemoryHeap>& heap, ssize_t offset, size_t size)
      : mSize(size), mOffset(offset), mHeap(heap) {}

MemoryBase::~MemoryBase() {}

sp<IMemoryHeap> MemoryBase::getMemory(ssize_t* offset, size_t* size) const {
    if (offset) *offset = mOffset;
    if (size) *size = mSize;
    return mHeap;
}

}  // namespace android
