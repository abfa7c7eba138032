// The shared frame ring: slot sizing, key lookup, ring order, serialisation.
//
// The ring is a process-wide singleton sized once. The tests share this process's ring, built
// at the default size (no setFilesize before its first use, keys used once); scenarios that
// need a fresh ring are roles, each run in a process of its own.

#include <CameraFrameEventParceler.h>
#include <IMemoryMap.h>

#include <binder/IMemory.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <hostbinder_test/Roles.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace android;

namespace morvel::tovarin::binder {
namespace {

constexpr size_t kDefaultSlot = 320000;

std::vector<unsigned char> pattern(unsigned seed, size_t size = kDefaultSlot) {
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(seed * 13 + i * 5);
    return bytes;
}

bool holds(const sp<IMemory>& memory, const std::vector<unsigned char>& bytes) {
    return memory != nullptr && memory->size() >= bytes.size() &&
           memcmp(memory->pointer(), bytes.data(), bytes.size()) == 0;
}

// In a role: fails it, naming the condition.
#define CHECK_OR_FAIL(condition)                                   \
    if (!(condition)) {                                            \
        fprintf(stderr, "%d: failed: %s\n", __LINE__, #condition); \
        return 1;                                                  \
    }

TEST(IMemoryMapTest, DefaultSlotsShareOneHeapAreKeyedByTimestampAndKeepTheirSize) {
    IMemoryMap* ring = IMemoryMap::getInstance();
    std::vector<unsigned char> data = pattern(1);
    const sp<IMemory> memory = ring->getMemoryWithData(1001, data.data());
    ASSERT_NE(nullptr, memory);
    EXPECT_EQ(kDefaultSlot, memory->size());
    ssize_t offset = -1;
    size_t size = 0;
    const sp<IMemoryHeap> heap = memory->getMemory(&offset, &size);
    ASSERT_NE(nullptr, heap);
    // The heap is 6 slots, rounded up to whole pages.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ((6 * kDefaultSlot + page - 1) / page * page, heap->getSize());
    EXPECT_TRUE(holds(memory, data));

    // The same key again is the same slot, not copied again.
    std::vector<unsigned char> changed = pattern(3);
    EXPECT_EQ(memory, ring->getMemoryWithData(1001, changed.data()));
    EXPECT_TRUE(holds(memory, data));

    // A later slot size changes neither the slots nor the length copied.
    IMemoryMap::setFilesize(1000);
    const sp<IMemory> later = ring->getMemoryWithData(1002, changed.data());
    IMemoryMap::setFilesize(static_cast<int>(kDefaultSlot));
    ASSERT_NE(nullptr, later);
    EXPECT_EQ(kDefaultSlot, later->size());
    EXPECT_TRUE(holds(later, changed));  // the last byte too
}

TEST(IMemoryMapTest, SeventhKeyReusesTheFirstSlotAndAnEvictedKeyIsCopiedAgain) {
    std::vector<sp<IMemory>> slots;
    std::vector<std::vector<unsigned char>> frames;
    for (int i = 0; i < 7; ++i) {
        frames.push_back(pattern(10 + i));
        slots.push_back(IMemoryMap::getInstance()->getMemoryWithData(1100 + i, frames[i].data()));
        ASSERT_NE(nullptr, slots.back());
    }
    EXPECT_EQ(6u, std::set<sp<IMemory>>(slots.begin(), slots.begin() + 6).size());
    EXPECT_EQ(slots[0], slots[6]);
    for (int i = 1; i < 7; ++i) EXPECT_TRUE(holds(slots[i], frames[i])) << i;

    // The first key was overwritten: it is copied again, into the next slot of the ring.
    std::vector<unsigned char> again = pattern(30);
    const sp<IMemory> reloaded = IMemoryMap::getInstance()->getMemoryWithData(1100, again.data());
    EXPECT_EQ(slots[1], reloaded);
    EXPECT_TRUE(holds(reloaded, again));
}

// Releases its threads together, round after round.
class SpinBarrier {
public:
    explicit SpinBarrier(int count) : mCount(count) {}
    void wait() {
        const int generation = mGeneration.load();
        if (mWaiting.fetch_add(1) + 1 == mCount) {
            mWaiting.store(0);
            mGeneration.fetch_add(1);
            return;
        }
        while (mGeneration.load() == generation) std::this_thread::yield();
    }

private:
    const int mCount;
    std::atomic<int> mWaiting{0};
    std::atomic<int> mGeneration{0};
};

TEST(IMemoryMapTest, ConcurrentWritersNeverShareASlot) {
    // Two writers store distinct frames at the same moment, round after round: each must get a
    // slot of its own holding its own frame.
    constexpr int kRounds = 3000;
    const std::vector<unsigned char> frames[2] = {pattern(101), pattern(102)};
    sp<IMemory> got[2];
    int failures = 0;
    SpinBarrier barrier(2);
    auto writer = [&](int t) {
        for (int round = 0; round < kRounds; ++round) {
            barrier.wait();
            got[t] = IMemoryMap::getInstance()->getMemoryWithData(
                    2000000 + 2 * round + t, const_cast<unsigned char*>(frames[t].data()));
            barrier.wait();
            if (t == 0 &&
                (got[0] == got[1] || !holds(got[0], frames[0]) || !holds(got[1], frames[1]))) {
                failures++;
            }
        }
    };
    std::thread a(writer, 0);
    std::thread b(writer, 1);
    a.join();
    b.join();
    EXPECT_EQ(0, failures);
}

// Sized before its first use, the ring keeps that size; key 0, the key of every untouched slot,
// finds the first slot empty and uses none up.
TEST_ROLE(ring_sized_before_first_use) {
    IMemoryMap::setFilesize(4096);
    IMemoryMap* ring = IMemoryMap::getInstance();
    IMemoryMap::setFilesize(8192);
    std::vector<unsigned char> data = pattern(2, 8192);
    const sp<IMemory> zero = ring->getMemoryWithData(0, data.data());
    CHECK_OR_FAIL(zero != nullptr && zero->size() == 4096);
    CHECK_OR_FAIL(holds(zero, std::vector<unsigned char>(4096, 0)));
    const sp<IMemory> first = ring->getMemoryWithData(5, data.data());
    CHECK_OR_FAIL(first == zero);
    CHECK_OR_FAIL(holds(first, std::vector<unsigned char>(data.begin(), data.begin() + 4096)));
    return 0;
}

// `size` bytes that end where an inaccessible page begins: reading one byte past them faults.
class GuardedFrame {
public:
    explicit GuardedFrame(size_t size, unsigned seed) : mSize(size) {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        mMappedSize = (size + page - 1) / page * page + page;
        mBase = static_cast<unsigned char*>(mmap(nullptr, mMappedSize, PROT_READ | PROT_WRITE,
                                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(mBase + mMappedSize - page, page, PROT_NONE);
        mData = mBase + mMappedSize - page - size;
        const std::vector<unsigned char> bytes = pattern(seed, size);
        memcpy(mData, bytes.data(), size);
    }
    ~GuardedFrame() { munmap(mBase, mMappedSize); }
    unsigned char* data() const { return mData; }
    std::vector<unsigned char> bytes() const { return {mData, mData + mSize}; }

private:
    size_t mSize;
    size_t mMappedSize;
    unsigned char* mBase;
    unsigned char* mData;
};

// Writes a frame of `width` x `height` with `pixels` and reads it back: the pixels received
// (empty when the frame left without them) and the size of the slot that carried them.
struct Received {
    std::vector<unsigned char> pixels;
    size_t slotSize = 0;
};
Received roundTrip(int64_t timestamp, int32_t width, int32_t height, unsigned char* pixels) {
    CameraFrameEvent frame;
    frame.timestamp = timestamp;
    frame.width = width;
    frame.height = height;
    frame.data = pixels;
    Parcel parcel;
    CameraFrameEventParceler().parcel(frame, parcel);
    Received received;
    parcel.setDataPosition(8 * 2 + 4 * 3);
    const sp<IMemory> slot = interface_cast<IMemory>(parcel.readStrongBinder());
    if (slot != nullptr) received.slotSize = slot->size();
    parcel.setDataPosition(0);
    CameraFrameEvent back;
    CameraFrameEventParceler reader;  // owns the pixels read
    reader.unparcel(back, parcel);
    if (back.data != nullptr) {
        received.pixels.assign(back.data, back.data + static_cast<size_t>(width) * height);
    }
    return received;
}

// A smaller frame than the slot is copied at its own size, from a buffer of exactly that size;
// a larger one leaves without pixels.
TEST_ROLE(writer_reads_no_more_than_the_frame) {
    const GuardedFrame first(64 * 64, 1), smaller(10 * 10, 2), larger(100 * 100, 3);
    const Received a = roundTrip(1, 64, 64, first.data());
    CHECK_OR_FAIL(a.slotSize == 64 * 64 && a.pixels == first.bytes());
    const Received b = roundTrip(2, 10, 10, smaller.data());
    CHECK_OR_FAIL(b.slotSize == 64 * 64 && b.pixels == smaller.bytes());
    const Received c = roundTrip(3, 100, 100, larger.data());
    CHECK_OR_FAIL(c.slotSize == 0 && c.pixels.empty());
    const Received d = roundTrip(4, 64, 64, first.data());
    CHECK_OR_FAIL(d.pixels == first.bytes());
    return 0;
}

// args: width height of a first frame whose size is not positive or overflows. It sends no
// pixels and leaves the slot size to the first frame that has one.
TEST_ROLE(first_frame_without_a_usable_size) {
    const GuardedFrame tiny(1, 4), frame(32 * 32, 5);
    const Received first =
            roundTrip(1, atoi(args.at(0).c_str()), atoi(args.at(1).c_str()), tiny.data());
    CHECK_OR_FAIL(first.slotSize == 0 && first.pixels.empty());
    const Received second = roundTrip(2, 32, 32, frame.data());
    CHECK_OR_FAIL(second.slotSize == 32 * 32 && second.pixels == frame.bytes());
    return 0;
}

// The roles above, each on a fresh ring in a process of its own, all at once.
TEST(IMemoryMapTest, ScenariosOnAFreshRing) {
    const std::string maxInt = std::to_string(std::numeric_limits<int32_t>::max());
    const std::vector<std::vector<std::string>> roles = {
            {"ring_sized_before_first_use"},
            {"writer_reads_no_more_than_the_frame"},
            {"first_frame_without_a_usable_size", "0", "5"},
            {"first_frame_without_a_usable_size", "-3", "4"},
            {"first_frame_without_a_usable_size", "-3", "-4"},
            {"first_frame_without_a_usable_size", "65536", "65537"},
            {"first_frame_without_a_usable_size", maxInt, "2"},
    };
    std::vector<std::unique_ptr<hostbinder_test::ChildProcess>> children;
    for (const auto& role : roles) {
        children.push_back(hostbinder_test::startRole(role[0], {role.begin() + 1, role.end()},
                                                      /*waitReady=*/false));
    }
    for (size_t i = 0; i < roles.size(); ++i) {
        ASSERT_TRUE(children[i]);
        EXPECT_EQ(0, children[i]->wait(hostbinder_test::kDeadlineMs))
                << ::testing::PrintToString(roles[i]) << ":\n"
                << children[i]->output();
    }
}

}  // namespace
}  // namespace morvel::tovarin::binder
