/*
 * hostbinder: MemoryHeapBase, a heap of shared memory owned by this process.
 *
 * The anonymous-memory constructor creates a sealed memfd (it cannot be shrunk or grown, so a
 * peer holding the descriptor cannot pull pages from under this process); READ_ONLY heaps are
 * writable here and read-only in every other process.
 */
#pragma once

#include <binder/IMemory.h>

#include <stdlib.h>

namespace android {

class MemoryHeapBase : public virtual BnMemoryHeap {
public:
    enum {
        READ_ONLY = IMemoryHeap::READ_ONLY,
        // The heap is not mapped in this process, only in the processes it is sent to.
        DONT_MAP_LOCALLY = 0x00000100,
        NO_CACHING = 0x00000200
    };

    // Maps `size` bytes of a dup of `fd`, starting at `offset` (a multiple of the page size).
    // A size of 0 maps the whole file.
    MemoryHeapBase(int fd, size_t size, uint32_t flags = 0, off_t offset = 0);

    // Maps `size` bytes (the whole device when 0) of the file or device at path `device`.
    MemoryHeapBase(const char* device, size_t size = 0, uint32_t flags = 0);

    // Creates anonymous shared memory of `size` bytes rounded up to whole pages, zero-filled.
    // `name` shows in /proc/<pid>/maps as memfd:<name>.
    MemoryHeapBase(size_t size, uint32_t flags = 0, char const* name = nullptr);

    virtual ~MemoryHeapBase();

    virtual int getHeapID() const;
    // MAP_FAILED when the heap could not be created, null when DONT_MAP_LOCALLY.
    virtual void* getBase() const;
    virtual size_t getSize() const;
    virtual uint32_t getFlags() const;
    virtual off_t getOffset() const;

    const char* getDevice() const;

    // Unmaps the heap and closes its descriptor; proxies in other processes keep their own
    // mappings. The heap answers HEAP_ID with an invalid descriptor afterwards.
    void dispose();

    status_t setDevice(const char* device) {
        if (mDevice == nullptr) mDevice = device;
        return mDevice ? NO_ERROR : ALREADY_EXISTS;
    }

protected:
    MemoryHeapBase();
    // Takes ownership of fd.
    status_t init(int fd, void* base, size_t size, int flags = 0, const char* device = nullptr);

private:
    status_t mapfd(int fd, size_t size, off_t offset = 0);

    int mFD;
    size_t mSize;
    void* mBase;
    uint32_t mFlags;
    const char* mDevice;
    bool mNeedUnmap;
    off_t mOffset;
};

}  // namespace android
