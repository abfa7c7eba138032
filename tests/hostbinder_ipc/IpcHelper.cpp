// Helper process of the multi-process tests: each mode plays one side of a scenario and prints
// `key=value` lines that the test reads.
#include "TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/String8.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace android;
using namespace hostbinder_ipc;

namespace {

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    printf("\n");
    fflush(stdout);
}

sp<IBinder> need(const char* name) {
    sp<IBinder> b = defaultServiceManager()->getService(String16(name));
    if (b == nullptr) {
        say("error=no service %s", name);
        exit(3);
    }
    return b;
}

status_t call(const sp<IBinder>& b, uint32_t code, Parcel* reply,
              const std::vector<int32_t>& args = {}, const sp<IBinder>& obj = nullptr) {
    Parcel data;
    if (obj != nullptr) data.writeStrongBinder(obj);
    for (int32_t a : args) data.writeInt32(a);
    return b->transact(code, data, reply);
}

void becomeUid(const char* arg) {
    uid_t uid = static_cast<uid_t>(atoi(arg));
    if (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0) {
        say("error=setresuid failed");
        exit(4);
    }
}

// serve NAME [MAXTHREADS]: publishes a TestService and serves until killed.
int serve(int argc, char** argv) {
    if (argc > 3) ProcessState::self()->setThreadPoolMaxThreadCount(atoi(argv[3]));
    sp<TestService> service = new TestService;
    status_t err = defaultServiceManager()->addService(String16(argv[2]), service);
    if (err != NO_ERROR) {
        say("error=addService %d", err);
        return 1;
    }
    ProcessState::self()->startThreadPool();
    say("ready pid=%d", getpid());
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// whoami NAME [UID]: the callee's view of this caller, and this process's own.
int whoami(int argc, char** argv) {
    if (argc > 3) becomeUid(argv[3]);
    IPCThreadState* ipc = IPCThreadState::self();
    say("self=%d %u outside=%d %u", getpid(), getuid(), ipc->getCallingPid(),
        ipc->getCallingUid());
    sp<IBinder> b = need(argv[2]);
    Parcel reply;
    status_t err = call(b, kWhoCalls, &reply);
    if (err != NO_ERROR) return say("error=%d", err), 1;
    const int32_t pid = reply.readInt32();
    const int32_t uid = reply.readInt32();
    say("seen=%d %d", pid, uid);
    int64_t token = ipc->clearCallingIdentity();
    ipc->restoreCallingIdentity(token);
    say("restored=%d %u", ipc->getCallingPid(), ipc->getCallingUid());
    return 0;
}

// owner NAME: sends a local object to NAME and checks it comes back as itself.
int owner(int, char** argv) {
    ProcessState::self()->startThreadPool();
    sp<IBinder> b = need(argv[2]);
    sp<IBinder> mine = new TestService;
    Parcel reply;
    if (call(b, kStore, &reply, {}, mine) != NO_ERROR) return say("error=store"), 1;
    Parcel back;
    if (call(b, kGetStored, &back) != NO_ERROR) return say("error=get"), 1;
    sp<IBinder> returned = back.readStrongBinder();
    say("back_is_original=%d", returned == mine ? 1 : 0);
    say("stored");
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// third NAME: takes the object NAME holds, checks identity rules and calls it.
int third(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    Parcel r1, r2;
    call(b, kGetStored, &r1);
    call(b, kGetStored, &r2);
    sp<IBinder> p1 = r1.readStrongBinder();
    sp<IBinder> p2 = r2.readStrongBinder();
    say("is_proxy=%d same_proxy=%d", p1 != nullptr && p1->remoteBinder() != nullptr ? 1 : 0,
        p1 == p2 ? 1 : 0);
    Parcel same;
    call(b, kIsStored, &same, {}, p1);
    say("same_in_holder=%d", same.readInt32());
    Parcel echo;
    status_t err = call(p1, kEcho, &echo, {4242});
    say("echo=%d err=%d", echo.readInt32(), err);
    Parcel who;
    call(p1, kWhoCalls, &who);
    say("owner_saw=%d", who.readInt32());
    return 0;
}

// hold NAME: gets a fresh object from NAME, holds it, then lets it go.
int hold(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    Parcel reply;
    call(b, kNewObject, &reply);
    sp<IBinder> obj = reply.readStrongBinder();
    say("holding alive=%d", obj != nullptr && obj->pingBinder() == NO_ERROR ? 1 : 0);
    usleep(500 * 1000);
    say("still_alive=%d", obj->pingBinder() == NO_ERROR ? 1 : 0);
    obj.clear();
    reply.freeData();
    say("released");
    usleep(3000 * 1000);
    return 0;
}

// oneway NAME THREADS CALLS: one-way calls from many threads, then the order the callee saw.
int oneway(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    const int threads = atoi(argv[3]);
    const int calls = atoi(argv[4]);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < calls; i++) {
                Parcel data;
                data.writeInt32(t);
                data.writeInt32(i);
                b->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
            }
        });
    }
    for (auto& w : workers) w.join();
    int32_t received = 0, outOfOrder = 0;
    const int64_t deadline = monotonicMs() + 20000;
    while (monotonicMs() < deadline) {
        Parcel reply;
        call(b, kOnewayStats, &reply);
        received = reply.readInt32();
        outOfOrder = reply.readInt32();
        if (received >= threads * calls) break;
        usleep(10 * 1000);
    }
    say("received=%d out_of_order=%d", received, outOfOrder);
    return 0;
}

// nested NAME DEPTH: ping-pong of nested calls with one pool thread here.
int nested(int, char** argv) {
    ProcessState::self()->setThreadPoolMaxThreadCount(0);
    ProcessState::self()->startThreadPool();
    sp<IBinder> b = need(argv[2]);
    sp<IBinder> mine = new TestService;
    Parcel reply;
    status_t err = call(b, kBounce, &reply, {atoi(argv[3])}, mine);
    // The reply: hop count, then the serving thread of each hop (B, A, B, A, ...).
    const int32_t hops = reply.readInt32();
    std::vector<int32_t> tids;
    while (reply.dataAvail() >= 4) tids.push_back(reply.readInt32());
    const int32_t me = static_cast<int32_t>(syscall(SYS_gettid));
    bool aOnCaller = true, bSame = true;
    for (size_t i = 0; i < tids.size(); i++) {
        if (i % 2 == 1 && tids[i] != me) aOnCaller = false;
        if (i % 2 == 0 && tids[i] != tids[0]) bSame = false;
    }
    say("err=%d hops=%d tids=%zu a_on_caller=%d b_same_thread=%d", err, hops, tids.size(),
        aOnCaller ? 1 : 0, bSame ? 1 : 0);
    return 0;
}

class LocalRecipient : public IBinder::DeathRecipient {
public:
    LocalRecipient(int index, std::string* log, std::atomic<int>* count, Mutex* lock)
          : mIndex(index), mLog(log), mCount(count), mLock(lock) {}
    void binderDied(const wp<IBinder>&) override {
        Mutex::Autolock _l(*mLock);
        if (!mLog->empty()) *mLog += ",";
        *mLog += std::to_string(mIndex);
        say("died index=%d at=%lld", mIndex, static_cast<long long>(monotonicMs()));
        (*mCount)++;
    }

private:
    int mIndex;
    std::string* mLog;
    std::atomic<int>* mCount;
    Mutex* mLock;
};

// death VICTIM WATCHER: links recipients here and in WATCHER, keeps a call pending in VICTIM,
// then reports what happened once the test kills VICTIM.
int death(int, char** argv) {
    ProcessState::self()->startThreadPool();
    sp<IBinder> victim = need(argv[2]);
    sp<IBinder> watcher = need(argv[3]);
    Parcel r;
    call(watcher, kStore, &r, {}, victim);
    Parcel r2;
    status_t err = call(watcher, kLinkStored, &r2, {3});
    if (err != NO_ERROR) return say("error=remote link %d", err), 1;

    Mutex lock;
    std::string log;
    std::atomic<int> count{0};
    std::vector<sp<IBinder::DeathRecipient>> recipients;
    for (int i = 0; i < 6; i++) {
        recipients.push_back(new LocalRecipient(i, &log, &count, &lock));
        if (victim->linkToDeath(recipients.back()) != NO_ERROR) return say("error=link"), 1;
    }
    victim->unlinkToDeath(recipients[2]);
    std::atomic<int> pending{1};
    std::thread caller([&] {
        Parcel reply;
        pending = call(victim, kSleep, &reply, {20000});
    });
    usleep(200 * 1000);  // the call is in the victim by now
    say("linked");
    const int64_t deadline = monotonicMs() + 10000;
    while (count < 5 && monotonicMs() < deadline) usleep(1000);
    caller.join();
    {
        Mutex::Autolock _l(lock);
        say("local_log=%s", log.c_str());
    }
    say("pending_dead=%d", pending == DEAD_OBJECT ? 1 : 0);
    say("relink_dead=%d", victim->linkToDeath(recipients[0]) == DEAD_OBJECT ? 1 : 0);
    say("call_dead=%d", call(victim, kEcho, &r, {1}) == DEAD_OBJECT ? 1 : 0);
    say("entry_gone=%d", defaultServiceManager()->checkService(String16(argv[2])) == nullptr);
    usleep(100 * 1000);
    Parcel logReply;
    call(watcher, kDeathLog, &logReply);
    say("remote_log=%s", String8(logReply.readString16()).string());
    return 0;
}

// fd NAME PATH: sends an open file to NAME, which reads it.
int fd(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    int file = open(argv[3], O_RDONLY | O_CLOEXEC);
    Parcel data, reply;
    data.writeFileDescriptor(file, true);
    status_t err = b->transact(kReadFd, data, &reply);
    say("err=%d read=%s", err, String8(reply.readString16()).string());
    return 0;
}

// limits NAME: transactions around the 1 MB limit.
int limits(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    std::vector<uint8_t> big(1024 * 1024 + 16, 1);
    Parcel data, reply;
    data.write(big.data(), big.size());
    say("big_call=%d", b->transact(kEcho, data, &reply) == FAILED_TRANSACTION ? 1 : 0);
    Parcel r1;
    status_t err = call(b, kBlob, &r1, {2 * 1024 * 1024});
    say("big_reply=%d", err == FAILED_TRANSACTION ? 1 : 0);
    Parcel r2;
    err = call(b, kBlob, &r2, {512 * 1024});
    say("half_mb=%d size=%zu", err == NO_ERROR ? 1 : 0, r2.dataSize());
    Parcel r3;
    call(b, kEcho, &r3, {7});
    say("after=%d", r3.readInt32());
    return 0;
}

// dump NAME ARGS...: the service's dump through DUMP_TRANSACTION.
int dump(int argc, char** argv) {
    sp<IBinder> b = need(argv[2]);
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return 1;
    Vector<String16> args;
    for (int i = 3; i < argc; i++) args.add(String16(argv[i]));
    status_t err = b->dump(pipeFds[1], args);
    close(pipeFds[1]);
    char buf[512] = {};
    ssize_t n = read(pipeFds[0], buf, sizeof(buf) - 1);
    if (n > 0 && buf[n - 1] == '\n') buf[n - 1] = '\0';
    say("err=%d out=%s", err, buf);
    return 0;
}

// sm: the service manager's codes.
int sm(int, char**) {
    ProcessState::self()->startThreadPool();
    sp<IServiceManager> manager = defaultServiceManager();
    int64_t t0 = monotonicMs();
    say("check_missing=%d ms=%lld", manager->checkService(String16("sm.none")) == nullptr,
        static_cast<long long>(monotonicMs() - t0));
    std::thread late([&] {
        usleep(600 * 1000);
        manager->addService(String16("sm.late"), new TestService);
    });
    t0 = monotonicMs();
    sp<IBinder> got = manager->getService(String16("sm.late"));
    say("get_waited=%d ms=%lld", got != nullptr, static_cast<long long>(monotonicMs() - t0));
    late.join();
    sp<IBinder> a = new TestService;
    say("add=%d", manager->addService(String16("sm.a"), a));
    say("add_null=%d", manager->addService(String16("sm.b"), nullptr) != NO_ERROR);
    say("check_local=%d", manager->checkService(String16("sm.a")) == a);
    Vector<String16> names = manager->listServices();
    std::string list;
    for (size_t i = 0; i < names.size(); i++) list += String8(names[i]).string() + std::string(";");
    say("list=%s", list.c_str());
    Parcel data, reply;
    data.writeInterfaceToken(String16("android.os.IServiceManager"));
    say("unknown_code=%d", IInterface::asBinder(manager)->transact(77, data, &reply) ==
                                   UNKNOWN_TRANSACTION);
    say("descriptor=%s", String8(IInterface::asBinder(manager)->getInterfaceDescriptor()).string());
    t0 = monotonicMs();
    got = manager->getService(String16("sm.never"));
    say("get_missing=%d ms=%lld", got == nullptr, static_cast<long long>(monotonicMs() - t0));
    return 0;
}

// perm UID PERMISSION...: checkPermission for each permission, as this process, for UID.
int perm(int argc, char** argv) {
    const uid_t uid = static_cast<uid_t>(atoi(argv[2]));
    std::string out;
    for (int i = 3; i < argc; i++) {
        out += checkPermission(String16(argv[i]), getpid(), uid) ? "1" : "0";
    }
    say("granted=%s", out.c_str());
    return 0;
}

// caller-perm NAME UID PERMISSION: as UID, asks NAME to check PERMISSION for its caller.
int callerPerm(int, char** argv) {
    becomeUid(argv[3]);
    sp<IBinder> b = need(argv[2]);
    Parcel data, reply;
    data.writeString16(String16(argv[4]));
    status_t err = b->transact(kCallerPermission, data, &reply);
    const int32_t granted = reply.readInt32();
    say("err=%d granted=%d uid=%d", err, granted, reply.readInt32());
    return 0;
}

// flood NAME COUNT: one-way calls as fast as they go.
int flood(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    const int calls = atoi(argv[3]);
    for (int i = 0; i < calls; i++) {
        Parcel data;
        data.writeInt32(99);
        data.writeInt32(i);
        b->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
    }
    say("flooded");
    return 0;
}

// burst NAME SENDER CALLS BYTES: one-way calls of BYTES each, numbered by the calls taken
// so far (a refused call's number is used again), then how many were taken and refused.
int burst(int, char** argv) {
    sp<IBinder> b = need(argv[2]);
    const int32_t sender = atoi(argv[3]);
    const int calls = atoi(argv[4]);
    const std::vector<uint8_t> blob(static_cast<size_t>(atoi(argv[5])), 0x6b);
    int32_t taken = 0, refused = 0, other = 0;
    for (int i = 0; i < calls; i++) {
        Parcel data;
        data.writeInt32(sender);
        data.writeInt32(taken);
        data.write(blob.data(), blob.size());
        const status_t err = b->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
        if (err == NO_ERROR) {
            taken++;
        } else if (err == FAILED_TRANSACTION) {
            refused++;
        } else {
            other++;
        }
    }
    say("taken=%d refused=%d other=%d", taken, refused, other);
    return 0;
}

// gate NAME 1|0: holds back or lets go NAME's one-way calls; with 0, then waits (20 s at
// most) until it has received EXPECTED calls and reports what it saw.
int gate(int argc, char** argv) {
    sp<IBinder> b = need(argv[2]);
    Parcel reply;
    status_t err = call(b, kGate, &reply, {atoi(argv[3])});
    if (err != NO_ERROR) return say("error=gate %d", err), 1;
    if (argc < 5) return say("gate=%s", argv[3]), 0;
    const int32_t expected = atoi(argv[4]);
    const int64_t deadline = monotonicMs() + 20000;
    while (monotonicMs() < deadline) {
        Parcel stats;
        call(b, kOnewayStats, &stats);
        if (stats.readInt32() >= expected) break;
        usleep(10 * 1000);
    }
    usleep(100 * 1000);  // anything beyond what was taken would show up by now
    Parcel stats;
    call(b, kOnewayStats, &stats);
    const int32_t received = stats.readInt32();
    say("received=%d out_of_order=%d", received, stats.readInt32());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: hostbinder_ipc_helper MODE ARGS...\n");
        return 2;
    }
    const std::string mode = argv[1];
    struct {
        const char* name;
        int minArgs;
        int (*fn)(int, char**);
    } const modes[] = {
            {"serve", 3, serve},   {"whoami", 3, whoami}, {"owner", 3, owner},
            {"third", 3, third},   {"hold", 3, hold},     {"oneway", 5, oneway},
            {"nested", 4, nested}, {"death", 4, death},   {"fd", 4, fd},
            {"limits", 3, limits}, {"dump", 3, dump},     {"sm", 2, sm},
            {"perm", 3, perm},     {"flood", 4, flood},  {"caller-perm", 5, callerPerm},
            {"burst", 6, burst},   {"gate", 4, gate},
    };
    for (const auto& m : modes) {
        if (mode == m.name) {
            if (argc < m.minArgs) {
                fprintf(stderr, "%s: missing arguments\n", m.name);
                return 2;
            }
            return m.fn(argc, argv);
        }
    }
    fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
}
