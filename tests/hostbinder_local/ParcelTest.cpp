// Parcel: the exact bytes of every write form, round trips, and reads of hostile or truncated
// data (which must fail cleanly, never read out of bounds).

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace android {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Parcel& p) {
    return Bytes(p.data(), p.data() + p.dataSize());
}

void appendLe(Bytes* out, uint64_t v, size_t n) {
    for (size_t i = 0; i < n; i++) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Parcel* parcelOf(const Bytes& b) {
    auto* p = new Parcel();
    EXPECT_EQ(p->setData(b.data(), b.size()), NO_ERROR);
    return p;
}

// Little-endian words, for building hostile input by hand.
Bytes words(std::initializer_list<uint32_t> ws) {
    Bytes b;
    for (uint32_t w : ws) appendLe(&b, w, 4);
    return b;
}

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0); }
    ~Pipe() {
        for (int fd : fds) {
            if (fd >= 0) close(fd);
        }
    }
};

bool fdIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// A flat object: type word 0x85 0x2a `t0` `t1`, flags word, then two 8-byte words.
Bytes flat(uint8_t t0, uint8_t t1, uint8_t flags, uint64_t first, uint64_t second) {
    Bytes b = {0x85, 0x2a, t0, t1, flags, 0x01, 0x00, 0x00};
    appendLe(&b, first, 8);
    appendLe(&b, second, 8);
    return b;
}

// -----------------------------------------------------------------------------------------
// The bytes of every write form. A change of layout names the form that moved.

TEST(ParcelGoldenBytes, EveryWriteForm) {
    const sp<BBinder> local = new BBinder();
    const sp<IBinder> remote7 = ProcessState::self()->getStrongProxyForHandle(7);
    const sp<IBinder> remote0 = ProcessState::self()->getStrongProxyForHandle(0);
    Pipe pipe;

    Bytes tokenBytes = {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff, 0xff, 22, 0, 0, 0};
    for (char c : std::string("morvel.tovarin.service")) {
        tokenBytes.push_back(static_cast<uint8_t>(c));
        tokenBytes.push_back(0);
    }
    tokenBytes.insert(tokenBytes.end(), {0, 0, 0, 0});

    struct Case {
        const char* form;
        std::function<status_t(Parcel&)> write;
        Bytes bytes;
        size_t objects;
    };
    const int32_t ints[] = {1, 2};
    const uint8_t raw[] = {1, 2, 3};
    const std::vector<Case> cases = {
            {"int32", [](Parcel& p) { return p.writeInt32(0x01020304); }, {4, 3, 2, 1}, 0},
            {"uint32", [](Parcel& p) { return p.writeUint32(0xfffffffe); },
             {0xfe, 0xff, 0xff, 0xff}, 0},
            {"int64 after int32 (4-byte aligned)",
             [](Parcel& p) {
                 p.writeInt32(1);
                 return p.writeInt64(0x0102030405060708);
             },
             {1, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1}, 0},
            {"uint64", [](Parcel& p) { return p.writeUint64(UINT64_MAX - 1); },
             {0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 0},
            {"float", [](Parcel& p) { return p.writeFloat(1.0f); }, {0, 0, 0x80, 0x3f}, 0},
            {"double", [](Parcel& p) { return p.writeDouble(1.0); },
             {0, 0, 0, 0, 0, 0, 0xf0, 0x3f}, 0},
            {"bool", [](Parcel& p) { return p.writeBool(true); }, {1, 0, 0, 0}, 0},
            {"char", [](Parcel& p) { return p.writeChar(u'A'); }, {0x41, 0, 0, 0}, 0},
            {"byte", [](Parcel& p) { return p.writeByte(-2); }, {0xfe, 0xff, 0xff, 0xff}, 0},
            {"CString abc", [](Parcel& p) { return p.writeCString("abc"); },
             {'a', 'b', 'c', 0}, 0},
            {"CString abcd", [](Parcel& p) { return p.writeCString("abcd"); },
             {'a', 'b', 'c', 'd', 0, 0, 0, 0}, 0},
            {"CString empty", [](Parcel& p) { return p.writeCString(""); }, {0, 0, 0, 0}, 0},
            {"String16 hi", [](Parcel& p) { return p.writeString16(String16("hi")); },
             {2, 0, 0, 0, 'h', 0, 'i', 0, 0, 0, 0, 0}, 0},
            {"String16 empty", [](Parcel& p) { return p.writeString16(String16()); },
             {0, 0, 0, 0, 0, 0, 0, 0}, 0},
            {"String16 null",
             [](Parcel& p) { return p.writeString16(std::unique_ptr<String16>()); },
             {0xff, 0xff, 0xff, 0xff}, 0},
            {"String16 null pointer", [](Parcel& p) { return p.writeString16(nullptr, 3); },
             {0xff, 0xff, 0xff, 0xff}, 0},
            {"String8 abc", [](Parcel& p) { return p.writeString8(String8("abc")); },
             {3, 0, 0, 0, 'a', 'b', 'c', 0}, 0},
            {"String8 empty", [](Parcel& p) { return p.writeString8(String8()); },
             {0, 0, 0, 0}, 0},
            {"interface token (60 bytes)",
             [](Parcel& p) { return p.writeInterfaceToken(String16("morvel.tovarin.service")); },
             tokenBytes, 0},
            {"no exception", [](Parcel& p) { return p.writeNoException(); }, {0, 0, 0, 0}, 0},
            {"int32 array", [&](Parcel& p) { return p.writeInt32Array(2, ints); },
             {2, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0}, 0},
            {"int32 array null", [](Parcel& p) { return p.writeInt32Array(2, nullptr); },
             {0xff, 0xff, 0xff, 0xff}, 0},
            {"byte array", [&](Parcel& p) { return p.writeByteArray(3, raw); },
             {3, 0, 0, 0, 1, 2, 3, 0}, 0},
            {"write (padded)", [&](Parcel& p) { return p.write(raw, 3); }, {1, 2, 3, 0}, 0},
            {"writeUnpadded", [&](Parcel& p) { return p.writeUnpadded(raw, 3); }, {1, 2, 3}, 0},
            {"strong binder null", [](Parcel& p) { return p.writeStrongBinder(nullptr); },
             flat('b', 's', 0x13, 0, 0), 0},
            {"strong binder local", [&](Parcel& p) { return p.writeStrongBinder(local); },
             flat('b', 's', 0x13, reinterpret_cast<uintptr_t>(local->getWeakRefs()),
                  reinterpret_cast<uintptr_t>(local.get())),
             1},
            {"strong binder remote (handle 7)",
             [&](Parcel& p) { return p.writeStrongBinder(remote7); }, flat('h', 's', 0x13, 7, 0),
             1},
            {"strong binder remote (handle 0, not listed)",
             [&](Parcel& p) { return p.writeStrongBinder(remote0); }, flat('h', 's', 0x13, 0, 0),
             0},
            {"file descriptor", [&](Parcel& p) { return p.writeFileDescriptor(pipe.fds[0]); },
             flat('d', 'f', 0x7f, static_cast<uint32_t>(pipe.fds[0]), 0), 1},
    };

    for (const Case& c : cases) {
        SCOPED_TRACE(c.form);
        Parcel p;
        ASSERT_EQ(c.write(p), NO_ERROR);
        EXPECT_EQ(bytesOf(p), c.bytes);
        EXPECT_EQ(p.dataPosition(), c.bytes.size());
        EXPECT_EQ(p.objectsCount(), c.objects);
    }
}

// -----------------------------------------------------------------------------------------
// Round trips

TEST(ParcelRoundTrip, EveryFormReadsBackInOrder) {
    const sp<BBinder> local = new BBinder();
    Pipe pipe;
    Parcel p;
    p.writeInt32(-7);
    p.writeUint32(0xdeadbeef);
    p.writeInt64(INT64_MIN);
    p.writeUint64(UINT64_MAX);
    p.writeFloat(-2.5f);
    p.writeDouble(3.25);
    p.writeBool(true);
    p.writeChar(u'\u20ac');
    p.writeByte(-128);
    p.writeCString("hello");
    p.writeString8(String8("eight"));
    p.writeString8(String8());
    p.writeString16(String16("sixteen"));
    p.writeString16(String16("again"));
    p.writeString16(std::unique_ptr<String16>());
    p.writeStrongBinder(local);
    p.writeStrongBinder(nullptr);
    p.writeFileDescriptor(pipe.fds[1]);
    p.writeInterfaceToken(String16("a.b.IThing"));
    p.writeNoException();
    ASSERT_EQ(p.errorCheck(), NO_ERROR);

    p.setDataPosition(0);
    EXPECT_EQ(p.readInt32(), -7);
    EXPECT_EQ(p.readUint32(), 0xdeadbeefu);
    EXPECT_EQ(p.readInt64(), INT64_MIN);
    EXPECT_EQ(p.readUint64(), UINT64_MAX);
    EXPECT_EQ(p.readFloat(), -2.5f);
    EXPECT_EQ(p.readDouble(), 3.25);
    EXPECT_TRUE(p.readBool());
    EXPECT_EQ(p.readChar(), u'\u20ac');
    EXPECT_EQ(p.readByte(), -128);
    EXPECT_STREQ(p.readCString(), "hello");
    EXPECT_EQ(p.readString8(), String8("eight"));
    String8 empty8("x");
    EXPECT_EQ(p.readString8(&empty8), NO_ERROR);
    EXPECT_EQ(empty8.size(), 0u);
    EXPECT_EQ(p.readString16(), String16("sixteen"));
    size_t len = 0;
    const char16_t* inplace = p.readString16Inplace(&len);
    ASSERT_NE(inplace, nullptr);
    EXPECT_EQ(String16(inplace, len), String16("again"));
    std::unique_ptr<String16> nullable(new String16("stale"));
    EXPECT_EQ(p.readString16(&nullable), NO_ERROR);
    EXPECT_EQ(nullable, nullptr);
    EXPECT_EQ(p.readStrongBinder(), local);
    sp<IBinder> null;
    EXPECT_EQ(p.readNullableStrongBinder(&null), NO_ERROR);
    EXPECT_EQ(null, nullptr);
    EXPECT_EQ(p.readFileDescriptor(), pipe.fds[1]);
    EXPECT_TRUE(p.enforceInterface(String16("a.b.IThing")));
    EXPECT_EQ(p.readExceptionCode(), 0);
    EXPECT_EQ(p.dataAvail(), 0u);
}

TEST(ParcelRoundTrip, InterfaceTokenIgnoresPolicyWordsAndComparesTheDescriptor) {
    const sp<BBinder> noInterface = new BBinder();
    struct Case {
        const char* name;
        uint32_t policy;
        uint32_t workSource;
        const char* written;
        const char* expected;
        bool accepted;
    } cases[] = {
            {"same", 0x80000000, 0xffffffff, "x.IFoo", "x.IFoo", true},
            {"other policy words", 0x1234, 42, "x.IFoo", "x.IFoo", true},
            {"other descriptor", 0x80000000, 0xffffffff, "x.IFoo", "x.IBar", false},
            {"prefix", 0x80000000, 0xffffffff, "x.IFoo", "x.IFo", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel p;
        p.writeUint32(c.policy);
        p.writeUint32(c.workSource);
        p.writeString16(String16(c.written));
        p.setDataPosition(0);
        EXPECT_EQ(p.enforceInterface(String16(c.expected)), c.accepted);
    }
    // checkInterface compares with the binder's own descriptor (empty for a plain BBinder).
    Parcel p;
    p.writeInterfaceToken(String16("x.IFoo"));
    p.setDataPosition(0);
    EXPECT_FALSE(p.checkInterface(noInterface.get()));

    // The calling thread's policy and propagated work source travel in the token, and the
    // receiving thread takes the policy on.
    IPCThreadState* self = IPCThreadState::self();
    self->setStrictModePolicy(0x10);
    const int64_t token = self->setCallingWorkSourceUid(1234);
    Parcel t;
    t.writeInterfaceToken(String16("x.IFoo"));
    self->restoreCallingWorkSource(token);
    self->clearPropagateWorkSource();
    self->setStrictModePolicy(0);
    t.setDataPosition(0);
    EXPECT_EQ(t.readUint32(), 0x80000010u);
    EXPECT_EQ(t.readInt32(), 1234);
    t.setDataPosition(0);
    EXPECT_TRUE(t.enforceInterface(String16("x.IFoo")));
    EXPECT_EQ(self->getStrictModePolicy(), static_cast<int32_t>(0x80000010u));
    self->setStrictModePolicy(0);
}

TEST(ParcelRoundTrip, BinderIsTheSameObjectAndHeldUntilFreed) {
    for (bool local : {true, false}) {
        SCOPED_TRACE(local ? "local binder" : "proxy");
        Parcel p;
        wp<IBinder> weak;
        {
            sp<IBinder> b = local ? sp<IBinder>(new BBinder())
                                  : ProcessState::self()->getStrongProxyForHandle(31);
            ASSERT_EQ(b->remoteBinder() == nullptr, local);
            weak = b;
            ASSERT_EQ(p.writeStrongBinder(b), NO_ERROR);
            p.setDataPosition(0);
            EXPECT_EQ(p.readStrongBinder(), b);
        }
        EXPECT_NE(weak.promote(), nullptr) << "the parcel must hold a strong reference";
        p.freeData();
        EXPECT_EQ(weak.promote(), nullptr);
    }
}

TEST(ParcelRoundTrip, AppendFromCarriesBindersAndDuplicatesFds) {
    wp<IBinder> weak;
    Pipe pipe;
    Parcel dst;
    dst.writeInt32(99);
    {
        Parcel src;
        sp<IBinder> b = new BBinder();
        weak = b;
        src.writeInt32(1);
        src.writeStrongBinder(b);
        src.writeFileDescriptor(pipe.fds[0]);
        src.writeInt32(2);
        // Everything after the first word: the binder, the fd and the last int32.
        ASSERT_EQ(dst.appendFrom(&src, 4, src.dataSize() - 4), NO_ERROR);
        EXPECT_EQ(dst.objectsCount(), 2u);
        EXPECT_TRUE(dst.hasFileDescriptors());
    }
    EXPECT_NE(weak.promote(), nullptr) << "the appended binder must be held by the destination";

    dst.setDataPosition(0);
    EXPECT_EQ(dst.readInt32(), 99);
    sp<IBinder> b = dst.readStrongBinder();
    EXPECT_NE(b, nullptr);
    const int copiedFd = dst.readFileDescriptor();
    EXPECT_GE(copiedFd, 0);
    EXPECT_NE(copiedFd, pipe.fds[0]) << "the destination owns a duplicate";
    EXPECT_EQ(dst.readInt32(), 2);
    b.clear();
    dst.freeData();
    EXPECT_EQ(weak.promote(), nullptr);
    EXPECT_FALSE(fdIsOpen(copiedFd));
    EXPECT_TRUE(fdIsOpen(pipe.fds[0]));
}

TEST(ParcelRoundTrip, AppendFromRejectsBadRanges) {
    Parcel src;
    src.writeInt32(1);
    Parcel dst;
    EXPECT_EQ(dst.appendFrom(&src, 0, 8), BAD_VALUE);
    EXPECT_EQ(dst.appendFrom(&src, 8, 1), BAD_VALUE);
    EXPECT_EQ(dst.appendFrom(&src, SIZE_MAX, 4), BAD_VALUE);
    EXPECT_EQ(dst.appendFrom(&src, 2, SIZE_MAX - 1), BAD_VALUE);
    EXPECT_EQ(dst.appendFrom(&dst, 0, 0), BAD_VALUE);
    EXPECT_EQ(dst.dataSize(), 0u);
}

TEST(ParcelRoundTrip, OwnedFdsCloseOnFreeBorrowedOnesDoNot) {
    Pipe pipe;
    Parcel p;
    ASSERT_EQ(p.writeDupFileDescriptor(pipe.fds[0]), NO_ERROR);
    ASSERT_EQ(p.writeFileDescriptor(pipe.fds[1], false), NO_ERROR);
    p.setDataPosition(0);
    const int dup = p.readFileDescriptor();
    ASSERT_TRUE(fdIsOpen(dup));
    p.freeData();
    EXPECT_FALSE(fdIsOpen(dup));
    EXPECT_TRUE(fdIsOpen(pipe.fds[1]));

    Parcel noFds;
    noFds.pushAllowFds(false);
    EXPECT_EQ(noFds.writeFileDescriptor(pipe.fds[1]), FDS_NOT_ALLOWED);
    EXPECT_EQ(noFds.objectsCount(), 0u);
}

TEST(ParcelRoundTrip, PaddingIsZeroedWhenWritingOverOldBytes) {
    Parcel p;
    p.writeInt32(-1);
    p.writeInt32(-1);
    p.writeInt32(-1);
    p.setDataPosition(0);
    p.writeCString("a");
    p.writeString16(String16("b"));
    EXPECT_EQ(bytesOf(p), Bytes({'a', 0, 0, 0, 1, 0, 0, 0, 'b', 0, 0, 0}));
}

TEST(ParcelRoundTrip, SizeAndPositionSetters) {
    Parcel p;
    p.writeInt32(1);
    p.writeInt32(2);
    EXPECT_EQ(p.setDataSize(4), NO_ERROR);
    EXPECT_EQ(p.dataSize(), 4u);
    EXPECT_EQ(p.dataPosition(), 4u);
    EXPECT_EQ(p.setDataSize(12), NO_ERROR);
    EXPECT_EQ(bytesOf(p), Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}))
            << "bytes uncovered by growing the size read as zero";
    EXPECT_EQ(p.setDataCapacity(100), NO_ERROR);
    EXPECT_GE(p.dataCapacity(), 100u);

    // A write past the end leaves zeroed bytes in between, also in a parcel with no buffer yet.
    Parcel fresh;
    fresh.setDataPosition(4);
    fresh.writeInt32(3);
    EXPECT_EQ(bytesOf(fresh), Bytes({0, 0, 0, 0, 3, 0, 0, 0}));

    p.setDataPosition(20);
    p.writeInt32(7);
    EXPECT_EQ(p.dataSize(), 24u);
    p.setDataPosition(12);
    EXPECT_EQ(p.readInt64(), 0);
    EXPECT_EQ(p.readInt32(), 7);

    Parcel q;
    q.writeInt32(1);
    EXPECT_NE(p.compareData(q), 0);
    Parcel r;
    r.setData(p.data(), p.dataSize());
    EXPECT_EQ(p.compareData(r), 0);

    // setData may be handed the parcel's own bytes.
    r.setData(r.data() + 20, 4);
    EXPECT_EQ(r.readInt32(), 7);
}

// -----------------------------------------------------------------------------------------
// Truncated and hostile data

TEST(ParcelHostile, ReadsPastTheEndGiveZeroAndAnError) {
    for (size_t size : {0, 2, 3}) {
        SCOPED_TRACE(size);
        const Bytes data(size, 0x41);
        std::unique_ptr<Parcel> p(parcelOf(data));
        int32_t i32 = 5;
        EXPECT_EQ(p->readInt32(&i32), NOT_ENOUGH_DATA);
        EXPECT_EQ(p->readInt32(), 0);
        int64_t i64 = 5;
        EXPECT_EQ(p->readInt64(&i64), NOT_ENOUGH_DATA);
        EXPECT_EQ(p->readUint64(), 0u);
        EXPECT_EQ(p->readDouble(), 0.0);
        EXPECT_EQ(p->readFloat(), 0.0f);
        EXPECT_EQ(p->readString16(), String16());
        String8 s8("x");
        EXPECT_NE(p->readString8(&s8), NO_ERROR);
        EXPECT_EQ(s8.size(), 0u);
        String16 s16("x");
        EXPECT_NE(p->readString16(&s16), NO_ERROR);
        EXPECT_EQ(s16.size(), 0u);
        sp<IBinder> b;
        EXPECT_EQ(p->readNullableStrongBinder(&b), BAD_TYPE);
        EXPECT_EQ(p->readFileDescriptor(), BAD_TYPE);
        EXPECT_EQ(p->readInplace(4), nullptr);
        EXPECT_NE(p->readExceptionCode(), 0);
        EXPECT_EQ(p->dataPosition(), 0u) << "failed fixed-size reads do not move";
    }
    // An int64 needs 8 bytes.
    std::unique_ptr<Parcel> p(parcelOf(words({1})));
    int64_t v = 0;
    EXPECT_EQ(p->readInt64(&v), NOT_ENOUGH_DATA);
    EXPECT_EQ(p->readInt32(), 1);
}

TEST(ParcelHostile, PositionsBeyondTheDataAreHarmless) {
    std::unique_ptr<Parcel> p(parcelOf(words({1, 2})));
    for (size_t pos : {size_t(9), size_t(INT32_MAX), SIZE_MAX - 2, SIZE_MAX}) {
        SCOPED_TRACE(pos);
        p->setDataPosition(pos);
        EXPECT_EQ(p->dataAvail(), 0u);
        EXPECT_EQ(p->readInt32(), 0);
        EXPECT_EQ(p->readCString(), nullptr);
        EXPECT_EQ(p->readInplace(1), nullptr);
        EXPECT_EQ(p->readObject(false), nullptr);
    }
    // Writing so far out would grow the data past what an int32 can count.
    p->setDataPosition(size_t(INT32_MAX) - 2);
    EXPECT_EQ(p->writeInt32(1), NO_MEMORY);
    EXPECT_EQ(p->dataSize(), 8u);
}

TEST(ParcelHostile, OversizedWritesAreRefused) {
    Parcel p;
    const uint8_t byte = 0;
    EXPECT_EQ(p.writeInplace(SIZE_MAX), nullptr);
    EXPECT_EQ(p.writeInplace(size_t(INT32_MAX) + 1), nullptr);
    EXPECT_EQ(p.write(&byte, size_t(INT32_MAX) + 1), BAD_VALUE);
    EXPECT_EQ(p.writeUnpadded(&byte, SIZE_MAX), BAD_VALUE);
    EXPECT_EQ(p.writeByteArray(SIZE_MAX, &byte), BAD_VALUE);
    EXPECT_EQ(p.setDataCapacity(size_t(INT32_MAX) + 1), BAD_VALUE);
    EXPECT_EQ(p.setDataSize(SIZE_MAX), BAD_VALUE);
    EXPECT_EQ(p.dataSize(), 0u);
}

TEST(ParcelHostile, String8Lengths) {
    struct Case {
        const char* name;
        Bytes data;
    } cases[] = {
            {"count -1", words({0xffffffff})},
            {"count -2 with data", words({0xfffffffe, 0, 0})},
            {"count INT32_MAX", words({0x7fffffff, 0})},
            {"count INT32_MAX - 1 (overflows when padded)", words({0x7ffffffe, 0})},
            {"count larger than the data", words({8, 0x64636261})},
            {"no NUL after the bytes", words({3, 0x64636261})},
            {"count only", words({5})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<Parcel> p(parcelOf(c.data));
        String8 s("stale");
        EXPECT_NE(p->readString8(&s), NO_ERROR);
        EXPECT_EQ(s.size(), 0u);
        p->setDataPosition(0);
        EXPECT_EQ(p->readString8().size(), 0u);
    }
}

TEST(ParcelHostile, String16Lengths) {
    struct Case {
        const char* name;
        Bytes data;
    } cases[] = {
            {"count -1 (null)", words({0xffffffff})},
            {"count -2", words({0xfffffffe, 0, 0})},
            {"count INT32_MIN", words({0x80000000, 0})},
            {"count INT32_MAX", words({0x7fffffff, 0})},
            {"count INT32_MAX - 1 (bytes overflow an int32)", words({0x7ffffffe, 0})},
            {"count 2^30 (bytes overflow an int32)", words({0x40000000, 0})},
            {"count larger than the data", words({10, 0x00690068, 0})},
            {"no NUL char16", words({2, 0x00690068, 0x00000021})},
            {"count only", words({1})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<Parcel> p(parcelOf(c.data));
        size_t len = 99;
        EXPECT_EQ(p->readString16Inplace(&len), nullptr);
        EXPECT_EQ(len, 0u);
        p->setDataPosition(0);
        String16 s("stale");
        EXPECT_NE(p->readString16(&s), NO_ERROR);
        EXPECT_EQ(s.size(), 0u);
        p->setDataPosition(0);
        EXPECT_EQ(p->readString16().size(), 0u);
        p->setDataPosition(0);
        std::unique_ptr<String16> u(new String16("stale"));
        p->readString16(&u);
        EXPECT_EQ(u, nullptr);
    }
}

TEST(ParcelHostile, InplaceAndCStringLengths) {
    std::unique_ptr<Parcel> p(parcelOf(words({0x64636261, 0x68676665})));
    for (size_t len : {size_t(9), size_t(INT32_MAX), size_t(INT32_MAX) + 1, SIZE_MAX - 2,
                       SIZE_MAX}) {
        SCOPED_TRACE(len);
        p->setDataPosition(0);
        EXPECT_EQ(p->readInplace(len), nullptr);
        char buf[16];
        EXPECT_NE(p->read(buf, len), NO_ERROR);
    }
    p->setDataPosition(0);
    EXPECT_EQ(p->readCString(), nullptr) << "no NUL before the end";
    EXPECT_EQ(p->dataPosition(), 0u);

    // A String16 at an odd position (set by hand) has no char16 view.
    Parcel odd;
    odd.writeInt32(0);
    odd.writeString16(String16("hi"));
    odd.setDataPosition(1);
    size_t len = 0;
    EXPECT_EQ(odd.readString16Inplace(&len), nullptr);

    // A NUL in the very last byte, with no room for padding after it.
    const Bytes tail = {'a', 'b', 0};
    std::unique_ptr<Parcel> q(parcelOf(tail));
    EXPECT_STREQ(q->readCString(), "ab");
    EXPECT_EQ(q->readInt32(), 0);
}

TEST(ParcelHostile, ExceptionCodes) {
    struct Case {
        const char* name;
        Bytes data;
        int32_t code;
        int32_t next;  // the int32 read after the exception, -1 when none
    } cases[] = {
            {"none", words({0, 42}), 0, 42},
            {"reply header (its size counts itself)", words({0xffffff80, 12, 7, 7, 42}), 0, 42},
            {"reply header of size 4", words({0xffffff80, 4, 42}), 0, 42},
            {"reply header larger than the data", words({0xffffff80, 100, 42}), -129, -1},
            {"negative reply header", words({0xffffff80, 0xfffffff0, 42}), -129, -1},
            {"reply header without size", words({0xffffff80}), -129, -1},
            {"exception with message", words({0xfffffffd, 1, 0x00000041, 0, 42}), -3, 42},
            {"service specific exception", words({0xfffffff8, 0, 0, 0, 5, 42}), -8, 42},
            {"exception with a null message", words({0xfffffffd, 0xffffffff, 0, 42}), -129, -1},
            {"exception with hostile trace size", words({0xfffffffd, 0xffffffff, 0x7fffffff}),
             -129, -1},
            {"empty", {}, -129, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<Parcel> p(parcelOf(c.data));
        EXPECT_EQ(p->readExceptionCode(), c.code);
        if (c.next >= 0) {
            EXPECT_EQ(p->readInt32(), c.next);
        }
    }
}

TEST(ParcelHostile, ObjectsAreReadOnlyWhereTheTableRecordsThem) {
    // A flat binder object and a flat fd forged in plain data: neither is in the table.
    const sp<BBinder> real = new BBinder();
    Parcel genuine;
    genuine.writeStrongBinder(real);
    Pipe pipe;
    Parcel genuineFd;
    genuineFd.writeFileDescriptor(pipe.fds[0]);

    for (const Parcel* source : {&genuine, &genuineFd}) {
        std::unique_ptr<Parcel> forged(parcelOf(bytesOf(*source)));
        EXPECT_EQ(forged->objectsCount(), 0u);
        sp<IBinder> b;
        EXPECT_EQ(forged->readNullableStrongBinder(&b), BAD_TYPE);
        EXPECT_EQ(b, nullptr);
        forged->setDataPosition(0);
        EXPECT_EQ(forged->readStrongBinder(), nullptr);
        forged->setDataPosition(0);
        EXPECT_EQ(forged->readFileDescriptor(), BAD_TYPE);
    }

    // Objects whose binder/handle word is zero are plain data and read back where they
    // stand: a null binder, and handle 0 (the service manager); no other handle.
    const struct {
        const char* name;
        Bytes bytes;
        status_t status;
        sp<IBinder> binder;
    } unlisted[] = {
            {"null binder", flat('b', 's', 0x13, 0, 0), NO_ERROR, nullptr},
            {"handle 0", flat('h', 's', 0x13, 0, 0), NO_ERROR,
             ProcessState::self()->getStrongProxyForHandle(0)},
            {"handle 7", flat('h', 's', 0x13, 7, 0), BAD_TYPE, nullptr},
    };
    for (const auto& c : unlisted) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<Parcel> forged(parcelOf(c.bytes));
        sp<IBinder> b;
        EXPECT_EQ(forged->readNullableStrongBinder(&b), c.status);
        EXPECT_EQ(b, c.binder);
    }

    // A recorded object is read only at its own position, and raw reads cannot see its bytes.
    Parcel p;
    p.writeInt32(1);
    p.writeStrongBinder(real);
    p.writeInt32(2);
    p.setDataPosition(0);
    EXPECT_EQ(p.readObject(false), nullptr);
    p.setDataPosition(0);
    EXPECT_EQ(p.readInt32(), 1);
    int64_t leaked = 0;
    EXPECT_EQ(p.readInt64(&leaked), PERMISSION_DENIED);
    EXPECT_EQ(leaked, 0);
    p.setDataPosition(0);
    EXPECT_EQ(p.readInplace(12), nullptr);
    p.setDataPosition(28);
    EXPECT_EQ(p.readInt32(), 2) << "data after the object stays readable";
}

// -----------------------------------------------------------------------------------------
// Adoption of a buffer received by the IPC layer

struct Released {
    int calls = 0;
    const uint8_t* data = nullptr;
    const binder_size_t* objects = nullptr;
};

void recordRelease(Parcel*, const uint8_t* data, size_t, const binder_size_t* objects, size_t,
                   void* cookie) {
    auto* r = static_cast<Released*>(cookie);
    r->calls++;
    r->data = data;
    r->objects = objects;
}

TEST(ParcelAdoption, ReleaseFunctionRunsOnceWhenFreedOrRewritten) {
    const Bytes data = words({5, 6});
    {
        Released released;
        Parcel p;
        p.ipcSetDataReference(data.data(), data.size(), nullptr, 0, recordRelease, &released);
        EXPECT_EQ(p.readInt32(), 5);
        EXPECT_EQ(p.data(), data.data()) << "read in place";
        p.freeData();
        EXPECT_EQ(released.calls, 1);
        EXPECT_EQ(released.data, data.data());
    }
    {
        // Writing copies the data first, then gives the buffer back.
        Released released;
        Parcel p;
        p.ipcSetDataReference(data.data(), data.size(), nullptr, 0, recordRelease, &released);
        p.setDataPosition(8);
        ASSERT_EQ(p.writeInt32(7), NO_ERROR);
        EXPECT_EQ(released.calls, 1);
        EXPECT_EQ(bytesOf(p), words({5, 6, 7}));
    }
}

void closeFdsAndRecord(Parcel* parcel, const uint8_t* data, size_t size,
                       const binder_size_t* objects, size_t count, void* cookie) {
    parcel->closeFileDescriptors();
    recordRelease(parcel, data, size, objects, count, cookie);
}

TEST(ParcelAdoption, WritingToAReceivedParcelKeepsItsFdsUsable) {
    // As received: the IPC layer's release function closes the descriptors it delivered.
    Pipe pipe;
    const int received = fcntl(pipe.fds[1], F_DUPFD_CLOEXEC, 0);
    Parcel sent;
    sent.writeInt32(1);
    sent.writeFileDescriptor(received);
    const Bytes data = bytesOf(sent);
    const std::vector<binder_size_t> offsets = {4};

    Released released;
    Parcel p;
    p.ipcSetDataReference(data.data(), data.size(), offsets.data(), offsets.size(),
                          closeFdsAndRecord, &released);
    p.setDataPosition(data.size());
    ASSERT_EQ(p.writeInt32(2), NO_ERROR);
    EXPECT_EQ(released.calls, 1);
    EXPECT_FALSE(fdIsOpen(received));

    p.setDataPosition(4);
    const int copy = p.readFileDescriptor();
    ASSERT_GE(copy, 0);
    EXPECT_EQ(::write(copy, "x", 1), 1) << "the copy's descriptor still reaches the pipe";
    p.freeData();
    EXPECT_FALSE(fdIsOpen(copy));
}

TEST(ParcelAdoption, InvalidObjectTablesAreDropped) {
    const sp<BBinder> b = new BBinder();
    Parcel written;
    written.writeStrongBinder(b);
    written.writeStrongBinder(b);
    const Bytes data = bytesOf(written);

    struct Case {
        const char* name;
        std::vector<binder_size_t> offsets;
        size_t kept;
    } cases[] = {
            {"valid", {0, 24}, 2},
            {"overlapping", {0, 20}, 0},
            {"out of order", {24, 0}, 0},
            {"past the end", {0, 40}, 0},
            {"huge offset", {UINT64_MAX - 8}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Released released;
        Parcel p;
        p.ipcSetDataReference(data.data(), data.size(), c.offsets.data(), c.offsets.size(),
                              recordRelease, &released);
        EXPECT_EQ(p.objectsCount(), c.kept);
        EXPECT_EQ(p.readStrongBinder(), c.kept > 0 ? b : nullptr);
    }
}

}  // namespace
}  // namespace android
