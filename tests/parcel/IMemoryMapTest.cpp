// The shared frame ring: slot sizing, key lookup, ring order, serialisation, failed slots.
//
// The ring is a process-wide singleton sized once, so scenarios that need a fresh one run in a
// child process of their own (EXPECT_EXIT with the re-executing death test style); the rest
// share this process's ring, built at the default size.

#include <CameraFrameEventParceler.h>
#include <IMemoryMap.h>

#include <binder/IMemory.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

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

// Keys no other test of this process has used.
int64_t freshKey() {
    static std::atomic<int64_t> next{1000};
    return next++;
}

IMemoryMap* sharedRing() {
    return IMemoryMap::getInstance();  // never preceded by setFilesize in this process
}

// Runs `scenario` in a child process with a fresh ring; the child reports failures on stderr.
#define IN_FRESH_PROCESS(scenario)                                                    \
    do {                                                                              \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                               \
        EXPECT_EXIT(                                                                  \
                {                                                                     \
                    const char* failure = (scenario)();                               \
                    if (failure != nullptr) fprintf(stderr, "FAILED: %s\n", failure); \
                    _exit(failure == nullptr ? 0 : 1);                                \
                },                                                                    \
                ::testing::ExitedWithCode(0), "");                                    \
    } while (0)

#define CHECK_OR_RETURN(condition) \
    if (!(condition)) return #condition

TEST(IMemoryMapTest, DefaultSlotsAre320000BytesInOneHeapAndKeyedByTimestamp) {
    const int64_t key = freshKey();
    std::vector<unsigned char> data = pattern(1);
    const sp<IMemory> memory = sharedRing()->getMemoryWithData(key, data.data());
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
    EXPECT_EQ(memory, sharedRing()->getMemoryWithData(key, changed.data()));
    EXPECT_TRUE(holds(memory, data));
}

TEST(IMemoryMapTest, SeventhKeyReusesTheFirstSlotAndAnEvictedKeyIsCopiedAgain) {
    std::vector<sp<IMemory>> slots;
    std::vector<int64_t> keys;
    std::vector<std::vector<unsigned char>> frames;
    for (int i = 0; i < 7; ++i) {
        keys.push_back(freshKey());
        frames.push_back(pattern(10 + i));
        slots.push_back(sharedRing()->getMemoryWithData(keys.back(), frames.back().data()));
        ASSERT_NE(nullptr, slots.back());
    }
    EXPECT_EQ(6u, std::set<sp<IMemory>>(slots.begin(), slots.begin() + 6).size());
    EXPECT_EQ(slots[0], slots[6]);
    for (int i = 1; i < 7; ++i) EXPECT_TRUE(holds(slots[i], frames[i])) << i;

    // The first key was overwritten: it is copied again, into the next slot of the ring.
    std::vector<unsigned char> again = pattern(30);
    const sp<IMemory> reloaded = sharedRing()->getMemoryWithData(keys[0], again.data());
    EXPECT_EQ(slots[1], reloaded);
    EXPECT_TRUE(holds(reloaded, again));
}

TEST(IMemoryMapTest, LaterSetFilesizeChangesNeitherSlotsNorCopyLength) {
    sharedRing();
    IMemoryMap::setFilesize(1000);
    std::vector<unsigned char> data = pattern(40);
    const sp<IMemory> memory = sharedRing()->getMemoryWithData(freshKey(), data.data());
    ASSERT_NE(nullptr, memory);
    EXPECT_EQ(kDefaultSlot, memory->size());
    EXPECT_TRUE(holds(memory, data));  // the last byte too
    IMemoryMap::setFilesize(static_cast<int>(kDefaultSlot));
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
            got[t] = sharedRing()->getMemoryWithData(2000000 + 2 * round + t,
                                                     const_cast<unsigned char*>(frames[t].data()));
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

TEST(IMemoryMapTest, FirstFrameFixesTheSlotSize) {
    IN_FRESH_PROCESS([]() -> const char* {
        IMemoryMap::setFilesize(4096);
        IMemoryMap* ring = IMemoryMap::getInstance();
        IMemoryMap::setFilesize(8192);
        std::vector<unsigned char> data = pattern(1, 8192);
        const sp<IMemory> memory = ring->getMemoryWithData(1, data.data());
        CHECK_OR_RETURN(memory != nullptr);
        CHECK_OR_RETURN(memory->size() == 4096);
        CHECK_OR_RETURN(memcmp(memory->pointer(), data.data(), 4096) == 0);
        return nullptr;
    });
}

TEST(IMemoryMapTest, KeyZeroMatchesTheUntouchedFirstSlot) {
    IN_FRESH_PROCESS([]() -> const char* {
        IMemoryMap::setFilesize(4096);
        IMemoryMap* ring = IMemoryMap::getInstance();
        std::vector<unsigned char> data = pattern(2, 4096);
        const sp<IMemory> zero = ring->getMemoryWithData(0, data.data());
        CHECK_OR_RETURN(zero != nullptr);
        const std::vector<unsigned char> zeros(4096, 0);
        CHECK_OR_RETURN(memcmp(zero->pointer(), zeros.data(), 4096) == 0);
        // Nothing was stored, so the ring still starts at the first slot.
        const sp<IMemory> next = ring->getMemoryWithData(5, data.data());
        CHECK_OR_RETURN(next == zero);
        CHECK_OR_RETURN(memcmp(next->pointer(), data.data(), 4096) == 0);
        return nullptr;
    });
}

TEST(IMemoryMapTest, SlotsWithoutMemoryAreSentAsNullBinders) {
    IN_FRESH_PROCESS([]() -> const char* {
        // A ring built at no size has no heap and no slot memory.
        unsigned char pixel = 1;
        IMemoryMap::setFilesize(0);
        CHECK_OR_RETURN(IMemoryMap::getInstance()->getMemoryWithData(77, &pixel, 1) == nullptr);
        CameraFrameEvent frame;
        frame.data = &pixel;
        frame.width = 1;
        frame.height = 1;
        CameraFrameEventParceler writer;
        Parcel parcel;
        writer.parcel(frame, parcel);
        CHECK_OR_RETURN(parcel.objectsCount() == 0);
        parcel.setDataPosition(0);
        CameraFrameEvent back;
        back.data = &pixel;
        CameraFrameEventParceler().unparcel(back, parcel);
        CHECK_OR_RETURN(back.data == nullptr);
        CHECK_OR_RETURN(parcel.dataAvail() == 0);
        return nullptr;
    });
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
        const std::vector<unsigned char> bytes = pattern(seed, size);
        memcpy(data(), bytes.data(), size);
    }
    ~GuardedFrame() { munmap(mBase, mMappedSize); }
    unsigned char* data() const { return mBase + mMappedSize - pageSize() - mSize; }
    std::vector<unsigned char> bytes() const { return {data(), data() + mSize}; }

private:
    static size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
    size_t mSize;
    size_t mMappedSize;
    unsigned char* mBase;
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
    CameraFrameEventParceler reader;
    reader.unparcel(back, parcel);
    if (back.data != nullptr) {
        received.pixels.assign(back.data, back.data + static_cast<size_t>(width) * height);
    }
    return received;
}

// A smaller frame than the slot is copied at its own size, from a buffer of exactly that size;
// a larger one leaves without pixels.
const char* writeSmallerAndLargerFrames() {
    const GuardedFrame first(64 * 64, 1), smaller(10 * 10, 2), larger(100 * 100, 3);
    const Received a = roundTrip(1, 64, 64, first.data());
    CHECK_OR_RETURN(a.slotSize == 64 * 64 && a.pixels == first.bytes());
    const Received b = roundTrip(2, 10, 10, smaller.data());
    CHECK_OR_RETURN(b.slotSize == 64 * 64 && b.pixels == smaller.bytes());
    const Received c = roundTrip(3, 100, 100, larger.data());
    CHECK_OR_RETURN(c.slotSize == 0 && c.pixels.empty());
    const Received d = roundTrip(4, 64, 64, first.data());
    CHECK_OR_RETURN(d.pixels == first.bytes());
    return nullptr;
}

TEST(IMemoryMapTest, WriterReadsNoMoreThanTheFrame) {
    IN_FRESH_PROCESS(writeSmallerAndLargerFrames);
}

// A first frame whose size is not positive or overflows sends no pixels and leaves the slot
// size to the first frame that has one.
struct FrameSize {
    int32_t width;
    int32_t height;
};
FrameSize sFirstFrame;

const char* writeFirstFrameThenAUsableOne() {
    const GuardedFrame tiny(1, 4), frame(32 * 32, 5);
    const Received first = roundTrip(1, sFirstFrame.width, sFirstFrame.height, tiny.data());
    CHECK_OR_RETURN(first.slotSize == 0 && first.pixels.empty());
    const Received second = roundTrip(2, 32, 32, frame.data());
    CHECK_OR_RETURN(second.slotSize == 32 * 32 && second.pixels == frame.bytes());
    return nullptr;
}

TEST(IMemoryMapTest, FirstFrameWithoutAUsableSizeDoesNotFixTheSlotSize) {
    for (const FrameSize size :
         {FrameSize{0, 5}, FrameSize{-3, 4}, FrameSize{-3, -4}, FrameSize{65536, 65536},
          FrameSize{std::numeric_limits<int32_t>::max(), 2}}) {
        SCOPED_TRACE(std::to_string(size.width) + "x" + std::to_string(size.height));
        sFirstFrame = size;
        IN_FRESH_PROCESS(writeFirstFrameThenAUsableOne);
    }
}

}  // namespace
}  // namespace morvel::tovarin::binder
