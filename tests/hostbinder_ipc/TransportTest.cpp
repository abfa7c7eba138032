// The transport between processes: calls through several processes run on the threads waiting
// in their chain, every incoming call is served by the binder pool whatever peers open, a
// poll-driven server runs all that arrives, and a process that took a dead owner's pid is
// never called.
#include "IncomingCalls.h"
#include "WireSocket.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <hostbinder_test/Roles.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

using namespace android;
using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;
using hostbinder_test::startRole;
using hostbinder_test::countEntries;
using hostbinder_test::waitUntil;

namespace {

enum : uint32_t {
    kRelay = 1,  // binders B1..Bn: calls B1 with B2..Bn (kRelay), or kRecord when n is 1;
                 // -> this hop's thread, then what the call answered
    kRecord,     // -> the serving thread
    kCount,      // one-way: counts; synchronous: -> int32 the one-way calls counted
    kEcho,       // int32 -> same int32
    kSlowRelay,  // binder: calls it with kSlowRecord; -> what it answered
    kSlowRecord, // sleeps 300 ms; -> the serving thread
};

int32_t threadId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

class Hop : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case kRelay: {
                std::vector<sp<IBinder>> next;
                while (data.dataAvail() > 0) next.push_back(data.readStrongBinder());
                if (next.empty() || next[0] == nullptr) return BAD_VALUE;
                Parcel req, rep;
                for (size_t i = 1; i < next.size(); i++) req.writeStrongBinder(next[i]);
                const status_t err =
                        next[0]->transact(next.size() == 1 ? kRecord : kRelay, req, &rep);
                if (err != NO_ERROR) return err;
                reply->writeInt32(threadId());
                while (rep.dataAvail() >= 4) reply->writeInt32(rep.readInt32());
                return NO_ERROR;
            }
            case kRecord:
                return reply->writeInt32(threadId());
            case kCount:
                if (flags & IBinder::FLAG_ONEWAY) {
                    mCounted++;
                    return NO_ERROR;
                }
                return reply->writeInt32(mCounted);
            case kEcho:
                return reply->writeInt32(data.readInt32());
            case kSlowRelay: {
                sp<IBinder> next = data.readStrongBinder();
                Parcel req, rep;
                if (next == nullptr) return BAD_VALUE;
                const status_t err = next->transact(kSlowRecord, req, &rep);
                return err != NO_ERROR ? err : reply->writeInt32(rep.readInt32());
            }
            case kSlowRecord:
                usleep(300 * 1000);
                return reply->writeInt32(threadId());
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::atomic<int32_t> mCounted{0};
};

sp<IBinder> service(const std::string& name) {
    return defaultServiceManager()->checkService(String16(name.c_str()));
}


// CPU time (user + system, clock ticks) `pid` used over half a second: near 0 for a process
// whose threads all wait.
long cpuTicksOverHalfASecond(pid_t pid) {
    auto ticks = [pid] {
        FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
        if (f == nullptr) return -1L;
        char line[1024] = {};
        const size_t n = fread(line, 1, sizeof(line) - 1, f);
        fclose(f);
        line[n] = '\0';
        const char* p = strrchr(line, ')');
        long utime = 0, stime = 0;
        // Fields 14 and 15 (the first after ')' is field 3).
        return p != nullptr && sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
                                      &utime, &stime) == 2
                       ? utime + stime
                       : -1L;
    };
    const long before = ticks();
    usleep(500 * 1000);
    return ticks() - before;
}

int32_t askInt(const sp<IBinder>& target, uint32_t code, int32_t arg = 0) {
    Parcel data, reply;
    data.writeInt32(arg);
    return target->transact(code, data, &reply) == NO_ERROR ? reply.readInt32() : -1;
}

// hop NAME [MAXTHREADS]: publishes a Hop as NAME; serves on its main thread alone unless
// MAXTHREADS is given (then with a started pool of at most that many threads).
TEST_ROLE(hop) {
    const bool pool = args.size() > 1;
    ProcessState::self()->setThreadPoolMaxThreadCount(pool ? std::stoi(args[1]) : 0);
    if (defaultServiceManager()->addService(String16(args.at(0).c_str()), new Hop) != NO_ERROR) {
        return 1;
    }
    if (pool) ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// polled NAME: publishes a Hop as NAME and serves from its own poll loop.
TEST_ROLE(polled) {
    if (defaultServiceManager()->addService(String16(args.at(0).c_str()), new Hop) != NO_ERROR) {
        return 1;
    }
    int fd = -1;
    if (IPCThreadState::self()->setupPolling(&fd) != 0) return 2;
    hostbinder_test::ready();
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, -1) == 1 && IPCThreadState::self()->handlePolledCommands() != NO_ERROR) {
            return 3;
        }
    }
}

// stall PATH PID COUNT: opens COUNT direct connections to PID (as uid 4321 when root), sends
// each half a frame header and holds them; prints "closed=N" once the process closed N of them.
TEST_ROLE(stall) {
    if (getuid() == 0 && (setresgid(4321, 4321, 4321) != 0 || setresuid(4321, 4321, 4321) != 0)) {
        return 4;
    }
    const std::string address =
            android::hostbinder::directAddress(args.at(0).c_str(), std::stoi(args.at(1)));
    std::vector<int> fds;
    for (int i = 0; i < std::stoi(args.at(2)); i++) {
        const int fd = android::hostbinder::connectDirect(address);
        if (fd < 0) return 5;
        const uint64_t halfHeader = 0x30;
        if (send(fd, &halfHeader, sizeof(halfHeader), MSG_NOSIGNAL) < 0) {
            printf("send failed at %d\n", i);
        }
        fds.push_back(fd);
    }
    usleep(500 * 1000);
    int closed = 0;
    for (int fd : fds) {
        char byte;
        const ssize_t n = recv(fd, &byte, 1, MSG_DONTWAIT);
        closed += n == 0 || (n < 0 && errno != EAGAIN) ? 1 : 0;
    }
    printf("closed=%d\n", closed);
    hostbinder_test::ready();
    pause();
    return 0;
}

// impostor PATH PID: as root, starts a process that gets PID (through ns_last_pid), which, as
// uid 65534, listens at PID's address for direct calls and, after 3 s, prints how many
// connections came and how many bytes they sent. Exits 7 when PID cannot be had.
TEST_ROLE(impostor) {
    const pid_t target = std::stoi(args.at(1));
    for (int attempt = 0; attempt < 200; attempt++) {
        FILE* f = fopen("/proc/sys/kernel/ns_last_pid", "w");
        if (f == nullptr) return 7;
        fprintf(f, "%d", target - 1);
        if (fclose(f) != 0) return 7;
        const pid_t child = fork();
        if (child == 0) {
            if (getpid() != target) _exit(0);
            if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
                _exit(4);
            }
            const int listener = android::hostbinder::listenDirect(
                    android::hostbinder::directAddress(args.at(0).c_str(), target));
            if (listener < 0) _exit(5);
            hostbinder_test::ready();
            int connections = 0;
            ssize_t bytes = 0;
            const int64_t end = time(nullptr) + 3;
            while (time(nullptr) < end) {
                pollfd p{listener, POLLIN, 0};
                if (poll(&p, 1, 100) != 1) continue;
                const int fd = accept(listener, nullptr, nullptr);
                if (fd < 0) continue;
                connections++;
                char buf[4096];
                pollfd q{fd, POLLIN, 0};
                while (poll(&q, 1, 500) == 1) {
                    const ssize_t n = recv(fd, buf, sizeof(buf), 0);
                    if (n <= 0) break;
                    bytes += n;
                }
                close(fd);
            }
            printf("connections=%d bytes=%zd\n", connections, bytes);
            fflush(stdout);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (child == target) return WIFEXITED(status) ? WEXITSTATUS(status) : 6;
    }
    return 7;
}

class TransportTest : public ::testing::Test {
protected:
    void SetUp() override { mRuntime = std::make_unique<RuntimeInstance>(); }
    std::unique_ptr<RuntimeInstance> mRuntime;
};

// A->B->C->A->B->C->A with a single binder thread in B and C and none in A (the test's
// thread): every call coming back to a process runs on its thread waiting in the chain.
TEST_F(TransportTest, ChainsThroughThreeProcessesRunOnTheWaitingThreads) {
    auto b = startRole("hop", {"chain.b"});
    auto c = startRole("hop", {"chain.c"});
    ASSERT_TRUE(b && c);
    sp<IBinder> hopB = service("chain.b"), hopC = service("chain.c");
    ASSERT_TRUE(hopB != nullptr && hopC != nullptr);
    sp<IBinder> hereHop = new Hop, hereRecord = new Hop;
    Parcel data, reply;
    for (const sp<IBinder>& next : {hopC, hereHop, hopB, hopC, hereRecord}) {
        data.writeStrongBinder(next);
    }
    ASSERT_EQ(NO_ERROR, hopB->transact(kRelay, data, &reply));
    std::vector<int32_t> threads;
    while (reply.dataAvail() >= 4) threads.push_back(reply.readInt32());
    // The serving thread of each hop: B, C, here, B, C, here.
    ASSERT_EQ(6u, threads.size());
    EXPECT_EQ(threads[0], threads[3]) << "B served on two threads";
    EXPECT_EQ(threads[1], threads[4]) << "C served on two threads";
    EXPECT_EQ(threadId(), threads[2]);
    EXPECT_EQ(threadId(), threads[5]);
    EXPECT_NE(threads[0], threads[1]);
}

// A poll-driven server gets many one-way calls at once (one read brings many frames): it runs
// every one of them, and answers a call made after them.
TEST_F(TransportTest, PollDrivenServerRunsEverythingThatArrived) {
    auto polled = startRole("polled", {"polled"});
    ASSERT_TRUE(polled);
    sp<IBinder> target = service("polled");
    ASSERT_NE(nullptr, target);
    for (int i = 0; i < 300; i++) {
        Parcel data;
        ASSERT_EQ(NO_ERROR, target->transact(kCount, data, nullptr, IBinder::FLAG_ONEWAY)) << i;
    }
    EXPECT_TRUE(waitUntil([&] { return askInt(target, kCount) == 300; }, 5000))
            << askInt(target, kCount);
    // Then it waits in its poll, without spinning.
    EXPECT_LE(cpuTicksOverHalfASecond(polled->pid()), 10);
}

// A process whose one binder thread waits for a reply reads a call meant for no chain of its
// own and keeps it for the binder thread, which serves it once its own call is done.
TEST_F(TransportTest, ACallReadByAWaitingThreadWaitsForTheBinderThread) {
    auto single = startRole("hop", {"single"});
    auto slow = startRole("hop", {"slow", "2"});
    ASSERT_TRUE(single && slow);
    sp<IBinder> a = service("single"), b = service("slow");
    ASSERT_TRUE(a != nullptr && b != nullptr);
    auto waiting = std::async(std::launch::async, [&] {
        Parcel data, reply;
        data.writeStrongBinder(b);
        return a->transact(kSlowRelay, data, &reply);
    });
    usleep(100 * 1000);
    auto other = std::async(std::launch::async, [&] { return askInt(a, kEcho, 7); });
    ASSERT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(5)));
    EXPECT_EQ(7, other.get());
    EXPECT_EQ(NO_ERROR, waiting.get());
}

// 200 connections that never finish a frame, from another uid: the service keeps the threads
// its pool may have, refuses connections beyond its cap, and still answers everyone else,
// also while its pool is busy with many callers at once.
TEST_F(TransportTest, StalledConnectionsCostNoThreads) {
    auto server = startRole("hop", {"pool", "2"});
    ASSERT_TRUE(server);
    sp<IBinder> target = service("pool");
    ASSERT_NE(nullptr, target);
    ASSERT_EQ(5, askInt(target, kEcho, 5));
    const std::string tasks = "/proc/" + std::to_string(server->pid()) + "/task";
    const int threadsBefore = countEntries(tasks);  // the main thread and the first pool thread
    auto stall = startRole("stall", {mRuntime->socketPath(), std::to_string(server->pid()), "200"});
    ASSERT_TRUE(stall);
    EXPECT_NE(std::string::npos,
              stall->output().find(
                      "closed=" +
                      std::to_string(200 - android::hostbinder::IncomingCalls::kMaxPerProcess)))
            << stall->output();
    std::vector<std::thread> callers;
    std::atomic<int> answered{0};
    for (int i = 0; i < 8; i++) {
        callers.emplace_back([&, i] {
            for (int n = 0; n < 50; n++) answered += askInt(target, kEcho, i) == i ? 1 : 0;
        });
    }
    for (auto& t : callers) t.join();
    EXPECT_EQ(400, answered.load());
    // At most the two threads the pool may add, and with the stalled connections still held
    // they wait without spinning.
    EXPECT_LE(countEntries(tasks), threadsBefore + 2);
    EXPECT_LE(cpuTicksOverHalfASecond(server->pid()), 10);
}

// The owner of an object dies and another process, of another uid, gets its pid and listens
// at its address: a call on the object fails as dead and the newcomer receives nothing.
TEST_F(TransportTest, AProcessThatTookADeadOwnersPidIsNeverCalled) {
    if (getuid() != 0) GTEST_SKIP() << "taking a given pid needs root";
    auto owner = startRole("hop", {"owner", "1"});
    ASSERT_TRUE(owner);
    sp<IBinder> target = service("owner");
    ASSERT_NE(nullptr, target);
    ASSERT_EQ(3, askInt(target, kEcho, 3));
    const pid_t pid = owner->pid();
    owner->kill();
    owner->wait();
    auto impostor = startRole("impostor", {mRuntime->socketPath(), std::to_string(pid)});
    if (!impostor) GTEST_SKIP() << "pid " << pid << " could not be had";
    Parcel data, reply;
    data.writeInt32(4);
    EXPECT_EQ(DEAD_OBJECT, target->transact(kEcho, data, &reply));
    ASSERT_EQ(0, impostor->wait(10000)) << impostor->output();
    EXPECT_NE(std::string::npos, impostor->output().find("bytes=0\n")) << impostor->output();
}

}  // namespace
