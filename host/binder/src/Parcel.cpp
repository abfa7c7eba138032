/*
 * hostbinder: Parcel.
 *
 * Ownership of a parcel's buffers:
 *   - written locally: mData and mObjects are malloc'd and owned; every object in the table
 *     holds a reference (a strong reference on a binder, ownership of an fd written with
 *     takeOwnership) that freeData() releases;
 *   - adopted with ipcSetDataReference(): the IPC layer owns both buffers and the references;
 *     the parcel reads them in place and calls the release function when it is freed. Writing
 *     to such a parcel first copies the buffers and takes its own references.
 *
 * Every position and length is checked without overflow: positions may point past the end
 * (reads there fail), the data never grows beyond kMaxDataSize, and bytes between the data
 * size and the capacity are kept zeroed so that padding and gaps never leak stale memory.
 */

#define LOG_TAG "hostbinder.Parcel"

#include <binder/Parcel.h>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <log/log.h>

#include <algorithm>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace android {

namespace {

// Sizes are exchanged as int32 on the wire: no parcel grows beyond what an int32 can count.
constexpr size_t kMaxDataSize = INT32_MAX;
// The first buffer a parcel grows: room for an interface token and a few arguments, or a
// small reply, so that a typical call allocates once instead of growing word by word.
constexpr size_t kMinGrownCapacity = 256;

constexpr uint32_t kStrictModePenaltyGather = 1u << 31;
constexpr int32_t kUnsetWorkSource = -1;

// Reply exception codes.
constexpr int32_t kExNone = 0;
constexpr int32_t kExServiceSpecific = -8;
constexpr int32_t kExParcelable = -9;
constexpr int32_t kExHasReplyHeader = -128;
constexpr int32_t kExTransactionFailed = -129;

// Flags of a binder object: minimum priority nice 19 (0x13), accepts fds.
constexpr uint32_t kBinderObjectFlags = 0x13 | FLAT_BINDER_FLAG_ACCEPTS_FDS;
// Flags of an fd object.
constexpr uint32_t kFdObjectFlags = 0x7f | FLAT_BINDER_FLAG_ACCEPTS_FDS;

constexpr size_t kObjectSize = sizeof(flat_binder_object);
static_assert(kObjectSize == 24, "flat_binder_object is 24 bytes");

// Only for len <= kMaxDataSize, so it cannot overflow.
inline size_t padSize(size_t len) {
    return (len + 3) & ~size_t(3);
}

// The reference an object in a locally written parcel holds.
void acquireObject(const flat_binder_object& obj, const void* who) {
    switch (obj.hdr.type) {
        case BINDER_TYPE_BINDER:
            if (obj.binder != 0) {
                reinterpret_cast<IBinder*>(obj.cookie)->incStrong(who);
            }
            return;
        case BINDER_TYPE_HANDLE: {
            const sp<IBinder> b = ProcessState::self()->getStrongProxyForHandle(obj.handle);
            if (b != nullptr) b->incStrong(who);
            return;
        }
        default:
            return;
    }
}

void releaseObject(const flat_binder_object& obj, const void* who) {
    switch (obj.hdr.type) {
        case BINDER_TYPE_BINDER:
            if (obj.binder != 0) {
                reinterpret_cast<IBinder*>(obj.cookie)->decStrong(who);
            }
            return;
        case BINDER_TYPE_HANDLE: {
            const sp<IBinder> b = ProcessState::self()->getStrongProxyForHandle(obj.handle);
            if (b != nullptr) b->decStrong(who);
            return;
        }
        case BINDER_TYPE_FD:
            if (obj.cookie != 0) close(static_cast<int>(obj.handle));
            return;
        default:
            return;
    }
}

}  // namespace

Parcel::Parcel() {
    initState();
}

Parcel::~Parcel() {
    freeDataNoInit();
}

void Parcel::initState() {
    mError = NO_ERROR;
    mData = nullptr;
    mDataSize = 0;
    mDataCapacity = 0;
    mDataPos = 0;
    mObjects = nullptr;
    mObjectsSize = 0;
    mObjectsCapacity = 0;
    mObjectsSorted = true;
    mFdsKnown = true;
    mHasFds = false;
    mAllowFds = true;
    memset(&mLastObject, 0, sizeof(mLastObject));
    mOwner = nullptr;
    mOwnerCookie = nullptr;
}

void Parcel::freeData() {
    freeDataNoInit();
    initState();
}

void Parcel::freeDataNoInit() {
    if (mOwner != nullptr) {
        mOwner(this, mData, mDataSize, mObjects, mObjectsSize, mOwnerCookie);
    } else {
        releaseObjects();
        free(mData);
        free(mObjects);
    }
}

// ------------------------------------------------------------------------------------------
// Size and position

const uint8_t* Parcel::data() const {
    return mData;
}

size_t Parcel::dataSize() const {
    return mDataSize;
}

size_t Parcel::dataAvail() const {
    return mDataPos < mDataSize ? mDataSize - mDataPos : 0;
}

size_t Parcel::dataPosition() const {
    return mDataPos;
}

size_t Parcel::dataCapacity() const {
    return mDataCapacity;
}

status_t Parcel::setDataSize(size_t size) {
    if (size > kMaxDataSize) return BAD_VALUE;
    status_t err = continueWrite(size);
    if (err == NO_ERROR) mDataSize = size;
    return err;
}

void Parcel::setDataPosition(size_t pos) const {
    // Any position is representable: reads beyond the data fail, writes beyond kMaxDataSize
    // fail, so a position computed from a peer's numbers cannot cause an out-of-bounds access.
    mDataPos = pos;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > kMaxDataSize) return BAD_VALUE;
    if (size > mDataCapacity) return continueWrite(size);
    return NO_ERROR;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxDataSize) return BAD_VALUE;
    if (buffer == nullptr && len > 0) return BAD_VALUE;
    // Copy first: `buffer` may point into this parcel's own data.
    uint8_t* copy = static_cast<uint8_t*>(malloc(len > 0 ? len : 1));
    if (copy == nullptr) {
        mError = NO_MEMORY;
        return NO_MEMORY;
    }
    if (len > 0) memcpy(copy, buffer, len);
    freeData();
    mData = copy;
    mDataSize = len;
    mDataCapacity = len;
    return NO_ERROR;
}

// ------------------------------------------------------------------------------------------
// Growth

status_t Parcel::finishWrite(size_t len) {
    mDataPos += len;
    if (mDataPos > mDataSize) mDataSize = mDataPos;
    return NO_ERROR;
}

status_t Parcel::growData(size_t len) {
    if (len > kMaxDataSize || mDataPos > kMaxDataSize - len) return NO_MEMORY;
    const size_t needed = mDataPos + len;
    if (needed <= mDataCapacity && mOwner == nullptr) return NO_ERROR;
    size_t newCapacity = std::max(needed + needed / 2, kMinGrownCapacity);
    if (newCapacity > kMaxDataSize || newCapacity < needed) newCapacity = kMaxDataSize;
    if (newCapacity < mDataCapacity) newCapacity = mDataCapacity;
    // Bytes past mDataSize are zero, so a write past the end leaves a zeroed gap.
    return continueWrite(newCapacity);
}

// Resizes the buffers to `desired` bytes of capacity (the data size shrinks with it when
// smaller), taking possession of adopted buffers first.
status_t Parcel::continueWrite(size_t desired) {
    if (desired > kMaxDataSize) return BAD_VALUE;

    // Objects that no longer fit are released and dropped from the table.
    size_t keptObjects = mObjectsSize;
    if (desired < mDataSize) {
        keptObjects = 0;
        for (size_t i = 0; i < mObjectsSize; i++) {
            if (mObjects[i] + kObjectSize <= desired) keptObjects++;
        }
    }

    if (mOwner != nullptr) {
        if (desired == 0) {
            freeData();
            return NO_ERROR;
        }
        uint8_t* data = static_cast<uint8_t*>(calloc(desired, 1));
        binder_size_t* objects = nullptr;
        if (keptObjects > 0) {
            objects = static_cast<binder_size_t*>(calloc(keptObjects, sizeof(binder_size_t)));
        }
        if (data == nullptr || (keptObjects > 0 && objects == nullptr)) {
            free(data);
            free(objects);
            mError = NO_MEMORY;
            return NO_MEMORY;
        }
        const size_t copied = std::min(mDataSize, desired);
        if (copied > 0) memcpy(data, mData, copied);
        size_t n = 0;
        for (size_t i = 0; i < mObjectsSize && n < keptObjects; i++) {
            if (mObjects[i] + kObjectSize <= copied) objects[n++] = mObjects[i];
        }
        // The release function may close the received descriptors: the copy owns duplicates.
        for (size_t i = 0; i < n; i++) {
            flat_binder_object obj;
            memcpy(&obj, data + objects[i], kObjectSize);
            if (obj.hdr.type != BINDER_TYPE_FD) continue;
            const int dupFd = fcntl(static_cast<int>(obj.handle), F_DUPFD_CLOEXEC, 0);
            obj.handle = static_cast<__u32>(dupFd);
            obj.cookie = dupFd >= 0 ? 1 : 0;
            memcpy(data + objects[i], &obj, kObjectSize);
        }
        mOwner(this, mData, mDataSize, mObjects, mObjectsSize, mOwnerCookie);
        mOwner = nullptr;
        mOwnerCookie = nullptr;
        mData = data;
        mDataSize = copied;
        mDataCapacity = desired;
        mObjects = objects;
        mObjectsSize = mObjectsCapacity = n;
        mObjectsSorted = false;
        mFdsKnown = false;
        // The parcel now holds its own references on the objects it kept.
        acquireObjects();
        return NO_ERROR;
    }

    if (keptObjects < mObjectsSize) {
        size_t n = 0;
        for (size_t i = 0; i < mObjectsSize; i++) {
            if (mObjects[i] + kObjectSize <= desired) {
                mObjects[n++] = mObjects[i];
            } else {
                releaseObject(objectAt(mObjects[i]), this);
            }
        }
        mObjectsSize = n;
        mFdsKnown = false;
    }

    if (mData == nullptr) {
        if (desired == 0) return NO_ERROR;
        // Not calloc, which bypasses the allocator's per-thread cache (most parcels are small
        // and short-lived). The empty asm stops the compiler from merging malloc and memset
        // back into calloc.
        uint8_t* data = static_cast<uint8_t*>(malloc(desired));
        if (data == nullptr) {
            mError = NO_MEMORY;
            return NO_MEMORY;
        }
        asm volatile("" : : "r"(data) : "memory");
        memset(data, 0, desired);
        mData = data;
        mDataCapacity = desired;
        mDataSize = 0;
        return NO_ERROR;
    }

    if (desired > mDataCapacity) {
        uint8_t* data = static_cast<uint8_t*>(realloc(mData, desired));
        if (data == nullptr) {
            mError = NO_MEMORY;
            return NO_MEMORY;
        }
        memset(data + mDataCapacity, 0, desired - mDataCapacity);
        mData = data;
        mDataCapacity = desired;
    } else if (desired < mDataSize) {
        memset(mData + desired, 0, mDataSize - desired);
        mDataSize = desired;
        if (mDataPos > desired) mDataPos = desired;
    }
    return NO_ERROR;
}

status_t Parcel::growObjects(size_t extra) {
    if (mObjectsCapacity - mObjectsSize >= extra) return NO_ERROR;
    size_t newCapacity = mObjectsCapacity == 0 ? 4 : mObjectsCapacity + mObjectsCapacity / 2;
    // The table never lists more objects than the largest data can hold.
    if (extra > kMaxDataSize / kObjectSize) return NO_MEMORY;
    if (newCapacity < mObjectsSize + extra) newCapacity = mObjectsSize + extra;
    binder_size_t* objects =
            static_cast<binder_size_t*>(realloc(mObjects, newCapacity * sizeof(binder_size_t)));
    if (objects == nullptr) {
        mError = NO_MEMORY;
        return NO_MEMORY;
    }
    mObjects = objects;
    mObjectsCapacity = newCapacity;
    return NO_ERROR;
}

// ------------------------------------------------------------------------------------------
// Object table

flat_binder_object Parcel::objectAt(size_t offset) const {
    flat_binder_object obj;
    memset(&obj, 0, sizeof(obj));
    if (offset <= mDataSize && kObjectSize <= mDataSize - offset) {
        memcpy(&obj, mData + offset, kObjectSize);
    }
    return obj;
}

void Parcel::sortObjects() const {
    if (mObjectsSorted) return;
    // Only tables the parcel owns are ever unsorted (adopted ones are checked on adoption).
    std::sort(mObjects, mObjects + mObjectsSize);
    mObjectsSorted = true;
}

bool Parcel::isObjectOffset(size_t offset) const {
    if (mObjectsSize == 0) return false;
    sortObjects();
    return std::binary_search(mObjects, mObjects + mObjectsSize, binder_size_t(offset));
}

status_t Parcel::validateReadData(size_t upperBound) const {
    if (mObjectsSize == 0) return NO_ERROR;
    sortObjects();
    // The first object that ends after the read position is the only one that can overlap.
    const binder_size_t* first = std::upper_bound(
            mObjects, mObjects + mObjectsSize, binder_size_t(mDataPos),
            [](binder_size_t pos, binder_size_t off) { return pos < off + kObjectSize; });
    if (first != mObjects + mObjectsSize && *first < upperBound) {
        ALOGE("Parcel %p: raw read of [%zu, %zu) overlaps the object at %llu", this, mDataPos,
              upperBound, static_cast<unsigned long long>(*first));
        return PERMISSION_DENIED;
    }
    return NO_ERROR;
}

void Parcel::acquireObjects() {
    for (size_t i = 0; i < mObjectsSize; i++) {
        acquireObject(objectAt(mObjects[i]), this);
    }
}

void Parcel::releaseObjects() {
    for (size_t i = mObjectsSize; i > 0; i--) {
        releaseObject(objectAt(mObjects[i - 1]), this);
    }
}

size_t Parcel::objectsCount() const {
    return mObjectsSize;
}

void Parcel::scanForFds() const {
    bool hasFds = false;
    for (size_t i = 0; i < mObjectsSize; i++) {
        if (objectAt(mObjects[i]).hdr.type == BINDER_TYPE_FD) {
            hasFds = true;
            break;
        }
    }
    mHasFds = hasFds;
    mFdsKnown = true;
}

bool Parcel::hasFileDescriptors() const {
    if (!mFdsKnown) scanForFds();
    return mHasFds;
}

bool Parcel::allowFds() const {
    return mAllowFds;
}

bool Parcel::pushAllowFds(bool allowFds) {
    const bool previous = mAllowFds;
    if (!allowFds) mAllowFds = false;
    return previous;
}

void Parcel::restoreAllowFds(bool lastValue) {
    mAllowFds = lastValue;
}

status_t Parcel::appendFrom(const Parcel* parcel, size_t offset, size_t len) {
    if (parcel == nullptr || parcel == this) return BAD_VALUE;
    if (len == 0) return NO_ERROR;
    if (len > kMaxDataSize) return BAD_VALUE;
    if (offset > parcel->mDataSize || len > parcel->mDataSize - offset) return BAD_VALUE;

    // The objects lying entirely inside the range travel with the bytes.
    size_t count = 0;
    for (size_t i = 0; i < parcel->mObjectsSize; i++) {
        const binder_size_t off = parcel->mObjects[i];
        if (off >= offset && off + kObjectSize <= offset + len) {
            if (!mAllowFds && parcel->objectAt(off).hdr.type == BINDER_TYPE_FD) {
                return FDS_NOT_ALLOWED;
            }
            count++;
        }
    }

    const size_t startPos = mDataPos;
    // Room for the bytes and the table first, so that no object is copied without its entry.
    if (status_t err = growData(len); err != NO_ERROR) return err;
    if (status_t err = growObjects(count); err != NO_ERROR) return err;
    memcpy(mData + mDataPos, parcel->mData + offset, len);
    finishWrite(len);

    status_t err = NO_ERROR;
    for (size_t i = 0; i < parcel->mObjectsSize && count > 0; i++) {
        const binder_size_t off = parcel->mObjects[i];
        if (off < offset || off + kObjectSize > offset + len) continue;
        count--;
        const size_t newOff = off - offset + startPos;
        flat_binder_object obj = objectAt(newOff);
        if (obj.hdr.type == BINDER_TYPE_FD) {
            // The copy owns a descriptor of its own.
            const int dupFd = fcntl(static_cast<int>(obj.handle), F_DUPFD_CLOEXEC, 0);
            if (dupFd < 0) err = -errno;
            obj.handle = static_cast<__u32>(dupFd);
            obj.cookie = dupFd >= 0 ? 1 : 0;
            memcpy(mData + newOff, &obj, kObjectSize);
            mHasFds = mFdsKnown = true;
        }
        acquireObject(obj, this);
        if (mObjectsSize > 0 && mObjects[mObjectsSize - 1] > newOff) mObjectsSorted = false;
        mObjects[mObjectsSize++] = newOff;
    }
    return err;
}

int Parcel::compareData(const Parcel& other) {
    const size_t size = dataSize();
    if (size != other.dataSize()) return size < other.dataSize() ? -1 : 1;
    if (size == 0) return 0;
    return memcmp(mData, other.mData, size);
}

status_t Parcel::errorCheck() const {
    return mError;
}

void Parcel::setError(status_t err) {
    mError = err;
}

// ------------------------------------------------------------------------------------------
// Writing

void* Parcel::writeInplace(size_t len) {
    if (len > kMaxDataSize) return nullptr;
    const size_t padded = padSize(len);
    if (growData(padded) != NO_ERROR) return nullptr;
    uint8_t* const data = mData + mDataPos;
    // The caller fills [0, len); the padding is zeroed here.
    if (padded != len) memset(data + len, 0, padded - len);
    finishWrite(padded);
    return data;
}

status_t Parcel::write(const void* data, size_t len) {
    if (len > kMaxDataSize) return BAD_VALUE;
    if (data == nullptr && len > 0) return BAD_VALUE;
    void* const d = writeInplace(len);
    if (d == nullptr) return NO_MEMORY;
    if (len > 0) memcpy(d, data, len);
    return NO_ERROR;
}

status_t Parcel::writeUnpadded(const void* data, size_t len) {
    if (len > kMaxDataSize) return BAD_VALUE;
    if (data == nullptr && len > 0) return BAD_VALUE;
    if (status_t err = growData(len); err != NO_ERROR) return err;
    if (len > 0) memcpy(mData + mDataPos, data, len);
    return finishWrite(len);
}

template <class T>
status_t Parcel::writeAligned(T val) {
    static_assert(sizeof(T) % 4 == 0, "parcel items are whole 32-bit words");
    if (status_t err = growData(sizeof(T)); err != NO_ERROR) return err;
    memcpy(mData + mDataPos, &val, sizeof(T));
    return finishWrite(sizeof(T));
}

status_t Parcel::writeInt32(int32_t val) {
    return writeAligned(val);
}

status_t Parcel::writeUint32(uint32_t val) {
    return writeAligned(val);
}

status_t Parcel::writeInt64(int64_t val) {
    return writeAligned(val);
}

status_t Parcel::writeUint64(uint64_t val) {
    return writeAligned(val);
}

status_t Parcel::writeFloat(float val) {
    return writeAligned(val);
}

status_t Parcel::writeDouble(double val) {
    return writeAligned(val);
}

status_t Parcel::writeBool(bool val) {
    return writeInt32(static_cast<int32_t>(val));
}

status_t Parcel::writeChar(char16_t val) {
    return writeInt32(static_cast<int32_t>(val));
}

status_t Parcel::writeByte(int8_t val) {
    return writeInt32(static_cast<int32_t>(val));
}

status_t Parcel::writeInt32Array(size_t len, const int32_t* val) {
    if (len > kMaxDataSize / sizeof(int32_t)) return BAD_VALUE;
    if (val == nullptr) return writeInt32(-1);
    if (status_t err = writeInt32(static_cast<int32_t>(len)); err != NO_ERROR) return err;
    return write(val, len * sizeof(int32_t));
}

status_t Parcel::writeByteArray(size_t len, const uint8_t* val) {
    if (len > kMaxDataSize) return BAD_VALUE;
    if (val == nullptr) return writeInt32(-1);
    if (status_t err = writeInt32(static_cast<int32_t>(len)); err != NO_ERROR) return err;
    return write(val, len);
}

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) return BAD_VALUE;
    return write(str, strlen(str) + 1);
}

status_t Parcel::writeString8(const String8& str) {
    // The bytes (and their NUL) follow only a count above 0.
    if (str.bytes() > kMaxDataSize - 1) return BAD_VALUE;
    if (status_t err = writeInt32(static_cast<int32_t>(str.bytes())); err != NO_ERROR) return err;
    if (str.bytes() == 0) return NO_ERROR;
    return write(str.string(), str.bytes() + 1);
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const std::unique_ptr<String16>& str) {
    if (!str) return writeInt32(-1);
    return writeString16(*str);
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= kMaxDataSize / sizeof(char16_t)) return BAD_VALUE;
    if (status_t err = writeInt32(static_cast<int32_t>(len)); err != NO_ERROR) return err;
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* data = static_cast<uint8_t*>(writeInplace(bytes + sizeof(char16_t)));
    if (data == nullptr) return NO_MEMORY;
    if (bytes > 0) memcpy(data, str, bytes);
    memset(data + bytes, 0, sizeof(char16_t));
    return NO_ERROR;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    // The calling thread's strict-mode policy (0 unless set) with the gather bit, and its work
    // source when it propagates one.
    const IPCThreadState* threadState = IPCThreadState::self();
    const uint32_t policy = static_cast<uint32_t>(threadState->getStrictModePolicy());
    if (status_t err = writeInt32(static_cast<int32_t>(policy | kStrictModePenaltyGather));
        err != NO_ERROR) {
        return err;
    }
    const int32_t workSource = threadState->shouldPropagateWorkSource()
            ? static_cast<int32_t>(threadState->getCallingWorkSourceUid())
            : kUnsetWorkSource;
    if (status_t err = writeInt32(workSource); err != NO_ERROR) return err;
    return writeString16(interface);
}

status_t Parcel::writeNoException() {
    return writeInt32(kExNone);
}

status_t Parcel::writeObject(const flat_binder_object& val, bool nullMetaData) {
    if (val.hdr.type == BINDER_TYPE_FD && !mAllowFds) return FDS_NOT_ALLOWED;
    // An object whose binder/handle word is zero (a null binder, or handle 0: the service
    // manager, the same in every process) is plain data, as on the platform; everything
    // else is recorded.
    const bool record = nullMetaData || val.binder != 0;
    // growData() first: it takes possession of adopted buffers before the table grows.
    if (status_t err = growData(kObjectSize); err != NO_ERROR) return err;
    if (record) {
        if (status_t err = growObjects(1); err != NO_ERROR) return err;
    }
    memcpy(mData + mDataPos, &val, kObjectSize);
    if (record) {
        if (mObjectsSize > 0 && mObjects[mObjectsSize - 1] > mDataPos) mObjectsSorted = false;
        mObjects[mObjectsSize++] = mDataPos;
        acquireObject(val, this);
        if (val.hdr.type == BINDER_TYPE_FD) mHasFds = mFdsKnown = true;
    }
    return finishWrite(kObjectSize);
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    flat_binder_object obj;
    memset(&obj, 0, sizeof(obj));
    obj.hdr.type = BINDER_TYPE_BINDER;
    obj.flags = kBinderObjectFlags;
    if (val != nullptr) {
        if (BBinder* local = val->localBinder(); local != nullptr) {
            if (local->isRequestingSid()) obj.flags |= FLAT_BINDER_FLAG_TXN_SECURITY_CTX;
            obj.binder = reinterpret_cast<uintptr_t>(local->getWeakRefs());
            obj.cookie = reinterpret_cast<uintptr_t>(local);
        } else {
            BpBinder* proxy = val->remoteBinder();
            if (proxy == nullptr) {
                ALOGE("writeStrongBinder: binder %p is neither local nor a proxy", val.get());
                return BAD_TYPE;
            }
            obj.hdr.type = BINDER_TYPE_HANDLE;
            obj.handle = static_cast<__u32>(proxy->handle());
        }
    }
    return writeObject(obj, false);
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) return BAD_VALUE;
    flat_binder_object obj;
    memset(&obj, 0, sizeof(obj));
    obj.hdr.type = BINDER_TYPE_FD;
    obj.flags = kFdObjectFlags;
    obj.handle = static_cast<__u32>(fd);
    obj.cookie = takeOwnership ? 1 : 0;
    return writeObject(obj, true);
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    const int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return -errno;
    status_t err = writeFileDescriptor(dupFd, true);
    if (err != NO_ERROR) close(dupFd);
    return err;
}

// ------------------------------------------------------------------------------------------
// Reading

status_t Parcel::read(void* outData, size_t len) const {
    const void* src = readInplace(len);
    if (src == nullptr) return NOT_ENOUGH_DATA;
    if (len > 0) memcpy(outData, src, len);
    return NO_ERROR;
}

const void* Parcel::readInplace(size_t len) const {
    // A size_t above INT32_MAX is most likely a negative int converted by mistake.
    if (len > kMaxDataSize) return nullptr;
    const size_t padded = padSize(len);
    if (mDataPos > mDataSize || padded > mDataSize - mDataPos) return nullptr;
    if (validateReadData(mDataPos + padded) != NO_ERROR) {
        mDataPos += padded;
        return nullptr;
    }
    const void* data = mData + mDataPos;
    mDataPos += padded;
    return data;
}

template <class T>
status_t Parcel::readAligned(T* pArg) const {
    static_assert(sizeof(T) % 4 == 0, "parcel items are whole 32-bit words");
    if (mDataPos > mDataSize || sizeof(T) > mDataSize - mDataPos) return NOT_ENOUGH_DATA;
    if (status_t err = validateReadData(mDataPos + sizeof(T)); err != NO_ERROR) {
        mDataPos += sizeof(T);
        return err;
    }
    memcpy(pArg, mData + mDataPos, sizeof(T));
    mDataPos += sizeof(T);
    return NO_ERROR;
}

template <class T>
T Parcel::readAligned() const {
    T result;
    if (readAligned(&result) != NO_ERROR) result = 0;
    return result;
}

int32_t Parcel::readInt32() const {
    return readAligned<int32_t>();
}

status_t Parcel::readInt32(int32_t* pArg) const {
    return readAligned(pArg);
}

uint32_t Parcel::readUint32() const {
    return readAligned<uint32_t>();
}

status_t Parcel::readUint32(uint32_t* pArg) const {
    return readAligned(pArg);
}

int64_t Parcel::readInt64() const {
    return readAligned<int64_t>();
}

status_t Parcel::readInt64(int64_t* pArg) const {
    return readAligned(pArg);
}

uint64_t Parcel::readUint64() const {
    return readAligned<uint64_t>();
}

status_t Parcel::readUint64(uint64_t* pArg) const {
    return readAligned(pArg);
}

float Parcel::readFloat() const {
    return readAligned<float>();
}

status_t Parcel::readFloat(float* pArg) const {
    return readAligned(pArg);
}

double Parcel::readDouble() const {
    return readAligned<double>();
}

status_t Parcel::readDouble(double* pArg) const {
    return readAligned(pArg);
}

intptr_t Parcel::readIntPtr() const {
    return readAligned<intptr_t>();
}

status_t Parcel::readIntPtr(intptr_t* pArg) const {
    return readAligned(pArg);
}

status_t Parcel::readBool(bool* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = v != 0;
    return err;
}

bool Parcel::readBool() const {
    return readInt32() != 0;
}

status_t Parcel::readChar(char16_t* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = static_cast<char16_t>(v);
    return err;
}

char16_t Parcel::readChar() const {
    return static_cast<char16_t>(readInt32());
}

status_t Parcel::readByte(int8_t* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = static_cast<int8_t>(v);
    return err;
}

int8_t Parcel::readByte() const {
    return static_cast<int8_t>(readInt32());
}

const char* Parcel::readCString() const {
    if (mDataPos >= mDataSize) return nullptr;
    const char* str = reinterpret_cast<const char*>(mData + mDataPos);
    const void* eos = memchr(str, 0, mDataSize - mDataPos);
    if (eos == nullptr) return nullptr;
    const size_t len = static_cast<const char*>(eos) - str;
    // The NUL may be the last byte of the data, without padding after it.
    const size_t padded = padSize(len + 1);
    const size_t end = std::min(mDataSize, mDataPos + padded);
    if (validateReadData(end) != NO_ERROR) {
        mDataPos += padded;
        return nullptr;
    }
    mDataPos += padded;
    return str;
}

status_t Parcel::readString8(String8* pArg) const {
    *pArg = String8();
    int32_t size = 0;
    if (status_t err = readInt32(&size); err != NO_ERROR) return err;
    if (size < 0 || size >= INT32_MAX) return BAD_VALUE;
    // Nothing follows a count of 0.
    if (size == 0) return NO_ERROR;
    const char* str = static_cast<const char*>(readInplace(static_cast<size_t>(size) + 1));
    if (str == nullptr) return BAD_VALUE;
    if (str[size] != '\0') return BAD_VALUE;
    pArg->setTo(str, static_cast<size_t>(size));
    return NO_ERROR;
}

String8 Parcel::readString8() const {
    String8 result;
    if (readString8(&result) != NO_ERROR) return String8();
    return result;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    *outLen = 0;
    int32_t size = 0;
    if (readInt32(&size) != NO_ERROR) return nullptr;
    if (size < 0 || size >= INT32_MAX) return nullptr;
    const size_t bytes = (static_cast<size_t>(size) + 1) * sizeof(char16_t);
    const void* data = readInplace(bytes);
    if (data == nullptr) return nullptr;
    // Items start on 4-byte boundaries; only a position set by hand can break that, and then
    // no char16 view can be handed out.
    if (reinterpret_cast<uintptr_t>(data) % alignof(char16_t) != 0) {
        ALOGE("Parcel %p: String16 at a misaligned position", this);
        return nullptr;
    }
    const char16_t* str = static_cast<const char16_t*>(data);
    if (str[size] != u'\0') {
        ALOGE("Parcel %p: String16 of %d chars without its NUL", this, size);
        return nullptr;
    }
    *outLen = static_cast<size_t>(size);
    return str;
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        *pArg = String16();
        return UNEXPECTED_NULL;
    }
    pArg->setTo(str, len);
    return NO_ERROR;
}

String16 Parcel::readString16() const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) return String16();
    return String16(str, len);
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    pArg->reset();
    const size_t start = mDataPos;
    int32_t size = 0;
    if (status_t err = readInt32(&size); err != NO_ERROR) return err;
    // A negative count is the null string.
    if (size < 0) return NO_ERROR;
    mDataPos = start;
    auto str = std::make_unique<String16>();
    status_t err = readString16(str.get());
    if (err == NO_ERROR) *pArg = std::move(str);
    return err;
}

const flat_binder_object* Parcel::readObject(bool nullMetaData) const {
    const size_t pos = mDataPos;
    if (pos > mDataSize || kObjectSize > mDataSize - pos) return nullptr;
    mDataPos = pos + kObjectSize;
    mLastObject = objectAt(pos);
    // A null binder and handle 0 are written as plain data (not recorded), so they are
    // accepted where they stand; any other object must be recorded in the table at exactly
    // this position.
    if (!nullMetaData && mLastObject.binder == 0 && mLastObject.cookie == 0) {
        return &mLastObject;
    }
    if (isObjectOffset(pos)) return &mLastObject;
    ALOGW("Parcel %p: no object recorded at offset %zu", this, pos);
    return nullptr;
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
    *val = nullptr;
    const flat_binder_object* flat = readObject(false);
    if (flat == nullptr) return BAD_TYPE;
    switch (flat->hdr.type) {
        case BINDER_TYPE_BINDER:
            *val = reinterpret_cast<IBinder*>(flat->cookie);
            return NO_ERROR;
        case BINDER_TYPE_HANDLE:
            *val = ProcessState::self()->getStrongProxyForHandle(
                    static_cast<int32_t>(flat->handle));
            return NO_ERROR;
        default:
            return BAD_TYPE;
    }
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    status_t err = readNullableStrongBinder(val);
    if (err == NO_ERROR && *val == nullptr) err = UNEXPECTED_NULL;
    return err;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> val;
    readNullableStrongBinder(&val);
    return val;
}

int Parcel::readFileDescriptor() const {
    const flat_binder_object* flat = readObject(true);
    if (flat != nullptr && flat->hdr.type == BINDER_TYPE_FD) {
        return static_cast<int>(flat->handle);
    }
    return BAD_TYPE;
}

int32_t Parcel::readExceptionCode() const {
    int32_t code = 0;
    if (readInt32(&code) != NO_ERROR) return kExTransactionFailed;

    if (code == kExHasReplyHeader) {
        // A reply header: its size counts its own 4 bytes. Headers are only sent with
        // successful replies, so what follows them is read as no exception.
        const size_t headerStart = mDataPos;
        const size_t headerAvail = dataAvail();
        int32_t headerSize = 0;
        if (readInt32(&headerSize) != NO_ERROR) return kExTransactionFailed;
        if (headerSize < 0 || static_cast<size_t>(headerSize) > headerAvail) {
            ALOGE("Parcel %p: reply header of %d bytes with %zu left", this, headerSize,
                  headerAvail);
            return kExTransactionFailed;
        }
        mDataPos = headerStart + static_cast<size_t>(headerSize);
        return kExNone;
    }
    if (code == kExNone) return kExNone;

    // An exception: a message and a remote stack trace follow; they are consumed here.
    String16 message;
    if (readString16(&message) != NO_ERROR) return kExTransactionFailed;
    int32_t traceSize = 0;
    if (readInt32(&traceSize) != NO_ERROR || traceSize < 0 ||
        static_cast<size_t>(traceSize) > dataAvail()) {
        return kExTransactionFailed;
    }
    mDataPos += static_cast<size_t>(traceSize);
    if (code == kExServiceSpecific) {
        int32_t errorCode = 0;
        if (readInt32(&errorCode) != NO_ERROR) return kExTransactionFailed;
    } else if (code == kExParcelable) {
        const size_t start = mDataPos;
        const size_t avail = dataAvail();
        int32_t size = 0;
        if (readInt32(&size) != NO_ERROR || size < 0 || static_cast<size_t>(size) > avail) {
            return kExTransactionFailed;
        }
        mDataPos = start + static_cast<size_t>(size);
    }
    return code;
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    // The policy and work-source words take no part in the check; they become the serving
    // thread's (a one-way call runs detached from its caller, so without a policy).
    const int32_t policy = readInt32();
    const int32_t workSource = readInt32();
    if (threadState == nullptr) threadState = IPCThreadState::self();
    const bool oneway = (threadState->getLastTransactionBinderFlags() & IBinder::FLAG_ONEWAY) != 0;
    threadState->setStrictModePolicy(oneway ? 0 : policy);
    threadState->setCallingWorkSourceUidWithoutPropagation(static_cast<uid_t>(workSource));
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str != nullptr && len == interface.size() &&
        memcmp(str, interface.string(), len * sizeof(char16_t)) == 0) {
        return true;
    }
    ALOGW("enforceInterface: expected '%s' but read '%s'", String8(interface).string(),
          str != nullptr ? String8(str, len).string() : "(null)");
    return false;
}

bool Parcel::checkInterface(IBinder* binder) const {
    if (binder == nullptr) return false;
    return enforceInterface(binder->getInterfaceDescriptor());
}

void Parcel::closeFileDescriptors() {
    for (size_t i = mObjectsSize; i > 0; i--) {
        const flat_binder_object obj = objectAt(mObjects[i - 1]);
        if (obj.hdr.type == BINDER_TYPE_FD) close(static_cast<int>(obj.handle));
    }
}

// ------------------------------------------------------------------------------------------
// IPC layer

uintptr_t Parcel::ipcData() const {
    return reinterpret_cast<uintptr_t>(mData);
}

size_t Parcel::ipcDataSize() const {
    return mDataSize;
}

uintptr_t Parcel::ipcObjects() const {
    sortObjects();
    return reinterpret_cast<uintptr_t>(mObjects);
}

size_t Parcel::ipcObjectsCount() const {
    return mObjectsSize;
}

void Parcel::ipcSetDataReference(const uint8_t* data, size_t dataSize,
                                 const binder_size_t* objects, size_t objectsCount,
                                 release_func relFunc, void* relCookie) {
    freeDataNoInit();
    initState();
    mData = const_cast<uint8_t*>(data);
    mDataSize = mDataCapacity = data != nullptr ? dataSize : 0;
    mObjects = const_cast<binder_size_t*>(objects);
    mObjectsSize = mObjectsCapacity = objects != nullptr ? objectsCount : 0;
    mOwner = relFunc;
    mOwnerCookie = relCookie;
    mFdsKnown = false;

    // The table must list whole, non-overlapping objects in increasing order inside the
    // data; a table that does not is not used (no object can then be read).
    size_t minOffset = 0;
    for (size_t i = 0; i < mObjectsSize; i++) {
        const binder_size_t off = mObjects[i];
        if (off < minOffset || off > mDataSize || kObjectSize > mDataSize - off) {
            ALOGE("Parcel %p: object table entry %zu (offset %llu) is invalid; table dropped",
                  this, i, static_cast<unsigned long long>(off));
            mObjectsSize = 0;
            break;
        }
        minOffset = off + kObjectSize;
    }
    mObjectsSorted = true;
}

}  // namespace android
