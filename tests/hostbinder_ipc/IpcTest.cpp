// Multi-process behaviour of the hostbinder runtime. Each test starts its own runtime instance
// and services in roles of this executable; this process is their client.
#include "TestService.h"
#include "WireSocket.h"
#include "WireProtocol.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <hostbinder_test/Roles.h>
#include <utils/String8.h>

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <thread>

using namespace android;
using namespace hostbinder_ipc;
using hostbinder_test::ChildProcess;
using hostbinder_test::runRole;
using hostbinder_test::RuntimeInstance;
using hostbinder_test::startRole;
using hostbinder_test::waitUntil;

namespace {

void say(const std::string& line) {
    printf("%s\n", line.c_str());
    fflush(stdout);
}

// The threads of this process accepting direct connections.
int32_t threadId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

class Tracked : public BBinder {
public:
    explicit Tracked(int id) : mId(id) {}
    ~Tracked() override { say("destroyed " + std::to_string(mId)); }

private:
    int mId;
};

class TestService : public BBinder {
public:
    // Writes "dump:" and the arguments, space-separated.
    status_t dump(int fd, const Vector<String16>& args) override {
        std::string text = "dump:";
        for (size_t i = 0; i < args.size(); i++)
            text += std::string(" ") + String8(args[i]).string();
        return dprintf(fd, "%s\n", text.c_str()) > 0 ? NO_ERROR : UNKNOWN_ERROR;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        IPCThreadState* ipc = IPCThreadState::self();
        std::unique_lock<std::mutex> lock(mLock);
        switch (code) {
            case kEcho:
                return reply->writeInt32(data.readInt32());
            case kWhoCalls:
                reply->writeInt32(ipc->getCallingPid());
                return reply->writeInt32(static_cast<int32_t>(ipc->getCallingUid()));
            case kStore:
                mStored = data.readStrongBinder();
                return NO_ERROR;
            case kGetStored:
                return reply->writeStrongBinder(mStored);
            case kIsStored: {
                sp<IBinder> b = data.readStrongBinder();
                return reply->writeInt32(b != nullptr && b == mStored ? 1 : 0);
            }
            case kOneway: {
                const int32_t sender = data.readInt32();
                const int32_t seq = data.readInt32();
                mGateOpened.wait(lock, [this] { return !mGateClosed; });
                mOnewayReceived++;
                auto it = mLastSeq.find(sender);
                if (seq != (it == mLastSeq.end() ? 0 : it->second + 1)) mOnewayOutOfOrder++;
                mLastSeq[sender] = seq;
                return NO_ERROR;
            }
            case kOnewayStats:
                reply->writeInt32(mOnewayReceived);
                return reply->writeInt32(mOnewayOutOfOrder);
            case kGate:
                mGateClosed = data.readInt32() != 0;
                mGateOpened.notify_all();
                return NO_ERROR;
            case kBounce: {
                lock.unlock();
                sp<IBinder> peer = data.readStrongBinder();
                const int32_t depth = data.readInt32();
                Parcel req, rep;
                if (depth > 0) {
                    req.writeStrongBinder(this);
                    req.writeInt32(depth - 1);
                    const status_t err = peer->transact(kBounce, req, &rep);
                    if (err != NO_ERROR) return err;
                }
                reply->writeInt32(depth > 0 ? rep.readInt32() + 1 : 0);
                reply->writeInt32(threadId());
                while (rep.dataAvail() >= 4) reply->writeInt32(rep.readInt32());
                return NO_ERROR;
            }
            case kReadFd: {
                char buf[256] = {};
                if (pread(data.readFileDescriptor(), buf, sizeof(buf) - 1, 0) < 0) return BAD_VALUE;
                return reply->writeString16(String16(buf));
            }
            case kNewObject:
                return reply->writeStrongBinder(new Tracked(mNextObject++));
            case kSleep:
                lock.unlock();
                say("sleeping");
                usleep(static_cast<useconds_t>(data.readInt32()) * 1000);
                return NO_ERROR;
            case kBlob: {
                const std::vector<uint8_t> bytes(static_cast<size_t>(data.readInt32()), 0x5a);
                return reply->write(bytes.data(), bytes.size());
            }
            case kCallerPermission: {
                lock.unlock();
                int32_t pid = 0, uid = 0;
                reply->writeInt32(checkCallingPermission(data.readString16(), &pid, &uid) ? 1 : 0);
                return reply->writeInt32(uid);
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::mutex mLock;
    std::condition_variable mGateOpened;
    bool mGateClosed = false;
    sp<IBinder> mStored;
    std::map<int32_t, int32_t> mLastSeq;
    int32_t mOnewayReceived = 0;
    int32_t mOnewayOutOfOrder = 0;
    int mNextObject = 0;
};

// serve NAME [MAXTHREADS]: publishes a TestService as NAME and serves until killed.
TEST_ROLE(serve) {
    if (args.size() > 1) ProcessState::self()->setThreadPoolMaxThreadCount(std::stoi(args[1]));
    if (defaultServiceManager()->addService(String16(args.at(0).c_str()), new TestService) !=
        NO_ERROR) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

sp<IBinder> service(const std::string& name) {
    return defaultServiceManager()->checkService(String16(name.c_str()));
}

status_t call(const sp<IBinder>& target, uint32_t code, Parcel* reply,
              std::vector<int32_t> args = {}, const sp<IBinder>& object = nullptr,
              uint32_t flags = 0) {
    Parcel data;
    if (object != nullptr) data.writeStrongBinder(object);
    for (int32_t a : args) data.writeInt32(a);
    return target == nullptr ? NAME_NOT_FOUND : target->transact(code, data, reply, flags);
}

// The one-way calls `target` received, and how many of them came out of order.
std::pair<int, int> onewayStats(const sp<IBinder>& target) {
    Parcel reply;
    if (call(target, kOnewayStats, &reply) != NO_ERROR) return {-1, -1};
    const int received = reply.readInt32();
    return {received, reply.readInt32()};
}

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

std::mutex gDeathLock;
std::string gDeaths;  // the indexes of the death recipients told so far, in order

struct Recipient : IBinder::DeathRecipient {
    explicit Recipient(int index) : index(index) {}
    void binderDied(const wp<IBinder>&) override {
        std::lock_guard<std::mutex> l(gDeathLock);
        gDeaths += std::to_string(index);
    }
    int index;
};

std::string deaths() {
    std::lock_guard<std::mutex> l(gDeathLock);
    return gDeaths;
}

// owner SERVICE: hands an object of its own to SERVICE, checks that it comes back as itself,
// then serves it.
TEST_ROLE(owner) {
    ProcessState::self()->startThreadPool();
    sp<IBinder> mine = new TestService;
    Parcel stored, back;
    if (call(service(args.at(0)), kStore, &stored, {}, mine) != NO_ERROR ||
        call(service(args[0]), kGetStored, &back) != NO_ERROR || back.readStrongBinder() != mine) {
        return 1;
    }
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// hold SERVICE: holds a fresh object of SERVICE until killed.
TEST_ROLE(hold) {
    Parcel reply;
    if (call(service(args.at(0)), kNewObject, &reply) != NO_ERROR) return 1;
    sp<IBinder> object = reply.readStrongBinder();
    if (object == nullptr) return 1;
    hostbinder_test::ready();
    pause();
    return 0;
}

// caller SERVICE UID PERMISSION: as UID, prints this process's calling identity outside a call
// ("outside=PID,UID") and after restoring a cleared one ("restored="), SERVICE's view of it
// ("seen="), and whether SERVICE grants it PERMISSION ("granted=0|1,UID").
TEST_ROLE(caller) {
    const uid_t uid = static_cast<uid_t>(std::stoul(args.at(1)));
    if (uid != getuid() && (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0)) {
        return 4;
    }
    IPCThreadState* ipc = IPCThreadState::self();
    Parcel withFd, refused;  // a descriptor the service manager does not take is closed
    withFd.writeFileDescriptor(STDIN_FILENO);
    if (IInterface::asBinder(defaultServiceManager())->transact(77, withFd, &refused) == NO_ERROR)
        return 5;
    printf("outside=%d,%u\n", ipc->getCallingPid(), ipc->getCallingUid());
    ipc->restoreCallingIdentity(ipc->clearCallingIdentity());
    printf("restored=%d,%u\n", ipc->getCallingPid(), ipc->getCallingUid());
    sp<IBinder> target = service(args[0]);
    Parcel who, ask, permission;
    ask.writeString16(String16(args.at(2).c_str()));
    if (call(target, kWhoCalls, &who) != NO_ERROR ||
        target->transact(kCallerPermission, ask, &permission) != NO_ERROR) {
        return 3;
    }
    const int32_t pid = who.readInt32(), granted = permission.readInt32();
    printf("seen=%d,%d\ngranted=%d,%d\n", pid, who.readInt32(), granted, permission.readInt32());
    return 0;
}

// watch VICTIM: links six death recipients to VICTIM and unlinks the third, keeps a call pending
// in it, and once it dies prints "died=" and the order the recipients were told in, what VICTIM
// answers then ("pending=", "relink=", "call=", "listed="), and "at=" the time of the last notice.
TEST_ROLE(watch) {
    ProcessState::self()->startThreadPool();
    sp<IBinder> victim = service(args.at(0));
    std::vector<sp<IBinder::DeathRecipient>> recipients;
    for (int i = 0; i < 6; i++) {
        recipients.push_back(new Recipient(i));
        if (victim == nullptr || victim->linkToDeath(recipients.back()) != NO_ERROR) return 1;
    }
    if (victim->unlinkToDeath(recipients[2]) != NO_ERROR) return 1;
    std::atomic<status_t> pending{NO_ERROR};
    std::thread caller([&] {
        Parcel reply;
        pending = call(victim, kSleep, &reply, {20000});
    });
    hostbinder_test::ready();
    waitUntil([] { return deaths().size() == 5; });
    const int64_t at = nowMs();
    caller.join();
    Parcel echo;
    const status_t relink = victim->linkToDeath(recipients[0]);
    printf("died=%s pending=%d relink=%d call=%d listed=%d\nat=%lld\n", deaths().c_str(),
           pending.load(), relink, call(victim, kEcho, &echo, {1}), service(args[0]) != nullptr,
           static_cast<long long>(at));
    return 0;
}

// burst SERVICE SENDER: 400 one-way calls of 64 KB, numbered by the calls taken so far (a
// refused call's number is used again); prints "taken=T refused=R other=O".
TEST_ROLE(burst) {
    const int32_t sender = std::stoi(args.at(1));
    const std::vector<uint8_t> blob(64 * 1024, 0x6b);
    sp<IBinder> target = service(args[0]);
    int taken = 0, refused = 0, other = 0;
    for (int i = 0; target != nullptr && i < 400; i++) {
        Parcel data;
        data.writeInt32(sender);
        data.writeInt32(taken);
        data.write(blob.data(), blob.size());
        const status_t err = target->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
        (err == NO_ERROR ? taken : err == FAILED_TRANSACTION ? refused : other)++;
    }
    printf("taken=%d refused=%d other=%d\n", taken, refused, other);
    return target == nullptr ? 1 : 0;
}

class IpcTest : public ::testing::Test {
protected:
    // Every test's runtime grants perm.CAMERA to uid 4321.
    void SetUp() override { mRuntime = std::make_unique<RuntimeInstance>("4321 perm.CAMERA\n"); }

    std::unique_ptr<ChildProcess> serve(const std::string& name) {
        auto child = startRole("serve", {name});
        EXPECT_TRUE(child);
        return child;
    }

    std::unique_ptr<RuntimeInstance> mRuntime;
};

TEST_F(IpcTest, ObjectsKeepTheirIdentityAcrossThreeProcesses) {
    auto holder = serve("holder");
    auto owner = startRole("owner", {"holder"});  // its object came back to it as itself
    ASSERT_TRUE(holder && owner);
    sp<IBinder> holderService = service("holder");
    Parcel first, second, same, echo, who;
    ASSERT_EQ(NO_ERROR, call(holderService, kGetStored, &first));
    ASSERT_EQ(NO_ERROR, call(holderService, kGetStored, &second));
    sp<IBinder> object = first.readStrongBinder();
    ASSERT_NE(nullptr, object);
    EXPECT_NE(nullptr, object->remoteBinder());
    EXPECT_NE(holderService, object);
    EXPECT_EQ(object, second.readStrongBinder());  // one proxy per object in a process
    // Sent back to the holder, it is the holder's reference again.
    ASSERT_EQ(NO_ERROR, call(holderService, kIsStored, &same, {}, object));
    EXPECT_EQ(1, same.readInt32());
    ASSERT_EQ(NO_ERROR, call(object, kEcho, &echo, {4242}));
    EXPECT_EQ(4242, echo.readInt32());
    ASSERT_EQ(NO_ERROR, call(object, kWhoCalls, &who));
    EXPECT_EQ(getpid(), who.readInt32());
}

TEST_F(IpcTest, LocalObjectLivesWhileRemoteHoldersDo) {
    auto objects = serve("objects");
    ASSERT_TRUE(objects);
    {
        Parcel reply, echo;
        ASSERT_EQ(NO_ERROR, call(service("objects"), kNewObject, &reply));
        sp<IBinder> object = reply.readStrongBinder();
        reply.freeData();
        // Held here only: alive after the reply that brought it is gone and another round trip.
        ASSERT_EQ(NO_ERROR, call(service("objects"), kEcho, &echo, {1}));
        EXPECT_EQ(NO_ERROR, object->pingBinder());
        EXPECT_EQ(std::string::npos, objects->output().find("destroyed 0"));
    }
    EXPECT_TRUE(objects->waitForOutput("destroyed 0\n")) << objects->output();
    // Held by a process that is killed: destroyed too.
    auto holder = startRole("hold", {"objects"});
    ASSERT_TRUE(holder);
    EXPECT_EQ(std::string::npos, objects->output().find("destroyed 1"));
    holder->kill();
    EXPECT_TRUE(objects->waitForOutput("destroyed 1\n")) << objects->output();
}

TEST_F(IpcTest, OnewayCallsToOneObjectArriveInOrder) {
    auto ordered = serve("ordered");
    sp<IBinder> target = service("ordered");
    ASSERT_NE(nullptr, target);
    std::vector<std::thread> senders;
    for (int32_t sender = 0; sender < 10; sender++) {
        senders.emplace_back([&target, sender] {
            for (int32_t i = 0; i < 1000; i++)
                call(target, kOneway, nullptr, {sender, i}, nullptr, IBinder::FLAG_ONEWAY);
        });
    }
    for (auto& s : senders) s.join();
    waitUntil([&] { return onewayStats(target).first >= 10000; }, 20000);
    EXPECT_EQ(std::make_pair(10000, 0), onewayStats(target));
}

TEST_F(IpcTest, OnewayFloodIntoAStalledReceiverIsDeliveredOrRefusedNeverLost) {
    auto sink = serve("sink");
    sp<IBinder> target = service("sink");
    Parcel closed, opened, echo;
    ASSERT_EQ(NO_ERROR, call(target, kGate, &closed, {1}));
    // Three processes send far more than the held-back receiver's queue takes.
    std::vector<std::unique_ptr<ChildProcess>> senders;
    for (int i = 0; i < 3; i++)
        senders.push_back(startRole("burst", {"sink", std::to_string(i)}, false));
    int taken = 0, refused = 0;
    for (auto& sender : senders) {
        ASSERT_EQ(0, sender->wait(60000)) << sender->output();
        const std::string out = sender->output();
        int t = 0, r = 0, other = -1;
        const size_t at = out.find("taken=");
        ASSERT_NE(std::string::npos, at) << out;
        ASSERT_EQ(3, sscanf(out.c_str() + at, "taken=%d refused=%d other=%d", &t, &r, &other));
        EXPECT_EQ(0, other) << out;
        // A stalled receiver takes what fits its one-way budget from each sender, no more.
        EXPECT_LE(t, int(hostbinder::kDirectOnewayBudget /
                         (64 * 1024 + 8 + hostbinder::kOnewayCallOverhead)))
                << out;
        taken += t;
        refused += r;
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(taken, 0);
    // Stalled, it still answers other calls.
    ASSERT_EQ(NO_ERROR, call(target, kEcho, &echo, {5}));
    EXPECT_EQ(5, echo.readInt32());
    // Let go, it gets exactly the calls that were taken, each sender's in order, then a last one
    // sent from here after all of them.
    ASSERT_EQ(NO_ERROR, call(target, kGate, &opened, {0}));
    ASSERT_EQ(NO_ERROR, call(target, kOneway, nullptr, {99, 0}, nullptr, IBinder::FLAG_ONEWAY));
    waitUntil([&] { return onewayStats(target).first > taken; }, 20000);
    EXPECT_EQ(std::make_pair(taken + 1, 0), onewayStats(target));
}

TEST_F(IpcTest, NestedCallsRunOnTheWaitingThread) {
    auto bouncer = startRole("serve", {"bouncer", "0"});  // a single pool thread
    Parcel reply;
    ASSERT_EQ(NO_ERROR, call(service("bouncer"), kBounce, &reply, {5}, new TestService));
    // The hop count, then each hop's serving thread: the bouncer's, this one, the bouncer's...
    EXPECT_EQ(5, reply.readInt32());
    std::vector<int32_t> threads;
    while (reply.dataAvail() >= 4) threads.push_back(reply.readInt32());
    ASSERT_EQ(6u, threads.size());
    for (size_t i = 0; i < threads.size(); i++) {
        EXPECT_EQ(i % 2 == 1 ? static_cast<int32_t>(syscall(SYS_gettid)) : threads[0], threads[i])
                << "hop " << i;
    }
}

TEST_F(IpcTest, CalleeSeesTheCallersKernelIdentity) {
    auto who = serve("who");
    std::vector<uid_t> uids{getuid()};
    if (getuid() == 0) uids.insert(uids.end(), {4321, 4322});  // a child that switched uid
    for (uid_t uid : uids) {
        pid_t pid = 0;
        const std::string out =
                runRole("caller", {"who", std::to_string(uid), "perm.CAMERA"}, &pid);
        const std::string self = std::to_string(pid) + "," + std::to_string(uid) + "\n";
        EXPECT_NE(std::string::npos,
                  out.find("outside=" + self + "restored=" + self + "seen=" + self +
                           "granted=" + (uid == 4321 ? "1," : "0,") + std::to_string(uid) + "\n"))
                << out;
    }
}

TEST_F(IpcTest, KilledProcessNotifiesInLinkOrderAndFailsItsCallers) {
    auto victim = serve("victim");
    auto first = startRole("watch", {"victim"});
    auto second = startRole("watch", {"victim"});
    ASSERT_TRUE(victim && first && second);
    EXPECT_TRUE(waitUntil([&] {  // both watchers' calls are in the victim
        const std::string out = victim->output();
        return out.find("sleeping") != out.rfind("sleeping");
    }));
    const int64_t killedAt = nowMs();
    victim->kill();
    const std::string dead = std::to_string(DEAD_OBJECT);
    for (ChildProcess* watcher : {first.get(), second.get()}) {
        ASSERT_EQ(0, watcher->wait()) << watcher->output();
        const std::string out = watcher->output();
        EXPECT_NE(std::string::npos, out.find("died=01345 pending=" + dead + " relink=" + dead +
                                              " call=" + dead + " listed=0\n"))
                << out;
        EXPECT_LT(std::stoll(out.substr(out.find("at=") + 3)) - killedAt, 1000) << out;
    }
    for (const String16& name : defaultServiceManager()->listServices())
        EXPECT_NE(String16("victim"), name);
}

TEST_F(IpcTest, DescriptorsDumpsAndCallsUpToTheSizeLimitReachTheOtherProcess) {
    auto files = serve("files");
    sp<IBinder> target = service("files");
    ASSERT_NE(nullptr, target);
    const int file = memfd_create("fd-bytes", MFD_CLOEXEC);
    ASSERT_EQ(8, write(file, "fd-bytes", 8));
    Parcel data, reply, echo;
    data.writeFileDescriptor(file, true);
    ASSERT_EQ(NO_ERROR, target->transact(kReadFd, data, &reply));
    EXPECT_EQ(String16("fd-bytes"), reply.readString16());

    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    Vector<String16> args;
    args.add(String16("-a"));
    args.add(String16("--verbose"));
    EXPECT_EQ(NO_ERROR, target->dump(pipeFds[1], args));
    close(pipeFds[1]);
    char text[64] = {};
    EXPECT_GT(read(pipeFds[0], text, sizeof(text) - 1), 0);
    close(pipeFds[0]);
    EXPECT_STREQ("dump: -a --verbose\n", text);

    // Calls and replies up to the limit go; beyond it they fail, and nothing else does.
    const int32_t limit = static_cast<int32_t>(hostbinder::kMaxTransactionBytes);
    for (int32_t size : {limit, limit + 4}) {
        SCOPED_TRACE(size);
        const status_t expected = size > limit ? FAILED_TRANSACTION : NO_ERROR;
        const std::vector<uint8_t> bytes(static_cast<size_t>(size) - 4, 1);
        Parcel big, bigReply, blob;
        big.writeInt32(3);
        big.write(bytes.data(), bytes.size());
        EXPECT_EQ(expected, target->transact(kEcho, big, &bigReply));
        EXPECT_EQ(expected, call(target, kBlob, &blob, {size}));
        if (expected == NO_ERROR) {
            EXPECT_EQ(static_cast<size_t>(size), blob.dataSize());
        }
    }
    ASSERT_EQ(NO_ERROR, call(target, kEcho, &echo, {7}));
    EXPECT_EQ(7, echo.readInt32());
}

TEST_F(IpcTest, ServiceManagerCodes) {
    sp<IServiceManager> manager = defaultServiceManager();
    // getService gives up on a missing name after five seconds; meanwhile the rest goes on.
    auto missing = std::async(std::launch::async, [&] {
        const int64_t start = nowMs();
        return manager->getService(String16("sm.never")) == nullptr ? nowMs() - start : -1;
    });
    const int64_t start = nowMs();
    EXPECT_EQ(nullptr, manager->checkService(String16("sm.none")));
    EXPECT_LT(nowMs() - start, 1000);
    std::thread late([&] {
        usleep(300 * 1000);
        manager->addService(String16("sm.late"), new TestService);
    });
    EXPECT_NE(nullptr, manager->getService(String16("sm.late")));
    late.join();
    sp<IBinder> mine = new TestService;
    EXPECT_EQ(NO_ERROR, manager->addService(String16("sm.a"), mine));
    EXPECT_NE(NO_ERROR, manager->addService(String16("sm.b"), nullptr));
    EXPECT_EQ(mine, manager->checkService(String16("sm.a")));
    std::string list;
    for (const String16& name : manager->listServices())
        list += String8(name).string() + std::string(";");
    EXPECT_EQ("permission;sm.a;sm.late;", list);
    Parcel data, reply;
    data.writeInterfaceToken(String16("android.os.IServiceManager"));
    EXPECT_EQ(UNKNOWN_TRANSACTION, IInterface::asBinder(manager)->transact(77, data, &reply));
    EXPECT_EQ(String16("android.os.IServiceManager"),
              IInterface::asBinder(manager)->getInterfaceDescriptor());
    const int64_t waited = missing.get();
    EXPECT_GE(waited, 4900);
    EXPECT_LT(waited, 7000);
}

TEST_F(IpcTest, PermissionsFollowThePolicyFile) {
    auto granted = [](uid_t uid, std::vector<const char*> permissions) {
        std::string out;
        for (const char* p : permissions)
            out += checkPermission(String16(p), getpid(), uid) ? "1" : "0";
        return out;
    };
    struct Case {
        const char* policy;  // empty: no policy file
        uid_t uid;
        const char* expected;  // for CAMERA, INTERNET, OTHER
    };
    const Case cases[] = {
            {"", 0, "111"},
            {"", 1000, "000"},
            {"1000 perm.CAMERA\n* perm.INTERNET  # anyone\n", 1000, "110"},
            {"1000 perm.CAMERA\n* perm.INTERNET\n", 0, "010"},
            {"# nothing\n2000 *\n", 2000, "111"},
            {"# nothing\n2000 *\n", 0, "000"},
    };
    for (const Case& c : cases) {
        mRuntime.reset();
        mRuntime = std::make_unique<RuntimeInstance>(c.policy);
        EXPECT_EQ(c.expected, granted(c.uid, {"perm.CAMERA", "perm.INTERNET", "perm.OTHER"}))
                << "policy " << c.policy << " uid " << c.uid;
    }
    // The file is read again when it changes.
    mRuntime->setPolicy("1001 perm.CAMERA\n");
    EXPECT_EQ("01", granted(2000, {"perm.CAMERA"}) + granted(1001, {"perm.CAMERA"}));
}

TEST_F(IpcTest, ProcessJoinsTheInstanceItIsPointedAt) {
    auto firstService = serve("first");
    const std::string firstPath = mRuntime->socketPath();
    sp<IBinder> first = service("first");
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(NO_ERROR, first->pingBinder());
    mRuntime.reset();
    mRuntime = std::make_unique<RuntimeInstance>();
    auto secondService = serve("second");
    EXPECT_NE(nullptr, service("second"));
    EXPECT_EQ(nullptr, service("first"));
    EXPECT_FALSE(first->isBinderAlive());
    EXPECT_EQ(DEAD_OBJECT, first->pingBinder());
    // The first instance's address for direct calls is given up; the second's is listened on.
    const int stale = hostbinder::connectDirect(hostbinder::directAddress(firstPath.c_str(), getpid()));
    EXPECT_LT(stale, 0);
    const int current =
            hostbinder::connectDirect(hostbinder::directAddress(mRuntime->socketPath().c_str(), getpid()));
    EXPECT_GE(current, 0);
    if (current >= 0) close(current);
}

}  // namespace
