/*
 * hostbinder: IMemoryHeap and IMemory, their proxies and stubs.
 */
#define LOG_TAG "IMemory"

#include <binder/IMemory.h>
#include <binder/Parcel.h>

#include "MemoryHeapCache.h"

#include <log/log.h>

#include <climits>
#include <mutex>
#include <sys/mman.h>

namespace android {

namespace {

// True when [offset, offset + size) lies inside a heap of heapSize bytes.
bool rangeInside(int64_t offset, int64_t size, size_t heapSize) {
    if (offset < 0 || size < 0) return false;
    const uint64_t end = static_cast<uint64_t>(offset) + static_cast<uint64_t>(size);
    return end <= heapSize;
}

}  // namespace

// A heap owned by another process. It maps the heap the first time an accessor needs it, through
// the process's heap cache, and keeps that mapping until it is destroyed.
class BpMemoryHeap : public BpInterface<IMemoryHeap> {
public:
    explicit BpMemoryHeap(const sp<IBinder>& impl) : BpInterface<IMemoryHeap>(impl) {}

    int getHeapID() const override { return mapping().fd; }
    void* getBase() const override { return mapping().base; }
    size_t getSize() const override { return mapping().size; }
    uint32_t getFlags() const override { return mapping().flags; }
    off_t getOffset() const override { return mapping().offset; }

private:
    const MemoryMapping& mapping() const {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mMapping) mMapping = MemoryHeapCache::instance().acquire(sp<IBinder>(remote()));
        return *mMapping;
    }

    mutable std::mutex mLock;
    mutable std::shared_ptr<const MemoryMapping> mMapping;
};

IMPLEMENT_META_INTERFACE(MemoryHeap, "android.utils.IMemoryHeap")

BnMemoryHeap::BnMemoryHeap() {}

BnMemoryHeap::~BnMemoryHeap() {}

status_t BnMemoryHeap::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                  uint32_t flags) {
    switch (code) {
        case HEAP_ID: {
            CHECK_INTERFACE(IMemoryHeap, data, reply);
            // The size travels as an int32: a larger heap cannot be described.
            if (getSize() > static_cast<size_t>(INT32_MAX)) return BAD_VALUE;
            if (status_t s = reply->writeDupFileDescriptor(getHeapID()); s != NO_ERROR) return s;
            reply->writeInt32(static_cast<int32_t>(getSize()));
            reply->writeInt32(static_cast<int32_t>(getFlags()));
            reply->writeInt32(static_cast<int32_t>(getOffset()));
            return NO_ERROR;
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

// ---------------------------------------------------------------------------

// Memory owned by another process. Asks GET_MEMORY until it gets a usable answer, then keeps
// the heap, offset and size for good.
class BpMemory : public BpInterface<IMemory> {
public:
    explicit BpMemory(const sp<IBinder>& impl) : BpInterface<IMemory>(impl) {}

    sp<IMemoryHeap> getMemory(ssize_t* offset, size_t* size) const override {
        std::lock_guard<std::mutex> lock(mLock);
        if (mHeap == nullptr) fetchLocked();
        if (offset) *offset = mHeap != nullptr ? mOffset : 0;
        if (size) *size = mHeap != nullptr ? mSize : 0;
        return mHeap;
    }

private:
    void fetchLocked() const {
        Parcel data, reply;
        data.writeInterfaceToken(IMemory::descriptor);
        if (remote()->transact(GET_MEMORY, data, &reply) != NO_ERROR) return;
        sp<IBinder> heapBinder;
        int32_t offset = 0, size = 0;
        if (reply.readNullableStrongBinder(&heapBinder) != NO_ERROR ||
            reply.readInt32(&offset) != NO_ERROR || reply.readInt32(&size) != NO_ERROR) {
            ALOGE("malformed GET_MEMORY reply");
            return;
        }
        sp<IMemoryHeap> heap = interface_cast<IMemoryHeap>(heapBinder);
        if (heap == nullptr) return;
        // The peer's numbers are checked against the heap as mapped here, which is never
        // larger than what its descriptor really holds.
        const size_t heapSize = heap->getSize();
        if (!rangeInside(offset, size, heapSize)) {
            ALOGE("GET_MEMORY range [%d, +%d) is outside its heap of %zu bytes", offset, size,
                  heapSize);
            return;
        }
        mHeap = heap;
        mOffset = offset;
        mSize = static_cast<size_t>(size);
    }

    mutable std::mutex mLock;
    mutable sp<IMemoryHeap> mHeap;
    mutable ssize_t mOffset = 0;
    mutable size_t mSize = 0;
};

IMPLEMENT_META_INTERFACE(Memory, "android.utils.IMemory")

void* IMemory::fastPointer(const sp<IBinder>& binder, ssize_t offset) const {
    if (binder == nullptr || offset < 0) return nullptr;
    sp<IInterface> local = binder->queryLocalInterface(IMemoryHeap::descriptor);
    if (local != nullptr) {
        void* const base = static_cast<IMemoryHeap*>(local.get())->getBase();
        if (base == MAP_FAILED || base == nullptr) return nullptr;
        return static_cast<char*>(base) + offset;
    }
    std::shared_ptr<const MemoryMapping> mapping = MemoryHeapCache::instance().acquire(binder);
    // The address stays valid only while some proxy of the heap holds the mapping; a mapping
    // held by nobody else is about to go away.
    if (!mapping->valid() || mapping.use_count() <= 1) return nullptr;
    return static_cast<char*>(mapping->base) + offset;
}

void* IMemory::pointer() const {
    ssize_t offset = 0;
    size_t size = 0;
    sp<IMemoryHeap> heap = getMemory(&offset, &size);
    if (heap == nullptr) return nullptr;
    void* const base = heap->getBase();
    if (base == MAP_FAILED || base == nullptr) return nullptr;
    if (!rangeInside(offset, static_cast<int64_t>(size), heap->getSize())) return nullptr;
    return static_cast<char*>(base) + offset;
}

size_t IMemory::size() const {
    size_t size = 0;
    getMemory(nullptr, &size);
    return size;
}

ssize_t IMemory::offset() const {
    ssize_t offset = 0;
    getMemory(&offset);
    return offset;
}

BnMemory::BnMemory() {}

BnMemory::~BnMemory() {}

status_t BnMemory::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    switch (code) {
        case GET_MEMORY: {
            CHECK_INTERFACE(IMemory, data, reply);
            ssize_t offset = 0;
            size_t size = 0;
            sp<IMemoryHeap> heap = getMemory(&offset, &size);
            reply->writeStrongBinder(IInterface::asBinder(heap));
            reply->writeInt32(static_cast<int32_t>(offset));
            reply->writeInt32(static_cast<int32_t>(size));
            return NO_ERROR;
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

}  // namespace android
