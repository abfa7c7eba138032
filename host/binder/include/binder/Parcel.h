/*
 * hostbinder: Parcel, the flat container of a transaction's data.
 *
 * The data area is byte-for-byte the platform's: little-endian, every item padded to 4 bytes
 * with zeroed padding, binder objects as 24-byte flat_binder_object records whose offsets are
 * kept in a separate object table. Every read is bounds-checked: past the end a read gives a
 * zero or null value and an error status, never undefined behaviour. Plain reads never return
 * the bytes of a recorded object (PERMISSION_DENIED), and only recorded objects are read as
 * objects.
 */
#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <linux/android/binder.h>

#include <memory>
#include <stddef.h>
#include <stdint.h>
#include <string>

namespace android {

class IBinder;
class IPCThreadState;
class ProcessState;

class Parcel {
public:
    Parcel();
    ~Parcel();

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;

    status_t setDataSize(size_t size);
    // Any position is accepted: reads past the end fail, writes that would grow the data past
    // INT32_MAX bytes fail with NO_MEMORY.
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);

    // Replaces the contents with a copy of `buffer` (no binder objects).
    status_t setData(const uint8_t* buffer, size_t len);

    // Appends bytes [start, start + len) of `parcel` at the current position, with the objects
    // lying wholly inside that range: binders gain a reference, fds are duplicated. BAD_VALUE
    // for a range outside `parcel` or for `parcel` == this.
    status_t appendFrom(const Parcel* parcel, size_t start, size_t len);

    int compareData(const Parcel& other);

    bool allowFds() const;
    bool pushAllowFds(bool allowFds);
    void restoreAllowFds(bool lastValue);

    bool hasFileDescriptors() const;

    // Strict-mode policy (bit 31 set), work source (-1), then the descriptor as String16.
    status_t writeInterfaceToken(const String16& interface);

    // Both skip the policy and work-source words and compare the descriptor.
    bool enforceInterface(const String16& interface,
                          IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder*) const;

    void freeData();

    // Number of binder objects (and file descriptors) recorded in the object table.
    size_t objectsCount() const;

    status_t errorCheck() const;
    void setError(status_t err);

    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeUnpadded(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeFloat(float val);
    status_t writeDouble(double val);
    status_t writeCString(const char* str);
    status_t writeString8(const String8& str);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeStrongBinder(const sp<IBinder>& val);
    status_t writeInt32Array(size_t len, const int32_t* val);
    status_t writeByteArray(size_t len, const uint8_t* val);
    status_t writeBool(bool val);
    status_t writeChar(char16_t val);
    status_t writeByte(int8_t val);

    // Writes the reply header of no exception (a 32-bit 0).
    status_t writeNoException();

    // Place a file descriptor into the parcel. With takeOwnership the parcel closes it when
    // it is freed; the descriptor travels to the receiving process as a new descriptor there.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    // Place a dup of `fd` into the parcel, which owns (and closes) the dup.
    status_t writeDupFileDescriptor(int fd);

    // Writes a raw flat object and records it in the object table, unless its binder/handle
    // word is zero (a null binder or handle 0) and nullMetaData is false. Recorded objects
    // hold a reference while the parcel owns them.
    status_t writeObject(const flat_binder_object& val, bool nullMetaData);

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    float readFloat() const;
    status_t readFloat(float* pArg) const;
    double readDouble() const;
    status_t readDouble(double* pArg) const;
    intptr_t readIntPtr() const;
    status_t readIntPtr(intptr_t* pArg) const;
    status_t readBool(bool* pArg) const;
    bool readBool() const;
    status_t readChar(char16_t* pArg) const;
    char16_t readChar() const;
    status_t readByte(int8_t* pArg) const;
    int8_t readByte() const;

    // Null when the string runs past the end of the data.
    const char* readCString() const;
    String8 readString8() const;
    status_t readString8(String8* pArg) const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    status_t readString16(std::unique_ptr<String16>* pArg) const;
    // Null for a null string, a negative count, a count that does not fit the data, or a
    // string whose terminating char16 is not NUL.
    const char16_t* readString16Inplace(size_t* outLen) const;

    sp<IBinder> readStrongBinder() const;
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;

    // Reads the exception header of a reply: 0 for no exception. A -128 reply header (followed
    // by a size that counts itself) is skipped and reads as no exception.
    int32_t readExceptionCode() const;

    // The descriptor stays owned by the parcel; dup() it to keep it.
    int readFileDescriptor() const;

    // The flat object at the current position, only if the object table records it there (a
    // null binder or handle 0 is also accepted unrecorded when nullMetaData is false). The
    // pointer is to a copy that stays valid until the next readObject() on this parcel.
    const flat_binder_object* readObject(bool nullMetaData) const;

    // Closes every descriptor held in the object table (used when a received parcel is freed).
    void closeFileDescriptors();

    // ------------------------------------------------------------------------------------
    // For the IPC layer: access to the raw buffers, and adoption of a received buffer.
    typedef void (*release_func)(Parcel* parcel, const uint8_t* data, size_t dataSize,
                                 const binder_size_t* objects, size_t objectsSize, void* cookie);

    uintptr_t ipcData() const;
    size_t ipcDataSize() const;
    uintptr_t ipcObjects() const;
    size_t ipcObjectsCount() const;
    // The parcel reads `data` and `objects` in place until it is freed, then calls relFunc; it
    // holds no references of its own. A table that does not list whole, non-overlapping objects
    // in increasing order inside the data is ignored. A write to the parcel first copies the
    // data (duplicating its fds) and gives the buffers back through relFunc.
    void ipcSetDataReference(const uint8_t* data, size_t dataSize, const binder_size_t* objects,
                             size_t objectsCount, release_func relFunc, void* relCookie);

private:
    Parcel(const Parcel& o);
    Parcel& operator=(const Parcel& o);

    status_t finishWrite(size_t len);
    void releaseObjects();
    void acquireObjects();
    // Makes room for `len` more bytes at the current position.
    status_t growData(size_t len);
    status_t continueWrite(size_t desired);
    // Makes room for `extra` more entries in the object table.
    status_t growObjects(size_t extra);
    void freeDataNoInit();
    void initState();
    void scanForFds() const;
    void sortObjects() const;
    // The flat object recorded at `offset` (a copy: objects need not be 8-byte aligned).
    flat_binder_object objectAt(size_t offset) const;
    // PERMISSION_DENIED when raw bytes [mDataPos, upperBound) overlap a recorded object.
    status_t validateReadData(size_t upperBound) const;
    // Whether `offset` is recorded in the object table.
    bool isObjectOffset(size_t offset) const;

    template <class T>
    status_t readAligned(T* pArg) const;
    template <class T>
    T readAligned() const;
    template <class T>
    status_t writeAligned(T val);

    status_t mError;
    uint8_t* mData;
    size_t mDataSize;
    size_t mDataCapacity;
    mutable size_t mDataPos;
    // Offsets of the flat objects in mData. Owned (and mutable) unless mOwner is set.
    binder_size_t* mObjects;
    size_t mObjectsSize;
    size_t mObjectsCapacity;
    mutable bool mObjectsSorted;

    mutable bool mFdsKnown;
    mutable bool mHasFds;
    bool mAllowFds;

    // readObject() hands out a pointer to this copy of the object it read.
    mutable flat_binder_object mLastObject;

    release_func mOwner;
    void* mOwnerCookie;
};

}  // namespace android
