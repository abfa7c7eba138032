// Synchronous round trips and one-way calls through hostbinder, next to the same patterns over
// a raw Unix socketpair between two processes. Prints the ratios at the end.
//
//   hostbinder_bench [benchmark flags]
//
// Starts its own runtime instance (hostbinderd from $HOSTBINDERD, or the one built with it)
// and a server process (itself, re-executed with --serve).
#include <hostbinder_test/Runtime.h>

#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <set>
#include <memory>
#include <string>

using namespace android;

namespace {

constexpr uint32_t kPing = IBinder::FIRST_CALL_TRANSACTION;
constexpr uint32_t kOneway = IBinder::FIRST_CALL_TRANSACTION + 1;
constexpr uint32_t kCount = IBinder::FIRST_CALL_TRANSACTION + 2;
constexpr const char* kServiceName = "bench.ping";
constexpr size_t kMessageBytes = 64;  // roughly what a small call carries

class PingService : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        switch (code) {
            case kPing:
                return reply->writeInt32(data.readInt32());
            case kOneway:
                mReceived.fetch_add(1, std::memory_order_relaxed);
                return NO_ERROR;
            case kCount:
                return reply->writeInt64(mReceived.load());
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    std::atomic<int64_t> mReceived{0};
};

int serve() {
    defaultServiceManager()->addService(String16(kServiceName), new PingService);
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

sp<IBinder> gService;

void fillPayload(Parcel* p) {
    uint8_t bytes[kMessageBytes - 4] = {};
    p->writeInt32(1);
    p->write(bytes, sizeof(bytes));
}

void BM_HostbinderPing(benchmark::State& state) {
    Parcel data;
    fillPayload(&data);
    for (auto _ : state) {
        Parcel reply;
        if (gService->transact(kPing, data, &reply) != NO_ERROR) {
            state.SkipWithError("call failed");
            break;
        }
    }
}
BENCHMARK(BM_HostbinderPing)->MinTime(1.0);

int64_t serviceCount() {
    Parcel data, reply;
    gService->transact(kCount, data, &reply);
    return reply.readInt64();
}

void BM_HostbinderOneway(benchmark::State& state) {
    Parcel data;
    fillPayload(&data);
    const int64_t start = serviceCount();
    int64_t sent = 0;
    for (auto _ : state) {
        gService->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
        sent++;
    }
    // Counted when delivered, not when sent.
    while (serviceCount() < start + sent) usleep(100);
    state.SetItemsProcessed(sent);
}
BENCHMARK(BM_HostbinderOneway)->MinTime(1.0)->UseRealTime();

// Raw transport: a child process on the other end of a socketpair.
struct RawPeer {
    int fd = -1;
    pid_t pid = -1;
};

RawPeer startRawPeer(bool echo) {
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(sv[0]);
        char buf[kMessageBytes * 64];
        int64_t received = 0;
        for (;;) {
            if (echo) {
                size_t got = 0;
                while (got < kMessageBytes) {
                    ssize_t n = read(sv[1], buf + got, kMessageBytes - got);
                    if (n <= 0) _exit(0);
                    got += static_cast<size_t>(n);
                }
                if (write(sv[1], buf, kMessageBytes) != ssize_t(kMessageBytes)) _exit(0);
            } else {
                ssize_t n = read(sv[1], buf, sizeof(buf));
                if (n <= 0) _exit(0);
                received += n;
                // A zero byte at a message boundary asks for the count so far.
                if (received % kMessageBytes == 1 && buf[n - 1] == 0) {
                    received -= 1;
                    int64_t messages = received / int64_t(kMessageBytes);
                    if (write(sv[1], &messages, sizeof(messages)) != sizeof(messages)) _exit(0);
                }
            }
        }
    }
    close(sv[1]);
    return RawPeer{sv[0], pid};
}

void stopRawPeer(RawPeer& peer) {
    close(peer.fd);
    kill(peer.pid, SIGKILL);
    waitpid(peer.pid, nullptr, 0);
}

void BM_RawSocketPing(benchmark::State& state) {
    RawPeer peer = startRawPeer(true);
    char buf[kMessageBytes] = {1};
    for (auto _ : state) {
        if (write(peer.fd, buf, kMessageBytes) != ssize_t(kMessageBytes)) break;
        size_t got = 0;
        while (got < kMessageBytes) {
            ssize_t n = read(peer.fd, buf + got, kMessageBytes - got);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
    }
    stopRawPeer(peer);
}
BENCHMARK(BM_RawSocketPing)->MinTime(1.0);

void BM_RawSocketOneway(benchmark::State& state) {
    RawPeer peer = startRawPeer(false);
    char buf[kMessageBytes] = {1};
    int64_t sent = 0;
    for (auto _ : state) {
        if (write(peer.fd, buf, kMessageBytes) != ssize_t(kMessageBytes)) break;
        sent++;
    }
    // Counted when the peer has read them.
    char ask = 0;
    int64_t messages = 0;
    if (write(peer.fd, &ask, 1) == 1 && read(peer.fd, &messages, sizeof(messages)) > 0) {
        if (messages != sent) state.SkipWithError("raw peer lost messages");
    }
    state.SetItemsProcessed(sent);
    stopRawPeer(peer);
}
BENCHMARK(BM_RawSocketOneway)->MinTime(1.0)->UseRealTime();

// Keeps each benchmark's time per iteration for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            const bool mean = r.run_type == Run::RT_Aggregate && r.aggregate_name == "mean";
            if (r.run_type == Run::RT_Aggregate && !mean) continue;
            const std::string& name = r.run_name.function_name;
            if (!mean && mFinal.count(name) != 0) continue;
            if (mean) mFinal.insert(name);
            const double scale = r.time_unit == benchmark::kMicrosecond   ? 1e3
                                 : r.time_unit == benchmark::kMillisecond ? 1e6
                                 : r.time_unit == benchmark::kSecond      ? 1e9
                                                                          : 1.0;
            mNsPerIteration[name] = r.GetAdjustedRealTime() * scale;
        }
    }
    // Mean time per iteration of a benchmark, in nanoseconds (0 if it did not run).
    double ns(const std::string& name) const {
        auto it = mNsPerIteration.find(name);
        return it == mNsPerIteration.end() ? 0 : it->second;
    }

private:
    std::map<std::string, double> mNsPerIteration;
    std::set<std::string> mFinal;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--serve") == 0) return serve();
    if (getenv("HOSTBINDERD") == nullptr) setenv("HOSTBINDERD", HOSTBINDERD_DEFAULT_PATH, 1);

    hostbinder_test::RuntimeInstance runtime;
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) return 1;
    hostbinder_test::ChildProcess server({self, "--serve"});
    gService = defaultServiceManager()->getService(String16(kServiceName));
    if (gService == nullptr) {
        fprintf(stderr, "the benchmark server did not start: %s\n", server.output().c_str());
        return 1;
    }

    benchmark::Initialize(&argc, argv);
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    const double ping = reporter.ns("BM_HostbinderPing");
    const double rawPing = reporter.ns("BM_RawSocketPing");
    const double oneway = reporter.ns("BM_HostbinderOneway");
    const double rawOneway = reporter.ns("BM_RawSocketOneway");
    printf("\n");
    if (ping > 0 && rawPing > 0) {
        printf("sync round trip: hostbinder %.1f us, raw socketpair %.1f us, ratio %.2f "
               "(target <= 2.5)\n",
               ping / 1e3, rawPing / 1e3, ping / rawPing);
    }
    if (oneway > 0 && rawOneway > 0) {
        printf("one-way: hostbinder %.0f calls/s, raw socket writes %.0f/s, ratio %.2f\n",
               1e9 / oneway, 1e9 / rawOneway, oneway / rawOneway);
    }
    gService.clear();
    return 0;
}
