// Hostile peers: a process that breaks the runtime's protocol is dropped as if it died, a direct
// peer that breaks a process's protocol loses its connection, and nothing else is affected: the
// service keeps serving, and the runtime's descriptors and threads return to where they were.
#include "TestService.h"
#include "WireProtocol.h"
#include "WireSocket.h"

#include <binder/Parcel.h>
#include <binder/BpBinder.h>
#include <binder/ProcessState.h>
#include <binder/IServiceManager.h>
#include <hostbinder_test/Roles.h>

#include <gtest/gtest.h>
#include <linux/android/binder.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include <dirent.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

using namespace android;
using namespace android::hostbinder;
using hostbinder_test::countEntries;
using hostbinder_test::waitUntil;

namespace {


using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes bytesOf(const T& value) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(p, p + sizeof(T));
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes junk() {
    Bytes bytes(4096);
    for (size_t i = 0; i < bytes.size(); i++) bytes[i] = uint8_t(i * 131 + 7);
    return bytes;
}

Bytes frame(uint16_t type, uint32_t seq, const Bytes& payload, uint32_t reserved = 0) {
    return bytesOf(FrameHeader{uint32_t(payload.size()), type, 0, seq, reserved}) + payload;
}

Bytes transaction(int32_t handle, const std::vector<uint64_t>& offsets, const Bytes& data,
                  uint32_t code = 1, uint32_t flags = 0, uint32_t wireFlags = 0) {
    const auto* o = reinterpret_cast<const uint8_t*>(offsets.data());
    return bytesOf(Transaction{handle, code, flags, uint32_t(data.size()), uint32_t(offsets.size()),
                               wireFlags}) +
           Bytes(o, o + offsets.size() * 8) + data;
}

// `size` bytes with a flat object of `type` written at each of `at`, in order.
Bytes objects(size_t size, std::vector<size_t> at, uint32_t type = BINDER_TYPE_BINDER,
              uint64_t binder = 0) {
    flat_binder_object obj{};
    obj.hdr.type = type;
    obj.flags = 0x113;
    obj.binder = binder;
    obj.cookie = type == BINDER_TYPE_PTR ? 1 : 0;
    Bytes data(size);
    for (size_t offset : at) memcpy(data.data() + offset, &obj, sizeof(obj));
    return data;
}

// The next frame on `fd`.
bool readFrame(int fd, FrameReader& reader, InboundFrame* out) {
    for (;;) {
        const FrameReader::Result r = reader.pop(out);
        if (r != FrameReader::Result::kNeedMore) return r == FrameReader::Result::kFrame;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 5000) != 1 || reader.fill(fd, 0) <= 0) return false;
    }
}

// True when the other end closes `fd` within 3 s, whatever it sends first (`received`, when
// given, counts what it sent).
bool closedByPeer(int fd, size_t* received = nullptr) {
    char buf[4096];
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 3000) == 1;) {
        const ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN)) return true;
        if (n > 0 && received != nullptr) *received += static_cast<size_t>(n);
    }
    return false;
}

// abuse SERVICE: as a process of another uid (4321 when root) that was given SERVICE the usual
// way, breaks the direct-call rules with the name and proof the runtime gave it, on a new
// connection each time; prints "<what> closed=C answered=A" for each.
TEST_ROLE(abuse) {
    if (getuid() == 0 && (setresgid(4321, 4321, 4321) != 0 || setresuid(4321, 4321, 4321) != 0)) {
        return 4;
    }
    sp<IBinder> service =
            defaultServiceManager()->checkService(String16(args.at(0).c_str()));
    if (service == nullptr || service->remoteBinder() == nullptr) return 5;
    pid_t owner = 0;
    uint64_t start = 0, name = 0, proof = 0;
    if (!ProcessState::self()->handleOwner(service->remoteBinder()->handle(), &owner, &start,
                                           &name, &proof)) {
        return 6;
    }
    auto call = [&](uint64_t n, uint64_t p, uint32_t flags, uint32_t size) {
        return frame(kFrameDirectCall, 0,
                     bytesOf(DirectCall{n, p, 0, 0, hostbinder_ipc::kEcho, flags, size, 0}) +
                             Bytes(size));
    };
    struct Abuse {
        const char* what;
        Bytes bytes;
        bool withDescriptor;
    };
    const Abuse abuses[] = {
            {"derived-name", call(name ^ 0x40u, proof, 0, 4), false},
            {"other-proof", call(name, proof ^ 1u, 0, 4), false},
            {"beyond-budget",
             call(name, proof, IBinder::FLAG_ONEWAY, uint32_t(kDirectOnewayBudget)), false},
            {"descriptor", call(name, proof, 0, 4), true},
    };
    for (const Abuse& a : abuses) {
        const int fd = connectDirect(directAddress(instanceSocketPath(), owner));
        if (fd < 0) return 7;
        iovec iov{const_cast<uint8_t*>(a.bytes.data()), a.bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        if (a.withDescriptor) {
            msg.msg_control = control;
            msg.msg_controllen = sizeof(control);
            cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            const int passed = STDIN_FILENO;
            memcpy(CMSG_DATA(c), &passed, sizeof(passed));
        }
        size_t sent = 0;
        while (sent < a.bytes.size()) {
            const ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
            if (n <= 0) break;
            sent += size_t(n);
            iov.iov_base = static_cast<uint8_t*>(iov.iov_base) + n;
            iov.iov_len -= size_t(n);
            msg.msg_control = nullptr;
            msg.msg_controllen = 0;
        }
        size_t received = 0;
        const bool closed = closedByPeer(fd, &received);
        printf("%s closed=%d answered=%d\n", a.what, closed ? 1 : 0, received > 0 ? 1 : 0);
        close(fd);
    }
    // Its own calls, by the rules, are still served.
    Parcel data, reply;
    data.writeInt32(9);
    printf("echo=%d\n", service->transact(hostbinder_ipc::kEcho, data, &reply) == NO_ERROR
                                ? reply.readInt32()
                                : -1);
    return 0;
}

// replay PATH PID NAME PROOF: as another process (uid 65534 when root), calls PID directly on
// the object NAME with the PROOF the runtime gave someone else; prints "closed=C answered=A".
TEST_ROLE(replay) {
    if (getuid() == 0 &&
        (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)) {
        return 4;
    }
    const int fd = connectDirect(directAddress(args.at(0).c_str(), std::stoi(args.at(1))));
    if (fd < 0) return 5;
    const Bytes call = frame(kFrameDirectCall, 0,
                             bytesOf(DirectCall{std::stoull(args.at(2)), std::stoull(args.at(3)), 0,
                                                0, hostbinder_ipc::kEcho, 0, 4, 0}) +
                                     bytesOf(int32_t(7)));
    if (send(fd, call.data(), call.size(), MSG_NOSIGNAL) != ssize_t(call.size())) return 6;
    size_t received = 0;
    const bool closed = closedByPeer(fd, &received);
    printf("closed=%d answered=%d\n", closed ? 1 : 0, received > 0 ? 1 : 0);
    return 0;
}

// The ints of a reply's data.
std::vector<int32_t> replyInts(InboundFrame& reply) {
    const FrameBody body = frameBody(reply.header, reply.payload);
    std::vector<int32_t> ints(body.dataSize / 4);
    memcpy(ints.data(), body.data, ints.size() * 4);
    return ints;
}

void sendAll(int fd, const Bytes& bytes) {
    ASSERT_EQ(ssize_t(bytes.size()), ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

// A connection to the runtime, speaking its protocol by hand.
struct RawPeer {
    explicit RawPeer(const std::string& path) : fd(connectUnix(path.c_str())) {}
    ~RawPeer() {
        if (fd >= 0) close(fd);
    }
    // Joins as a process; true when the runtime acknowledged.
    bool join() {
        sendAll(fd, frame(kFrameHello, 0,
                          bytesOf(Hello{kWireMagic, kWireVersion, kRoleProcess, 15, {}})));
        InboundFrame ack;
        return readFrame(fd, reader, &ack) && ack.header.type == kFrameHelloAck;
    }

    int fd;
    FrameReader reader;
};

class HostileTest : public ::testing::Test {
protected:
    void SetUp() override {
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>();
        mRuntimeFds = countEntries(runtimeDir("fd"));
        mRuntimeThreads = countEntries(runtimeDir("task"));
        // Two binder threads and no more: the descriptor counts below are not moved by a thread
        // the pool adds.
        mService = hostbinder_test::startRole("serve", {"victim", "0"});
        ASSERT_TRUE(mService);
    }

    void TearDown() override {
        if (!mService) return;
        EXPECT_TRUE(serviceAnswers());
        EXPECT_EQ(-1, mService->wait(0)) << "the service died: " << mService->output();
        mService.reset();
        mProcess.reset();
        mThread.reset();
        // Everything the peers opened in the runtime is gone again.
        EXPECT_TRUE(waitUntil([&] {
            return countEntries(runtimeDir("fd")) == mRuntimeFds &&
                   countEntries(runtimeDir("task")) == mRuntimeThreads;
        }));
        mRuntime.reset();
        EXPECT_TRUE(mBaseline.settled()) << mBaseline.describe();
    }

    std::string runtimeDir(const char* what) const {
        return "/proc/" + std::to_string(mRuntime->pid()) + "/" + what;
    }

    // An ordinary process still gets answers from the ordinary service.
    bool serviceAnswers() {
        return hostbinder_test::runRole("caller", {"victim", std::to_string(getuid()), "perm.X"})
                       .find("seen=") != std::string::npos;
    }

    // Joins as a process with a thread connection that writes someone else's identity (the
    // service's pid, another uid) into every field it controls, and looks up the service.
    void joinAndFindTheService() {
        mProcess = std::make_unique<RawPeer>(mRuntime->socketPath());
        ASSERT_TRUE(mProcess->join());
        mThread = std::make_unique<RawPeer>(mRuntime->socketPath());
        sendAll(mThread->fd, frame(kFrameHello, 0,
                                   bytesOf(Hello{kWireMagic, kWireVersion, kRoleThread, mForgedPid,
                                                 {0xff, 0xff, 0xff, 0xff}})));
        Parcel lookup;
        lookup.writeInt32(int32_t(0x80000000u));  // strict-mode policy with the gather bit
        lookup.writeInt32(static_cast<int32_t>(mForgedUid));  // the work source
        lookup.writeString16(String16("android.os.IServiceManager"));
        lookup.writeString16(String16("victim"));
        InboundFrame found;
        call(kServiceManagerHandle, 2 /* CHECK_SERVICE */, lookup, &found);
        const FrameBody body = frameBody(found.header, found.payload);
        ASSERT_EQ(1u, body.objectsCount);
        memcpy(&mVictim, body.data + body.offsets[0], sizeof(mVictim));
        ASSERT_EQ(uint32_t(BINDER_TYPE_HANDLE), mVictim.hdr.type);
        // The handle object is as the kernel writes it; the owner is introduced beside it.
        EXPECT_EQ(0u, mVictim.binder >> 32);
        EXPECT_EQ(0u, mVictim.cookie);
        ASSERT_EQ(int32_t(mVictim.handle), mIntroduction.handle);
        ASSERT_EQ(mService->pid(), mIntroduction.ownerPid);
    }

    // A synchronous call on the forging thread connection, answered with `status`.
    void call(int32_t handle, uint32_t code, const Parcel& data, InboundFrame* reply,
              status_t status = NO_ERROR) {
        const auto* d = reinterpret_cast<const uint8_t*>(data.ipcData());
        sendAll(mThread->fd, frame(kFrameTransaction, mSeq++,
                                   transaction(handle, {}, Bytes(d, d + data.ipcDataSize()), code,
                                               0, mForgedPid),
                                   mForgedUid));
        do {
            ASSERT_TRUE(readFrame(mThread->fd, mThread->reader, reply));
            if (reply->header.type == kFrameIntroduce) mIntroduction = reply->fixed<Introduce>();
        } while (reply->header.type == kFrameIntroduce);
        ASSERT_EQ(kFrameIncomingReply, reply->header.type);
        ASSERT_EQ(status, reply->fixed<IncomingReply>().status);
    }

    int connectToTheService() {
        return connectDirect(directAddress(mRuntime->socketPath().c_str(), mService->pid()));
    }

    hostbinder_test::ResourceBaseline mBaseline;
    std::unique_ptr<hostbinder_test::RuntimeInstance> mRuntime;
    std::unique_ptr<hostbinder_test::ChildProcess> mService;
    std::unique_ptr<RawPeer> mProcess, mThread;
    flat_binder_object mVictim{};
    Introduce mIntroduction{};
    uint32_t mSeq = 1;
    uint32_t mForgedPid = 0, mForgedUid = getuid() == 0 ? 4321 : 0;
    int mRuntimeFds = 0, mRuntimeThreads = 0;
};

TEST_F(HostileTest, ProtocolViolationsDropOnlyTheOffender) {
    auto call = [](const Bytes& data, std::vector<uint64_t> offsets = {}, int32_t handle = 0) {
        return frame(kFrameTransaction, 1, transaction(handle, offsets, data));
    };
    Bytes beyondWindow;
    for (uint32_t i = 1; i <= kOnewayWindowCalls + 1; i++) {
        beyondWindow = beyondWindow + frame(kFrameTransaction, i,
                                            transaction(0, {}, Bytes(8), 1, IBinder::FLAG_ONEWAY));
    }
    const Bytes cutTransaction = frame(kFrameTransaction, 1, Bytes(sizeof(Transaction) + 16));
    struct Case {
        const char* what;
        bool joins;  // says hello first
        Bytes bytes;
        bool dropped;  // false: the peer goes away itself, the runtime waiting for more
    };
    const Case cases[] = {
            {"garbage before hello", false, junk(), true},
            {"hello with a wrong magic", false,
             frame(kFrameHello, 0, bytesOf(Hello{0x1234, kWireVersion, kRoleProcess, 15, {}})),
             true},
            {"thread of a process that never joined", false,
             frame(kFrameHello, 0, bytesOf(Hello{kWireMagic, kWireVersion, kRoleThread, 0, {}})),
             true},
            {"unknown frame type", true, frame(999, 1, Bytes(8)), true},
            {"size beyond any frame", true,
             bytesOf(FrameHeader{0xfffffff0u, kFrameTransaction, 0, 1, 0}), true},
            {"fixed part of the wrong size", true, frame(kFrameFreeBuffer, 1, Bytes(3)), true},
            {"call to a forged handle", true, call(Bytes(8), {}, 4242), true},
            {"object offset past the data", true, call(Bytes(32), {400}), true},
            {"misaligned object offset", true, call(objects(40, {2}), {2}), true},
            {"overlapping objects", true, call(objects(48, {0, 8}), {0, 8}), true},
            {"forged handle inside the data", true,
             call(objects(24, {0}, BINDER_TYPE_HANDLE, 77), {0}), true},
            {"object of an unsupported type", true, call(objects(24, {0}, BINDER_TYPE_PTR, 1), {0}),
             true},
            {"fd object without a descriptor", true, call(objects(24, {0}, BINDER_TYPE_FD), {0}),
             true},
            {"object count that overflows the frame", true,
             frame(kFrameTransaction, 1,
                   bytesOf(Transaction{0, 1, 0, 8, 0x40000000u, 0}) + Bytes(8)),
             true},
            {"reply without a call", true, frame(kFrameReply, 1, bytesOf(Reply{0, 0, 0, 0})), true},
            {"release of an unknown handle", true,
             frame(kFrameReleaseHandle, 1, bytesOf(HandleCount{9, 0, 1})), true},
            {"free of an unknown buffer", true,
             frame(kFrameFreeBuffer, 1, bytesOf(BufferRef{12345})), true},
            {"one-way calls beyond the unacknowledged window", true, beyondWindow, true},
            {"a runtime frame naming another sender", true,
             frame(kFrameIncomingTransaction, 1,
                   bytesOf(IncomingTransaction{0, 0, 0, 1, 0, 1, 0, 0, 0})),
             true},
            {"second hello", true,
             frame(kFrameHello, 1, bytesOf(Hello{kWireMagic, kWireVersion, 1, 1, {}})), true},
            {"frame cut in its header", true,
             Bytes(cutTransaction.begin(), cutTransaction.begin() + 7), false},
            {"frame cut in its payload", true,
             Bytes(cutTransaction.begin(), cutTransaction.begin() + 19), false},
            {"frames numbered out of order", true,
             frame(kFrameSetMaxThreads, 7, bytesOf(SetMaxThreads{1, 0})) +
                     frame(kFrameSetMaxThreads, 8, bytesOf(SetMaxThreads{1, 0})),
             false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RawPeer peer(mRuntime->socketPath());
        ASSERT_GE(peer.fd, 0);
        if (c.joins) {
            ASSERT_TRUE(peer.join());
        }
        sendAll(peer.fd, c.bytes);
        if (c.dropped) {
            EXPECT_TRUE(closedByPeer(peer.fd));
        }
    }
    // A process whose runtime hangs up on its hello gets an error; it does not wait on.
    sockaddr_un address{AF_UNIX, {}};
    const std::string mutePath = mRuntime->socketPath() + ".mute";
    strcpy(address.sun_path, mutePath.c_str());
    const int mute = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(mute, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(mute, 1));
    auto lost = hostbinder_test::startRole("hold", {"victim"}, false,
                                           {"HOSTBINDER_SOCKET=" + mutePath});
    pollfd p{mute, POLLIN, 0};
    char hello[sizeof(FrameHeader) + sizeof(Hello)];
    const int joining = poll(&p, 1, 5000) == 1 ? accept(mute, nullptr, nullptr) : -1;
    EXPECT_EQ(ssize_t(sizeof(hello)), recv(joining, hello, sizeof(hello), MSG_WAITALL));
    close(joining);
    close(mute);
    unlink(mutePath.c_str());
    EXPECT_EQ(1, lost->wait());
}

// Whatever identity a process writes into the fields it controls (the spare header and
// transaction words, its hello, the work source and the data), the runtime and the callee's
// process see it as itself. The runtime does not relay calls on a process's objects: the call
// fails there, and goes straight to the callee's process.
TEST_F(HostileTest, ForgedIdentityIsNeverBelieved) {
    mForgedPid = static_cast<uint32_t>(mService->pid());
    joinAndFindTheService();
    const std::vector<int32_t> self{getpid(), static_cast<int32_t>(getuid())};
    InboundFrame refused;
    call(static_cast<int32_t>(mVictim.handle), hostbinder_ipc::kWhoCalls, Parcel(), &refused,
         FAILED_TRANSACTION);

    // Straight to the service's process, with the name the runtime gave for the object.
    const int direct = connectToTheService();
    ASSERT_GE(direct, 0);
    sendAll(direct,
            frame(kFrameDirectCall, mForgedPid,
                  bytesOf(DirectCall{mIntroduction.name, mIntroduction.proof, 0, 0,
                                     hostbinder_ipc::kWhoCalls, 0, 8, 0}) +
                          bytesOf(std::array<uint32_t, 2>{mForgedPid, mForgedUid}),
                  mForgedUid));
    FrameReader reader;
    InboundFrame answer;
    const bool answered = readFrame(direct, reader, &answer);
    close(direct);
    ASSERT_TRUE(answered);
    ASSERT_EQ(kFrameDirectReply, answer.header.type);
    ASSERT_EQ(NO_ERROR, answer.fixed<DirectReply>().status);
    EXPECT_EQ(self, replyInts(answer));
}

// Whatever a peer sends on a direct connection to a process costs it that connection, or gets
// its call refused, and nothing else; the process's descriptors return to where they were.
TEST_F(HostileTest, DirectPeersBreakingTheProtocolLoseOnlyTheirConnection) {
    joinAndFindTheService();
    const std::string serviceFds = "/proc/" + std::to_string(mService->pid()) + "/fd";
    // The service's main thread joins its pool after it said it was ready: count once the
    // count holds still.
    int fdsBefore = -1;
    ASSERT_TRUE(waitUntil([&] {
        const int previous = fdsBefore;
        usleep(50 * 1000);
        fdsBefore = countEntries(serviceFds);
        return fdsBefore == previous;
    }));
    const uint64_t name = mIntroduction.name, proof = mIntroduction.proof;
    auto directCall = [&](uint64_t name, uint64_t proof, uint64_t parkId, uint32_t dataSize) {
        return frame(kFrameDirectCall, 0,
                     bytesOf(DirectCall{name, proof, parkId, 0, hostbinder_ipc::kEcho, 0, dataSize,
                                        0}) +
                             Bytes(dataSize));
    };
    const Bytes cutShort = directCall(name, proof, 0, 64);
    sendAll(mThread->fd, frame(kFramePark, mSeq++, bytesOf(Park{mService->pid(), 0, 4, 0}) +
                                                           bytesOf(int32_t(6))));
    InboundFrame parked;
    ASSERT_TRUE(readFrame(mThread->fd, mThread->reader, &parked));
    const uint64_t parkId = parked.fixed<ParkAck>().parkId;
    enum Outcome { kDropped, kLeftWaiting, kRefused };
    struct Case {
        const char* what;
        Bytes bytes;
        Outcome outcome;
        status_t status;  // of a refused call
    };
    const Case cases[] = {
            {"garbage", junk(), kDropped, 0},
            {"a reply nobody asked for",
             frame(kFrameDirectReply, 0, bytesOf(DirectReply{0, 0, 0, 0, 0})), kDropped, 0},
            {"a runtime frame",
             frame(kFrameIncomingTransaction, 0,
                   bytesOf(IncomingTransaction{0, 0, 0, 1, 0, 1, 0, 0, 0})),
             kDropped, 0},
            {"a call cut short", Bytes(cutShort.begin(), cutShort.end() - 40), kLeftWaiting, 0},
            {"a call naming a body it did not park", directCall(name, proof, 12345, 0), kRefused,
             BAD_VALUE},
            {"a call with a body it parked", directCall(name, proof, parkId, 0), kRefused,
             NO_ERROR},
            {"the same body again", directCall(name, proof, parkId, 0), kRefused, BAD_VALUE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const int fd = connectToTheService();
        ASSERT_GE(fd, 0);
        sendAll(fd, c.bytes);
        if (c.outcome == kDropped) {
            size_t received = 0;
            EXPECT_TRUE(closedByPeer(fd, &received));
            EXPECT_EQ(0u, received) << "it was answered";
        }
        if (c.outcome == kRefused) {
            FrameReader reader;
            InboundFrame answer;
            EXPECT_TRUE(readFrame(fd, reader, &answer));
            EXPECT_EQ(kFrameDirectReply, answer.header.type);
            EXPECT_EQ(c.status, answer.fixed<DirectReply>().status);
        }
        close(fd);
    }
    for (int i = 0; i < 300; i++) {
        const int fd = connectToTheService();
        ASSERT_GE(fd, 0) << i;
        close(fd);
    }
    EXPECT_TRUE(serviceAnswers());
    EXPECT_TRUE(waitUntil([&] { return countEntries(serviceFds) == fdsBefore; }));
}

// A process of another uid that was given the service breaks the direct-call rules with its
// own name and proof: a derived name, another proof, a one-way call beyond its budget, a
// descriptor. Each costs it that connection, unanswered; its calls by the rules still work.
TEST_F(HostileTest, DirectCallsBeyondTheRulesCostTheConnection) {
    const std::string out = hostbinder_test::runRole("abuse", {"victim"});
    for (const char* what : {"derived-name", "other-proof", "beyond-budget", "descriptor"}) {
        EXPECT_NE(std::string::npos, out.find(std::string(what) + " closed=1 answered=0"))
                << what << "\n" << out;
    }
    EXPECT_NE(std::string::npos, out.find("echo=9")) << out;
    EXPECT_TRUE(mService->waitForOutput("it named an object without the runtime's proof"));
    EXPECT_TRUE(mService->waitForOutput("one-way calls beyond its budget"));
    EXPECT_TRUE(mService->waitForOutput("it sent descriptors")) << mService->output();
}

// The name and proof the runtime gave one process are worth nothing to another: its call is
// not served, its connection ends, and the service says why.
TEST_F(HostileTest, AnObjectsProofServesOnlyTheProcessItWasGivenTo) {
    joinAndFindTheService();
    const std::string out = hostbinder_test::runRole(
            "replay", {mRuntime->socketPath(), std::to_string(mService->pid()),
                       std::to_string(mIntroduction.name), std::to_string(mIntroduction.proof)});
    EXPECT_NE(std::string::npos, out.find("closed=1 answered=0")) << out;
    EXPECT_TRUE(mService->waitForOutput("it named an object without the runtime's proof"))
            << mService->output();
}

TEST_F(HostileTest, AThousandConnectionsComeAndGo) {
    for (int i = 0; i < 1000; i++) {
        RawPeer peer(mRuntime->socketPath());
        ASSERT_GE(peer.fd, 0) << i;
        if (i % 2 == 0) {
            ASSERT_TRUE(peer.join()) << i;
        }
    }
}

}  // namespace
