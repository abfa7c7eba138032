// Binder objects inside one process: BBinder's default codes, attached objects, BpRefBase
// lifetimes and interface casting through IMPLEMENT_META_INTERFACE.

#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace android {

// A small interface with a local object and a proxy, declared the platform's way.
class ICounter : public IInterface {
public:
    DECLARE_META_INTERFACE(Counter)
    enum { ADD = IBinder::FIRST_CALL_TRANSACTION };
    virtual int32_t add(int32_t n) = 0;
};

class BpCounter : public BpInterface<ICounter> {
public:
    explicit BpCounter(const sp<IBinder>& remote) : BpInterface<ICounter>(remote) {}
    int32_t add(int32_t n) override {
        Parcel data, reply;
        data.writeInterfaceToken(ICounter::getInterfaceDescriptor());
        data.writeInt32(n);
        if (remote()->transact(ADD, data, &reply) != NO_ERROR) return -1;
        return reply.readInt32();
    }
};

IMPLEMENT_META_INTERFACE(Counter, "morvel.tovarin.test.ICounter")

namespace {

class Counter : public BnInterface<ICounter> {
public:
    int32_t add(int32_t n) override { return mTotal += n; }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        if (code != ADD) return BBinder::onTransact(code, data, reply, flags);
        CHECK_INTERFACE(ICounter, data, reply);
        return reply->writeInt32(add(data.readInt32()));
    }

private:
    int32_t mTotal = 0;
};

// A binder that is not an ICounter: asInterface wraps it in a proxy.
class CounterByTransaction : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        if (code != ICounter::ADD) return BBinder::onTransact(code, data, reply, flags);
        if (!data.enforceInterface(ICounter::descriptor)) return PERMISSION_DENIED;
        return reply->writeInt32(data.readInt32() * 10);
    }
};

// Writes its arguments to the dump fd, one per line.
class Dumper : public BBinder {
public:
    status_t dump(int fd, const Vector<String16>& args) override {
        mFd = fd;
        mArgs.clear();
        for (size_t i = 0; i < args.size(); i++) {
            mArgs.push_back(String8(args[i]).string());
            std::string line = mArgs.back() + "\n";
            if (::write(fd, line.data(), line.size()) < 0) return -errno;
        }
        return NO_ERROR;
    }
    int mFd = -1;
    std::vector<std::string> mArgs;
};

std::string drain(int fd) {
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

// -----------------------------------------------------------------------------------------
// BBinder's answers to the platform's own codes

TEST(BBinderDefaults, PlatformCodes) {
    const sp<IBinder> counter = new Counter();
    struct Case {
        const char* name;
        uint32_t code;
        status_t status;
        // What the reply holds, checked by reading it from position 0.
        std::function<void(const Parcel&)> checkReply;
    } cases[] = {
            {"interface", IBinder::INTERFACE_TRANSACTION, NO_ERROR,
             [](const Parcel& r) {
                 EXPECT_EQ(r.readString16(), String16("morvel.tovarin.test.ICounter"));
             }},
            {"ping", IBinder::PING_TRANSACTION, NO_ERROR,
             [](const Parcel& r) {
                 int32_t v = -1;
                 EXPECT_EQ(r.readInt32(&v), NO_ERROR);
                 EXPECT_EQ(v, NO_ERROR);
             }},
            {"sysprops", IBinder::SYSPROPS_TRANSACTION, NO_ERROR,
             [](const Parcel& r) { EXPECT_EQ(r.dataSize(), 0u); }},
            {"unknown user code", IBinder::LAST_CALL_TRANSACTION, UNKNOWN_TRANSACTION,
             [](const Parcel& r) { EXPECT_EQ(r.dataSize(), 0u); }},
            {"unknown platform-like code", B_PACK_CHARS('_', 'X', 'Y', 'Z'), UNKNOWN_TRANSACTION,
             [](const Parcel& r) { EXPECT_EQ(r.dataSize(), 0u); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel data, reply;
        EXPECT_EQ(counter->transact(c.code, data, &reply), c.status);
        EXPECT_EQ(reply.dataPosition(), 0u) << "the reply is rewound";
        c.checkReply(reply);
    }
    // A one-way ping has no reply to write to.
    Parcel data;
    EXPECT_EQ(counter->transact(IBinder::PING_TRANSACTION, data, nullptr, IBinder::FLAG_ONEWAY),
              NO_ERROR);
}

TEST(BBinderDefaults, TransactReadsTheDataFromTheStart) {
    const sp<IBinder> counter = new Counter();
    Parcel data, reply;
    data.writeInterfaceToken(ICounter::descriptor);
    data.writeInt32(5);
    ASSERT_NE(data.dataPosition(), 0u);
    EXPECT_EQ(counter->transact(ICounter::ADD, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 5);

    Parcel wrongToken, reply2;
    wrongToken.writeInterfaceToken(String16("morvel.tovarin.test.IOther"));
    wrongToken.writeInt32(5);
    EXPECT_EQ(counter->transact(ICounter::ADD, wrongToken, &reply2), PERMISSION_DENIED);
}

TEST(BBinderDefaults, DumpGetsTheFdAndArguments) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    const sp<Dumper> dumper = new Dumper();
    // Argument counts, hostile ones included, are bounded by the data that is there.
    struct Case {
        const char* name;
        int32_t argc;
        int strings;
        size_t expectedArgs;
    } cases[] = {
            {"two arguments", 2, 2, 2},
            {"argc INT32_MAX with two strings", INT32_MAX, 2, 2},
            {"negative argc", -5, 2, 0},
            {"argc 0", 0, 2, 0},
            {"fewer strings than argc", 3, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel d, r;
        d.writeFileDescriptor(fds[1]);
        d.writeInt32(c.argc);
        std::string expected;
        for (int i = 0; i < c.strings; i++) {
            const std::string arg = "--arg" + std::to_string(i);
            d.writeString16(String16(arg.c_str()));
            if (static_cast<size_t>(i) < c.expectedArgs) expected += arg + "\n";
        }
        EXPECT_EQ(dumper->transact(IBinder::DUMP_TRANSACTION, d, &r), NO_ERROR);
        EXPECT_EQ(dumper->mFd, fds[1]);
        EXPECT_EQ(dumper->mArgs.size(), c.expectedArgs);
        EXPECT_EQ(drain(fds[0]), expected);
    }

    // Strings with hostile counts end the arguments instead of reading beyond the data.
    Parcel d, r;
    d.writeFileDescriptor(fds[1]);
    d.writeInt32(INT32_MAX);
    d.writeInt32(INT32_MAX);  // a String16 count
    d.writeInt32(-7);         // and another
    EXPECT_EQ(dumper->transact(IBinder::DUMP_TRANSACTION, d, &r), NO_ERROR);
    EXPECT_LE(dumper->mArgs.size(), 2u);

    // A tail too short for a count: reading it fails without moving, which must end the loop
    // rather than add empty arguments argc times.
    Parcel t, tr;
    t.writeFileDescriptor(fds[1]);
    t.writeInt32(INT32_MAX);
    t.writeString16(String16("only"));
    const uint8_t tail[2] = {1, 2};
    t.writeUnpadded(tail, sizeof(tail));
    EXPECT_EQ(dumper->transact(IBinder::DUMP_TRANSACTION, t, &tr), NO_ERROR);
    EXPECT_EQ(dumper->mArgs, std::vector<std::string>({"only"}));
    close(fds[0]);
    close(fds[1]);
}

TEST(BBinderDefaults, ShellCommandIsConsumedAndAnswered) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const sp<IBinder> counter = new Counter();
    // The request as IBinder::shellCommand sends it: in, out, err, args, callback, receiver.
    Parcel data, reply;
    data.writeFileDescriptor(fds[0]);
    data.writeFileDescriptor(fds[1]);
    data.writeFileDescriptor(fds[1]);
    data.writeInt32(1);
    data.writeString16(String16("help"));
    data.writeStrongBinder(nullptr);
    data.writeStrongBinder(nullptr);
    EXPECT_EQ(counter->transact(IBinder::SHELL_COMMAND_TRANSACTION, data, &reply), NO_ERROR);
    EXPECT_EQ(data.dataAvail(), 0u) << "the whole request is consumed";
    close(fds[0]);
    close(fds[1]);
}

TEST(BBinderDefaults, LocalObjectsCannotDie) {
    const sp<BBinder> b = new BBinder();
    EXPECT_EQ(b->linkToDeath(nullptr), INVALID_OPERATION);
    EXPECT_EQ(b->unlinkToDeath(nullptr), INVALID_OPERATION);
    EXPECT_TRUE(b->isBinderAlive());
    EXPECT_EQ(b->pingBinder(), NO_ERROR);
    EXPECT_EQ(b->localBinder(), b.get());
    EXPECT_EQ(b->remoteBinder(), nullptr);
    EXPECT_EQ(b->queryLocalInterface(ICounter::descriptor), nullptr);
    EXPECT_FALSE(b->checkSubclass(nullptr));
    EXPECT_EQ(b->getInterfaceDescriptor().size(), 0u);
}

TEST(BBinderDefaults, AttachedObjectsAreCleanedUpWithTheBinderUnlessDetached) {
    static int cleaned;
    cleaned = 0;
    auto cleanup = [](const void*, void* obj, void* cookie) {
        EXPECT_EQ(obj, cookie);
        cleaned++;
    };
    int keyA = 0, keyB = 0, objA = 0, objB = 0, other = 0;
    {
        sp<BBinder> b = new BBinder();
        b->attachObject(&keyA, &objA, &objA, cleanup);
        b->attachObject(&keyB, &objB, &objB, cleanup);
        b->attachObject(&keyA, &other, &other, cleanup);  // already attached: ignored
        EXPECT_EQ(b->findObject(&keyA), &objA);
        EXPECT_EQ(b->findObject(&keyB), &objB);
        EXPECT_EQ(b->findObject(&other), nullptr);
        b->detachObject(&keyB);
        EXPECT_EQ(b->findObject(&keyB), nullptr);
        EXPECT_EQ(cleaned, 0);
    }
    EXPECT_EQ(cleaned, 1) << "only the object still attached is cleaned up";
}

// -----------------------------------------------------------------------------------------
// Interfaces

TEST(Interfaces, AsInterfaceOnALocalBinderReturnsTheLocalObject) {
    const sp<Counter> local = new Counter();
    const sp<IBinder> binder = IInterface::asBinder(local.get());
    EXPECT_EQ(binder.get(), static_cast<IBinder*>(local.get()));

    const sp<ICounter> iface = interface_cast<ICounter>(binder);
    EXPECT_EQ(iface.get(), static_cast<ICounter*>(local.get()));
    EXPECT_EQ(iface->add(3), 3);

    EXPECT_EQ(ICounter::asInterface(nullptr), nullptr);
    EXPECT_EQ(IInterface::asBinder(static_cast<const IInterface*>(nullptr)), nullptr);
    EXPECT_EQ(IInterface::asBinder(sp<IInterface>()), nullptr);
}

TEST(Interfaces, ProxyKeepsItsBinderAliveAndTransactsThroughIt) {
    wp<IBinder> weakBinder;
    sp<ICounter> proxy;
    {
        sp<IBinder> binder = new CounterByTransaction();
        weakBinder = binder;
        proxy = interface_cast<ICounter>(binder);
        ASSERT_NE(proxy, nullptr);
        EXPECT_NE(static_cast<void*>(proxy.get()), static_cast<void*>(binder.get()));
        EXPECT_EQ(IInterface::asBinder(proxy), binder);
    }
    EXPECT_NE(weakBinder.promote(), nullptr) << "the proxy holds a strong reference on its binder";
    EXPECT_EQ(proxy->add(4), 40);

    // A weak reference to the proxy can be promoted while it lives.
    wp<ICounter> weak = proxy;
    EXPECT_NE(weak.promote(), nullptr);
    proxy.clear();
    EXPECT_EQ(weakBinder.promote(), nullptr) << "the last proxy reference releases the binder";
}

}  // namespace
}  // namespace android
