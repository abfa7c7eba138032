/*
 * MemoryDealer: best-fit placement, alignment, exhaustion, coalescing and reuse of ranges.
 */
#include <binder/MemoryDealer.h>

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

using namespace android;

namespace {

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
const size_t kAlign = MemoryDealer::getAllocationAlignment();

ssize_t offsetOf(const sp<IMemory>& memory) {
    return memory == nullptr ? -1 : memory->offset();
}

// Whether madvise(MADV_REMOVE) really gives shared pages back here (qemu-user accepts the call
// and does nothing).
bool madviseRemoveWorks() {
    const int fd = memfd_create("remove-probe", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(kPage)) != 0) return false;
    void* base = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (base == MAP_FAILED) return false;
    auto* byte = static_cast<volatile uint8_t*>(base);
    *byte = 1;
    const bool zeroed = madvise(base, kPage, MADV_REMOVE) == 0 && *byte == 0;
    munmap(base, kPage);
    return zeroed;
}

}  // namespace

TEST(MemoryDealerTest, AllocationsAreAlignedDisjointAndInsideTheHeap) {
    EXPECT_EQ(kAlign, 32u);
    sp<MemoryDealer> dealer = new MemoryDealer(kPage, "dealer-layout");
    sp<IMemoryHeap> heap = dealer->getMemoryHeap();
    ASSERT_EQ(heap->getSize(), kPage);

    std::vector<sp<IMemory>> live;
    const size_t sizes[] = {1, 31, 32, 33, 100, 7, 64, 65};
    for (size_t size : sizes) {
        sp<IMemory> memory = dealer->allocate(size);
        ASSERT_NE(memory, nullptr) << size;
        EXPECT_EQ(memory->size(), size);
        EXPECT_EQ(memory->offset() % static_cast<ssize_t>(kAlign), 0);
        EXPECT_EQ(memory->pointer(), static_cast<char*>(heap->getBase()) + memory->offset());
        memset(memory->pointer(), static_cast<int>(live.size() + 1), size);
        live.push_back(memory);
    }
    // Every range still holds its own fill: no two overlap.
    for (size_t i = 0; i < live.size(); ++i) {
        const auto* bytes = static_cast<const uint8_t*>(live[i]->pointer());
        for (size_t b = 0; b < live[i]->size(); ++b) ASSERT_EQ(bytes[b], i + 1);
    }
}

TEST(MemoryDealerTest, PicksTheSmallestFreeRangeThatFits) {
    sp<MemoryDealer> dealer = new MemoryDealer(kPage);
    // Layout: [a 64][hole1 32][b 32][hole2 128][c 32][rest ...]
    sp<IMemory> a = dealer->allocate(64);
    sp<IMemory> hole1 = dealer->allocate(32);
    sp<IMemory> b = dealer->allocate(32);
    sp<IMemory> hole2 = dealer->allocate(128);
    sp<IMemory> c = dealer->allocate(32);
    const ssize_t hole1At = offsetOf(hole1), hole2At = offsetOf(hole2);
    hole2.clear();
    hole1.clear();

    EXPECT_EQ(offsetOf(dealer->allocate(20)), hole1At);  // dropped at once: hole1 is free again
    sp<IMemory> mid = dealer->allocate(90);
    EXPECT_EQ(offsetOf(mid), hole2At);  // only hole2 and the rest fit; hole2 is smaller
    // hole1 and the 32 bytes left of hole2 fit equally well: the lower one is taken first.
    sp<IMemory> small = dealer->allocate(32);
    EXPECT_EQ(offsetOf(small), hole1At);
    sp<IMemory> tail = dealer->allocate(32);
    EXPECT_EQ(offsetOf(tail), hole2At + 96);
}

TEST(MemoryDealerTest, ExhaustionAndCoalescing) {
    sp<MemoryDealer> dealer = new MemoryDealer(kPage);
    const size_t quarter = kPage / 4;
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
    sp<IMemory> all = dealer->allocate(kPage);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(all->offset(), 0);
}

TEST(MemoryDealerTest, ReleasedPagesComeBackZeroed) {
    if (!madviseRemoveWorks()) GTEST_SKIP() << "madvise(MADV_REMOVE) has no effect here";
    sp<MemoryDealer> dealer = new MemoryDealer(4 * kPage);
    sp<IMemory> first = dealer->allocate(2 * kPage);
    ASSERT_NE(first, nullptr);
    memset(first->pointer(), 0xab, 2 * kPage);
    first.clear();
    sp<IMemory> second = dealer->allocate(2 * kPage);
    ASSERT_NE(second, nullptr);
    const auto* bytes = static_cast<const uint8_t*>(second->pointer());
    EXPECT_EQ(std::count(bytes, bytes + 2 * kPage, 0), static_cast<long>(2 * kPage));
}

TEST(MemoryDealerTest, ConcurrentAllocationsNeverOverlap) {
    sp<MemoryDealer> dealer = new MemoryDealer(16 * kPage);
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
                sp<IMemory> memory = mine.back();
                mine.pop_back();
                const auto* bytes = static_cast<const uint8_t*>(memory->pointer());
                for (size_t i = 0; i < memory->size(); ++i) {
                    ASSERT_EQ(bytes[i], static_cast<uint8_t>(seed));
                }
            }
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(worker, seed);
    for (auto& thread : threads) thread.join();
    EXPECT_NE(dealer->allocate(16 * kPage), nullptr);  // every range came back
}
