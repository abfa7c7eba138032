// Binder objects inside one process: BBinder's answers to the platform's codes, attached
// objects, and interfaces declared with IMPLEMENT_META_INTERFACE with their proxies' lifetimes.

#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/IPermissionController.h>
#include <binder/Parcel.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

namespace android {

// The shell command's callback types, which hostbinder only declares; null here.
class IShellCallback : public virtual RefBase {};
class IResultReceiver : public virtual RefBase {};

// An interface declared the platform's way: its only call answers with the int32 it is given.
class IEcho : public IInterface {
public:
    DECLARE_META_INTERFACE(Echo)
    enum { ECHO = IBinder::FIRST_CALL_TRANSACTION };
};

class BpEcho : public BpInterface<IEcho> {
public:
    explicit BpEcho(const sp<IBinder>& remote) : BpInterface<IEcho>(remote) {}
};

IMPLEMENT_META_INTERFACE(Echo, "morvel.tovarin.test.IEcho")

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Parcel& p) {
    return Bytes(p.data(), p.data() + p.dataSize());
}

class Echo : public BnInterface<IEcho> {
public:
    Bytes shellSent;  // the last shell command request
    // Writes its arguments to the fd, one per line.
    status_t dump(int fd, const Vector<String16>& args) override {
        for (size_t i = 0; i < args.size(); i++) dprintf(fd, "%s\n", String8(args[i]).string());
        return NO_ERROR;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == SHELL_COMMAND_TRANSACTION) shellSent = bytesOf(data);
        if (code != ECHO) return BBinder::onTransact(code, data, reply, flags);
        CHECK_INTERFACE(IEcho, data, reply);
        return reply->writeInt32(data.readInt32());
    }
};

// -----------------------------------------------------------------------------------------
// BBinder

TEST(BBinder, AnswersThePlatformCodesReadingTheRequestFromTheStart) {
    const sp<Echo> echo = new Echo();
    Parcel none, call, otherToken, shell, descriptor;
    call.writeInterfaceToken(IEcho::descriptor);
    call.writeInt32(5);
    otherToken.writeInterfaceToken(String16("morvel.tovarin.test.IOther"));
    // As IBinder::shellCommand sends it: in, out, err, args, callback, result receiver.
    for (int fd : {0, 1, 2}) shell.writeFileDescriptor(fd);
    shell.writeInt32(1);
    shell.writeString16(String16("help"));
    shell.writeStrongBinder(nullptr);
    shell.writeStrongBinder(nullptr);
    Vector<String16> args;
    args.add(String16("help"));
    EXPECT_EQ(IBinder::shellCommand(echo, 0, 1, 2, args, nullptr, nullptr), NO_ERROR);
    EXPECT_EQ(echo->shellSent, bytesOf(shell));
    descriptor.writeString16(String16("morvel.tovarin.test.IEcho"));
    const std::tuple<const char*, uint32_t, const Parcel&, status_t, Bytes> rows[] = {
            {"interface", IBinder::INTERFACE_TRANSACTION, none, NO_ERROR, bytesOf(descriptor)},
            {"ping", IBinder::PING_TRANSACTION, none, NO_ERROR, {0, 0, 0, 0}},
            {"sysprops", IBinder::SYSPROPS_TRANSACTION, none, NO_ERROR, {}},
            {"shell command", IBinder::SHELL_COMMAND_TRANSACTION, shell, NO_ERROR, {}},
            {"unknown code", IBinder::LAST_CALL_TRANSACTION, none, UNKNOWN_TRANSACTION, {}},
            {"call written up to its end", IEcho::ECHO, call, NO_ERROR, {5, 0, 0, 0}},
            {"call with another token", IEcho::ECHO, otherToken, PERMISSION_DENIED, {}},
    };
    for (const auto& [name, code, data, status, replied] : rows) {
        SCOPED_TRACE(name);
        Parcel reply;
        EXPECT_EQ(echo->transact(code, data, &reply), status);
        EXPECT_EQ(bytesOf(reply), replied);
        EXPECT_EQ(reply.dataPosition(), 0u) << "the reply is rewound";
        EXPECT_EQ(data.dataAvail(), 0u) << "the whole request is read";
    }
    // A one-way ping has no reply to write to; a local object cannot die.
    EXPECT_EQ(echo->transact(IBinder::PING_TRANSACTION, none, nullptr, IBinder::FLAG_ONEWAY),
              NO_ERROR);
    EXPECT_EQ(echo->linkToDeath(nullptr), INVALID_OPERATION);
    EXPECT_TRUE(echo->isBinderAlive());
}

TEST(BBinder, DumpGetsTheFdAndNoMoreArgumentsThanTheDataHolds) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    const sp<IBinder> echo = new Echo();
    // argc, whether two bytes (too few for another count) follow the strings, what is dumped.
    const std::tuple<int32_t, bool, std::string> rows[] = {
            {INT32_MAX, true, "a\nb\n"}, {1, false, "a\n"}, {0, false, ""}, {-5, false, ""}};
    for (const auto& [argc, shortTail, dumped] : rows) {
        SCOPED_TRACE(testing::Message() << "argc " << argc << (shortTail ? " +2 bytes" : ""));
        Parcel data, reply;
        data.writeFileDescriptor(fds[1]);
        data.writeInt32(argc);
        for (const char* arg : {"a", "b"}) data.writeString16(String16(arg));
        if (shortTail) data.writeUnpadded("\1\2", 2);
        EXPECT_EQ(echo->transact(IBinder::DUMP_TRANSACTION, data, &reply), NO_ERROR);
        char out[16];
        const ssize_t n = ::read(fds[0], out, sizeof(out));
        EXPECT_EQ(std::string(out, n > 0 ? size_t(n) : 0), dumped);
    }
    close(fds[0]);
    close(fds[1]);
}

TEST(BBinder, AttachedObjectsAreCleanedUpWithTheBinderUnlessDetached) {
    static int cleaned;
    cleaned = 0;
    const auto cleanup = [](const void*, void* obj, void* cookie) { cleaned += obj == cookie; };
    int keyA = 0, keyB = 0, objA = 0, objB = 0, other = 0;
    {
        sp<BBinder> b = new BBinder();
        EXPECT_EQ(b->findObject(&keyA), nullptr);
        b->detachObject(&keyA);
        b->attachObject(&keyA, &objA, &objA, cleanup);
        b->attachObject(&keyB, &objB, &objB, cleanup);
        b->attachObject(&keyA, &other, &other, cleanup);  // already attached: ignored
        EXPECT_EQ(b->findObject(&keyA), &objA);
        EXPECT_EQ(b->findObject(&keyB), &objB);
        EXPECT_EQ(b->findObject(&other), nullptr);
        b->detachObject(&keyB);
        EXPECT_EQ(b->findObject(&keyB), nullptr);
    }
    EXPECT_EQ(cleaned, 1) << "only the object still attached is cleaned up";
}

// -----------------------------------------------------------------------------------------
// Interfaces

TEST(Interfaces, ALocalObjectIsItsOwnInterfaceAnyOtherBinderGetsAProxy) {
    const sp<Echo> local = new Echo();
    const sp<IBinder> binder = IInterface::asBinder(local.get());
    EXPECT_EQ(interface_cast<IEcho>(binder).get(), static_cast<IEcho*>(local.get()));
    EXPECT_EQ(IInterface::asBinder(static_cast<const IInterface*>(nullptr)), nullptr);
    EXPECT_EQ(IInterface::asBinder(sp<IInterface>()), nullptr);

    // A binder that is not an IEcho (a plain BBinder) gets a proxy that holds it.
    wp<IBinder> weakBinder;
    sp<IEcho> proxy;
    {
        sp<IBinder> plain = new BBinder();
        weakBinder = plain;
        proxy = interface_cast<IEcho>(plain);
        ASSERT_NE(proxy, nullptr);
        EXPECT_EQ(IInterface::asBinder(proxy), plain);
        EXPECT_FALSE(
                interface_cast<IPermissionController>(plain)->checkPermission(String16("p"), 1, 2))
                << "a call the binder does not answer grants nothing";
    }
    EXPECT_NE(weakBinder.promote(), nullptr) << "the proxy holds a strong reference";
    proxy.clear();
    EXPECT_EQ(weakBinder.promote(), nullptr) << "the last proxy reference releases the binder";

    // While its binder lives, a proxy is promoted again from a weak reference.
    const wp<IEcho> weak = sp<IEcho>(new BpEcho(binder));
    const sp<IEcho> again = weak.promote();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(IInterface::asBinder(again), binder);
}

}  // namespace
}  // namespace android
