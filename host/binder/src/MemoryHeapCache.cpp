/*
 * hostbinder: MemoryHeapCache.
 */
#define LOG_TAG "IMemory"

#include "MemoryHeapCache.h"

#include <binder/IMemory.h>
#include <binder/Parcel.h>

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android {

MemoryMapping::~MemoryMapping() {
    if (valid()) munmap(base, size);
    if (fd >= 0) close(fd);
}

bool MemoryMapping::valid() const {
    return base != MAP_FAILED && base != nullptr;
}

MemoryHeapCache& MemoryHeapCache::instance() {
    // Never destroyed: proxies may still release mappings from static destructors.
    static MemoryHeapCache* const sCache = new MemoryHeapCache();
    return *sCache;
}

std::shared_ptr<const MemoryMapping> MemoryHeapCache::map(int peerFd, int32_t size,
                                                          uint32_t flags, int32_t offset) {
    auto mapping = std::make_shared<MemoryMapping>();
    const long page = sysconf(_SC_PAGESIZE);
    if (peerFd < 0 || size <= 0 || offset < 0 || offset % page != 0) {
        ALOGE("unusable heap: fd=%d size=%d offset=%d", peerFd, size, offset);
        return mapping;
    }
    const int fd = fcntl(peerFd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
        ALOGE("cannot duplicate heap descriptor %d: %s", peerFd, strerror(errno));
        return mapping;
    }
    mapping->fd = fd;
    mapping->flags = flags;
    mapping->offset = offset;

    // A file that can still shrink would let its sender pull pages from under the mapping and
    // make this process fault on them. Seal it when the descriptor allows (a heap created by
    // MemoryHeapBase is sealed already); refuse it otherwise.
    int seals = fcntl(fd, F_GET_SEALS);
    if (seals >= 0 && (seals & F_SEAL_SHRINK) == 0) {
        (void)fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK);
        seals = fcntl(fd, F_GET_SEALS);
    }
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0) {
        ALOGE("heap descriptor %d can shrink under its mapping: not mapped", fd);
        return mapping;
    }

    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ALOGE("heap descriptor %d is not a memory file", fd);
        return mapping;
    }
    if (st.st_size <= static_cast<off_t>(offset)) {
        ALOGE("heap descriptor holds %lld bytes, nothing at offset %d",
              static_cast<long long>(st.st_size), offset);
        return mapping;
    }
    size_t mapSize = static_cast<size_t>(size);
    const size_t available = static_cast<size_t>(st.st_size - offset);
    if (mapSize > available) {
        ALOGW("heap claims %d bytes but its descriptor holds %zu: mapping only those", size,
              available);
        mapSize = available;
    }

    int prot = PROT_READ;
    if ((flags & IMemoryHeap::READ_ONLY) == 0) prot |= PROT_WRITE;
    void* base = mmap(nullptr, mapSize, prot, MAP_SHARED, fd, offset);
    if (base == MAP_FAILED) {
        ALOGE("mapping heap (%zu bytes at %d, prot %d) failed: %s", mapSize, offset, prot,
              strerror(errno));
        return mapping;
    }
    mapping->base = base;
    mapping->size = mapSize;
    return mapping;
}

void MemoryHeapCache::pruneLocked() {
    for (auto it = mEntries.begin(); it != mEntries.end();) {
        // use_count 1: no thread is creating this entry's mapping (entries are handed out
        // only under mLock).
        if (it->second.use_count() == 1 && it->second->mapping.expired()) {
            it = mEntries.erase(it);
        } else {
            ++it;
        }
    }
}

std::shared_ptr<const MemoryMapping> MemoryHeapCache::acquire(const sp<IBinder>& binder) {
    if (binder == nullptr) return std::make_shared<MemoryMapping>();

    std::shared_ptr<Entry> entry;
    {
        std::lock_guard<std::mutex> lock(mLock);
        pruneLocked();
        std::shared_ptr<Entry>& slot = mEntries[binder.get()];
        if (!slot) slot = std::make_shared<Entry>();
        if (auto existing = slot->mapping.lock()) return existing;
        entry = slot;
    }

    // The transaction runs without the cache lock, so other heaps can be mapped meanwhile (and
    // a nested call back into this process cannot deadlock on it).
    std::lock_guard<std::mutex> lock(entry->lock);
    if (auto existing = entry->mapping.lock()) return existing;

    Parcel data, reply;
    data.writeInterfaceToken(IMemoryHeap::descriptor);
    status_t err = binder->transact(IMemoryHeap::HEAP_ID, data, &reply);
    int fd = -1;
    int32_t size = 0, flags = 0, offset = 0;
    if (err == NO_ERROR) {
        fd = reply.readFileDescriptor();
        if (status_t s = reply.readInt32(&size); s != NO_ERROR) err = s;
        if (status_t s = reply.readInt32(&flags); s != NO_ERROR) err = s;
        if (status_t s = reply.readInt32(&offset); s != NO_ERROR) err = s;
    }
    if (err != NO_ERROR) {
        ALOGE("HEAP_ID failed: %d (%s)", err, strerror(-err));
        return std::make_shared<MemoryMapping>();
    }
    std::shared_ptr<const MemoryMapping> mapping =
            map(fd, size, static_cast<uint32_t>(flags), offset);
    if (mapping->valid()) entry->mapping = mapping;
    return mapping;
}

}  // namespace android
