/*
 * hostbinder: MemoryDealer and its best-fit allocator.
 */
#define LOG_TAG "MemoryDealer"

#include <binder/MemoryBase.h>
#include <binder/MemoryDealer.h>

#include <log/log.h>

#include <mutex>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace android {

// Hands out ranges of a heap in units of kMemoryAlign bytes. The chunks tile the heap in
// address order; a free chunk is never next to another free chunk.
class SimpleBestFitAllocator {
public:
    static constexpr size_t kMemoryAlign = 32;

    explicit SimpleBestFitAllocator(size_t size) : mHeapUnits(size / kMemoryAlign) {
        if (mHeapUnits > 0) mChunks.push_back(Chunk{0, mHeapUnits, true});
    }

    // The byte offset of a new range of at least `size` bytes, or -1.
    ssize_t allocate(size_t size) {
        std::lock_guard<std::mutex> lock(mLock);
        if (size == 0 || size > mHeapUnits * kMemoryAlign) return -1;
        const size_t units = (size + kMemoryAlign - 1) / kMemoryAlign;
        size_t best = mChunks.size();
        for (size_t i = 0; i < mChunks.size(); ++i) {
            const Chunk& c = mChunks[i];
            if (!c.free || c.units < units) continue;
            if (best == mChunks.size() || c.units < mChunks[best].units) best = i;
            if (c.units == units) break;
        }
        if (best == mChunks.size()) return -1;
        Chunk& chosen = mChunks[best];
        const size_t start = chosen.start;
        if (chosen.units > units) {
            Chunk rest{start + units, chosen.units - units, true};
            chosen.units = units;
            chosen.free = false;
            mChunks.insert(mChunks.begin() + static_cast<ptrdiff_t>(best) + 1, rest);
        } else {
            chosen.free = false;
        }
        return static_cast<ssize_t>(start * kMemoryAlign);
    }

    // Frees the range starting at `offset`; false when no allocated range starts there.
    bool deallocate(size_t offset) {
        std::lock_guard<std::mutex> lock(mLock);
        if (offset % kMemoryAlign != 0) return false;
        const size_t start = offset / kMemoryAlign;
        size_t i = 0;
        while (i < mChunks.size() && mChunks[i].start != start) ++i;
        if (i == mChunks.size() || mChunks[i].free) return false;
        mChunks[i].free = true;
        if (i + 1 < mChunks.size() && mChunks[i + 1].free) {
            mChunks[i].units += mChunks[i + 1].units;
            mChunks.erase(mChunks.begin() + static_cast<ptrdiff_t>(i) + 1);
        }
        if (i > 0 && mChunks[i - 1].free) {
            mChunks[i - 1].units += mChunks[i].units;
            mChunks.erase(mChunks.begin() + static_cast<ptrdiff_t>(i));
        }
        return true;
    }

    void dump(const char* what) const {
        std::lock_guard<std::mutex> lock(mLock);
        ALOGD("%s: %zu bytes in %zu chunks", what ? what : "MemoryDealer",
              mHeapUnits * kMemoryAlign, mChunks.size());
        for (const Chunk& c : mChunks) {
            ALOGD("  %08zx %8zu bytes %s", c.start * kMemoryAlign, c.units * kMemoryAlign,
                  c.free ? "free" : "allocated");
        }
    }

private:
    struct Chunk {
        size_t start;  // in units
        size_t units;
        bool free;
    };

    mutable std::mutex mLock;
    const size_t mHeapUnits;
    std::vector<Chunk> mChunks;
};

// ---------------------------------------------------------------------------

namespace {

// One range handed out by a dealer; gives it back when the last reference goes.
class Allocation : public MemoryBase {
public:
    Allocation(const sp<MemoryDealer>& dealer, const sp<IMemoryHeap>& heap, ssize_t offset,
               size_t size)
          : MemoryBase(heap, offset, size), mDealer(dealer) {}

    ~Allocation() override {
        const size_t freedOffset = static_cast<size_t>(getOffset());
        const size_t freedSize = getSize();
        // Whole pages of the range go back to the system: a later allocation of them reads
        // zeros rather than an earlier user's data.
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t start = (freedOffset + page - 1) & ~(page - 1);
        const size_t end = (freedOffset + freedSize) & ~(page - 1);
        void* const base = getHeap()->getBase();
        if (start < end && base != MAP_FAILED && base != nullptr) {
            (void)madvise(static_cast<char*>(base) + start, end - start, MADV_REMOVE);
        }
        mDealer->deallocate(freedOffset);
    }

private:
    sp<MemoryDealer> mDealer;
};

}  // namespace

MemoryDealer::MemoryDealer(size_t size, const char* name, uint32_t flags)
      : mHeap(new MemoryHeapBase(size, flags, name)),
        mAllocator(new SimpleBestFitAllocator(mHeap->getSize())) {}

MemoryDealer::~MemoryDealer() {
    delete mAllocator;
}

sp<IMemory> MemoryDealer::allocate(size_t size) {
    const void* const base = heap()->getBase();
    if (base == MAP_FAILED) return nullptr;
    const ssize_t offset = allocator()->allocate(size);
    if (offset < 0) return nullptr;
    return new Allocation(this, heap(), offset, size);
}

void MemoryDealer::deallocate(size_t offset) {
    if (!allocator()->deallocate(offset)) {
        ALOGE("deallocate(%zu): no allocation starts there", offset);
    }
}

void MemoryDealer::dump(const char* what) const {
    allocator()->dump(what);
}

size_t MemoryDealer::getAllocationAlignment() {
    return SimpleBestFitAllocator::kMemoryAlign;
}

const sp<IMemoryHeap>& MemoryDealer::heap() const {
    return mHeap;
}

SimpleBestFitAllocator* MemoryDealer::allocator() const {
    return mAllocator;
}

}  // namespace android
