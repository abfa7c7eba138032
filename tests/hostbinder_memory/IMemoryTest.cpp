/*
 * IMemoryHeap and IMemory: the HEAP_ID and GET_MEMORY replies, and what a receiver makes of
 * answers it cannot trust. The peers here are in-process binders that answer whatever a test
 * tells them, so the receiving side goes through its proxies exactly as for another process.
 */
#include <binder/IMemory.h>
#include <binder/MemoryBase.h>
#include <binder/MemoryHeapBase.h>
#include <binder/Parcel.h>

#include "MemoryTestUtil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>

using namespace android;
using hostbinder_memory_test::countMappings;
using hostbinder_memory_test::mappingPermissions;

namespace {

const int32_t kPage = static_cast<int32_t>(sysconf(_SC_PAGESIZE));

// Answers HEAP_ID with the given numbers; it is not an IMemoryHeap itself, so interface_cast
// makes a proxy of it.
class FakeHeap : public BBinder {
public:
    FakeHeap(int fd, int32_t size, int32_t flags = 0, int32_t offset = 0)
          : mFd(fd), mSize(size), mFlags(flags), mOffset(offset) {}

    std::atomic<int> calls{0};
    bool sendFd = true;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) override {
        if (code != IMemoryHeap::HEAP_ID) return UNKNOWN_TRANSACTION;
        ++calls;
        if (sendFd) {
            reply->writeDupFileDescriptor(mFd);
        } else {
            reply->writeInt32(mFd);
        }
        reply->writeInt32(mSize);
        reply->writeInt32(mFlags);
        reply->writeInt32(mOffset);
        return NO_ERROR;
    }

private:
    int mFd;
    int32_t mSize, mFlags, mOffset;
};

// Answers GET_MEMORY with the given heap binder and range.
class FakeMemory : public BBinder {
public:
    FakeMemory(const sp<IBinder>& heap, int32_t offset, int32_t size)
          : mHeap(heap), mOffset(offset), mSize(size) {}

    std::atomic<int> calls{0};

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) override {
        if (code != IMemory::GET_MEMORY) return UNKNOWN_TRANSACTION;
        ++calls;
        reply->writeStrongBinder(mHeap);
        reply->writeInt32(mOffset);
        reply->writeInt32(mSize);
        return NO_ERROR;
    }

private:
    sp<IBinder> mHeap;
    int32_t mOffset, mSize;
};

// A memfd of `bytes` bytes, unsealed (as another process might send).
int plainFile(const char* name, size_t bytes) {
    int fd = memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

// ---------------------------------------------------------------------------
// What the stubs put on the wire.

TEST(IMemoryWireTest, HeapIdAnswersDescriptorSizeFlagsOffset) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(3 * kPage, MemoryHeapBase::READ_ONLY, "wire");
    Parcel data, reply;
    data.writeInterfaceToken(IMemoryHeap::descriptor);
    ASSERT_EQ(IInterface::asBinder(heap)->transact(IMemoryHeap::HEAP_ID, data, &reply),
              NO_ERROR);
    const int fd = reply.readFileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_NE(fd, heap->getHeapID());  // the reply carries its own duplicate
    struct stat sent, owned;
    ASSERT_EQ(fstat(fd, &sent), 0);
    ASSERT_EQ(fstat(heap->getHeapID(), &owned), 0);
    EXPECT_EQ(sent.st_ino, owned.st_ino);
    EXPECT_EQ(reply.readInt32(), 3 * kPage);
    EXPECT_EQ(reply.readInt32(), static_cast<int32_t>(IMemoryHeap::READ_ONLY));
    EXPECT_EQ(reply.readInt32(), 0);
    EXPECT_EQ(reply.dataAvail(), 0u);
}

TEST(IMemoryWireTest, GetMemoryAnswersHeapOffsetSize) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPage);
    sp<IMemory> memory = new MemoryBase(heap, 96, 200);
    Parcel data, reply;
    data.writeInterfaceToken(IMemory::descriptor);
    ASSERT_EQ(IInterface::asBinder(memory)->transact(IMemory::GET_MEMORY, data, &reply),
              NO_ERROR);
    EXPECT_EQ(reply.readStrongBinder(), IInterface::asBinder(heap));
    EXPECT_EQ(reply.readInt32(), 96);
    EXPECT_EQ(reply.readInt32(), 200);
    EXPECT_EQ(reply.dataAvail(), 0u);
}

// ---------------------------------------------------------------------------
// The receiving side.

TEST(IMemoryProxyTest, ProxyMapsTheSamePagesAsTheOwner) {
    sp<MemoryHeapBase> owner = new MemoryHeapBase(2 * kPage, 0, "same-pages");
    sp<FakeHeap> heapBinder = new FakeHeap(owner->getHeapID(), 2 * kPage);
    sp<IMemory> memory = interface_cast<IMemory>(new FakeMemory(heapBinder, kPage + 8, 64));
    ASSERT_EQ(IInterface::asBinder(memory)->localBinder()->queryLocalInterface(IMemory::descriptor),
              nullptr);  // a proxy

    auto* received = static_cast<char*>(memory->pointer());
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(memory->offset(), kPage + 8);
    EXPECT_EQ(memory->size(), 64u);
    strcpy(static_cast<char*>(owner->getBase()) + kPage + 8, "from the owner");
    EXPECT_STREQ(received, "from the owner");
    strcpy(received, "from the receiver");
    EXPECT_STREQ(static_cast<char*>(owner->getBase()) + kPage + 8, "from the receiver");
    EXPECT_EQ(countMappings("same-pages"), 2);  // the owner's and the receiver's
}

TEST(IMemoryProxyTest, RangesOutsideTheHeapGiveNoPointer) {
    const int fd = plainFile("ranges", 2 * kPage);
    ASSERT_GE(fd, 0);
    sp<FakeHeap> heapBinder = new FakeHeap(fd, 2 * kPage);
    struct Case {
        const char* what;
        int32_t offset;
        int32_t size;
        bool usable;
    };
    const Case cases[] = {
            {"whole heap", 0, 2 * kPage, true},
            {"last byte", 2 * kPage - 1, 1, true},
            {"one byte too far", 2 * kPage - 16, 17, false},
            {"starts past the end", 2 * kPage + 1, 0, false},
            {"negative offset", -1, 16, false},
            {"negative size", 0, -1, false},
            {"offset and size overflow", INT32_MAX, INT32_MAX, false},
            {"most negative offset", INT32_MIN, 8, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        sp<FakeMemory> peer = new FakeMemory(heapBinder, c.offset, c.size);
        sp<IMemory> memory = interface_cast<IMemory>(peer);
        if (c.usable) {
            ASSERT_NE(memory->pointer(), nullptr);
            EXPECT_EQ(memory->size(), static_cast<size_t>(c.size));
            EXPECT_EQ(memory->offset(), c.offset);
            static_cast<char*>(memory->pointer())[c.size - 1] = 'x';  // really mapped
        } else {
            EXPECT_EQ(memory->pointer(), nullptr);
            EXPECT_EQ(memory->size(), 0u);
            EXPECT_EQ(memory->offset(), 0);
            ssize_t offset = -7;
            EXPECT_EQ(memory->getMemory(&offset), nullptr);
            EXPECT_EQ(offset, 0);
        }
    }
    close(fd);
}

TEST(IMemoryProxyTest, HeapSmallerThanClaimedIsMappedOnlyToItsRealSize) {
    const int fd = plainFile("short-heap", kPage);
    ASSERT_GE(fd, 0);
    sp<FakeHeap> heapBinder = new FakeHeap(fd, 256 * kPage);
    sp<IMemoryHeap> heap = interface_cast<IMemoryHeap>(heapBinder);
    ASSERT_NE(heap->getBase(), MAP_FAILED);
    EXPECT_EQ(heap->getSize(), static_cast<size_t>(kPage));

    sp<IMemory> beyond = interface_cast<IMemory>(new FakeMemory(heapBinder, 2 * kPage, 64));
    EXPECT_EQ(beyond->pointer(), nullptr);  // would fault if mapped as claimed
    sp<IMemory> inside = interface_cast<IMemory>(new FakeMemory(heapBinder, kPage - 64, 64));
    ASSERT_NE(inside->pointer(), nullptr);
    memset(inside->pointer(), 0x5a, 64);

    // The receiver sealed the unsealed file against shrinking under its mapping.
    EXPECT_TRUE(fcntl(fd, F_GET_SEALS) & F_SEAL_SHRINK);
    close(fd);
}

TEST(IMemoryProxyTest, UnusableHeapAnswersGiveNoPointer) {
    const int fd = plainFile("bad-heaps", 2 * kPage);
    ASSERT_GE(fd, 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const int unsealable = memfd_create("unsealable", MFD_CLOEXEC);  // can always shrink
    ASSERT_EQ(ftruncate(unsealable, kPage), 0);
    struct Case {
        const char* what;
        sp<FakeHeap> heap;
        bool sendFd;
    };
    const Case cases[] = {
            {"no descriptor in the reply", new FakeHeap(fd, kPage), false},
            {"a pipe instead of memory", new FakeHeap(pipeFds[0], kPage), true},
            {"memory its sender can shrink", new FakeHeap(unsealable, kPage), true},
            {"zero size", new FakeHeap(fd, 0), true},
            {"negative size", new FakeHeap(fd, -kPage), true},
            {"offset not on a page", new FakeHeap(fd, kPage, 0, 12), true},
            {"offset past the end of the file", new FakeHeap(fd, kPage, 0, 4 * kPage), true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        c.heap->sendFd = c.sendFd;
        sp<IMemoryHeap> heap = interface_cast<IMemoryHeap>(c.heap);
        EXPECT_EQ(heap->getBase(), MAP_FAILED);
        EXPECT_EQ(heap->getSize(), 0u);
        sp<IMemory> memory = interface_cast<IMemory>(new FakeMemory(c.heap, 0, 16));
        EXPECT_EQ(memory->pointer(), nullptr);
    }
    // Memory whose heap binder is null or not a heap at all.
    sp<IMemory> noHeap = interface_cast<IMemory>(new FakeMemory(nullptr, 0, 16));
    EXPECT_EQ(noHeap->pointer(), nullptr);
    sp<IMemory> notHeap = interface_cast<IMemory>(new FakeMemory(new BBinder(), 0, 16));
    EXPECT_EQ(notHeap->pointer(), nullptr);
    close(pipeFds[0]);
    close(pipeFds[1]);
    close(unsealable);
    close(fd);
}

TEST(IMemoryProxyTest, ReadOnlyHeapIsMappedReadOnly) {
    sp<MemoryHeapBase> owner =
            new MemoryHeapBase(kPage, MemoryHeapBase::READ_ONLY, "ro-received");
    strcpy(static_cast<char*>(owner->getBase()), "read me");
    sp<FakeHeap> heapBinder =
            new FakeHeap(owner->getHeapID(), kPage, MemoryHeapBase::READ_ONLY);
    sp<IMemory> memory = interface_cast<IMemory>(new FakeMemory(heapBinder, 0, 8));
    ASSERT_NE(memory->pointer(), nullptr);
    EXPECT_STREQ(static_cast<const char*>(memory->pointer()), "read me");
    EXPECT_EQ(mappingPermissions(memory->pointer()), "r--s");

    // A peer that hides the flag cannot obtain a writable mapping of a read-only heap.
    sp<FakeHeap> lying = new FakeHeap(owner->getHeapID(), kPage, 0);
    EXPECT_EQ(interface_cast<IMemoryHeap>(lying)->getBase(), MAP_FAILED);
}

TEST(IMemoryProxyTest, ProxiesOfOneHeapShareOneMappingUntilTheLastGoes) {
    sp<MemoryHeapBase> owner = new MemoryHeapBase(4 * kPage, 0, "cached-heap");
    sp<FakeHeap> heapBinder = new FakeHeap(owner->getHeapID(), 4 * kPage);
    ASSERT_EQ(countMappings("cached-heap"), 1);

    sp<IMemory> a = interface_cast<IMemory>(new FakeMemory(heapBinder, 0, 32));
    sp<IMemory> b = interface_cast<IMemory>(new FakeMemory(heapBinder, 3 * kPage, 32));
    ASSERT_NE(a->pointer(), nullptr);
    ASSERT_NE(b->pointer(), nullptr);
    EXPECT_EQ(static_cast<char*>(b->pointer()) - static_cast<char*>(a->pointer()), 3 * kPage);
    EXPECT_EQ(heapBinder->calls.load(), 1);  // asked once for both
    EXPECT_EQ(countMappings("cached-heap"), 2);

    // fastPointer resolves through the same mapping.
    EXPECT_EQ(a->fastPointer(heapBinder, 3 * kPage), b->pointer());

    a.clear();
    EXPECT_EQ(countMappings("cached-heap"), 2);  // b still uses it
    b.clear();
    EXPECT_EQ(countMappings("cached-heap"), 1);  // only the owner's is left

    sp<IMemory> c = interface_cast<IMemory>(new FakeMemory(heapBinder, 0, 32));
    ASSERT_NE(c->pointer(), nullptr);
    EXPECT_EQ(heapBinder->calls.load(), 2);  // a new mapping, asked again
}
