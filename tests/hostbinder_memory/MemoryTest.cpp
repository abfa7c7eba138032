/*
 * Shared memory: MemoryHeapBase over memfd and over a caller's descriptor, the dealer's placement
 * of ranges, the HEAP_ID reply, and what the receiving side of IMemory makes of answers it cannot
 * trust (in-process binders that answer whatever a test tells them, so the receiver goes through
 * its proxies exactly as for another process); then the same pages seen by two real processes.
 */
#include <binder/IMemory.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/MemoryDealer.h>
#include <binder/MemoryHeapBase.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <hostbinder_test/Roles.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

using namespace android;

namespace {

const int32_t kPage = static_cast<int32_t>(sysconf(_SC_PAGESIZE));
const size_t kPageSize = static_cast<size_t>(kPage);

// How many mappings of memfd `name` this process holds.
int countMappings(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += (line + " ").find("/memfd:" + name + " ") != std::string::npos;
    }
    return count;
}

bool usable(const sp<IMemoryHeap>& heap) {
    return heap->getBase() != MAP_FAILED && heap->getBase() != nullptr;
}

// The permission column ("rw-s", "r--s", ...) of the mapping that contains `address`.
std::string mappingPermissions(const void* address) {
    std::ifstream maps("/proc/self/maps");
    const auto at = reinterpret_cast<unsigned long>(address);
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        char perms[8] = {};
        if (sscanf(line.c_str(), "%lx-%lx %7s", &start, &end, perms) == 3 && start <= at &&
            at < end) {
            return perms;
        }
    }
    return "";
}

// An unsealed memfd of `pages` pages whose byte i is (i / kPage + 1), as another process might
// send it.
int pagedFile(int pages) {
    const int fd = memfd_create("paged", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    for (int page = 0; fd >= 0 && page < pages; ++page) {
        const std::string fill(kPageSize, static_cast<char>(page + 1));
        if (pwrite(fd, fill.data(), fill.size(), off_t(page) * kPage) < 0) return -1;
    }
    return fd;
}

// Answers HEAP_ID with the given numbers; it is not an IMemoryHeap itself, so interface_cast
// makes a proxy of it.
class FakeHeap : public BBinder {
public:
    FakeHeap(int fd, int32_t size, int32_t flags, int32_t offset, bool sendFd)
        : mFd(fd), mSize(size), mFlags(flags), mOffset(offset), mSendFd(sendFd) {}

protected:
    status_t onTransact(uint32_t code, const Parcel&, Parcel* reply, uint32_t) override {
        if (code != IMemoryHeap::HEAP_ID) return UNKNOWN_TRANSACTION;
        mSendFd ? reply->writeDupFileDescriptor(mFd) : reply->writeInt32(mFd);
        reply->writeInt32(mSize);
        reply->writeInt32(mFlags);
        return reply->writeInt32(mOffset);
    }

private:
    int mFd;
    int32_t mSize, mFlags, mOffset;
    bool mSendFd;
};

// Answers GET_MEMORY with the given heap binder and range.
class FakeMemory : public BBinder {
public:
    FakeMemory(const sp<IBinder>& heap, int32_t offset, int32_t size)
        : mHeap(heap), mOffset(offset), mSize(size) {}

protected:
    status_t onTransact(uint32_t code, const Parcel&, Parcel* reply, uint32_t) override {
        if (code != IMemory::GET_MEMORY) return UNKNOWN_TRANSACTION;
        reply->writeStrongBinder(mHeap);
        reply->writeInt32(mOffset);
        return reply->writeInt32(mSize);
    }

private:
    sp<IBinder> mHeap;
    int32_t mOffset, mSize;
};

}  // namespace

TEST(MemoryHeapBaseTest, AnonymousHeapIsWholePagesNamedAndSizeSealed) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPageSize + 1, 0, "heap-anon");
    ASSERT_TRUE(usable(heap));
    EXPECT_EQ(heap->getSize(), 2 * kPageSize);
    EXPECT_EQ(countMappings("heap-anon"), 1);
    // A holder of the descriptor can neither shrink nor grow it.
    const int seals = fcntl(heap->getHeapID(), F_GET_SEALS);
    EXPECT_TRUE((seals & F_SEAL_SHRINK) && (seals & F_SEAL_GROW));
    EXPECT_NE(ftruncate(heap->getHeapID(), 0), 0);
}

TEST(MemoryHeapBaseTest, ReadOnlyHeapIsWritableByItsOwnerOnly) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPageSize, MemoryHeapBase::READ_ONLY, "heap-ro");
    ASSERT_TRUE(usable(heap));
    memcpy(heap->getBase(), "owner", 6);
    // Any other mapping of the descriptor, in any process, can only read.
    EXPECT_EQ(mmap(nullptr, kPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, heap->getHeapID(), 0),
              MAP_FAILED);
    // A heap made over that descriptor is usable read-only, and only when asked so.
    sp<MemoryHeapBase> view =
            new MemoryHeapBase(heap->getHeapID(), kPageSize, MemoryHeapBase::READ_ONLY);
    ASSERT_TRUE(usable(view));
    EXPECT_STREQ(static_cast<const char*>(view->getBase()), "owner");
    EXPECT_EQ(mappingPermissions(view->getBase()), "r--s");
    EXPECT_FALSE(usable(new MemoryHeapBase(heap->getHeapID(), kPageSize)));
}

TEST(MemoryHeapBaseTest, DescriptorHeapsMapOnlyWhatTheFileHolds) {
    const int fd = pagedFile(3);
    ASSERT_GE(fd, 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    struct Case {
        const char* what;
        int fd;
        size_t size;
        off_t offset;
        size_t expectedSize;  // 0: the heap is unusable
        uint8_t firstByte;
    };
    const Case cases[] = {
            {"whole file", fd, 0, 0, 3 * kPageSize, 1},
            {"one page at page 1", fd, kPageSize, kPage, kPageSize, 2},
            {"rest of the file from page 2", fd, 0, 2 * kPage, kPageSize, 3},
            {"claims more than the file", fd, 10 * kPageSize, 0, 3 * kPageSize, 1},
            {"claims more from page 1", fd, 10 * kPageSize, kPage, 2 * kPageSize, 2},
            {"offset at the end", fd, kPageSize, 3 * kPage, 0, 0},
            {"offset not on a page", fd, kPageSize, 100, 0, 0},
            {"negative offset", fd, kPageSize, -kPage, 0, 0},
            {"closed descriptor", -1, kPageSize, 0, 0, 0},
            {"pipe", pipeFds[0], kPageSize, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        sp<MemoryHeapBase> heap = new MemoryHeapBase(c.fd, c.size, 0, c.offset);
        ASSERT_EQ(usable(heap), c.expectedSize != 0);
        if (c.expectedSize == 0) {
            EXPECT_EQ(heap->getBase(), MAP_FAILED);
            EXPECT_EQ(heap->getHeapID(), -1);
            continue;
        }
        EXPECT_EQ(heap->getSize(), c.expectedSize);
        EXPECT_EQ(heap->getOffset(), c.offset);
        EXPECT_NE(heap->getHeapID(), fd);  // a duplicate: the caller keeps its own
        const auto* bytes = static_cast<const uint8_t*>(heap->getBase());
        EXPECT_EQ(bytes[0], c.firstByte);
        EXPECT_EQ(bytes[heap->getSize() - 1], c.firstByte + (heap->getSize() - 1) / kPageSize);
    }
    // Anonymous heaps of no size, or too large for their size to travel as an int32.
    for (size_t size : {size_t(0), static_cast<size_t>(INT32_MAX) + 1}) {
        EXPECT_EQ(sp<MemoryHeapBase>(new MemoryHeapBase(size))->getHeapID(), -1) << size;
    }
    close(pipeFds[0]);
    close(pipeFds[1]);
    close(fd);
}

TEST(MemoryHeapBaseTest, DisposeUnmapsAndClosesOnce) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(kPageSize, 0, "heap-disposed");
    const int fd = heap->getHeapID();
    ASSERT_GE(fd, 0);
    heap->dispose();
    EXPECT_EQ(heap->getHeapID(), -1);
    EXPECT_EQ(heap->getBase(), nullptr);
    EXPECT_EQ(heap->getSize(), 0u);
    EXPECT_EQ(countMappings("heap-disposed"), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    heap->dispose();  // a second dispose (and the destructor) must not close a reused number
    const int reused = dup(STDERR_FILENO);
    heap.clear();
    EXPECT_NE(fcntl(reused, F_GETFD), -1);
    close(reused);
}

TEST(MemoryDealerTest, AllocationsAreAlignedDisjointAndInsideTheHeap) {
    EXPECT_EQ(MemoryDealer::getAllocationAlignment(), 32u);
    sp<MemoryDealer> dealer = new MemoryDealer(kPageSize, "dealer-layout");
    sp<IMemoryHeap> heap = dealer->getMemoryHeap();
    ASSERT_EQ(heap->getSize(), kPageSize);
    std::vector<sp<IMemory>> live;
    for (size_t size : {1, 31, 32, 33, 100, 7, 64, 65}) {
        sp<IMemory> memory = dealer->allocate(size);
        ASSERT_NE(memory, nullptr) << size;
        EXPECT_EQ(memory->size(), size);
        EXPECT_EQ(memory->offset() % 32, 0);
        EXPECT_EQ(memory->pointer(), static_cast<char*>(heap->getBase()) + memory->offset());
        memset(memory->pointer(), static_cast<int>(live.size() + 1), size);
        live.push_back(memory);
    }
    // Every range still holds its own fill: no two overlap.
    for (size_t i = 0; i < live.size(); ++i) {
        const auto* bytes = static_cast<const uint8_t*>(live[i]->pointer());
        EXPECT_EQ(std::count(bytes, bytes + live[i]->size(), i + 1), ssize_t(live[i]->size()));
    }
}

TEST(MemoryDealerTest, PicksTheSmallestFreeRangeThatFits) {
    sp<MemoryDealer> dealer = new MemoryDealer(kPageSize);
    // Layout: [a 64][hole1 32][b 32][hole2 128][c 32][rest ...]
    sp<IMemory> a = dealer->allocate(64), hole1 = dealer->allocate(32);
    sp<IMemory> b = dealer->allocate(32), hole2 = dealer->allocate(128);
    sp<IMemory> c = dealer->allocate(32);
    const ssize_t hole1At = hole1->offset(), hole2At = hole2->offset();
    hole2.clear();
    hole1.clear();
    EXPECT_EQ(dealer->allocate(20)->offset(), hole1At);  // dropped at once: hole1 is free again
    sp<IMemory> mid = dealer->allocate(90);
    EXPECT_EQ(mid->offset(), hole2At);  // only hole2 and the rest fit; hole2 is smaller
    // hole1 and the 32 bytes left of hole2 fit equally well: the lower one is taken first.
    sp<IMemory> small = dealer->allocate(32), tail = dealer->allocate(32);
    EXPECT_EQ(small->offset(), hole1At);
    EXPECT_EQ(tail->offset(), hole2At + 96);
}

TEST(MemoryDealerTest, ExhaustionAndCoalescing) {
    sp<MemoryDealer> dealer = new MemoryDealer(kPageSize);
    const size_t quarter = kPageSize / 4;
    sp<IMemory> q[4];
    for (auto& memory : q) ASSERT_NE(memory = dealer->allocate(quarter), nullptr);
    EXPECT_EQ(dealer->allocate(1), nullptr);
    EXPECT_EQ(dealer->allocate(0), nullptr);
    EXPECT_EQ(dealer->allocate(SIZE_MAX), nullptr);  // no overflow in the rounding
    // Two freed neighbours merge into one range of half the heap.
    q[1].clear();
    q[2].clear();
    sp<IMemory> half = dealer->allocate(2 * quarter);
    ASSERT_NE(half, nullptr);
    EXPECT_EQ(half->offset(), static_cast<ssize_t>(quarter));
    half.clear();
    // Freeing around a range merges on both sides.
    q[0].clear();
    q[3].clear();
    sp<IMemory> all = dealer->allocate(kPageSize);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(all->offset(), 0);
}

TEST(MemoryDealerTest, ReleasedPagesComeBackZeroed) {
    // qemu-user accepts madvise(MADV_REMOVE) and does nothing.
    sp<MemoryHeapBase> probe = new MemoryHeapBase(kPageSize);
    *static_cast<volatile char*>(probe->getBase()) = 1;
    if (madvise(probe->getBase(), kPageSize, MADV_REMOVE) != 0 ||
        *static_cast<volatile char*>(probe->getBase()) != 0) {
        GTEST_SKIP() << "madvise(MADV_REMOVE) has no effect here";
    }
    sp<MemoryDealer> dealer = new MemoryDealer(4 * kPageSize);
    sp<IMemory> first = dealer->allocate(2 * kPageSize);
    ASSERT_NE(first, nullptr);
    memset(first->pointer(), 0xab, 2 * kPageSize);
    first.clear();
    sp<IMemory> second = dealer->allocate(2 * kPageSize);
    ASSERT_NE(second, nullptr);
    const auto* bytes = static_cast<const uint8_t*>(second->pointer());
    EXPECT_EQ(std::count(bytes, bytes + 2 * kPageSize, 0), static_cast<long>(2 * kPageSize));
}

TEST(MemoryDealerTest, ConcurrentAllocationsNeverOverlap) {
    sp<MemoryDealer> dealer = new MemoryDealer(16 * kPageSize);
    auto worker = [&](unsigned seed) {
        std::mt19937 random(seed);
        std::vector<sp<IMemory>> mine;
        for (int round = 0; round < 2000; ++round) {
            if (mine.size() < 8 && random() % 2 == 0) {
                sp<IMemory> memory = dealer->allocate(1 + random() % 700);
                if (memory == nullptr) continue;
                memset(memory->pointer(), static_cast<int>(seed), memory->size());
                mine.push_back(memory);
            } else if (!mine.empty()) {
                // Everything this thread wrote is still its own.
                const auto* bytes = static_cast<const uint8_t*>(mine.back()->pointer());
                ASSERT_EQ(std::count(bytes, bytes + mine.back()->size(), uint8_t(seed)),
                          ssize_t(mine.back()->size()));
                mine.pop_back();
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(worker, seed);
    for (auto& thread : threads) thread.join();
    EXPECT_NE(dealer->allocate(16 * kPageSize), nullptr);  // every range came back
}

TEST(IMemoryTest, HeapIdAnswersADuplicateDescriptorSizeFlagsOffset) {
    sp<MemoryHeapBase> heap = new MemoryHeapBase(3 * kPageSize, MemoryHeapBase::READ_ONLY);
    Parcel data, reply;
    data.writeInterfaceToken(IMemoryHeap::descriptor);
    ASSERT_EQ(IInterface::asBinder(heap)->transact(IMemoryHeap::HEAP_ID, data, &reply), NO_ERROR);
    const int fd = reply.readFileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_NE(fd, heap->getHeapID());
    EXPECT_EQ(reply.readInt32(), 3 * kPage);
    EXPECT_EQ(reply.readInt32(), static_cast<int32_t>(IMemoryHeap::READ_ONLY));
    EXPECT_EQ(reply.readInt32(), 0);
    EXPECT_EQ(reply.dataAvail(), 0u);
}

// The receiver maps a heap only when its descriptor is sealed memory, its offset a page inside
// the file, its size no more than the file holds, its flags those of the file; and gives a
// pointer only to ranges inside what it mapped.
TEST(IMemoryTest, ReceiverMapsOnlyWhatItCanTrust) {
    const int file = pagedFile(2), shortFile = pagedFile(1);
    const int unsealable = memfd_create("unsealable", MFD_CLOEXEC);  // can always shrink
    ASSERT_EQ(ftruncate(unsealable, kPage), 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    sp<MemoryHeapBase> readOnly = new MemoryHeapBase(kPageSize, MemoryHeapBase::READ_ONLY);
    const int ro = readOnly->getHeapID();
    const int32_t kRO = MemoryHeapBase::READ_ONLY;
    struct Case {
        const char* what;
        int fd;
        int32_t heapSize, heapFlags, heapOffset;
        int32_t offset, size;
        bool usable;
        bool sendFd;
    };
    const Case cases[] = {
            {"whole heap", file, 2 * kPage, 0, 0, 0, 2 * kPage, true, true},
            {"last byte", file, 2 * kPage, 0, 0, 2 * kPage - 1, 1, true, true},
            {"one byte too far", file, 2 * kPage, 0, 0, 2 * kPage - 16, 17, false, true},
            {"starts past the end", file, 2 * kPage, 0, 0, 2 * kPage + 1, 0, false, true},
            {"negative offset", file, 2 * kPage, 0, 0, -1, 16, false, true},
            {"negative size", file, 2 * kPage, 0, 0, 0, -1, false, true},
            {"offset and size overflow", file, 2 * kPage, 0, 0, INT32_MAX, INT32_MAX, false, true},
            {"most negative offset", file, 2 * kPage, 0, 0, INT32_MIN, 8, false, true},
            {"heap larger than its file, inside", shortFile, 256 * kPage, 0, 0, kPage - 64, 64,
             true, true},
            {"heap larger than its file, beyond", shortFile, 256 * kPage, 0, 0, 2 * kPage, 64,
             false, true},
            {"no descriptor in the reply", file, kPage, 0, 0, 0, 16, false, false},
            {"a pipe instead of memory", pipeFds[0], kPage, 0, 0, 0, 16, false, true},
            {"memory its sender can shrink", unsealable, kPage, 0, 0, 0, 16, false, true},
            {"heap of no size", file, 0, 0, 0, 0, 16, false, true},
            {"heap of negative size", file, -kPage, 0, 0, 0, 16, false, true},
            {"heap offset not on a page", file, kPage, 0, 12, 0, 16, false, true},
            {"heap offset past the file", file, kPage, 0, 4 * kPage, 0, 16, false, true},
            {"read-only heap", ro, kPage, kRO, 0, 0, 8, true, true},
            {"read-only heap claimed writable", ro, kPage, 0, 0, 0, 8, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        sp<IBinder> heap = new FakeHeap(c.fd, c.heapSize, c.heapFlags, c.heapOffset, c.sendFd);
        sp<IMemory> memory = interface_cast<IMemory>(new FakeMemory(heap, c.offset, c.size));
        if (c.usable) {
            ASSERT_NE(memory->pointer(), nullptr);
            EXPECT_EQ(memory->size(), static_cast<size_t>(c.size));
            EXPECT_EQ(memory->offset(), c.offset);
            EXPECT_EQ(mappingPermissions(memory->pointer()), c.heapFlags ? "r--s" : "rw-s");
            if (c.heapFlags == 0) static_cast<char*>(memory->pointer())[c.size - 1] = 'x';
        } else {
            EXPECT_EQ(memory->pointer(), nullptr);
            EXPECT_EQ(memory->size(), 0u);
            ssize_t offset = -7;
            EXPECT_EQ(memory->getMemory(&offset), nullptr);
            EXPECT_EQ(offset, 0);
        }
    }
    // A heap larger than its file is mapped to the file's size, and the file sealed against
    // shrinking under the mapping.
    EXPECT_EQ(interface_cast<IMemoryHeap>(new FakeHeap(shortFile, 256 * kPage, 0, 0, true))
                      ->getSize(),
              kPageSize);
    EXPECT_TRUE(fcntl(shortFile, F_GET_SEALS) & F_SEAL_SHRINK);
    // Memory whose heap binder is null or not a heap at all.
    EXPECT_EQ(interface_cast<IMemory>(new FakeMemory(nullptr, 0, 16))->pointer(), nullptr);
    EXPECT_EQ(interface_cast<IMemory>(new FakeMemory(new BBinder(), 0, 16))->pointer(), nullptr);
    for (int fd : {file, shortFile, unsealable, pipeFds[0], pipeFds[1]}) close(fd);
}

// Between real processes: a runtime instance of its own and a peer process, and both sides see
// the same pages. The peer registers "memory.peer" and
// serves:
//   1 kGetMemories   reply: two IMemory of one MemoryDealer heap ("peer-heap"), the first
//                    holding "written by the peer"
//   2 kFirstHolds    data: String16; reply: int32 1 when the first memory holds that text
//   3 kReadAndMark   data: IMemory; reply: String16 of the text it holds; then writes
//                    "marked by the peer" into it
namespace {

enum : uint32_t {
    kGetMemories = IBinder::FIRST_CALL_TRANSACTION,
    kFirstHolds,
    kReadAndMark,
};

class PeerService : public BBinder {
public:
    PeerService() : mDealer(new MemoryDealer(4 * kPage, "peer-heap")) {
        mFirst = mDealer->allocate(100);
        mSecond = mDealer->allocate(2 * kPage);
        strcpy(static_cast<char*>(mFirst->pointer()), "written by the peer");
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case kGetMemories:
                reply->writeStrongBinder(IInterface::asBinder(mFirst));
                reply->writeStrongBinder(IInterface::asBinder(mSecond));
                return NO_ERROR;
            case kFirstHolds: {
                String8 expected(data.readString16());
                reply->writeInt32(strcmp(static_cast<const char*>(mFirst->pointer()),
                                         expected.string()) == 0);
                return NO_ERROR;
            }
            case kReadAndMark: {
                sp<IMemory> memory = interface_cast<IMemory>(data.readStrongBinder());
                char* text = memory != nullptr ? static_cast<char*>(memory->pointer()) : nullptr;
                if (text == nullptr || memory->size() < 32) return BAD_VALUE;
                reply->writeString16(String16(text, strnlen(text, memory->size())));
                strcpy(text, "marked by the peer");
                return NO_ERROR;
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    sp<MemoryDealer> mDealer;
    sp<IMemory> mFirst, mSecond;
};

TEST_ROLE(memory_peer) {
    if (defaultServiceManager()->addService(String16("memory.peer"), new PeerService()) !=
        NO_ERROR) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

}  // namespace

TEST(MemoryAcrossProcessesTest, BothProcessesSeeAndChangeTheSamePages) {
    hostbinder_test::RuntimeInstance runtime;
    auto peer = hostbinder_test::startRole("memory_peer");
    ASSERT_TRUE(peer);
    sp<IBinder> service = defaultServiceManager()->checkService(String16("memory.peer"));
    ASSERT_NE(service, nullptr);
    const int fdsBefore = hostbinder_test::openFdCount();
    {
        Parcel data, reply;
        ASSERT_EQ(service->transact(kGetMemories, data, &reply), NO_ERROR);
        sp<IMemory> first = interface_cast<IMemory>(reply.readStrongBinder());
        sp<IMemory> second = interface_cast<IMemory>(reply.readStrongBinder());
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);

        auto* text = static_cast<char*>(first->pointer());
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, "written by the peer");
        EXPECT_EQ(first->size(), 100u);

        // Written here, read by the peer through its own mapping: the same pages, no copy.
        strcpy(text, "written by the test");
        Parcel ask, answer;
        ask.writeString16(String16("written by the test"));
        ASSERT_EQ(service->transact(kFirstHolds, ask, &answer), NO_ERROR);
        EXPECT_EQ(answer.readInt32(), 1);

        // Both memories live in one heap: one mapping here, shared by both proxies.
        ASSERT_NE(second->pointer(), nullptr);
        EXPECT_EQ(static_cast<char*>(second->pointer()) - text, second->offset() - first->offset());
        EXPECT_EQ(first->getMemory()->getBase(), second->getMemory()->getBase());
        EXPECT_EQ(first->fastPointer(IInterface::asBinder(second->getMemory()), second->offset()),
                  second->pointer());
        EXPECT_EQ(countMappings("peer-heap"), 1);
        memset(second->pointer(), 0x11, second->size());  // writable to its last byte
    }
    // The last proxy gone, the mapping and its descriptor are gone too.
    EXPECT_EQ(countMappings("peer-heap"), 0);
    EXPECT_EQ(hostbinder_test::openFdCount(), fdsBefore);

    // The other way round: the peer reads and marks memory of this process.
    sp<MemoryDealer> dealer = new MemoryDealer(kPage, "test-heap");
    sp<IMemory> memory = dealer->allocate(64);
    ASSERT_NE(memory, nullptr);
    strcpy(static_cast<char*>(memory->pointer()), "written by the test");
    Parcel data, reply;
    data.writeStrongBinder(IInterface::asBinder(memory));
    ASSERT_EQ(service->transact(kReadAndMark, data, &reply), NO_ERROR);
    EXPECT_EQ(String8(reply.readString16()), String8("written by the test"));
    EXPECT_STREQ(static_cast<char*>(memory->pointer()), "marked by the peer");
    EXPECT_EQ(peer->wait(0), -1) << "the peer died:\n" << peer->output();
}
