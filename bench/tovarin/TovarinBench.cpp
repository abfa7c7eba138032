// What an application pays through the library, next to a bare binder ping from the same run:
// round trips through the client singleton, a permission-checked call, a state change fanned out
// to listener processes, heap allocations per call on both sides, and cold starts. Prints the
// ratios at the end.
//
//   tovarin_bench [benchmark flags]
//   tovarin_bench --profile ping|sample|getEnabled|getHeadTrackingState|setEnabledState COUNT
//
// The second form makes COUNT calls of one kind and nothing else, for a profiler
// (TOVARIN_BENCH_SERVER_WRAP runs the server processes under one too; see docs/performance.md).
//
// Starts its own runtime instance (hostbinderd from $HOSTBINDERD, or the one built with it; a
// policy grants this uid the control permission), the tracking service (tovarind from $TOVARIND,
// or the one built with it) and its helper processes (itself, re-executed: the bare ping server,
// listeners, first-call clients). Every helper dies with this process (PR_SET_PDEATHSIG); every
// wait has a deadline, and a watchdog ends the run after kWatchdogSeconds.
//
// Each round trip also reports the heap allocations per call of the calling process
// (allocs_client), of the serving process (allocs_service) and of the runtime (allocs_runtime),
// counted by the allocation hook, and the CPU time per call of all three together (cpu_us).
// On a loaded machine both times move with the load; the instruction counts of
// bench/tovarin/callgrind.sh do not.
#include "AllocHook.h"

#include <hostbinder_test/Runtime.h>

#include "ITovarinService.h"
#include "TovarinPermission.h"
#include "TovarinServiceImpl.h"

#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <dirent.h>
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using android::BBinder;
using android::defaultServiceManager;
using android::IBinder;
using android::IPCThreadState;
using android::NO_ERROR;
using android::Parcel;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;
using morvel::tovarin::HeadTrackerHandle;
using morvel::tovarin::HeadTrackingEvent;
using morvel::tovarin::StateChangeEvent;
using morvel::tovarin::StateChangeListener;
using morvel::tovarin::TovarinPermission;
using morvel::tovarin::bench::kAllocCounterEnv;
using morvel::tovarin::binder::ITovarinService;
using morvel::tovarin::binder::TovarinServiceImpl;

namespace {

constexpr char kPingName[] = "bench.tovarin.ping";
constexpr uint32_t kPingCode = IBinder::FIRST_CALL_TRANSACTION;
constexpr unsigned kWatchdogSeconds = 900;
constexpr int kStartTimeoutMs = 20000;
constexpr int kEventTimeoutMs = 10000;

int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// ---------------------------------------------------------------------------------------------
// Helper processes (this executable, re-executed with a mode flag)
// ---------------------------------------------------------------------------------------------

// The baseline: a code answered with nothing.
class PingService : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        if (code == kPingCode) {
            return NO_ERROR;
        }
        return BBinder::onTransact(code, data, reply, flags);
    }
};

int servePing() {
    if (defaultServiceManager()->addService(String16(kPingName), new PingService) != NO_ERROR) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    printf("ping: serving\n");
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// What a listener process reports on the shared pipe: once when registered (flag -1, or the
// failed registration's status below -1), then once per state change it receives. 16 bytes, so
// that writes from many processes never interleave.
struct Report {
    int32_t index;
    int32_t flag;
    int64_t receivedNs;
};
static_assert(sizeof(Report) == 16, "one pipe write per report");

class ReportingListener : public StateChangeListener {
public:
    ReportingListener(int fd, int32_t index) : mFd(fd), mIndex(index) {}
    void onEvent(const StateChangeEvent& event) override {
        send(event.flag ? 1 : 0);
    }
    void send(int32_t flag) const {
        const Report report{mIndex, flag, nowNs()};
        if (write(mFd, &report, sizeof(report)) != ssize_t(sizeof(report))) {
            _exit(1);
        }
    }

private:
    const int mFd;
    const int32_t mIndex;
};

int listen(int fd, int32_t index) {
    sp<ReportingListener> listener = new ReportingListener(fd, index);
    const status_t status = TovarinServiceImpl::getInstance()->registerStateChangeListener(listener);
    listener->send(status == NO_ERROR ? -1 : std::min<int32_t>(status, -2));
    for (;;) {
        pause();  // events arrive on binder threads; killed by the benchmark
    }
}

// A new client's first call: prints when main() began, when the first call was answered and
// how long the second one took (monotonic clock, shared by all processes).
int firstCall(const std::string& which) {
    const int64_t mainNs = nowNs();
    bool answered = false;
    int64_t firstNs = 0;
    int64_t secondNs = 0;
    if (which == "tovarin") {
        sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
        answered = tovarin->getEnabled();  // the service runs enabled: false means no answer
        firstNs = nowNs();
        tovarin->getEnabled();
        secondNs = nowNs();
    } else {
        sp<IBinder> ping = defaultServiceManager()->checkService(String16(kPingName));
        Parcel data;
        Parcel reply;
        answered = ping != nullptr && ping->transact(kPingCode, data, &reply) == NO_ERROR;
        firstNs = nowNs();
        if (ping != nullptr) {
            ping->transact(kPingCode, data, &reply);
        }
        secondNs = nowNs();
    }
    printf("main %" PRId64 " first %" PRId64 " second %" PRId64 "\n", mainNs, firstNs, secondNs);
    fflush(stdout);
    return answered ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------
// Measuring other processes
// ---------------------------------------------------------------------------------------------

// A process's allocation count, kept by the preloaded hook in a shared file.
class SharedAllocCounter {
public:
    explicit SharedAllocCounter(const std::string& path) : mPath(path) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd >= 0 && ftruncate(fd, 4096) == 0) {
            void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            if (p != MAP_FAILED) {
                mCount = static_cast<std::atomic<uint64_t>*>(p);
            }
        }
        if (fd >= 0) {
            close(fd);
        }
    }
    ~SharedAllocCounter() {
        if (mCount != nullptr) {
            munmap(mCount, 4096);
        }
        unlink(mPath.c_str());
    }
    // Resets the count for a new process.
    void reset() {
        if (mCount != nullptr) {
            mCount->store(0);
        }
    }
    uint64_t value() const { return mCount != nullptr ? mCount->load() : 0; }
    // The environment a child needs to count into this file.
    std::vector<std::string> env(const std::string& hook) const {
        return {std::string(kAllocCounterEnv) + "=" + mPath, "LD_PRELOAD=" + hook};
    }

private:
    std::string mPath;
    std::atomic<uint64_t>* mCount = nullptr;
};

// CPU time used so far by every thread of a process, in nanoseconds (scheduler statistics:
// nanosecond resolution, unlike the tick-based rusage).
int64_t processCpuNs(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return 0;
    }
    int64_t total = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        FILE* f = fopen((dir + "/" + e->d_name + "/schedstat").c_str(), "re");
        if (f == nullptr) {
            continue;
        }
        long long ns = 0;
        if (fscanf(f, "%lld", &ns) == 1) {
            total += ns;
        }
        fclose(f);
    }
    closedir(d);
    return total;
}

// ---------------------------------------------------------------------------------------------
// The benchmark's own processes
// ---------------------------------------------------------------------------------------------

struct Setup {
    std::string self;
    std::string tovarind;
    std::string hook;
    std::string dir;  // counter files and nothing else
    std::unique_ptr<SharedAllocCounter> runtimeAllocs;
    std::unique_ptr<SharedAllocCounter> serviceAllocs;
    std::unique_ptr<SharedAllocCounter> pingAllocs;
    std::unique_ptr<RuntimeInstance> runtime;
    std::unique_ptr<ChildProcess> service;  // the tovarind every round trip uses
    std::unique_ptr<ChildProcess> ping;
};
Setup* gSetup = nullptr;

bool running(const std::unique_ptr<ChildProcess>& child) {
    return child != nullptr && kill(child->pid(), 0) == 0 && child->wait(0) == -1;
}

// The command that starts a server process: TOVARIN_BENCH_SERVER_WRAP (words separated by
// spaces, e.g. a valgrind command line) before `argv`.
std::vector<std::string> serverCommand(std::vector<std::string> argv) {
    std::vector<std::string> command;
    const char* wrap = getenv("TOVARIN_BENCH_SERVER_WRAP");
    for (const char* p = wrap != nullptr ? wrap : ""; *p != '\0';) {
        const char* end = strchrnul(p, ' ');
        if (end != p) {
            command.emplace_back(p, end);
        }
        p = *end == ' ' ? end + 1 : end;
    }
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

// The shared tovarind, started when first needed (and again if it went away). Empty, or why
// it did not start.
std::string startService() {
    if (running(gSetup->service)) {
        return "";
    }
    gSetup->service.reset();
    gSetup->serviceAllocs->reset();
    gSetup->service = std::make_unique<ChildProcess>(serverCommand({gSetup->tovarind}),
                                                     gSetup->serviceAllocs->env(gSetup->hook));
    if (!gSetup->service->waitForOutput("tovarind: serving", kStartTimeoutMs)) {
        return "tovarind did not start: " + gSetup->service->output();
    }
    return "";
}

std::string startPing() {
    if (running(gSetup->ping)) {
        return "";
    }
    gSetup->ping.reset();
    gSetup->pingAllocs->reset();
    gSetup->ping = std::make_unique<ChildProcess>(serverCommand({gSetup->self, "--serve-ping"}),
                                                  gSetup->pingAllocs->env(gSetup->hook));
    if (!gSetup->ping->waitForOutput("ping: serving", kStartTimeoutMs)) {
        return "the ping server did not start: " + gSetup->ping->output();
    }
    return "";
}

bool ensureService(benchmark::State& state) {
    const std::string error = startService();
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
    }
    return error.empty();
}

bool ensurePing(benchmark::State& state) {
    const std::string error = startPing();
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
    }
    return error.empty();
}

// Allocation counts and CPU time of the three processes of a round trip.
class RoundTripProbe {
public:
    RoundTripProbe(pid_t server, const SharedAllocCounter* serverAllocs)
        : mServer(server), mServerAllocs(serverAllocs) {
        mClientCpuNs = processCpuNs(getpid());
        mServerCpuNs = processCpuNs(mServer);
        mRuntimeCpuNs = runtimeIsServer() ? 0 : processCpuNs(gSetup->runtime->pid());
        mClient = tovarin_bench_allocations();
        mService = mServerAllocs->value();
        mRuntime = runtimeIsServer() ? 0 : gSetup->runtimeAllocs->value();
    }
    // Sets the per-call counters.
    void finish(benchmark::State& state) {
        const uint64_t client = tovarin_bench_allocations() - mClient;
        const uint64_t service = mServerAllocs->value() - mService;
        // A call to the runtime itself counts once, as the server's.
        const uint64_t runtime =
                runtimeIsServer() ? 0 : gSetup->runtimeAllocs->value() - mRuntime;
        const int64_t runtimeCpu =
                runtimeIsServer() ? 0 : processCpuNs(gSetup->runtime->pid()) - mRuntimeCpuNs;
        const int64_t serverCpu = processCpuNs(mServer) - mServerCpuNs;
        const int64_t clientCpu = processCpuNs(getpid()) - mClientCpuNs;
        const int64_t cpu = clientCpu + serverCpu + runtimeCpu;
        using benchmark::Counter;
        state.counters["allocs_client"] = Counter(double(client), Counter::kAvgIterations);
        state.counters["allocs_service"] = Counter(double(service), Counter::kAvgIterations);
        state.counters["allocs_runtime"] = Counter(double(runtime), Counter::kAvgIterations);
        state.counters["cpu_us"] = Counter(double(cpu) / 1e3, Counter::kAvgIterations);
        if (getenv("TOVARIN_BENCH_CPU_SPLIT") != nullptr) {
            state.counters["cpu_client_us"] =
                    Counter(double(clientCpu) / 1e3, Counter::kAvgIterations);
            state.counters["cpu_server_us"] =
                    Counter(double(serverCpu) / 1e3, Counter::kAvgIterations);
            state.counters["cpu_runtime_us"] =
                    Counter(double(runtimeCpu) / 1e3, Counter::kAvgIterations);
        }
    }

private:
    bool runtimeIsServer() const { return mServer == gSetup->runtime->pid(); }

    pid_t mServer;
    const SharedAllocCounter* mServerAllocs;
    int64_t mClientCpuNs = 0;
    int64_t mServerCpuNs = 0;
    int64_t mRuntimeCpuNs = 0;
    uint64_t mClient = 0;
    uint64_t mService = 0;
    uint64_t mRuntime = 0;
};

// ---------------------------------------------------------------------------------------------
// Cold start
// ---------------------------------------------------------------------------------------------

// From starting tovarind to its service answering a call. Needs the service name free, so it
// stops the shared tovarind (registered first, it normally runs before that one exists).
void BM_ColdStartService(benchmark::State& state) {
    gSetup->service.reset();
    const sp<android::IServiceManager> sm = defaultServiceManager();
    const String16 name(ITovarinService::SERVICE_NAME);
    for (auto _ : state) {
        int64_t deadline = nowNs() + int64_t(kStartTimeoutMs) * 1000000;
        while (sm->checkService(name) != nullptr && nowNs() < deadline) {
            usleep(1000);  // the previous instance's registration goes with its process
        }
        const int64_t start = nowNs();
        ChildProcess service({gSetup->tovarind});
        bool answered = false;
        while (!answered && nowNs() < deadline) {
            sp<IBinder> binder = sm->checkService(name);
            answered = binder != nullptr && ITovarinService::asInterface(binder)->getEnabled();
            if (!answered) {
                usleep(500);
            }
        }
        const int64_t end = nowNs();
        if (!answered) {
            state.SkipWithError(("tovarind did not answer: " + service.output()).c_str());
            break;
        }
        state.SetIterationTime(double(end - start) / 1e9);
    }
}
BENCHMARK(BM_ColdStartService)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

// From starting a new client process to its first answered call; the counters give the part
// spent inside the process (from main) and the second call.
void firstCallBench(benchmark::State& state, const char* which) {
    if (!ensureService(state) || !ensurePing(state)) {
        return;
    }
    TovarinServiceImpl::getInstance()->setEnabledState(1);
    double inProcessMs = 0;
    double secondUs = 0;
    for (auto _ : state) {
        const int64_t start = nowNs();
        ChildProcess client({gSetup->self, "--first-call", which});
        const int code = client.wait(kStartTimeoutMs);
        long long mainNs = 0, firstNs = 0, secondNs = 0;
        if (code != 0 || sscanf(client.output().c_str(), "main %lld first %lld second %lld",
                                &mainNs, &firstNs, &secondNs) != 3) {
            state.SkipWithError(("the client failed: " + client.output()).c_str());
            break;
        }
        state.SetIterationTime(double(firstNs - start) / 1e9);
        inProcessMs += double(firstNs - mainNs) / 1e6;
        secondUs += double(secondNs - firstNs) / 1e3;
    }
    using benchmark::Counter;
    state.counters["from_main_ms"] = Counter(inProcessMs, Counter::kAvgIterations);
    state.counters["second_call_us"] = Counter(secondUs, Counter::kAvgIterations);
}

void BM_FirstCallTovarin(benchmark::State& state) {
    firstCallBench(state, "tovarin");
}
BENCHMARK(BM_FirstCallTovarin)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_FirstCallPing(benchmark::State& state) {
    firstCallBench(state, "ping");
}
BENCHMARK(BM_FirstCallPing)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// Round trips
// ---------------------------------------------------------------------------------------------

void BM_Ping(benchmark::State& state) {
    if (!ensurePing(state)) {
        return;
    }
    sp<IBinder> ping = defaultServiceManager()->checkService(String16(kPingName));
    if (ping == nullptr) {
        state.SkipWithError("no ping service");
        return;
    }
    Parcel data;
    RoundTripProbe probe(gSetup->ping->pid(), gSetup->pingAllocs.get());
    for (auto _ : state) {
        Parcel reply;
        if (ping->transact(kPingCode, data, &reply) != NO_ERROR) {
            state.SkipWithError("ping failed");
            break;
        }
    }
    probe.finish(state);
}

// A started head tracker of this process for sample().
class StartedTracker {
public:
    StartedTracker() : mTovarin(TovarinServiceImpl::getInstance()) {
        mTovarin->setEnabledState(1);
        mHandle = mTovarin->getHeadTrackerHandle();
        mStarted = mHandle.id != -1 && mTovarin->start(mHandle) == NO_ERROR;
    }
    ~StartedTracker() {
        if (mHandle.id != -1) {
            mTovarin->stop(mHandle);
            mTovarin->releaseHeadTrackerHandle(mHandle);
        }
    }
    bool started() const { return mStarted; }
    const HeadTrackerHandle& handle() const { return mHandle; }

private:
    sp<TovarinServiceImpl> mTovarin;
    HeadTrackerHandle mHandle;
    bool mStarted = false;
};

// Times `call` (one round trip through the client singleton; false when it failed, named
// `what`) against the shared tovarind, with tracking enabled and the probe's counters.
template <typename Call>
void measureServiceCalls(benchmark::State& state, const char* what, Call call) {
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    tovarin->setEnabledState(1);
    RoundTripProbe probe(gSetup->service->pid(), gSetup->serviceAllocs.get());
    for (auto _ : state) {
        if (!call(*tovarin)) {
            state.SkipWithError(what);
            break;
        }
    }
    probe.finish(state);
}

void BM_Sample(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    StartedTracker tracker;
    if (!tracker.started()) {
        state.SkipWithError("no head tracker");
        return;
    }
    HeadTrackingEvent event;
    measureServiceCalls(state, "sample failed", [&](TovarinServiceImpl& tovarin) {
        return tovarin.sample(tracker.handle(), event) == NO_ERROR;
    });
}

void BM_GetEnabled(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    measureServiceCalls(state, "getEnabled failed",
                        [](TovarinServiceImpl& tovarin) { return tovarin.getEnabled(); });
}

void BM_GetHeadTrackingState(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    measureServiceCalls(state, "getHeadTrackingState failed", [](TovarinServiceImpl& tovarin) {
        benchmark::DoNotOptimize(tovarin.getHeadTrackingState());
        return true;
    });
}

// The same state every call: the permission check and the call, no state change to deliver.
void BM_SetEnabledState(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    measureServiceCalls(state, "setEnabledState failed", [](TovarinServiceImpl& tovarin) {
        tovarin.setEnabledState(1);
        return true;
    });
    if (!TovarinServiceImpl::getInstance()->getEnabled()) {
        state.SkipWithError("setEnabledState was refused");
    }
}

// The look-up setEnabledState() makes in the service, made from here: what the check alone
// costs (its server is the runtime itself).
void BM_PermissionCheck(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    const pid_t pid = getpid();
    const uid_t uid = getuid();
    RoundTripProbe probe(gSetup->runtime->pid(), gSetup->runtimeAllocs.get());
    for (auto _ : state) {
        if (!android::checkPermission(TovarinPermission::CONTROL_PERMISSION, pid, uid)) {
            state.SkipWithError("permission refused");
            break;
        }
    }
    probe.finish(state);
}

// Interleaved repetitions would be fairer on a loaded machine, but each repetition here runs
// its own warm-up; the ratios use the medians.
#define ROUND_TRIP(fn) BENCHMARK(fn)->MinTime(0.5)->Repetitions(3)->UseRealTime()
ROUND_TRIP(BM_Ping);
ROUND_TRIP(BM_Sample);
ROUND_TRIP(BM_GetEnabled);
ROUND_TRIP(BM_GetHeadTrackingState);
ROUND_TRIP(BM_SetEnabledState);
ROUND_TRIP(BM_PermissionCheck);
#undef ROUND_TRIP

// ---------------------------------------------------------------------------------------------
// Ratios: calls of different kinds in alternation
// ---------------------------------------------------------------------------------------------

// Each iteration makes one call of every kind in turn and times each; the counters are the
// median time per kind (<name>_us). Load that comes and goes on the machine then falls on all
// kinds alike, which back-to-back runs of separate benchmarks cannot promise.
struct TimedCall {
    const char* name;
    std::function<bool()> call;
};

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const size_t at = std::min(values.size() - 1, size_t(fraction * double(values.size())));
    return values[at];
}

void alternate(benchmark::State& state, const std::vector<TimedCall>& calls) {
    std::vector<std::vector<double>> us(calls.size());
    for (auto _ : state) {
        for (size_t i = 0; i < calls.size(); ++i) {
            const int64_t start = nowNs();
            if (!calls[i].call()) {
                state.SkipWithError((std::string(calls[i].name) + " failed").c_str());
                return;
            }
            us[i].push_back(double(nowNs() - start) / 1e3);
        }
    }
    for (size_t i = 0; i < calls.size(); ++i) {
        state.counters[std::string(calls[i].name) + "_us"] = percentile(us[i], 0.5);
    }
}

// Round trips through the client singleton against the bare ping, and against a ping of the
// service's own binder (answered by the runtime library in tovarind, on the same threads as the
// library's calls): the second takes the placement of two different server processes on a busy
// machine out of the comparison.
void BM_AlternateWithPing(benchmark::State& state) {
    if (!ensureService(state) || !ensurePing(state)) {
        return;
    }
    StartedTracker tracker;
    sp<IBinder> ping = defaultServiceManager()->checkService(String16(kPingName));
    if (!tracker.started() || ping == nullptr) {
        state.SkipWithError("no head tracker or no ping service");
        return;
    }
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    const sp<IBinder> service = android::IInterface::asBinder(TovarinServiceImpl::checkService());
    HeadTrackingEvent event;
    alternate(state, {
            {"ping",
             [&] {
                 Parcel data;
                 Parcel reply;
                 return ping->transact(kPingCode, data, &reply) == NO_ERROR;
             }},
            {"pingService", [&] { return service->pingBinder() == NO_ERROR; }},
            {"sample", [&] { return tovarin->sample(tracker.handle(), event) == NO_ERROR; }},
            {"getEnabled", [&] { return tovarin->getEnabled(); }},
            {"getHeadTrackingState",
             [&] { return tovarin->getHeadTrackingState().primary != 32; }},
    });
}
BENCHMARK(BM_AlternateWithPing)->MinTime(2.0)->UseRealTime();

// The permission-checked call against an unchecked one, and the check alone (made from here,
// to the runtime that answers it).
void BM_AlternatePermission(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    tovarin->setEnabledState(1);
    const pid_t pid = getpid();
    const uid_t uid = getuid();
    alternate(state, {
            {"getEnabled", [&] { return tovarin->getEnabled(); }},
            {"setEnabledState",
             [&] {
                 tovarin->setEnabledState(1);
                 return true;
             }},
            {"checkPermission",
             [&] {
                 return android::checkPermission(TovarinPermission::CONTROL_PERMISSION, pid,
                                                 uid);
             }},
    });
}
BENCHMARK(BM_AlternatePermission)->MinTime(2.0)->UseRealTime();

// ---------------------------------------------------------------------------------------------
// State changes fanned out to listener processes
// ---------------------------------------------------------------------------------------------

// N listener processes registered with the service, reporting on one pipe.
class ListenerGroup {
public:
    explicit ListenerGroup(int count) : mCount(count) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        mReadFd = fds[0];
        // The write end is given to the listeners under a fixed number, without close-on-exec.
        const int writeFd = fcntl(fds[1], F_DUPFD, 100);
        close(fds[1]);
        for (int i = 0; i < count; ++i) {
            mListeners.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{
                    gSetup->self, "--listen", std::to_string(writeFd), std::to_string(i)}));
        }
        close(writeFd);  // the read end sees end-of-file when every listener is gone
    }

    // Waits until every listener has registered; the error when one failed.
    std::string waitRegistered() {
        if (mReadFd < 0) {
            return "no pipe";
        }
        const int64_t deadline = nowNs() + int64_t(kStartTimeoutMs) * 1000000;
        for (int ready = 0; ready < mCount; ++ready) {
            Report report;
            if (!read(&report, deadline)) {
                return "a listener did not register in time";
            }
            if (report.flag != -1) {
                return "a listener's registration failed: " + std::to_string(report.flag) +
                       " " + mListeners[size_t(report.index) % mListeners.size()]->output();
            }
        }
        return "";
    }

    // The next report, or false at the deadline (or when every listener is gone).
    bool read(Report* report, int64_t deadlineNs) {
        for (;;) {
            const int64_t left = (deadlineNs - nowNs()) / 1000000;
            if (left < 0) {
                return false;
            }
            pollfd p{mReadFd, POLLIN, 0};
            if (poll(&p, 1, int(std::min<int64_t>(left + 1, 1000))) <= 0) {
                continue;
            }
            return ::read(mReadFd, report, sizeof(*report)) == ssize_t(sizeof(*report));
        }
    }

    ~ListenerGroup() {
        mListeners.clear();  // SIGKILL and reap
        if (mReadFd >= 0) {
            close(mReadFd);
        }
    }

private:
    int mCount;
    int mReadFd = -1;
    std::vector<std::unique_ptr<ChildProcess>> mListeners;
};

// One change at a time: from the setEnabledState() call to the moment the last listener has the
// event.
void BM_StateChangeLatency(benchmark::State& state) {
    if (!ensureService(state)) {
        return;
    }
    const int count = int(state.range(0));
    ListenerGroup group(count);
    const std::string error = group.waitRegistered();
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    bool enabled = tovarin->getEnabled();
    std::vector<double> latenciesUs;
    for (auto _ : state) {
        enabled = !enabled;
        const int64_t start = nowNs();
        tovarin->setEnabledState(enabled ? 1 : 0);
        const int64_t deadline = start + int64_t(kEventTimeoutMs) * 1000000;
        int64_t last = start;
        int received = 0;
        Report report;
        while (received < count && group.read(&report, deadline)) {
            if (report.flag != (enabled ? 1 : 0)) {
                break;
            }
            last = std::max(last, report.receivedNs);
            received++;
        }
        if (received < count) {
            state.SkipWithError("a listener missed a state change");
            break;
        }
        latenciesUs.push_back(double(last - start) / 1e3);
        state.SetIterationTime(double(last - start) / 1e9);
    }
    if (!enabled) {
        tovarin->setEnabledState(1);  // the listeners' reports of it go with the group
    }
    state.counters["p50_us"] = percentile(latenciesUs, 0.5);
    state.counters["p99_us"] = percentile(latenciesUs, 0.99);
}
BENCHMARK(BM_StateChangeLatency)
        ->Arg(1)
        ->Arg(4)
        ->Arg(16)
        ->Iterations(300)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);

// Sustained rate: changes made back to back, at most kWindow of them not yet delivered to every
// listener; one iteration makes kEvents changes.
void BM_StateChangeRate(benchmark::State& state) {
    constexpr int kEvents = 1000;
    constexpr int kWindow = 16;
    if (!ensureService(state)) {
        return;
    }
    const int count = int(state.range(0));
    ListenerGroup group(count);
    const std::string error = group.waitRegistered();
    if (!error.empty()) {
        state.SkipWithError(error.c_str());
        return;
    }
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    bool enabled = tovarin->getEnabled();
    double rate = 0;
    for (auto _ : state) {
        const int64_t start = nowNs();
        const int64_t deadline = start + int64_t(kEventTimeoutMs) * 1000000 * 6;
        int64_t received = 0;
        bool ok = true;
        for (int sent = 1; ok && sent <= kEvents; ++sent) {
            enabled = !enabled;
            tovarin->setEnabledState(enabled ? 1 : 0);
            const int64_t mustHave = sent == kEvents ? int64_t(sent) * count
                                                     : int64_t(sent - kWindow) * count;
            Report report;
            while (ok && received < mustHave) {
                ok = group.read(&report, deadline);
                received++;
            }
        }
        const int64_t end = nowNs();
        if (!ok) {
            state.SkipWithError("listeners fell behind past the deadline");
            break;
        }
        state.SetIterationTime(double(end - start) / 1e9);
        rate = kEvents / (double(end - start) / 1e9);
    }
    if (!enabled) {
        tovarin->setEnabledState(1);
    }
    state.counters["events_per_s"] = rate;
    state.counters["deliveries_per_s"] = rate * count;
}
BENCHMARK(BM_StateChangeRate)
        ->Arg(1)
        ->Arg(4)
        ->Arg(16)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------------------------
// Profiling: a fixed number of calls of one kind, for callgrind or perf
// ---------------------------------------------------------------------------------------------

enum class CallKind { kPing, kSample, kGetEnabled, kGetHeadTrackingState, kSetEnabledState };

// `count` calls of one kind; callgrind's --toggle-collect='*profileCalls*' counts these and
// nothing else.
__attribute__((noinline)) bool profileCalls(CallKind kind, int count, const sp<IBinder>& ping,
                                            const HeadTrackerHandle& handle) {
    sp<TovarinServiceImpl> tovarin = TovarinServiceImpl::getInstance();
    HeadTrackingEvent event;
    bool ok = true;
    for (int i = 0; i < count && ok; ++i) {
        switch (kind) {
            case CallKind::kPing: {
                Parcel data;
                Parcel reply;
                ok = ping->transact(kPingCode, data, &reply) == NO_ERROR;
                break;
            }
            case CallKind::kSample:
                ok = tovarin->sample(handle, event) == NO_ERROR;
                break;
            case CallKind::kGetEnabled:
                ok = tovarin->getEnabled();
                break;
            case CallKind::kGetHeadTrackingState:
                benchmark::DoNotOptimize(tovarin->getHeadTrackingState());
                break;
            case CallKind::kSetEnabledState:
                tovarin->setEnabledState(1);
                break;
        }
    }
    return ok;
}

// `count` calls of `kind` (ping, sample, getEnabled, getHeadTrackingState, setEnabledState)
// after a short warm-up.
int profile(const std::string& kind, int count) {
    static const std::map<std::string, CallKind> kKinds = {
            {"ping", CallKind::kPing},
            {"sample", CallKind::kSample},
            {"getEnabled", CallKind::kGetEnabled},
            {"getHeadTrackingState", CallKind::kGetHeadTrackingState},
            {"setEnabledState", CallKind::kSetEnabledState},
    };
    const auto found = kKinds.find(kind);
    if (found == kKinds.end() || count <= 0) {
        fprintf(stderr, "unknown call kind or count: %s %d\n", kind.c_str(), count);
        return 2;
    }
    const std::string error = kind == "ping" ? startPing() : startService();
    if (!error.empty()) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    sp<IBinder> ping;
    std::unique_ptr<StartedTracker> tracker;
    if (kind == "ping") {
        ping = defaultServiceManager()->checkService(String16(kPingName));
    } else {
        tracker = std::make_unique<StartedTracker>();
    }
    const HeadTrackerHandle handle = tracker ? tracker->handle() : HeadTrackerHandle();
    profileCalls(found->second, 10, ping, handle);  // warm-up
    const int64_t start = nowNs();
    const bool ok = profileCalls(found->second, count, ping, handle);
    const int64_t end = nowNs();
    tracker.reset();
    // A server under a profiler writes its results when it ends, which SIGKILL would prevent.
    std::unique_ptr<ChildProcess>& server = kind == "ping" ? gSetup->ping : gSetup->service;
    server->kill(SIGTERM);
    server->wait(kStartTimeoutMs);
    printf("%s: %d calls, %.1f us each%s\n", kind.c_str(), count, double(end - start) / 1e3 / count,
           ok ? "" : " (FAILED)");
    return ok ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------
// Summary
// ---------------------------------------------------------------------------------------------

// Keeps, per benchmark (name and arguments), the median of its repetitions or its only run.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    struct Figures {
        double ns = 0;  // wall time per iteration
        std::map<std::string, double> counters;
    };

    // Colours only on a terminal.
    SummaryReporter()
        : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            const bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
            if (r.run_type == Run::RT_Aggregate && !median) {
                continue;
            }
            if (r.error_occurred) {
                continue;
            }
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) {
                name += "/" + r.run_name.args;
            }
            if (!median && mMedian.count(name) != 0) {
                continue;
            }
            if (median) {
                mMedian[name] = true;
            }
            const double scale = r.time_unit == benchmark::kMicrosecond   ? 1e3
                                 : r.time_unit == benchmark::kMillisecond ? 1e6
                                 : r.time_unit == benchmark::kSecond      ? 1e9
                                                                          : 1.0;
            Figures& f = mFigures[name];
            f.ns = r.GetAdjustedRealTime() * scale;
            for (const auto& [key, counter] : r.counters) {
                f.counters[key] = counter.value;
            }
        }
    }

    const Figures* find(const std::string& name) const {
        auto it = mFigures.find(name);
        return it == mFigures.end() ? nullptr : &it->second;
    }

private:
    std::map<std::string, Figures> mFigures;
    std::map<std::string, bool> mMedian;
};

double counter(const SummaryReporter::Figures* f, const std::string& name) {
    if (f == nullptr) {
        return 0;
    }
    auto it = f->counters.find(name);
    return it == f->counters.end() ? 0 : it->second;
}

void printSummary(const SummaryReporter& reporter) {
    printf("\n");
    // Wall times: medians of calls made in alternation. CPU (all processes of the call) and
    // allocations: separate runs. On a loaded machine both times move with the load; the
    // instruction counts of bench/tovarin/callgrind.sh do not.
    const SummaryReporter::Figures* alternate = reporter.find("BM_AlternateWithPing");
    const SummaryReporter::Figures* ping = reporter.find("BM_Ping");
    const double pingUs = counter(alternate, "ping_us");
    const double pingServiceUs = counter(alternate, "pingService_us");
    if (alternate != nullptr && ping != nullptr && pingUs > 0) {
        printf("%-22s %8.1f us wall, %7.1f us CPU; allocations per call: client %.1f, "
               "server %.1f, runtime %.1f\n",
               "bare ping", pingUs, counter(ping, "cpu_us"), counter(ping, "allocs_client"),
               counter(ping, "allocs_service"), counter(ping, "allocs_runtime"));
        printf("%-22s %8.1f us wall\n", "the service's ping", pingServiceUs);
        for (const char* name : {"sample", "getEnabled", "getHeadTrackingState"}) {
            std::string bench = std::string("BM_") + name;
            bench[3] = char(toupper(bench[3]));
            const SummaryReporter::Figures* f = reporter.find(bench);
            const double us = counter(alternate, std::string(name) + "_us");
            printf("%-22s %8.1f us wall (ratio %.2f, target <= 1.2; %.2f to the service's "
                   "ping), %7.1f us CPU; allocations client %.1f, service %.1f, runtime %.1f\n",
                   name, us, us / pingUs, us / pingServiceUs, counter(f, "cpu_us"),
                   counter(f, "allocs_client"), counter(f, "allocs_service"),
                   counter(f, "allocs_runtime"));
        }
    }
    const SummaryReporter::Figures* permission = reporter.find("BM_AlternatePermission");
    if (permission != nullptr) {
        const double getEnabled = counter(permission, "getEnabled_us");
        const double setEnabled = counter(permission, "setEnabledState_us");
        const double check = counter(permission, "checkPermission_us");
        printf("%-22s %8.1f us wall = %.2fx getEnabled (%.1f us); its permission look-up "
               "alone %.1f us, %.0f%% of the call\n",
               "setEnabledState", setEnabled, setEnabled / getEnabled, getEnabled, check,
               100 * check / setEnabled);
    }
    for (int count : {1, 4, 16}) {
        const SummaryReporter::Figures* latency =
                reporter.find("BM_StateChangeLatency/" + std::to_string(count));
        const SummaryReporter::Figures* rate =
                reporter.find("BM_StateChangeRate/" + std::to_string(count));
        if (latency == nullptr || rate == nullptr) {
            continue;
        }
        printf("state change to %2d listener processes: the last has it after %.0f us median, "
               "%.0f us p99; %.0f changes/s sustained\n",
               count, counter(latency, "p50_us"), counter(latency, "p99_us"),
               counter(rate, "events_per_s"));
    }
    const SummaryReporter::Figures* cold = reporter.find("BM_ColdStartService");
    if (cold != nullptr) {
        printf("cold start: tovarind answers %.1f ms after it is started\n", cold->ns / 1e6);
    }
    const SummaryReporter::Figures* firstTovarin = reporter.find("BM_FirstCallTovarin");
    const SummaryReporter::Figures* firstPing = reporter.find("BM_FirstCallPing");
    if (firstTovarin != nullptr && firstPing != nullptr) {
        printf("first call of a new client: %.1f ms after it is started, %.1f ms after its "
               "main(); a bare ping client: %.1f ms, %.1f ms\n",
               firstTovarin->ns / 1e6, counter(firstTovarin, "from_main_ms"), firstPing->ns / 1e6,
               counter(firstPing, "from_main_ms"));
    }
}

void onWatchdog(int) {
    static const char kMessage[] = "tovarin_bench: watchdog expired, giving up\n";
    (void)!write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
    _exit(3);  // the helpers die with this process
}

std::string envOr(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr && value[0] != '\0' ? value : fallback;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--serve-ping") == 0) {
        return servePing();
    }
    if (argc == 4 && strcmp(argv[1], "--listen") == 0) {
        return listen(atoi(argv[2]), atoi(argv[3]));
    }
    if (argc == 3 && strcmp(argv[1], "--first-call") == 0) {
        return firstCall(argv[2]);
    }

    signal(SIGALRM, onWatchdog);
    alarm(kWatchdogSeconds);
    signal(SIGPIPE, SIG_IGN);

    Setup setup;
    gSetup = &setup;
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) {
        return 1;
    }
    setup.self = self;
    setup.tovarind = envOr("TOVARIND", TOVARIND_DEFAULT_PATH);
    setup.hook = ALLOC_HOOK_PATH;
    char dirTemplate[] = "/tmp/tovarin-bench-XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        return 1;
    }
    setup.dir = dirTemplate;
    setup.runtimeAllocs = std::make_unique<SharedAllocCounter>(setup.dir + "/runtime");
    setup.serviceAllocs = std::make_unique<SharedAllocCounter>(setup.dir + "/service");
    setup.pingAllocs = std::make_unique<SharedAllocCounter>(setup.dir + "/ping");

    int status = 0;
    {
        // The runtime is started with the hook preloaded and counting into its file.
        setenv("HOSTBINDERD", envOr("HOSTBINDERD", HOSTBINDERD_DEFAULT_PATH).c_str(), 1);
        for (const std::string& e : setup.runtimeAllocs->env(setup.hook)) {
            putenv(strdup(e.c_str()));
        }
        const uid_t uid = getuid();
        try {
            setup.runtime = std::make_unique<RuntimeInstance>(
                    std::to_string(uid) + " com.morvel.permission.TOVARIN_CONTROL\n" +
                    std::to_string(uid) + " android.permission.DUMP\n");
        } catch (const std::exception& e) {
            fprintf(stderr, "tovarin_bench: %s\n", e.what());
            status = 1;
        }
        unsetenv("LD_PRELOAD");
        unsetenv(kAllocCounterEnv);

        if (status != 0) {
            // no runtime: nothing to measure
        } else if (argc == 4 && strcmp(argv[1], "--profile") == 0) {
            status = profile(argv[2], atoi(argv[3]));
        } else {
            benchmark::Initialize(&argc, argv);
            if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
                status = 2;
            } else {
                SummaryReporter reporter;
                benchmark::RunSpecifiedBenchmarks(&reporter);
                printSummary(reporter);
            }
            benchmark::Shutdown();
        }
        // Stopping tovarind makes the client singleton log the service's death and look for a
        // new one: expected here.
        setup.ping.reset();
        setup.service.reset();
        setup.runtime.reset();
    }
    setup.runtimeAllocs.reset();
    setup.serviceAllocs.reset();
    setup.pingAllocs.reset();
    rmdir(setup.dir.c_str());
    fflush(stdout);
    // The client singleton and its proxies are never destroyed; leave without running the
    // static destructors of a process whose runtime has just gone.
    _exit(status);
}
