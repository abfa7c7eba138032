/*
 * hostbinder: shared memory as binder objects.
 *
 * An IMemoryHeap is a block of shared memory behind a file descriptor; an IMemory is a range
 * [offset, offset + size) of one heap. Both travel between processes as binders: the receiver
 * asks the heap for its descriptor once (HEAP_ID), maps it, and from then on reads and writes
 * the very pages the owner sees. A process keeps one mapping per heap binder, shared by every
 * proxy of that heap, and unmaps it when the last proxy goes.
 *
 * Numbers coming from another process are not trusted: a range that does not lie inside the
 * heap's real size gives a null pointer, and a heap is never mapped beyond the real size of its
 * descriptor.
 */
#pragma once

#include <binder/IInterface.h>

#include <stdint.h>
#include <sys/types.h>

namespace android {

class IMemoryHeap : public IInterface {
public:
    DECLARE_META_INTERFACE(MemoryHeap)

    // Transaction: reply = file descriptor, int32 size, int32 flags, int32 offset.
    enum { HEAP_ID = IBinder::FIRST_CALL_TRANSACTION };

    // Flags returned by getFlags().
    enum { READ_ONLY = 0x00000001 };

    // The descriptor of the heap in this process (-1 when the heap is unusable).
    virtual int getHeapID() const = 0;
    // The start of the heap in this process, MAP_FAILED when it could not be mapped.
    virtual void* getBase() const = 0;
    // The usable size in bytes (for a received heap, never more than its descriptor holds).
    virtual size_t getSize() const = 0;
    virtual uint32_t getFlags() const = 0;
    virtual off_t getOffset() const = 0;

    // Older names of the accessors above.
    int32_t heapID() const { return getHeapID(); }
    void* base() const { return getBase(); }
    size_t virtualSize() const { return getSize(); }
};

class BnMemoryHeap : public BnInterface<IMemoryHeap> {
public:
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

    BnMemoryHeap();

protected:
    virtual ~BnMemoryHeap();
};

// ---------------------------------------------------------------------------

class IMemory : public IInterface {
public:
    DECLARE_META_INTERFACE(Memory)

    // Transaction: reply = heap binder, int32 offset, int32 size.
    enum { GET_MEMORY = IBinder::FIRST_CALL_TRANSACTION };

    // The heap holding this memory and the range inside it. A proxy whose peer answered a
    // range outside the heap returns a null heap and leaves *offset and *size at 0.
    virtual sp<IMemoryHeap> getMemory(ssize_t* offset = nullptr,
                                      size_t* size = nullptr) const = 0;

    // The address of byte `offset` of the heap `heap` in this process, through the
    // per-process heap cache (null when that heap cannot be mapped). No range check.
    void* fastPointer(const sp<IBinder>& heap, ssize_t offset) const;
    // The first byte of this memory in this process, or null when it is not available.
    void* pointer() const;
    size_t size() const;
    ssize_t offset() const;
};

class BnMemory : public BnInterface<IMemory> {
public:
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

    BnMemory();

protected:
    virtual ~BnMemory();
};

}  // namespace android
