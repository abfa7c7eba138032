// Calls through hostbinder next to the same calls on a raw Unix socketpair between two
// processes (the most a transport over Unix sockets can do) and through a private D-Bus daemon;
// then sync calls from 1, 4 and 8 client processes at once, each calling its own service
// process. Prints every figure next to its baselines, with the ratios and their targets.
//
//   hostbinder_bench [--scale-ms=N] [--no-scale] [benchmark flags]
//
// Starts its own runtime instance (hostbinderd from $HOSTBINDERD, or the one built with it),
// its own dbus-daemon, and helper processes: itself re-executed in one of the modes of
// helperMain(). It ends by itself: a lost call, a helper that does not start or finish in
// time, or a phase that hangs (Watchdog) is a failure with a message and exit status 1 (2 for
// a hang); a missed target is not.
#include "Children.h"
#include "RawSocket.h"
#include "Scaling.h"
#if HOSTBINDER_BENCH_DBUS
#include "DBusPing.h"
#endif

#include <hostbinder_test/Runtime.h>

#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace android;
using namespace hostbinder_bench;

namespace {

constexpr uint32_t kPing = IBinder::FIRST_CALL_TRANSACTION;
constexpr uint32_t kOneway = IBinder::FIRST_CALL_TRANSACTION + 1;
constexpr uint32_t kCount = IBinder::FIRST_CALL_TRANSACTION + 2;
constexpr uint32_t kWatch = IBinder::FIRST_CALL_TRANSACTION + 3;
constexpr uint32_t kDelivered = IBinder::FIRST_CALL_TRANSACTION + 4;
constexpr const char* kServiceName = "bench.ping";
constexpr int32_t kPingValue = 0x5eed;
constexpr int32_t kReportCount = 1;  // in a one-way call: "tell the watcher your count"

constexpr const char* kMinTimeFlag = "--benchmark_min_time=1";  // unless given
constexpr int kOnewayBatch = 4096;  // one-way calls sent before waiting for delivery
constexpr int kDeliveryMs = 10000;  // a batch is delivered within this, or it is lost
constexpr int kStartMs = 30000;     // a helper process starts and registers
constexpr int kPhaseSeconds = 120;  // any one phase of the run (the watchdog's limit)
constexpr int kScaleClients[] = {1, 4, 8};

// ---- hostbinder ------------------------------------------------------------------------------

// The service: answers kPing with the int32 it was sent, counts kOneway calls and answers
// kCount with the count. A kOneway call that starts with kReportCount also sends the count
// to the watcher registered with kWatch (kDelivered, one-way), so that the caller learns when
// its calls have arrived without asking over and over.
class PingService : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case kPing:
                return reply->writeInt32(data.readInt32());
            case kOneway: {
                const int64_t received = mReceived.fetch_add(1) + 1;
                if (data.readInt32() == kReportCount) report(received);
                return NO_ERROR;
            }
            case kCount:
                return reply->writeInt64(mReceived.load());
            case kWatch: {
                std::lock_guard<std::mutex> l(mLock);
                mWatcher = data.readStrongBinder();
                return NO_ERROR;
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    void report(int64_t received) {
        sp<IBinder> watcher;
        {
            std::lock_guard<std::mutex> l(mLock);
            watcher = mWatcher;
        }
        if (watcher == nullptr) return;
        Parcel data;
        data.writeInt64(received);
        watcher->transact(kDelivered, data, nullptr, IBinder::FLAG_ONEWAY);
    }

    std::atomic<int64_t> mReceived{0};
    std::mutex mLock;
    sp<IBinder> mWatcher;
};

// The caller's end of kWatch: the latest count a service reported, and a bounded wait for it.
class DeliveryWatcher : public BBinder {
public:
    // Waits up to timeoutMs for a count of at least `expected`; returns the latest count.
    int64_t waitFor(int64_t expected, int timeoutMs) {
        std::unique_lock<std::mutex> l(mLock);
        mChanged.wait_for(l, std::chrono::milliseconds(timeoutMs),
                          [&] { return mDelivered >= expected; });
        return mDelivered;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kDelivered) return BBinder::onTransact(code, data, reply, flags);
        std::lock_guard<std::mutex> l(mLock);
        mDelivered = std::max(mDelivered, data.readInt64());
        mChanged.notify_all();
        return NO_ERROR;
    }

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    int64_t mDelivered = 0;
};

// The same 64 bytes as a raw socket message: an int32, then zeros.
void fillPayload(Parcel* p, int32_t first) {
    uint8_t bytes[kMessageBytes - sizeof(int32_t)] = {};
    p->writeInt32(first);
    p->write(bytes, sizeof(bytes));
}

bool hbPing(const sp<IBinder>& service, const Parcel& data) {
    Parcel reply;
    return service->transact(kPing, data, &reply) == NO_ERROR && reply.readInt32() == kPingValue;
}

// A receiver that falls behind refuses one-way calls with FAILED_TRANSACTION (nothing is lost
// in silence); the sender backs off and sends the same call again, so the figure is the rate
// of calls actually delivered. Gives up after kDeliveryMs of refusals.
bool hbOneway(const sp<IBinder>& service, const Parcel& data) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kDeliveryMs);
    for (;;) {
        const status_t status = service->transact(kOneway, data, nullptr, IBinder::FLAG_ONEWAY);
        if (status != FAILED_TRANSACTION) return status == NO_ERROR;
        if (std::chrono::steady_clock::now() > giveUp) return false;
        usleep(100);
    }
}

bool hbCount(const sp<IBinder>& service, int64_t* count) {
    Parcel data, reply;
    if (service->transact(kCount, data, &reply) != NO_ERROR) return false;
    return reply.readInt64(count) == NO_ERROR;
}

bool hbWatch(const sp<IBinder>& service, const sp<IBinder>& watcher) {
    Parcel data, reply;
    data.writeStrongBinder(watcher);
    return service->transact(kWatch, data, &reply) == NO_ERROR;
}

// Starts `count` ping service helpers named `prefix.I` and waits until each has registered.
bool startServices(const std::string& prefix, int count,
                   std::vector<std::unique_ptr<Helper>>* services, std::string* why) {
    for (int i = 0; i < count; i++) {
        services->push_back(Helper::self({"--serve", prefix + "." + std::to_string(i)}));
    }
    const int64_t readyBy = nowMs() + kStartMs;
    for (const auto& service : *services) {
        if (!service->waitForLine("ready", msUntil(readyBy))) {
            *why = "a ping service did not start; it printed: " + service->output();
            return false;
        }
    }
    return true;
}

// ---- helper processes ------------------------------------------------------------------------

int serveHostbinder(const char* name) {
    if (defaultServiceManager()->addService(String16(name), new PingService) != NO_ERROR) {
        say("failed: cannot register %s", name);
        return 1;
    }
    say("ready");
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

int pingHostbinder(const char* name, int durationMs) {
    const sp<IBinder> service = defaultServiceManager()->getService(String16(name));
    if (service == nullptr) {
        say("failed: no service %s", name);
        return 1;
    }
    Parcel data;
    fillPayload(&data, kPingValue);
    return runTimedClient([&] { return hbPing(service, data); }, durationMs);
}

int pingRawPeer(int durationMs) {
    ForkedPeer peer(serveRawPeer);
    if (!peer.ok()) {
        say("failed: cannot start the raw peer");
        return 1;
    }
    return runTimedClient([&] { return rawPing(peer.fd()); }, durationMs);
}

// The helper modes: this program re-executed as a service or a client for the benchmark.
struct HelperMode {
    const char* flag;
    int args;
    int (*run)(char** args);
};

const HelperMode kHelperModes[] = {
        {"--serve", 1, [](char** a) { return serveHostbinder(a[0]); }},
        {"--ping-client", 2, [](char** a) { return pingHostbinder(a[0], atoi(a[1])); }},
        {"--raw-ping-client", 1, [](char** a) { return pingRawPeer(atoi(a[0])); }},
#if HOSTBINDER_BENCH_DBUS
        {"--dbus-serve", 1, [](char** a) { return serveDBus(a[0]); }},
#endif
};

// Runs the helper mode argv names and returns its exit status; -1 when it names none.
int helperMain(int argc, char** argv) {
    for (const HelperMode& mode : kHelperModes) {
        if (argc == mode.args + 2 && strcmp(argv[1], mode.flag) == 0) {
            blockStartSignal();
            return mode.run(argv + 2);
        }
    }
    return -1;
}

// ---- benchmarks ------------------------------------------------------------------------------

std::vector<std::string> gFailures;

void fail(benchmark::State& state, const std::string& message) {
    state.SkipWithError(message.c_str());
    gFailures.push_back(message);
}

// Sync round trips, one per iteration.
void roundTrips(benchmark::State& state, const std::string& name,
                const std::function<bool()>& ping) {
    Watchdog::arm(name, kPhaseSeconds);
    for (auto _ : state) {
        if (!ping()) {
            fail(state, name + ": a call failed");
            break;
        }
    }
    Watchdog::disarm();
}

// One-way calls to one receiver: `send` sends one (`last` marks the last of a batch),
// `count` asks for the receiver's count now, `await` waits up to timeoutMs until the count is
// at least `expected` and gives the count it has then.
struct OnewayCalls {
    std::function<bool(bool last)> send;
    std::function<bool(int64_t* count)> count;
    std::function<bool(int64_t expected, int timeoutMs, int64_t* count)> await;
};

// For receivers that take calls in order: a count asked for after the calls counts them all.
OnewayCalls inOrder(std::function<bool()> send, std::function<bool(int64_t*)> count) {
    return {[send](bool) { return send(); }, count,
            [count](int64_t, int, int64_t* n) { return count(n); }};
}

// Sends a batch of one-way calls and waits until the receiver has counted them all. Returns an
// error message, or empty when the count is `*expected` (advanced by the batch).
std::string sendBatch(const OnewayCalls& calls, int64_t* expected) {
    for (int i = 0; i < kOnewayBatch; i++) {
        if (!calls.send(i == kOnewayBatch - 1)) return "a one-way call could not be sent";
    }
    *expected += kOnewayBatch;
    int64_t delivered = 0;
    if (!calls.await(*expected, kDeliveryMs, &delivered)) {
        return "cannot learn the receiver's count";
    }
    if (delivered < *expected) {
        return strprintf("%lld of the last %d one-way calls not delivered in %d s: lost",
                         static_cast<long long>(*expected - delivered), kOnewayBatch,
                         kDeliveryMs / 1000);
    }
    if (delivered > *expected) return "the receiver counted more calls than were sent";
    return "";
}

// One-way calls counted when delivered: an iteration is a batch (sendBatch).
void onewayBatches(benchmark::State& state, const std::string& name, const OnewayCalls& calls) {
    Watchdog::arm(name, kPhaseSeconds);
    int64_t expected = 0;
    if (!calls.count(&expected)) {
        fail(state, name + ": cannot ask the receiver for its count");
    } else {
        for (auto _ : state) {
            if (std::string error = sendBatch(calls, &expected); !error.empty()) {
                fail(state, name + ": " + error);
                break;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * kOnewayBatch);
    Watchdog::disarm();
}

void registerBenchmark(const char* name, std::function<void(benchmark::State&)> body) {
    benchmark::RegisterBenchmark(name, std::move(body))->UseRealTime();
}

// Keeps each benchmark's real time per iteration for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred || r.run_type == Run::RT_Aggregate) continue;
            const double scale = r.time_unit == benchmark::kMicrosecond   ? 1e3
                                 : r.time_unit == benchmark::kMillisecond ? 1e6
                                 : r.time_unit == benchmark::kSecond      ? 1e9
                                                                          : 1.0;
            mNsPerIteration[r.run_name.function_name] = r.GetAdjustedRealTime() * scale;
        }
    }
    // Time per iteration of a benchmark in nanoseconds; 0 if it did not run or failed.
    double ns(const std::string& name) const {
        auto it = mNsPerIteration.find(name);
        return it == mNsPerIteration.end() ? 0 : it->second;
    }

private:
    std::map<std::string, double> mNsPerIteration;
};

// ---- summary ---------------------------------------------------------------------------------

std::string micros(double ns) {
    return strprintf("%.1f us", ns / 1e3);
}

std::string perSecond(double rate) {
    return strprintf("%.1fk/s", rate / 1e3);
}

enum class Target { AtMost, AtLeast };

// One line of the summary: our figure, a baseline's, their ratio against its target. `ours`
// and `theirs` are 0 when not measured.
void printRatio(const char* what, double ours, const char* baseline, double theirs,
                const std::function<std::string(double)>& show, Target target, double limit,
                bool skipped = false) {
    printf("%-16s hostbinder %-11s %-18s ", what, ours > 0 ? show(ours).c_str() : "-", baseline);
    if (ours <= 0 || theirs <= 0) {
        printf("%-11s %s\n", theirs > 0 ? show(theirs).c_str() : "-",
               skipped ? "skipped" : "not measured");
        return;
    }
    const double ratio = ours / theirs;
    const bool met = target == Target::AtMost ? ratio <= limit : ratio >= limit;
    printf("%-11s ratio %5.2f  (target %s %.2f: %s)\n", show(theirs).c_str(), ratio,
           target == Target::AtMost ? "<=" : ">=", limit, met ? "met" : "MISSED");
}

struct ScaleFigure {
    int clients;
    double hostbinder;  // total calls/s, 0 if not measured
    double raw;
};

void printSummary(const SummaryReporter& r, const std::string& dbusSkipped,
                  const std::vector<ScaleFigure>& scale) {
    const auto rate = [&](const char* name) {
        const double ns = r.ns(name);
        return ns > 0 ? kOnewayBatch * 1e9 / ns : 0;
    };
    printf("\nhostbinder against its baselines (ratio: hostbinder / baseline; one run, "
           "indicative on a busy machine)\n");
    printRatio("sync round trip", r.ns("hostbinder_sync"), "raw socketpair", r.ns("raw_sync"),
               micros, Target::AtMost, 1.5);
    printRatio("sync round trip", r.ns("hostbinder_sync"), "D-Bus", r.ns("dbus_sync"), micros,
               Target::AtMost, 1.0, !dbusSkipped.empty());
    printRatio("one-way calls", rate("hostbinder_oneway"), "raw socket writes", rate("raw_oneway"),
               perSecond, Target::AtLeast, 0.8);
    printRatio("one-way calls", rate("hostbinder_oneway"), "D-Bus", rate("dbus_oneway"), perSecond,
               Target::AtLeast, 1.0, !dbusSkipped.empty());
    if (scale.empty()) return;

    printf("\nsync calls per second summed over N client processes, each calling its own "
           "service process\n");
    printf("%7s  %-11s %-15s %-6s  %-17s %s\n", "clients", "hostbinder", "raw socketpair", "ratio",
           "hostbinder growth", "raw growth");
    const auto show = [](double value, const std::function<std::string(double)>& how) {
        return value > 0 ? how(value) : std::string("-");
    };
    const auto growth = [](double value, double base) {
        return value > 0 && base > 0 ? strprintf("x%.2f", value / base) : "-";
    };
    for (const ScaleFigure& f : scale) {
        printf("%7d  %-11s %-15s %-6s  %-17s %s\n", f.clients,
               show(f.hostbinder, perSecond).c_str(), show(f.raw, perSecond).c_str(),
               f.hostbinder > 0 && f.raw > 0 ? strprintf("%.2f", f.hostbinder / f.raw).c_str()
                                             : "-",
               growth(f.hostbinder, scale.front().hostbinder).c_str(),
               growth(f.raw, scale.front().raw).c_str());
    }
}

// ---- the run ---------------------------------------------------------------------------------

struct Options {
    int scaleMs = 1000;
    bool scale = true;
};

// 1, 4 and 8 clients: hostbinder (each client with its own service process) and raw
// socketpairs (each client with its own peer).
std::vector<ScaleFigure> measureScaling(const Options& options) {
    std::vector<ScaleFigure> figures;
    const std::string ms = std::to_string(options.scaleMs);
    for (int clients : kScaleClients) {
        ScaleFigure f{clients, 0, 0};
        const std::string phase = "scaling with " + std::to_string(clients) + " clients";
        Watchdog::arm(phase, kPhaseSeconds);
        std::vector<std::unique_ptr<Helper>> services;
        const std::string prefix = std::string(kServiceName) + "." + std::to_string(clients);
        std::string why;
        if (startServices(prefix, clients, &services, &why)) {
            f.hostbinder = runClients(
                    clients, options.scaleMs,
                    [&](int i) {
                        return std::vector<std::string>{"--ping-client",
                                                        prefix + "." + std::to_string(i), ms};
                    },
                    &why);
        }
        if (f.hostbinder <= 0) gFailures.push_back(phase + ", hostbinder: " + why);
        services.clear();
        f.raw = runClients(
                clients, options.scaleMs,
                [&](int) {
                    return std::vector<std::string>{"--raw-ping-client", ms};
                },
                &why);
        if (f.raw <= 0) gFailures.push_back(phase + ", raw socketpair: " + why);
        Watchdog::disarm();
        figures.push_back(f);
    }
    return figures;
}

int run(const Options& options) {
    Watchdog::arm("starting the runtime and the ping services", kPhaseSeconds);
    hostbinder_test::RuntimeInstance runtime;
    Watchdog::removeOnFire(runtime.socketPath().substr(0, runtime.socketPath().rfind('/')));
    std::vector<std::unique_ptr<Helper>> services;
    std::string why;
    if (!startServices(kServiceName, 1, &services, &why)) {
        fprintf(stderr, "hostbinder_bench: FAILED: %s\n", why.c_str());
        return 1;
    }
    sp<IBinder> service = defaultServiceManager()->getService(
            String16((kServiceName + std::string(".0")).c_str()));
    if (service == nullptr) {
        fprintf(stderr, "hostbinder_bench: FAILED: the ping service is not registered\n");
        return 1;
    }

    std::string dbusSkipped;
#if HOSTBINDER_BENCH_DBUS
    bool dbusMissing = false;
    std::unique_ptr<DBusBus> bus = DBusBus::start(&why, &dbusMissing);
    std::unique_ptr<Helper> dbusService;
    std::unique_ptr<DBusClient> dbus;
    if (bus != nullptr) {
        dbusService = Helper::self({"--dbus-serve", bus->address()});
        if (!dbusService->waitForLine("ready", kStartMs)) {
            why = "the D-Bus ping service did not start; it printed: " + dbusService->output();
        } else {
            dbus = DBusClient::connect(bus->address(), &why);
        }
    }
    if (dbus == nullptr) {
        dbusSkipped = why;
        if (!dbusMissing) gFailures.push_back("D-Bus: " + why);
    }
#else
    dbusSkipped = "built without sd-bus (install libsystemd-dev and dbus, then configure again)";
#endif
    if (!dbusSkipped.empty()) printf("D-Bus comparison skipped: %s\n", dbusSkipped.c_str());
    Watchdog::disarm();

    // One-way calls to the service report their delivery to a watcher in this process.
    ProcessState::self()->startThreadPool();
    const sp<DeliveryWatcher> watcher = new DeliveryWatcher;
    if (!hbWatch(service, watcher)) {
        fprintf(stderr, "hostbinder_bench: FAILED: the ping service does not take a watcher\n");
        return 1;
    }
    Parcel payload, reportingPayload;
    fillPayload(&payload, kPingValue);
    fillPayload(&reportingPayload, kReportCount);
    const OnewayCalls hbCalls{
            [&](bool last) { return hbOneway(service, last ? reportingPayload : payload); },
            [&](int64_t* count) { return hbCount(service, count); },
            [&](int64_t expected, int timeoutMs, int64_t* count) {
                *count = watcher->waitFor(expected, timeoutMs);
                return true;
            }};
    registerBenchmark("hostbinder_sync", [&](benchmark::State& state) {
        roundTrips(state, "hostbinder_sync", [&] { return hbPing(service, payload); });
    });
    registerBenchmark("hostbinder_oneway", [&](benchmark::State& state) {
        onewayBatches(state, "hostbinder_oneway", hbCalls);
    });
    registerBenchmark("raw_sync", [&](benchmark::State& state) {
        ForkedPeer peer(serveRawPeer);
        roundTrips(state, "raw_sync", [&] { return rawPing(peer.fd()); });
    });
    registerBenchmark("raw_oneway", [&](benchmark::State& state) {
        ForkedPeer peer(serveRawPeer);
        onewayBatches(
                state, "raw_oneway",
                inOrder([&] { return rawOneway(peer.fd()); },
                        [&](int64_t* count) { return rawCount(peer.fd(), kDeliveryMs, count); }));
    });
#if HOSTBINDER_BENCH_DBUS
    if (dbus != nullptr) {
        registerBenchmark("dbus_sync", [&](benchmark::State& state) {
            roundTrips(state, "dbus_sync", [&] { return dbus->ping(); });
        });
        registerBenchmark("dbus_oneway", [&](benchmark::State& state) {
            onewayBatches(state, "dbus_oneway",
                          inOrder([&] { return dbus->oneway(); },
                                  [&](int64_t* count) { return dbus->count(count); }));
        });
    }
#endif
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const std::vector<ScaleFigure> scale =
            options.scale ? measureScaling(options) : std::vector<ScaleFigure>();
    printSummary(reporter, dbusSkipped, scale);
    fflush(stdout);

    for (const std::string& failure : gFailures) {
        fprintf(stderr, "hostbinder_bench: FAILED: %s\n", failure.c_str());
    }
    Watchdog::arm("stopping the helper processes", kPhaseSeconds);
    service.clear();
    return gFailures.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (const int status = helperMain(argc, argv); status >= 0) return status;
    if (getenv("HOSTBINDERD") == nullptr) setenv("HOSTBINDERD", HOSTBINDERD_DEFAULT_PATH, 1);

    // Our flags out, a default minimum time in, the rest to the benchmark library.
    Options options;
    std::vector<char*> args{argv[0]};
    bool minTimeGiven = false;
    for (int i = 1; i < argc; i++) {
        if (strncmp(argv[i], "--scale-ms=", 11) == 0 && atoi(argv[i] + 11) > 0) {
            options.scaleMs = atoi(argv[i] + 11);
        } else if (strcmp(argv[i], "--no-scale") == 0) {
            options.scale = false;
        } else {
            minTimeGiven |= strncmp(argv[i], "--benchmark_min_time", 20) == 0;
            args.push_back(argv[i]);
        }
    }
    if (!minTimeGiven) args.push_back(const_cast<char*>(kMinTimeFlag));
    int argCount = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&argCount, args.data());
    if (benchmark::ReportUnrecognizedArguments(argCount, args.data())) return 1;

    int status;
    try {
        status = run(options);
    } catch (const std::exception& e) {
        fprintf(stderr, "hostbinder_bench: FAILED: %s\n", e.what());
        status = 1;
    }
    benchmark::Shutdown();
    return status;
}
