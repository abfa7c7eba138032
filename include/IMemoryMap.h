/*
 * IMemoryMap: the process-wide ring of six shared-memory slots through which camera frame
 * pixels leave the process.
 *
 * A frame's pixels are copied into a slot keyed by the frame's timestamp; a frame sent to
 * several receivers is copied once and every receiver gets the same slot. Slots are reused in
 * ring order, so a frame stays readable until six further distinct frames have been stored.
 *
 * The slot size is taken from setFilesize() when the singleton is built, i.e. on the first
 * frame with pixels whose size is positive, and holds for the life of the process: later
 * setFilesize() calls change neither the slots nor their size. A frame is copied at its own
 * size, never more; a frame larger than a slot leaves without pixels.
 *
 * Threads: getInstance() and getMemoryWithData() may be called from any thread; both are
 * serialised by one process-wide mutex.
 */
#pragma once

#include <binder/IMemory.h>
#include <binder/MemoryDealer.h>
#include <utils/RefBase.h>

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <vector>

namespace morvel::tovarin::binder {

class IMemoryMap {
public:
    static constexpr int32_t kSlotCount = 6;
    static constexpr int32_t kDefaultFilesize = 320000;

    // The single instance, built on the first call; lives until process exit.
    static IMemoryMap* getInstance();

    // Slot size for an instance not built yet. Takes no lock.
    static void setFilesize(int filesize);

    // The slot holding the frame with `key`; when no slot holds it, the next slot of the ring
    // gets the key and a copy of the `size` bytes at `data`. Null, with no slot used up, when
    // `size` is 0 or larger than a slot; null when that slot has no memory (its allocation
    // failed): such a slot is never written to.
    android::sp<android::IMemory> getMemoryWithData(int64_t key, const unsigned char* data,
                                                    size_t size);
    // As above with a frame of exactly the slot size: the caller supplies that many bytes.
    android::sp<android::IMemory> getMemoryWithData(int64_t key, unsigned char* data);

    IMemoryMap(const IMemoryMap&) = delete;
    IMemoryMap& operator=(const IMemoryMap&) = delete;

private:
    struct Slot {
        int64_t key;
        android::sp<android::IMemory> memory;
    };

    IMemoryMap();

    static std::atomic<int32_t> sFilesize;
    static pthread_mutex_t sMutex;

    int32_t mFilesize;
    android::sp<android::MemoryDealer> mHeap;
    int32_t mIndex;
    std::vector<Slot> mSlots;
};

}  // namespace morvel::tovarin::binder
