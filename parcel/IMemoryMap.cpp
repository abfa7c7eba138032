#include <IMemoryMap.h>

#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <limits>

using android::IMemory;
using android::IMemoryHeap;
using android::MemoryDealer;
using android::sp;

namespace morvel::tovarin::binder {

namespace {

class ScopedPthreadLock {
public:
    explicit ScopedPthreadLock(pthread_mutex_t* mutex) : mMutex(mutex) {
        pthread_mutex_lock(mMutex);
    }
    ~ScopedPthreadLock() { pthread_mutex_unlock(mMutex); }
    ScopedPthreadLock(const ScopedPthreadLock&) = delete;
    ScopedPthreadLock& operator=(const ScopedPthreadLock&) = delete;

private:
    pthread_mutex_t* mMutex;
};

// A usable slot: mapped in this process and large enough for a frame of `filesize` bytes.
bool usable(const sp<IMemory>& memory, int32_t filesize) {
    return memory != nullptr && memory->pointer() != nullptr &&
           memory->size() >= static_cast<size_t>(filesize);
}

}  // namespace

std::atomic<int32_t> IMemoryMap::sFilesize{IMemoryMap::kDefaultFilesize};

// Statically initialised (default attributes) and never destroyed: binder threads may still be
// writing frames while the process's static destructors run.
pthread_mutex_t IMemoryMap::sMutex = PTHREAD_MUTEX_INITIALIZER;

IMemoryMap* IMemoryMap::getInstance() {
    ScopedPthreadLock lock(&sMutex);
    // Never destroyed, like the mutex: binder threads may still be writing frames while the
    // process's static destructors run.
    static IMemoryMap* const sInstance = new IMemoryMap();
    return sInstance;
}

void IMemoryMap::setFilesize(int filesize) {
    sFilesize.store(filesize, std::memory_order_relaxed);
}

IMemoryMap::IMemoryMap() : mFilesize(sFilesize.load(std::memory_order_relaxed)), mIndex(0) {
    // A slot size that cannot make a heap (not positive, or six of it overflowing) leaves every
    // slot without memory: frames then leave the process without pixels.
    const int64_t heapSize = static_cast<int64_t>(mFilesize) * kSlotCount;
    if (mFilesize > 0 && static_cast<uint64_t>(heapSize) <= std::numeric_limits<size_t>::max()) {
        mHeap = new MemoryDealer(static_cast<size_t>(heapSize));
        const sp<IMemoryHeap> heap = mHeap->getMemoryHeap();
        if (heap == nullptr || heap->getHeapID() < 0 || heap->getBase() == MAP_FAILED) {
            mHeap.clear();
        }
    }
    mSlots.reserve(kSlotCount);
    for (int32_t i = 0; i < kSlotCount; ++i) {
        sp<IMemory> memory;
        if (mHeap != nullptr) memory = mHeap->allocate(static_cast<size_t>(mFilesize));
        if (!usable(memory, mFilesize)) memory.clear();
        mSlots.push_back(Slot{0, memory});
    }
}

sp<IMemory> IMemoryMap::getMemoryWithData(int64_t key, unsigned char* data) {
    return getMemoryWithData(key, data, static_cast<size_t>(std::max(mFilesize, 0)));
}

sp<IMemory> IMemoryMap::getMemoryWithData(int64_t key, const unsigned char* data, size_t size) {
    // A frame the slots cannot hold leaves without pixels; the ring is not touched.
    if (data == nullptr || size == 0 || mFilesize <= 0 || size > static_cast<size_t>(mFilesize)) {
        return nullptr;
    }
    ScopedPthreadLock lock(&sMutex);
    for (const Slot& slot : mSlots) {
        if (slot.key == key) return slot.memory;
    }
    Slot& slot = mSlots[static_cast<size_t>(mIndex)];
    mIndex = (mIndex + 1) % kSlotCount;
    if (slot.memory == nullptr) return nullptr;
    slot.key = key;
    memcpy(slot.memory->pointer(), data, size);
    return slot.memory;
}

}  // namespace morvel::tovarin::binder
