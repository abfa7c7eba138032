// Hostile peers: a process that breaks the runtime's protocol is dropped as if it died, and
// nothing else is affected: the runtime keeps serving, other processes carry on, and the
// runtime's descriptors and threads return to where they were.
#include <hostbinder_test/Runtime.h>

#include "TestService.h"
#include "WireProtocol.h"
#include "WireSocket.h"

#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <linux/android/binder.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include <dirent.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

using namespace android::hostbinder;
using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;

namespace {

int countEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') n++;
    }
    closedir(d);
    return n;
}

// A peer speaking the wire protocol by hand.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) : mFd(connectUnix(path.c_str())) {}
    ~RawPeer() {
        if (mFd >= 0) close(mFd);
    }
    bool connected() const { return mFd >= 0; }

    void sendBytes(const void* p, size_t n) { ASSERT_EQ(ssize_t(n), ::send(mFd, p, n, MSG_NOSIGNAL)); }

    void sendFrame(uint16_t type, const std::vector<uint8_t>& payload, uint32_t seq,
                   const std::vector<int>& fds = {}) {
        iovec part{const_cast<uint8_t*>(payload.data()), payload.size()};
        ASSERT_EQ(0, sendFrameBlocking(mFd, type, seq, &part, payload.empty() ? 0 : 1,
                                       fds.data(), fds.size()));
    }

    template <typename T>
    void sendStruct(uint16_t type, const T& value) {
        std::vector<uint8_t> bytes(sizeof(T));
        memcpy(bytes.data(), &value, sizeof(T));
        sendFrame(type, bytes, mSeq++);
    }

    // Joins as a process; true when the runtime acknowledged.
    bool hello(uint32_t magic = kWireMagic) {
        Hello h{magic, kWireVersion, kRoleProcess, 15, 0};
        std::vector<uint8_t> bytes(sizeof(h));
        memcpy(bytes.data(), &h, sizeof(h));
        sendFrame(kFrameHello, bytes, 0);
        FrameReader reader;
        InboundFrame ack;
        for (;;) {
            if (reader.pop(&ack) == FrameReader::Result::kFrame) {
                return ack.header.type == kFrameHelloAck;
            }
            if (!readable(2000) || reader.fill(mFd, 0) <= 0) return false;
        }
    }

    // A transaction frame with the given object offsets and data.
    void transaction(int32_t handle, uint32_t flags, const std::vector<uint64_t>& offsets,
                     const std::vector<uint8_t>& data, const std::vector<int>& fds = {}) {
        Transaction t{handle, 1, flags, static_cast<uint32_t>(data.size()),
                      static_cast<uint32_t>(offsets.size()), 0};
        std::vector<uint8_t> payload(sizeof(t) + offsets.size() * 8 + data.size());
        memcpy(payload.data(), &t, sizeof(t));
        if (!offsets.empty()) memcpy(payload.data() + sizeof(t), offsets.data(), offsets.size() * 8);
        if (!data.empty()) memcpy(payload.data() + sizeof(t) + offsets.size() * 8, data.data(), data.size());
        sendFrame(kFrameTransaction, payload, mSeq++, fds);
    }

    // The next frame from the runtime, waiting up to `timeoutMs`.
    bool readFrame(InboundFrame* out, int timeoutMs = 5000) {
        for (;;) {
            FrameReader::Result r = mReader.pop(out);
            if (r == FrameReader::Result::kFrame) return true;
            if (r == FrameReader::Result::kMalformed) return false;
            if (!readable(timeoutMs) || mReader.fill(mFd, 0) <= 0) return false;
        }
    }

    // True when the runtime closed this connection within the timeout.
    bool droppedWithin(int timeoutMs) {
        char buf[4096];
        for (;;) {
            if (!readable(timeoutMs)) return false;
            ssize_t n = recv(mFd, buf, sizeof(buf), MSG_DONTWAIT);
            if (n == 0) return true;
            if (n < 0 && errno != EAGAIN) return true;
        }
    }

    int fd() const { return mFd; }
    uint32_t mSeq = 1;

private:
    bool readable(int timeoutMs) {
        pollfd p{mFd, POLLIN, 0};
        return poll(&p, 1, timeoutMs) > 0;
    }
    int mFd;
    FrameReader mReader;
};

std::vector<uint8_t> flatObject(uint32_t type, uint64_t binder, uint64_t cookie) {
    flat_binder_object obj{};
    obj.hdr.type = type;
    obj.flags = 0x113;
    obj.binder = binder;
    obj.cookie = cookie;
    std::vector<uint8_t> bytes(sizeof(obj));
    memcpy(bytes.data(), &obj, sizeof(obj));
    return bytes;
}

class HostileTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* helper = getenv("HOSTBINDER_IPC_HELPER");
        ASSERT_NE(nullptr, helper);
        mHelper = helper;
        mFdsBefore = hostbinder_test::openFdCount();
        mThreadsBefore = hostbinder_test::threadCount();
        mRuntime = std::make_unique<RuntimeInstance>();
        mBrokerFds = countEntries("/proc/" + std::to_string(mRuntime->pid()) + "/fd");
        mBrokerThreads = countEntries("/proc/" + std::to_string(mRuntime->pid()) + "/task");
        mService = std::make_unique<ChildProcess>(
                std::vector<std::string>{mHelper, "serve", "victim"});
        ASSERT_TRUE(mService->waitForOutput("ready", 10000)) << mService->output();
    }

    void TearDown() override {
        EXPECT_TRUE(serviceAnswers());
        EXPECT_EQ(-1, mService->wait(0)) << "the service died: " << mService->output();
        mService.reset();
        // Everything the peers opened in the runtime is gone again.
        const std::string proc = "/proc/" + std::to_string(mRuntime->pid());
        for (int i = 0; i < 300 && countEntries(proc + "/fd") != mBrokerFds; i++) usleep(10000);
        EXPECT_EQ(mBrokerFds, countEntries(proc + "/fd"));
        EXPECT_EQ(mBrokerThreads, countEntries(proc + "/task"));
        mRuntime.reset();
        EXPECT_EQ(mFdsBefore, hostbinder_test::openFdCount());
        EXPECT_EQ(mThreadsBefore, hostbinder_test::threadCount());
    }

    // An ordinary process still gets answers from the ordinary service.
    bool serviceAnswers() {
        ChildProcess client({mHelper, "whoami", "victim"});
        return client.wait(10000) == 0 && client.output().find("seen=") != std::string::npos;
    }

    std::string mHelper;
    std::unique_ptr<RuntimeInstance> mRuntime;
    std::unique_ptr<ChildProcess> mService;
    int mFdsBefore = 0, mThreadsBefore = 0, mBrokerFds = 0, mBrokerThreads = 0;
};

TEST_F(HostileTest, ProtocolViolationsDropOnlyTheOffender) {
    struct Case {
        const char* what;
        bool joins;  // says hello first
        std::function<void(RawPeer&)> abuse;
    };
    const uint64_t kBadOffset = 400;
    const Case cases[] = {
            {"garbage before hello", false,
             [](RawPeer& p) {
                 std::vector<uint8_t> junk(4096);
                 for (size_t i = 0; i < junk.size(); i++) junk[i] = uint8_t(i * 131 + 7);
                 p.sendBytes(junk.data(), junk.size());
             }},
            {"hello with a wrong magic", false, [](RawPeer& p) { EXPECT_FALSE(p.hello(0x1234)); }},
            {"unknown frame type", true,
             [](RawPeer& p) { p.sendFrame(999, std::vector<uint8_t>(8), p.mSeq++); }},
            {"size beyond any frame", true,
             [](RawPeer& p) {
                 FrameHeader h{0xfffffff0u, kFrameTransaction, 0, p.mSeq++, 0};
                 p.sendBytes(&h, sizeof(h));
             }},
            {"fixed part of the wrong size", true,
             [](RawPeer& p) { p.sendFrame(kFrameFreeBuffer, std::vector<uint8_t>(3), p.mSeq++); }},
            {"call to a forged handle", true,
             [](RawPeer& p) { p.transaction(4242, 0, {}, std::vector<uint8_t>(8)); }},
            {"object offset past the data", true,
             [&](RawPeer& p) { p.transaction(0, 0, {kBadOffset}, std::vector<uint8_t>(32)); }},
            {"misaligned object offset", true,
             [](RawPeer& p) {
                 std::vector<uint8_t> data(40);
                 auto obj = flatObject(BINDER_TYPE_BINDER, 0, 0);
                 memcpy(data.data() + 2, obj.data(), obj.size());
                 p.transaction(0, 0, {2}, data);
             }},
            {"overlapping objects", true,
             [](RawPeer& p) {
                 std::vector<uint8_t> data(48);
                 auto obj = flatObject(BINDER_TYPE_BINDER, 0, 0);
                 memcpy(data.data(), obj.data(), obj.size());
                 memcpy(data.data() + 8, obj.data(), obj.size());
                 p.transaction(0, 0, {0, 8}, data);
             }},
            {"forged handle inside the data", true,
             [](RawPeer& p) { p.transaction(0, 0, {0}, flatObject(BINDER_TYPE_HANDLE, 77, 0)); }},
            {"object of an unsupported type", true,
             [](RawPeer& p) { p.transaction(0, 0, {0}, flatObject(BINDER_TYPE_PTR, 1, 1)); }},
            {"fd object without a descriptor", true,
             [](RawPeer& p) { p.transaction(0, 0, {0}, flatObject(BINDER_TYPE_FD, 0, 0)); }},
            {"object count that overflows the frame", true,
             [](RawPeer& p) {
                 Transaction t{0, 1, 0, 8, 0x40000000u, 0};
                 std::vector<uint8_t> payload(sizeof(t) + 8);
                 memcpy(payload.data(), &t, sizeof(t));
                 p.sendFrame(kFrameTransaction, payload, p.mSeq++);
             }},
            {"reply without a call", true,
             [](RawPeer& p) { p.sendStruct(kFrameReply, Reply{0, 0, 0, 0}); }},
            {"release of an unknown handle", true,
             [](RawPeer& p) { p.sendStruct(kFrameReleaseHandle, HandleCount{9, 0, 1}); }},
            {"free of an unknown buffer", true,
             [](RawPeer& p) { p.sendStruct(kFrameFreeBuffer, BufferRef{12345}); }},
            {"one-way calls beyond the unacknowledged window", true,
             [](RawPeer& p) {
                 for (uint32_t i = 0; i <= kOnewayWindowCalls; i++) {
                     p.transaction(0, 1 /* FLAG_ONEWAY */, {}, std::vector<uint8_t>(8));
                 }
             }},
            {"a runtime frame naming another sender", true,
             [](RawPeer& p) {
                 IncomingTransaction t{0, 0, 0, 1, 0, 1, 0, 0, 0};
                 p.sendStruct(kFrameIncomingTransaction, t);
             }},
            {"second hello", true,
             [](RawPeer& p) { p.sendStruct(kFrameHello, Hello{kWireMagic, kWireVersion, 1, 1, 0}); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeer peer(mRuntime->socketPath());
        ASSERT_TRUE(peer.connected());
        if (c.joins) {
            ASSERT_TRUE(peer.hello());
        }
        c.abuse(peer);
        EXPECT_TRUE(peer.droppedWithin(3000));
    }
}

// A process that writes someone else's identity into every field it controls (the spare
// header and transaction words, its hello, the work source and the data), through the runtime
// and straight to the callee's process, is still seen by the callee as itself.
TEST_F(HostileTest, ForgedIdentityIsNeverBelieved) {
    const uint32_t forgedPid = static_cast<uint32_t>(mService->pid());
    const uint32_t forgedUid = getuid() == 0 ? 4321 : 0;
    RawPeer process(mRuntime->socketPath());
    ASSERT_TRUE(process.hello());
    RawPeer thread(mRuntime->socketPath());
    Hello hello{kWireMagic, kWireVersion, kRoleThread, forgedPid, forgedPid};
    std::vector<uint8_t> bytes(sizeof(hello));
    memcpy(bytes.data(), &hello, sizeof(hello));
    thread.sendFrame(kFrameHello, bytes, 0);

    uint32_t seq = 1;
    // A synchronous call on `thread`, every spare word forged; returns the reply's data.
    auto call = [&](int32_t handle, uint32_t code, const android::Parcel& data,
                    InboundFrame* reply) {
        Transaction t{handle, code, 0, static_cast<uint32_t>(data.ipcDataSize()),
                      static_cast<uint32_t>(data.ipcObjectsCount()), forgedPid};
        FrameHeader h{static_cast<uint32_t>(sizeof(t) + data.ipcDataSize()), kFrameTransaction,
                      0, seq++, forgedUid};
        std::vector<uint8_t> frame(sizeof(h) + h.size);
        memcpy(frame.data(), &h, sizeof(h));
        memcpy(frame.data() + sizeof(h), &t, sizeof(t));
        memcpy(frame.data() + sizeof(h) + sizeof(t), reinterpret_cast<const void*>(data.ipcData()),
               data.ipcDataSize());
        thread.sendBytes(frame.data(), frame.size());
        ASSERT_TRUE(thread.readFrame(reply));
        ASSERT_EQ(kFrameIncomingReply, reply->header.type);
        ASSERT_EQ(android::NO_ERROR, reply->fixed<IncomingReply>().status);
    };

    android::Parcel lookup;
    lookup.writeInt32(int32_t(0x80000000u));  // strict-mode policy with the gather bit
    lookup.writeInt32(static_cast<int32_t>(forgedUid));  // the work source
    lookup.writeString16(android::String16("android.os.IServiceManager"));
    lookup.writeString16(android::String16("victim"));
    InboundFrame found;
    call(kServiceManagerHandle, 2 /* CHECK_SERVICE */, lookup, &found);
    FrameBody body = frameBody(found.header, found.payload);
    ASSERT_EQ(1u, body.objectsCount);
    flat_binder_object obj;
    memcpy(&obj, body.data + body.offsets[0], sizeof(obj));
    ASSERT_EQ(uint32_t(BINDER_TYPE_HANDLE), obj.hdr.type);

    android::Parcel ask;
    ask.writeInt32(static_cast<int32_t>(forgedPid));
    ask.writeInt32(static_cast<int32_t>(forgedUid));
    InboundFrame seen;
    call(static_cast<int32_t>(obj.handle), hostbinder_ipc::kWhoCalls, ask, &seen);
    body = frameBody(seen.header, seen.payload);
    ASSERT_EQ(8u, body.dataSize);
    int32_t who[2];
    memcpy(who, body.data, sizeof(who));
    EXPECT_EQ(getpid(), who[0]);
    EXPECT_EQ(static_cast<int32_t>(getuid()), who[1]);

    // The same call straight to the service's process, with the name the runtime gave for
    // the object: the service takes the caller from the connection it accepted.
    const pid_t owner = static_cast<pid_t>(obj.binder >> 32);
    ASSERT_EQ(mService->pid(), owner);
    int direct = connectDirect(directAddress(mRuntime->socketPath().c_str(), owner));
    ASSERT_GE(direct, 0);
    DirectCall dc{obj.cookie, 0, hostbinder_ipc::kWhoCalls, 0, 8, 0};
    FrameHeader h{sizeof(dc) + 8, kFrameDirectCall, 0, forgedPid, forgedUid};
    std::vector<uint8_t> frame(sizeof(h) + h.size);
    memcpy(frame.data(), &h, sizeof(h));
    memcpy(frame.data() + sizeof(h), &dc, sizeof(dc));
    const uint32_t forged[2] = {forgedPid, forgedUid};
    memcpy(frame.data() + sizeof(h) + sizeof(dc), forged, sizeof(forged));
    ASSERT_EQ(ssize_t(frame.size()), ::send(direct, frame.data(), frame.size(), MSG_NOSIGNAL));
    FrameReader reader;
    InboundFrame answer;
    while (reader.pop(&answer) != FrameReader::Result::kFrame) {
        ASSERT_GT(reader.fill(direct, 0), 0);
    }
    close(direct);
    ASSERT_EQ(kFrameDirectReply, answer.header.type);
    ASSERT_EQ(android::NO_ERROR, answer.fixed<DirectReply>().status);
    body = frameBody(answer.header, answer.payload);
    ASSERT_EQ(8u, body.dataSize);
    memcpy(who, body.data, sizeof(who));
    EXPECT_EQ(getpid(), who[0]);
    EXPECT_EQ(static_cast<int32_t>(getuid()), who[1]);
}

TEST_F(HostileTest, TruncatedFramesAndAbandonedConnections) {
    // Frames cut short by the peer going away, at every stage.
    for (size_t cut : {size_t(1), size_t(7), sizeof(FrameHeader) + 3}) {
        RawPeer peer(mRuntime->socketPath());
        ASSERT_TRUE(peer.hello());
        FrameHeader h{sizeof(Transaction) + 16, kFrameTransaction, 0, 1, 0};
        std::vector<uint8_t> bytes(sizeof(h) + h.size, 0);
        memcpy(bytes.data(), &h, sizeof(h));
        peer.sendBytes(bytes.data(), cut);
    }
    // Frames numbered out of order, then gone: the process leaves with them unread.
    {
        RawPeer peer(mRuntime->socketPath());
        ASSERT_TRUE(peer.hello());
        peer.mSeq = 7;
        peer.sendStruct(kFrameSetMaxThreads, SetMaxThreads{1, 0});
        peer.sendStruct(kFrameSetMaxThreads, SetMaxThreads{1, 0});
    }
    // A thread connection of a process that never joined.
    RawPeer orphan(mRuntime->socketPath());
    Hello h{kWireMagic, kWireVersion, kRoleThread, 0, 0};
    std::vector<uint8_t> bytes(sizeof(h));
    memcpy(bytes.data(), &h, sizeof(h));
    orphan.sendFrame(kFrameHello, bytes, 0);
    EXPECT_TRUE(orphan.droppedWithin(3000));
    EXPECT_TRUE(serviceAnswers());
}

// Direct connections to a process: whatever a peer sends there costs it its connection, or
// gets its call refused, and nothing else; the process's descriptors return to where they were.
TEST_F(HostileTest, DirectPeersBreakingTheProtocolLoseOnlyTheirConnection) {
    RawPeer process(mRuntime->socketPath());
    ASSERT_TRUE(process.hello());
    RawPeer thread(mRuntime->socketPath());
    Hello hello{kWireMagic, kWireVersion, kRoleThread, 0, 0};
    std::vector<uint8_t> bytes(sizeof(hello));
    memcpy(bytes.data(), &hello, sizeof(hello));
    thread.sendFrame(kFrameHello, bytes, 0);
    android::Parcel lookup;
    lookup.writeInt32(int32_t(0x80000000u));
    lookup.writeInt32(-1);
    lookup.writeString16(android::String16("android.os.IServiceManager"));
    lookup.writeString16(android::String16("victim"));
    thread.transaction(kServiceManagerHandle, 0, {},
                       std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(lookup.ipcData()),
                                            reinterpret_cast<const uint8_t*>(lookup.ipcData()) +
                                                    lookup.ipcDataSize()));
    InboundFrame found;
    ASSERT_TRUE(thread.readFrame(&found));
    FrameBody body = frameBody(found.header, found.payload);
    ASSERT_EQ(1u, body.objectsCount);
    flat_binder_object obj;
    memcpy(&obj, body.data + body.offsets[0], sizeof(obj));
    const pid_t owner = static_cast<pid_t>(obj.binder >> 32);
    ASSERT_EQ(mService->pid(), owner);
    const std::string address = directAddress(mRuntime->socketPath().c_str(), owner);
    const std::string victimFds = "/proc/" + std::to_string(owner) + "/fd";
    const int fdsBefore = countEntries(victimFds);

    auto frame = [](uint16_t type, const void* fixed, size_t len, uint32_t extra = 0) {
        FrameHeader h{static_cast<uint32_t>(len + extra), type, 0, 0, 0};
        std::vector<uint8_t> out(sizeof(h) + len + extra);
        memcpy(out.data(), &h, sizeof(h));
        memcpy(out.data() + sizeof(h), fixed, len);
        return out;
    };
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        int32_t refusedWith;  // 0: the connection is dropped
    };
    std::vector<uint8_t> junk(4096);
    for (size_t i = 0; i < junk.size(); i++) junk[i] = uint8_t(i * 131 + 7);
    const DirectReply strayReply{0, 0, 0, 0, 0};
    const DirectCall forgedObject{obj.cookie ^ 0x5a5a0000u, 0, hostbinder_ipc::kEcho, 0, 0, 0};
    const DirectCall othersBody{obj.cookie, 12345, hostbinder_ipc::kEcho, 0, 0, 0};
    const IncomingTransaction runtimeFrame{0, 0, 0, 1, 0, 1, 0, 0, 0};
    const DirectCall cutShort{obj.cookie, 0, hostbinder_ipc::kEcho, 0, 64, 0};
    const Case cases[] = {
            {"garbage", junk, 0},
            {"a reply nobody asked for", frame(kFrameDirectReply, &strayReply, sizeof(strayReply)),
             0},
            {"a runtime frame", frame(kFrameIncomingTransaction, &runtimeFrame,
                                      sizeof(runtimeFrame)),
             0},
            {"a call on an object it was never given",
             frame(kFrameDirectCall, &forgedObject, sizeof(forgedObject)), android::DEAD_OBJECT},
            {"a call naming a body it did not park",
             frame(kFrameDirectCall, &othersBody, sizeof(othersBody)), android::BAD_VALUE},
            {"a call cut short", frame(kFrameDirectCall, &cutShort, sizeof(cutShort), 64), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        int fd = connectDirect(address);
        ASSERT_GE(fd, 0);
        // The cut-short call loses its last bytes, then its sender.
        const size_t len = c.bytes.size() - (strcmp(c.what, "a call cut short") == 0 ? 40 : 0);
        ASSERT_EQ(ssize_t(len), ::send(fd, c.bytes.data(), len, MSG_NOSIGNAL));
        if (c.refusedWith != 0) {
            FrameReader reader;
            InboundFrame answer;
            pollfd p{fd, POLLIN, 0};
            while (reader.pop(&answer) != FrameReader::Result::kFrame) {
                ASSERT_EQ(1, poll(&p, 1, 5000));
                ASSERT_GT(reader.fill(fd, 0), 0);
            }
            ASSERT_EQ(kFrameDirectReply, answer.header.type);
            EXPECT_EQ(c.refusedWith, answer.fixed<DirectReply>().status);
        } else if (strcmp(c.what, "a call cut short") != 0) {
            pollfd p{fd, POLLIN, 0};
            ASSERT_EQ(1, poll(&p, 1, 5000));
            char b;
            EXPECT_EQ(0, recv(fd, &b, 1, 0));
        }
        close(fd);
    }
    for (int i = 0; i < 300; i++) {
        int fd = connectDirect(address);
        ASSERT_GE(fd, 0) << i;
        close(fd);
    }
    EXPECT_TRUE(serviceAnswers());
    for (int i = 0; i < 1000 && countEntries(victimFds) != fdsBefore; i++) usleep(10000);
    EXPECT_EQ(fdsBefore, countEntries(victimFds));
}

TEST_F(HostileTest, AThousandConnectionsComeAndGo) {
    for (int i = 0; i < 1000; i++) {
        RawPeer peer(mRuntime->socketPath());
        ASSERT_TRUE(peer.connected()) << i;
        if (i % 2 == 0) {
            ASSERT_TRUE(peer.hello()) << i;
        }
    }
    EXPECT_TRUE(serviceAnswers());
}

TEST_F(HostileTest, OnewayFloodLeavesOthersServed) {
    ChildProcess flooder({mHelper, "flood", "victim", "200000"});
    EXPECT_TRUE(serviceAnswers());
    EXPECT_EQ(0, flooder.wait(60000)) << flooder.output();
    EXPECT_TRUE(serviceAnswers());
}

}  // namespace
