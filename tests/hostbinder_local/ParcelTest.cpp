// Parcel: the exact bytes of every write form and what reads them back, the references held by
// the object table, and reads of hostile or truncated data (which must fail cleanly, never read
// out of bounds).

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace android {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Parcel& p) {
    return Bytes(p.data(), p.data() + p.dataSize());
}

// Little-endian words.
Bytes words(std::initializer_list<uint32_t> ws) {
    Bytes b;
    for (uint32_t w : ws) {
        for (int shift = 0; shift < 32; shift += 8) b.push_back(uint8_t(w >> shift));
    }
    return b;
}

std::unique_ptr<Parcel> parcelOf(const Bytes& b) {
    auto p = std::make_unique<Parcel>();
    EXPECT_EQ(p->setData(b.data(), b.size()), NO_ERROR);
    return p;
}

// A flat object: type bytes 0x85 0x2a `t0` `t1`, the flags word, then two 8-byte words.
Bytes flat(char t0, char t1, uint32_t flags, uint64_t first, uint64_t second) {
    return words({0x2a85u | uint32_t(t0) << 16 | uint32_t(t1) << 24, flags, uint32_t(first),
                  uint32_t(first >> 32), uint32_t(second), uint32_t(second >> 32)});
}

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
};

bool fdIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// -----------------------------------------------------------------------------------------
// Bytes: a change of layout names the form that moved.

TEST(ParcelBytes, EveryFormHasItsBytesAndReadsBackInOrder) {
    const sp<BBinder> local = new BBinder();
    const sp<BBinder> sidLocal = new BBinder();
    sidLocal->setRequestingSid(true);
    const sp<IBinder> remote7 = ProcessState::self()->getStrongProxyForHandle(7);
    Pipe pipe;
    Bytes token = words({0x80000000, 0xffffffff, 22});  // policy, work source, chars
    for (char c : std::string("morvel.tovarin.service")) token.insert(token.end(), {uint8_t(c), 0});
    token.insert(token.end(), {0, 0, 0, 0});
    const int32_t ints[] = {1, 2};
    const uint8_t raw[] = {1, 2, 3};

    // One row per form, written one after the other: the write's status and the bytes it
    // appended.
    Parcel p;
    size_t mark = 0;
    const auto row = [&](const char* form, status_t status, const Bytes& bytes) {
        EXPECT_EQ(status, NO_ERROR) << form;
        EXPECT_EQ(Bytes(p.data() + mark, p.data() + p.dataPosition()), bytes) << form;
        mark = p.dataPosition();
    };
    row("int32", p.writeInt32(0x01020304), {4, 3, 2, 1});
    row("int64 (4-byte aligned)", p.writeInt64(0x0102030405060708), {8, 7, 6, 5, 4, 3, 2, 1});
    row("uint64", p.writeUint64(UINT64_MAX - 1), {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff});
    row("float", p.writeFloat(1.0f), {0, 0, 0x80, 0x3f});
    row("double", p.writeDouble(-2.5), {0, 0, 0, 0, 0, 0, 0x04, 0xc0});
    row("bool", p.writeBool(true), {1, 0, 0, 0});
    row("char", p.writeChar(u'\u20ac'), {0xac, 0x20, 0, 0});
    row("byte", p.writeByte(-2), {0xfe, 0xff, 0xff, 0xff});
    row("CString abc", p.writeCString("abc"), {'a', 'b', 'c', 0});
    row("CString abcd", p.writeCString("abcd"), {'a', 'b', 'c', 'd', 0, 0, 0, 0});
    row("CString empty", p.writeCString(""), {0, 0, 0, 0});
    row("String8 abc", p.writeString8(String8("abc")), {3, 0, 0, 0, 'a', 'b', 'c', 0});
    row("String8 empty", p.writeString8(String8()), {0, 0, 0, 0});
    row("String16 hi", p.writeString16(String16("hi")), {2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0});
    row("String16 empty", p.writeString16(String16()), {0, 0, 0, 0, 0, 0, 0, 0});
    row("String16 null", p.writeString16(std::unique_ptr<String16>()), {0xff, 0xff, 0xff, 0xff});
    row("interface token", p.writeInterfaceToken(String16("morvel.tovarin.service")), token);
    row("no exception", p.writeNoException(), {0, 0, 0, 0});
    row("write (padded)", p.write(raw, 3), {1, 2, 3, 0});
    row("null binder (not listed)", p.writeStrongBinder(nullptr), flat('b', 's', 0x113, 0, 0));
    row("local binder", p.writeStrongBinder(local),
        flat('b', 's', 0x113, uintptr_t(local->getWeakRefs()), uintptr_t(local.get())));
    row("local binder requesting the caller's security context", p.writeStrongBinder(sidLocal),
        flat('b', 's', 0x1113, uintptr_t(sidLocal->getWeakRefs()), uintptr_t(sidLocal.get())));
    row("handle 7", p.writeStrongBinder(remote7), flat('h', 's', 0x113, 7, 0));
    row("file descriptor", p.writeFileDescriptor(pipe.fds[0]),
        flat('d', 'f', 0x17f, static_cast<uint32_t>(pipe.fds[0]), 0));
    EXPECT_EQ(p.objectsCount(), 4u) << "a null binder is not listed";
    const size_t readBack = p.dataPosition();
    row("String16 null pointer", p.writeString16(nullptr, 3), {0xff, 0xff, 0xff, 0xff});
    row("int32 array", p.writeInt32Array(2, ints), {2, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0});
    row("int32 array null", p.writeInt32Array(2, nullptr), {0xff, 0xff, 0xff, 0xff});
    row("byte array", p.writeByteArray(3, raw), {3, 0, 0, 0, 1, 2, 3, 0});
    row("byte array null", p.writeByteArray(3, nullptr), {0xff, 0xff, 0xff, 0xff});
    row("writeUnpadded", p.writeUnpadded(raw, 3), {1, 2, 3});

    p.setDataPosition(0);
    EXPECT_EQ(p.readInt32(), 0x01020304);
    EXPECT_EQ(p.readInt64(), 0x0102030405060708);
    EXPECT_EQ(p.readUint64(), UINT64_MAX - 1);
    EXPECT_EQ(p.readFloat(), 1.0f);
    EXPECT_EQ(p.readDouble(), -2.5);
    EXPECT_TRUE(p.readBool());
    EXPECT_EQ(p.readChar(), u'\u20ac');
    EXPECT_EQ(p.readByte(), -2);
    for (const char* s : {"abc", "abcd", ""}) EXPECT_STREQ(p.readCString(), s);
    EXPECT_EQ(p.readString8(), String8("abc"));
    String8 s8;
    EXPECT_EQ(p.readString8(&s8), NO_ERROR);
    std::unique_ptr<String16> s16;
    EXPECT_EQ(p.readString16(&s16), NO_ERROR);
    EXPECT_EQ(s16 ? *s16 : String16("(null)"), String16("hi"));
    EXPECT_EQ(p.readString16(&s16), NO_ERROR);
    EXPECT_NE(s16, nullptr) << "an empty String16 is not a null one";
    EXPECT_EQ(p.readString16(&s16), NO_ERROR);
    EXPECT_EQ(s16, nullptr);
    EXPECT_TRUE(p.enforceInterface(String16("morvel.tovarin.service")));
    EXPECT_EQ(p.readExceptionCode(), 0);
    uint8_t out[3] = {};
    EXPECT_EQ(p.read(out, 3), NO_ERROR);
    EXPECT_EQ(Bytes(out, out + 3), Bytes(raw, raw + 3));
    sp<IBinder> b = local;
    EXPECT_EQ(p.readStrongBinder(&b), UNEXPECTED_NULL);
    EXPECT_EQ(p.readStrongBinder(&b), NO_ERROR);
    EXPECT_EQ(b, local);
    EXPECT_EQ(p.readStrongBinder(), sidLocal);
    EXPECT_EQ(p.readStrongBinder(), remote7);
    EXPECT_EQ(p.readFileDescriptor(), pipe.fds[0]);
    EXPECT_EQ(p.dataPosition(), readBack);
}

TEST(ParcelBytes, InterfaceTokenCarriesTheThreadsPolicyAndChecksOnlyTheDescriptor) {
    IPCThreadState* self = IPCThreadState::self();
    // Written: the calling thread's policy (with the gather bit) and its propagated work source.
    self->setStrictModePolicy(0x10);
    const int64_t restore = self->setCallingWorkSourceUid(1234);
    Parcel token;
    token.writeInterfaceToken(String16("x.IFoo"));
    self->clearPropagateWorkSource();  // the work source stays, but is no longer sent
    Parcel unpropagated;
    unpropagated.writeInterfaceToken(String16("x.IFoo"));
    self->restoreCallingWorkSource(restore);
    self->setStrictModePolicy(0);
    EXPECT_EQ(Bytes(token.data(), token.data() + 8), words({0x80000010, 1234}));
    EXPECT_EQ(Bytes(unpropagated.data(), unpropagated.data() + 8), words({0x80000010, 0xffffffff}));

    // Read: the policy and work source become the serving thread's (a one-way call runs without
    // a policy); only the descriptor decides.
    for (int32_t flags : {0, int32_t(IBinder::FLAG_ONEWAY)}) {
        SCOPED_TRACE(flags);
        token.setDataPosition(0);
        self->setLastTransactionBinderFlags(flags);
        EXPECT_TRUE(token.enforceInterface(String16("x.IFoo")));
        EXPECT_EQ(self->getStrictModePolicy(), flags == 0 ? int32_t(0x80000010) : 0);
        EXPECT_EQ(self->getCallingWorkSourceUid(), 1234u);
    }
    for (const char* other : {"x.IBar", "x.IFo", "x.IFooo"}) {
        token.setDataPosition(0);
        EXPECT_FALSE(token.enforceInterface(String16(other))) << other;
    }
    self->setLastTransactionBinderFlags(0);
    self->setStrictModePolicy(0);
    self->restoreCallingWorkSource(restore);
}

TEST(ParcelBytes, PaddingAndGapsAreZeroed) {
    // Writing over old bytes.
    Parcel p;
    for (int i = 0; i < 3; i++) p.writeInt32(-1);
    p.setDataPosition(0);
    p.writeCString("a");
    p.writeString16(String16("b"));
    EXPECT_EQ(bytesOf(p), Bytes({'a', 0, 0, 0, 1, 0, 0, 0, 'b', 0, 0, 0}));

    // Shrinking and growing the size, and writing past the end (also with no buffer yet).
    EXPECT_EQ(p.setDataSize(4), NO_ERROR);
    EXPECT_EQ(p.dataPosition(), 4u);
    EXPECT_EQ(p.setDataSize(12), NO_ERROR);
    EXPECT_EQ(bytesOf(p), words({'a', 0, 0}));
    EXPECT_EQ(p.setDataCapacity(100), NO_ERROR);
    p.setDataPosition(20);
    p.writeInt32(7);
    EXPECT_EQ(bytesOf(p), words({'a', 0, 0, 0, 0, 7}));
    Parcel fresh;
    fresh.setDataPosition(4);
    fresh.writeInt32(3);
    EXPECT_EQ(bytesOf(fresh), words({0, 3}));

    Parcel copy;
    copy.setData(p.data(), p.dataSize());
    EXPECT_EQ(p.compareData(copy), 0);
    copy.writeInt32(8);
    EXPECT_NE(p.compareData(copy), 0) << "same size, other bytes";
    EXPECT_NE(p.compareData(fresh), 0) << "other size";
    // setData may be handed the parcel's own bytes.
    copy.setData(copy.data() + 20, 4);
    EXPECT_EQ(copy.readInt32(), 7);
}

// -----------------------------------------------------------------------------------------
// The object table and the references it holds

TEST(ParcelObjects, BindersAndOwnedFdsAreHeldUntilFreedAndAppendFromTakesItsOwn) {
    Pipe pipe;
    wp<IBinder> weak[2];
    int owned = -1;
    Parcel dst;
    dst.writeInt32(99);
    {
        sp<IBinder> local = new BBinder();
        sp<IBinder> proxy = ProcessState::self()->getStrongProxyForHandle(31);
        weak[0] = local;
        weak[1] = proxy;
        Parcel src;
        src.writeInt32(1);
        src.writeStrongBinder(local);
        src.writeStrongBinder(proxy);
        ASSERT_EQ(src.writeDupFileDescriptor(pipe.fds[0]), NO_ERROR);
        ASSERT_EQ(src.writeFileDescriptor(pipe.fds[1], false), NO_ERROR);
        src.setDataPosition(52);
        owned = src.readFileDescriptor();
        local.clear();
        proxy.clear();
        // Everything after the first word: the binders and the fds, the last ending the range.
        ASSERT_EQ(dst.appendFrom(&src, 4, src.dataSize() - 4), NO_ERROR);
        EXPECT_EQ(dst.objectsCount(), 4u);
        EXPECT_TRUE(dst.hasFileDescriptors());

        Parcel noFds;
        noFds.pushAllowFds(false);
        EXPECT_EQ(noFds.writeFileDescriptor(pipe.fds[1]), FDS_NOT_ALLOWED);
        EXPECT_EQ(noFds.appendFrom(&src, 0, src.dataSize()), FDS_NOT_ALLOWED);
        EXPECT_EQ(noFds.appendFrom(&src, 0, 101), BAD_VALUE);
        EXPECT_EQ(noFds.appendFrom(&src, SIZE_MAX, 4), BAD_VALUE);
        EXPECT_EQ(noFds.appendFrom(&src, 2, SIZE_MAX - 1), BAD_VALUE);
        EXPECT_EQ(noFds.appendFrom(&src, 0, 0), NO_ERROR);
        EXPECT_EQ(noFds.appendFrom(&noFds, 0, 0), BAD_VALUE);
        EXPECT_EQ(noFds.dataSize(), 0u);
    }
    EXPECT_FALSE(fdIsOpen(owned)) << "an owned fd closes with its parcel";
    EXPECT_TRUE(fdIsOpen(pipe.fds[1])) << "a borrowed one does not";

    dst.setDataPosition(0);
    EXPECT_EQ(dst.readInt32(), 99);
    for (const auto& w : weak) {
        const sp<IBinder> held = w.promote();
        EXPECT_NE(held, nullptr) << "held by the appended copy";
        EXPECT_EQ(dst.readStrongBinder(), held);
    }
    const int copies[] = {dst.readFileDescriptor(), dst.readFileDescriptor()};
    dst.freeData();
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(weak[i].promote(), nullptr);
        EXPECT_GE(copies[i], 0);
        EXPECT_NE(copies[i], pipe.fds[1]) << "the copy owns duplicates";
        EXPECT_FALSE(fdIsOpen(copies[i]));
    }
}

// Counts its calls; closes the descriptors it delivered, as the IPC layer's release does.
void release(Parcel* parcel, const uint8_t*, size_t, const binder_size_t*, size_t, void* calls) {
    parcel->closeFileDescriptors();
    ++*static_cast<int*>(calls);
}

TEST(ParcelObjects, ObjectsAreReadOnlyWhereAValidTableRecordsThem) {
    const sp<BBinder> real = new BBinder();
    Pipe pipe;
    Parcel written;
    written.writeStrongBinder(real);
    written.writeFileDescriptor(pipe.fds[0]);
    const Bytes data = bytesOf(written);
    // Objects copied or forged as plain data are not in the table. Binders whose binder/handle
    // word is zero are plain data anyway and read where they stand: a null binder and handle 0
    // (the service manager); no other handle, and never an fd.
    const std::tuple<const char*, Bytes, status_t, sp<IBinder>> rows[] = {
            {"forged local binder", Bytes(data.begin(), data.begin() + 24), BAD_TYPE, nullptr},
            {"forged fd 0", flat('d', 'f', 0x17f, 0, 0), BAD_TYPE, nullptr},
            {"null binder", flat('b', 's', 0x113, 0, 0), NO_ERROR, nullptr},
            {"handle 0", flat('h', 's', 0x113, 0, 0), NO_ERROR,
             ProcessState::self()->getStrongProxyForHandle(0)},
            {"handle 7", flat('h', 's', 0x113, 7, 0), BAD_TYPE, nullptr},
    };
    for (const auto& [name, bytes, status, binder] : rows) {
        SCOPED_TRACE(name);
        std::unique_ptr<Parcel> forged(parcelOf(bytes));
        sp<IBinder> b = real;
        EXPECT_EQ(forged->readNullableStrongBinder(&b), status);
        EXPECT_EQ(b, binder);
        forged->setDataPosition(0);
        EXPECT_EQ(forged->readFileDescriptor(), BAD_TYPE);
    }

    // A received table must list whole objects, in order, inside the data; else it is dropped.
    const std::vector<binder_size_t> tables[] = {{0}, {0, 20}, {0, 40}, {UINT64_MAX - 8}};
    for (const auto& table : tables) {
        SCOPED_TRACE(table.back());
        int released = 0;
        Parcel received;
        received.ipcSetDataReference(data.data(), data.size(), table.data(), table.size(), release,
                                     &released);
        const bool valid = table.size() == 1 && table[0] == 0;
        EXPECT_EQ(received.objectsCount(), valid ? 1u : 0u);
        EXPECT_EQ(received.readStrongBinder(), valid ? real : nullptr);
    }

    // A listed object (here written out of order) is read only at its own position, and raw
    // reads cannot see its bytes.
    Parcel p;
    p.setDataPosition(32);
    p.writeStrongBinder(real);
    p.setDataPosition(0);
    p.writeInt32(1);
    p.writeStrongBinder(real);
    p.writeInt32(2);
    p.setDataPosition(4);
    EXPECT_EQ(p.readStrongBinder(), real) << "found in the table before anything sorts it";
    p.setDataPosition(24);
    int32_t word = 0;
    EXPECT_EQ(p.readInt32(&word), PERMISSION_DENIED) << "the last word of the object at 4";
    EXPECT_EQ(p.readInt32(), 2) << "data right up to the next object is readable";
    EXPECT_EQ(p.readStrongBinder(), real);
    p.setDataPosition(0);
    EXPECT_EQ(p.readObject(false), nullptr);
    EXPECT_EQ(p.readInplace(12), nullptr);
}

TEST(ParcelObjects, AReceivedBufferIsReleasedOnceWhenFreedOrRewrittenAndItsFdsStayUsable) {
    Pipe pipe;
    const int received = fcntl(pipe.fds[1], F_DUPFD_CLOEXEC, 0);
    Parcel sent;
    sent.writeInt32(5);
    sent.writeFileDescriptor(received);
    const Bytes data = bytesOf(sent);
    const binder_size_t offsets[] = {4};

    int freed = 0;
    Parcel p;
    p.ipcSetDataReference(data.data(), 4, nullptr, 0, release, &freed);
    EXPECT_EQ(p.readInt32(), 5);
    p.freeData();
    EXPECT_EQ(freed, 1);

    // Writing copies the data, with duplicates of its fds, then gives the buffer back.
    int rewritten = 0;
    p.ipcSetDataReference(data.data(), data.size(), offsets, 1, release, &rewritten);
    EXPECT_TRUE(p.hasFileDescriptors());
    p.setDataPosition(data.size());
    ASSERT_EQ(p.writeInt32(7), NO_ERROR);
    EXPECT_EQ(rewritten, 1);
    EXPECT_EQ(Bytes(p.data(), p.data() + 4), words({5}));
    p.setDataPosition(4);
    const int copy = p.readFileDescriptor();
    EXPECT_EQ(p.readInt32(), 7);
    EXPECT_EQ(::write(copy, "x", 1), 1) << "the copy's descriptor still reaches the pipe";
    p.freeData();
    EXPECT_FALSE(fdIsOpen(copy));
    EXPECT_EQ(freed + rewritten, 2);
}

// -----------------------------------------------------------------------------------------
// Truncated and hostile data

TEST(ParcelHostile, ReadsAndWritesBeyondTheLimitsFail) {
    // Bytes of data, and the read position.
    const std::pair<size_t, size_t> rows[] = {
            {0, 0}, {2, 0}, {3, 0}, {8, 9}, {8, INT32_MAX}, {8, SIZE_MAX - 2}, {8, SIZE_MAX}};
    for (const auto& [size, position] : rows) {
        SCOPED_TRACE(testing::Message() << size << " bytes, position " << position);
        std::unique_ptr<Parcel> p(parcelOf(Bytes(size, 0x41)));
        p->setDataPosition(position);
        int32_t i32 = 5;
        EXPECT_EQ(p->readInt32(&i32), NOT_ENOUGH_DATA);
        EXPECT_EQ(p->readInt32(), 0);
        EXPECT_EQ(p->readCString(), nullptr);
        sp<IBinder> b;
        EXPECT_EQ(p->readNullableStrongBinder(&b), BAD_TYPE);
        EXPECT_EQ(p->readInplace(1), nullptr);
        EXPECT_LE(p->dataAvail(), size);
        EXPECT_EQ(p->dataPosition(), position);
    }
    // Eight bytes without a NUL: no longer read fits, nor an int64 from the fifth byte.
    std::unique_ptr<Parcel> p(parcelOf(words({0x64636261, 0x68676665})));
    for (size_t len : {size_t(9), size_t(INT32_MAX), SIZE_MAX - 2, SIZE_MAX}) {
        EXPECT_EQ(p->readInplace(len), nullptr) << len;
    }
    EXPECT_EQ(p->readCString(), nullptr);
    p->setDataPosition(4);
    int64_t v = 0;
    EXPECT_EQ(p->readInt64(&v), NOT_ENOUGH_DATA);
    // A NUL in the very last byte, with no room for padding after it.
    std::unique_ptr<Parcel> q(parcelOf({'a', 'b', 0}));
    EXPECT_STREQ(q->readCString(), "ab");
    EXPECT_EQ(q->readInt32(), 0);

    // Writes may not grow the data past what an int32 can count.
    Parcel w;
    const uint8_t byte = 0;
    EXPECT_EQ(w.writeInplace(SIZE_MAX), nullptr);
    EXPECT_EQ(w.writeInplace(size_t(INT32_MAX) + 1), nullptr);
    EXPECT_EQ(w.write(&byte, size_t(INT32_MAX) + 1), BAD_VALUE);
    EXPECT_EQ(w.write(&byte, INT32_MAX), NO_MEMORY) << "a valid length whose padding cannot fit";
    EXPECT_EQ(w.writeUnpadded(&byte, SIZE_MAX), BAD_VALUE);
    EXPECT_EQ(w.writeByteArray(SIZE_MAX, &byte), BAD_VALUE);
    EXPECT_EQ(w.setDataCapacity(size_t(INT32_MAX) + 1), BAD_VALUE);
    EXPECT_EQ(w.setDataSize(SIZE_MAX), BAD_VALUE);
    w.setDataPosition(size_t(INT32_MAX) - 2);
    EXPECT_EQ(w.writeInt32(1), NO_MEMORY);
    EXPECT_EQ(w.dataSize(), 0u);
}

TEST(ParcelHostile, StringCountsThatDoNotFitTheData) {
    const std::pair<const char*, Bytes> rows[] = {
            {"count -1 (a null String16)", words({0xffffffff})},
            {"count INT32_MIN", words({0x80000000, 0})},
            {"count INT32_MAX - 1 (overflows when padded)", words({0x7ffffffe, 0})},
            {"count larger than the data", words({10, 0x00690068, 0})},
            {"no NUL after the String8 bytes", words({3, 0x64636261})},
            {"no NUL char16", words({2, 0x00690068, 0x00000021})},
            {"count only", words({1})},
    };
    for (const auto& [name, data] : rows) {
        SCOPED_TRACE(name);
        std::unique_ptr<Parcel> p(parcelOf(data));
        String8 s8("stale");
        EXPECT_NE(p->readString8(&s8), NO_ERROR);
        EXPECT_EQ(s8.size(), 0u);
        p->setDataPosition(0);
        size_t len = 99;
        EXPECT_EQ(p->readString16Inplace(&len), nullptr);
        EXPECT_EQ(len, 0u);
        p->setDataPosition(0);
        std::unique_ptr<String16> u(new String16("stale"));
        p->readString16(&u);
        EXPECT_EQ(u, nullptr);
    }
    // A String16 at an odd position (set by hand) has no char16 view.
    std::unique_ptr<Parcel> odd(parcelOf({0, 2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0}));
    odd->setDataPosition(1);
    size_t len = 0;
    EXPECT_EQ(odd->readString16Inplace(&len), nullptr);
}

TEST(ParcelHostile, ExceptionCodes) {
    // The code read, and the int32 read after it (-1: none).
    const std::tuple<const char*, Bytes, int32_t, int32_t> rows[] = {
            {"none", words({0, 42}), 0, 42},
            {"reply header (its size counts itself)", words({0xffffff80, 12, 7, 7, 42}), 0, 42},
            {"reply header up to the end", words({0xffffff80, 4}), 0, -1},
            {"reply header of size 0", words({0xffffff80, 0}), 0, -1},
            {"reply header larger than the data", words({0xffffff80, 100, 42}), -129, -1},
            {"reply header without size", words({0xffffff80}), -129, -1},
            {"exception with message", words({0xfffffffd, 1, 0x00000041, 0, 42}), -3, 42},
            {"service specific exception", words({0xfffffff8, 0, 0, 0, 5, 42}), -8, 42},
            {"parcelable exception (sized)", words({0xfffffff7, 0, 0, 0, 8, 7, 42}), -9, 42},
            {"exception with a null message", words({0xfffffffd, 0xffffffff, 0, 42}), -129, -1},
            {"exception with a trace beyond the data", words({0xfffffffd, 0, 0, 8, 42}), -129, -1},
            {"empty", {}, -129, -1},
    };
    for (const auto& [name, data, code, next] : rows) {
        SCOPED_TRACE(name);
        std::unique_ptr<Parcel> p(parcelOf(data));
        EXPECT_EQ(p->readExceptionCode(), code);
        if (next >= 0) {
            EXPECT_EQ(p->readInt32(), next);
        }
    }
}

}  // namespace
}  // namespace android
