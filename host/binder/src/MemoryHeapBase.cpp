/*
 * hostbinder: MemoryHeapBase.
 */
#define LOG_TAG "MemoryHeapBase"

#include <binder/MemoryHeapBase.h>

#include <log/log.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android {

namespace {

size_t pageSize() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// Rounds up to whole pages; 0 when that would overflow.
size_t roundToPages(size_t size) {
    const size_t page = pageSize();
    if (size > SIZE_MAX - (page - 1)) return 0;
    return (size + page - 1) & ~(page - 1);
}

}  // namespace

MemoryHeapBase::MemoryHeapBase()
      : mFD(-1),
        mSize(0),
        mBase(MAP_FAILED),
        mFlags(0),
        mDevice(nullptr),
        mNeedUnmap(false),
        mOffset(0) {}

MemoryHeapBase::MemoryHeapBase(size_t size, uint32_t flags, char const* name)
      : MemoryHeapBase() {
    mFlags = flags;
    size = roundToPages(size);
    if (size == 0 || size > static_cast<size_t>(INT32_MAX)) {
        // A heap's size travels as an int32: a larger heap could not be described to a peer.
        ALOGE("cannot create a heap of %zu bytes", size);
        return;
    }
    int fd = memfd_create(name == nullptr ? "MemoryHeapBase" : name,
                          MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        ALOGE("memfd_create failed: %s", strerror(errno));
        return;
    }
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        ALOGE("sizing the heap to %zu bytes failed: %s", size, strerror(errno));
        close(fd);
        return;
    }
    // The size is fixed from now on: a process holding the descriptor cannot shrink it and
    // make this process fault on pages that no longer exist.
    if (fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) {
        ALOGW("sealing the heap's size failed: %s", strerror(errno));
    }
    if (mapfd(fd, size) != NO_ERROR) return;
    if (flags & READ_ONLY) {
        // Mappings made so far (ours) stay writable; every later one, in any process, is
        // read-only.
        if (fcntl(fd, F_ADD_SEALS, F_SEAL_FUTURE_WRITE) != 0) {
            ALOGW("sealing a read-only heap failed: %s", strerror(errno));
        }
    }
}

MemoryHeapBase::MemoryHeapBase(const char* device, size_t size, uint32_t flags)
      : MemoryHeapBase() {
    mFlags = flags;
    int openFlags = O_RDWR | O_CLOEXEC;
    if (flags & NO_CACHING) openFlags |= O_SYNC;
    int fd = open(device, openFlags);
    if (fd < 0) {
        ALOGE("opening %s failed: %s", device, strerror(errno));
        return;
    }
    if (size != 0) size = roundToPages(size);
    if (mapfd(fd, size) == NO_ERROR) mDevice = device;
}

MemoryHeapBase::MemoryHeapBase(int fd, size_t size, uint32_t flags, off_t offset)
      : MemoryHeapBase() {
    mFlags = flags;
    int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) {
        ALOGE("cannot duplicate heap descriptor %d: %s", fd, strerror(errno));
        return;
    }
    if (size != 0) size = roundToPages(size);
    (void)mapfd(dupFd, size, offset);
}

status_t MemoryHeapBase::init(int fd, void* base, size_t size, int flags, const char* device) {
    if (mFD != -1) return INVALID_OPERATION;
    mFD = fd;
    mBase = base;
    mSize = size;
    mFlags = static_cast<uint32_t>(flags);
    mDevice = device;
    return NO_ERROR;
}

// Takes ownership of fd: on failure it is closed and the heap stays invalid.
status_t MemoryHeapBase::mapfd(int fd, size_t size, off_t offset) {
    const size_t page = pageSize();
    if (offset < 0 || static_cast<size_t>(offset) % page != 0) {
        ALOGE("heap offset %lld is not a page boundary", static_cast<long long>(offset));
        close(fd);
        return BAD_VALUE;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    if (S_ISREG(st.st_mode)) {
        // Never map past the end of the file: touching such pages would fault.
        const off_t fileSize = st.st_size;
        const size_t available =
                fileSize > offset ? static_cast<size_t>(fileSize - offset) : size_t(0);
        if (size == 0 || size > available) size = available;
    }
    if (size == 0) {
        ALOGE("heap descriptor %d has nothing to map at offset %lld", fd,
              static_cast<long long>(offset));
        close(fd);
        return BAD_VALUE;
    }

    if ((mFlags & DONT_MAP_LOCALLY) == 0) {
        void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
        if (base == MAP_FAILED && (mFlags & READ_ONLY) && (errno == EACCES || errno == EPERM)) {
            // A read-only heap over a descriptor that cannot be written (opened read-only,
            // or sealed by its creator) is read-only here too.
            base = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, offset);
        }
        if (base == MAP_FAILED) {
            int err = errno;
            ALOGE("mapping heap descriptor %d (%zu bytes) failed: %s", fd, size, strerror(err));
            close(fd);
            return -err;
        }
        mBase = base;
        mNeedUnmap = true;
    } else {
        mBase = nullptr;
        mNeedUnmap = false;
    }
    mFD = fd;
    mSize = size;
    mOffset = offset;
    return NO_ERROR;
}

MemoryHeapBase::~MemoryHeapBase() {
    dispose();
}

void MemoryHeapBase::dispose() {
    const int fd = __atomic_exchange_n(&mFD, -1, __ATOMIC_SEQ_CST);
    if (fd >= 0) {
        if (mNeedUnmap) munmap(mBase, mSize);
        mBase = nullptr;
        mSize = 0;
        close(fd);
    }
}

int MemoryHeapBase::getHeapID() const {
    return __atomic_load_n(&mFD, __ATOMIC_SEQ_CST);
}

void* MemoryHeapBase::getBase() const {
    return mBase;
}

size_t MemoryHeapBase::getSize() const {
    return mSize;
}

uint32_t MemoryHeapBase::getFlags() const {
    return mFlags;
}

const char* MemoryHeapBase::getDevice() const {
    return mDevice;
}

off_t MemoryHeapBase::getOffset() const {
    return mOffset;
}

}  // namespace android
