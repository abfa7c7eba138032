/*
 * The processes of the multi-process service tests, one mode per role:
 *
 *   server            publishes the tracking service over a recording, pass-through facade,
 *                     the debug service, a state change listener, a raw data listener and a
 *                     poller token, and a probe ("morvel.tovarin.test.probe") reporting what
 *                     happened inside
 *   probe             prints what the server's probe reports, then exits
 *   hold              registers a state change listener, takes a head tracker, then waits
 *   intrude ID...     calls start, stop, standby, setConfiguration, sample and release on each
 *                     tracker ID without having been handed it, prints the statuses
 *   operations        calls every operation and prints the results
 *   events N          registers a listener, toggles the enabled state N times, prints events
 *   setenabled V      sets the enabled state, prints the state afterwards
 *   protocol          sends malformed requests (wrong token, unknown code), prints statuses
 *   hostile SEED N    sends N random requests to every code, then checks the service answers
 *   oneway TARGET     sends one-way calls with every code to one of the server's stubs
 *                     (service, debug, state-listener, raw-listener, poller), then checks that
 *                     the server handled them all and still answers
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ITovarinDebug.h"
#include "ITovarinService.h"
#include "RecordingFacade.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <vector>

using android::BBinder;
using android::defaultServiceManager;
using android::IBinder;
using android::IInterface;
using android::IPCThreadState;
using android::OK;
using android::Parcel;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using morvel::tovarin::HeadTrackerHandle;
using morvel::tovarin::HeadTrackingConfiguration;
using morvel::tovarin::HeadTrackingEvent;
using morvel::tovarin::HeadTrackingState;
using morvel::tovarin::StateChangeEvent;
using morvel::tovarin::StateChangeListener;
using morvel::tovarin::TovarinDiagnostics;
using morvel::tovarin::TovarinLogCapture;
using morvel::tovarin::TovarinLogLine;
using morvel::tovarin::TovarinOverrides;
using morvel::tovarin::binder::BnHeadTrackingPoller;
using morvel::tovarin::binder::BnRawDataListener;
using morvel::tovarin::binder::BnStateChangeListener;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::BnTovarinService;
using morvel::tovarin::binder::ITovarinDebug;
using morvel::tovarin::binder::ITovarinService;
using morvel::tovarin::testing::RecordingFacade;

namespace {

constexpr char kProbeName[] = "morvel.tovarin.test.probe";

// The server's stubs that one-way callers aim at, by target name.
struct OneWayTarget {
    const char* target;
    const char* serviceName;
};
constexpr OneWayTarget kOneWayTargets[] = {
        {"service", ITovarinService::SERVICE_NAME},
        {"debug", ITovarinDebug::SERVICE_NAME},
        {"state-listener", "morvel.tovarin.test.state_listener"},
        {"raw-listener", "morvel.tovarin.test.raw_listener"},
        {"poller", "morvel.tovarin.test.poller"},
};

void say(const std::string& line) {
    static std::mutex lock;
    std::lock_guard<std::mutex> guard(lock);
    printf("%s\n", line.c_str());
    fflush(stdout);
}

// ---------------------------------------------------------------------------------------------
// server

constexpr uint32_t kOneWayHandledCode = IBinder::FIRST_CALL_TRANSACTION + 1;

// One-way calls that a stub of the server has finished handling.
std::atomic<int32_t> gOneWayHandled{0};

// A product stub that counts the one-way calls it returned from.
template <typename Stub>
class OneWayCounting : public Stub {
public:
    using Stub::Stub;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        const status_t status = Stub::onTransact(code, data, reply, flags);
        if ((flags & IBinder::FLAG_ONEWAY) != 0) ++gOneWayHandled;
        return status;
    }
};

class IgnoringStateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent&) override {}
};

class IgnoringRawListener : public morvel::tovarin::RawDataListener {
public:
    void onEvent(const morvel::tovarin::RawDataEvent&) override {}
};

class Probe : public BBinder {
public:
    Probe(const sp<RecordingFacade>& facade, const sp<BnTovarinService>& service)
        : mFacade(facade), mService(service) {}

protected:
    // FIRST_CALL_TRANSACTION: the facade's calls, the two death record counts, then the captured
    // log lines. kOneWayHandledCode: the number of one-way calls the stubs returned from.
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == kOneWayHandledCode) return reply->writeInt32(gOneWayHandled.load());
        if (code != FIRST_CALL_TRANSACTION) return BBinder::onTransact(code, data, reply, flags);
        const std::vector<std::string> calls = mFacade->calls();
        reply->writeInt32(static_cast<int32_t>(calls.size()));
        for (const std::string& call : calls) reply->writeString16(String16(call.c_str()));
        reply->writeInt32(
                static_cast<int32_t>(mService->stateChangeListenerDeathMapper()->clientCount()));
        reply->writeInt32(
                static_cast<int32_t>(mService->headTrackingPollerDeathMapper()->clientCount()));
        const std::vector<TovarinLogLine> lines = mCapture.lines();
        reply->writeInt32(static_cast<int32_t>(lines.size()));
        for (const TovarinLogLine& line : lines) {
            reply->writeInt32(line.level);
            reply->writeString16(String16(line.tag.c_str()));
            reply->writeString16(String16(line.text.c_str()));
        }
        return OK;
    }

private:
    sp<RecordingFacade> mFacade;
    sp<BnTovarinService> mService;
    TovarinLogCapture mCapture;
};

int runServer() {
    // Non-empty debug diagnostics and overrides, empty error diagnostics, for the dump report.
    TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->set("frames", "30");
    TovarinOverrides::getInstance()->set("fidelity", "3");

    sp<RecordingFacade> facade = new RecordingFacade(/*passThrough=*/true);
    sp<BnTovarinService> service = new OneWayCounting<BnTovarinService>(facade);
    sp<Probe> probe = new Probe(facade, service);
    // Every stub of the product, served by this process; a client serves the last three.
    const sp<IBinder> stubs[] = {
            service,
            new OneWayCounting<BnTovarinDebug>(),
            new OneWayCounting<BnStateChangeListener>(new IgnoringStateListener()),
            new OneWayCounting<BnRawDataListener>(new IgnoringRawListener()),
            new OneWayCounting<BnHeadTrackingPoller>(),
    };
    for (size_t i = 0; i < std::size(stubs); ++i) {
        if (defaultServiceManager()->addService(String16(kOneWayTargets[i].serviceName),
                                                stubs[i]) != OK) {
            say("server cannot register");
            return 1;
        }
    }
    if (defaultServiceManager()->addService(String16(kProbeName), probe) != OK) {
        say("server cannot register");
        return 1;
    }
    ProcessState::self()->startThreadPool();
    say("server ready");
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// ---------------------------------------------------------------------------------------------
// clients

sp<ITovarinService> connect() {
    sp<IBinder> binder =
            defaultServiceManager()->checkService(String16(ITovarinService::SERVICE_NAME));
    if (binder == nullptr) {
        say("no service");
        exit(1);
    }
    ProcessState::self()->startThreadPool();
    return ITovarinService::asInterface(binder);
}

int runProbe() {
    sp<IBinder> probe = defaultServiceManager()->checkService(String16(kProbeName));
    if (probe == nullptr) {
        say("no probe");
        return 1;
    }
    Parcel none;
    Parcel report;
    probe->transact(IBinder::FIRST_CALL_TRANSACTION, none, &report);
    for (int32_t i = 0, n = report.readInt32(); i < n; ++i) {
        say("call: " + std::string(String8(report.readString16()).string()));
    }
    const int32_t state = report.readInt32();
    const int32_t poller = report.readInt32();
    say("records state=" + std::to_string(state) + " poller=" + std::to_string(poller));
    for (int32_t i = 0, n = report.readInt32(); i < n; ++i) {
        const int32_t level = report.readInt32();
        const String8 tag(report.readString16());
        const String8 text(report.readString16());
        say("log: " + std::to_string(level) + "|" + tag.string() + "|" + text.string());
    }
    say("probe done");
    return 0;
}

class EventCollector : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent& event) override {
        std::lock_guard<std::mutex> guard(mLock);
        mEvents.push_back(event);
        mChanged.notify_all();
    }
    std::vector<StateChangeEvent> waitFor(size_t count, int timeoutMs) {
        std::unique_lock<std::mutex> guard(mLock);
        mChanged.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                          [&] { return mEvents.size() >= count; });
        return mEvents;
    }

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<StateChangeEvent> mEvents;
};

int runHold() {
    sp<ITovarinService> service = connect();
    sp<EventCollector> listener = new EventCollector();
    const status_t status = service->registerStateChangeListener(listener);
    const HeadTrackerHandle handle = service->getHeadTrackerHandle();
    say("held status=" + std::to_string(status) + " listener=" +
        std::to_string(listener->getHandle()) + " tracker=" + std::to_string(handle.id));
    for (;;) pause();
}

std::atomic<int> gDestroyedTokens{0};

class CountedToken : public BnHeadTrackingPoller {
public:
    ~CountedToken() override { ++gDestroyedTokens; }
};

int runOperations() {
    sp<ITovarinService> service = connect();
    say("enabled=" + std::to_string(service->getEnabled()));
    say("hardware=" + std::to_string(service->getHardwareState()));
    const HeadTrackingState state = service->getHeadTrackingState();
    say("state=" + std::to_string(state.primary) + "/" + std::to_string(state.secondary));

    const HeadTrackerHandle handle = service->getHeadTrackerHandle();
    say("handle=" + std::to_string(handle.id) + "/" + std::to_string(handle.secondaryId));
    HeadTrackingConfiguration configuration;
    configuration.fidelity = 3;
    configuration.filter = 2;
    configuration.debugString = "bench";
    say("setConfiguration=" + std::to_string(service->setConfiguration(handle, configuration)));
    say("start=" + std::to_string(service->start(handle)));
    HeadTrackingEvent event;
    const status_t sampled = service->sample(handle, event);
    say("sample=" + std::to_string(sampled) + " text=" + event.text +
        " timestamp>0=" + std::to_string(event.timestamp > 0));
    say("standby=" + std::to_string(service->standby(handle)));
    say("stop=" + std::to_string(service->stop(handle)));
    say("setPid=" + std::to_string(service->setPid(handle, 1)));
    service->releaseHeadTrackerHandle(handle);
    say("released");

    sp<IgnoringRawListener> raw = new IgnoringRawListener();
    say("registerRawDataListener=" + std::to_string(service->registerRawDataListener(raw)) +
        " handle=" + std::to_string(raw->getHandle()));

    // A token of our own, sent the way the proxy sends its tokens: only the service holds it.
    {
        HeadTrackerHandle held;
        {
            Parcel data;
            Parcel reply;
            data.writeInterfaceToken(ITovarinService::descriptor);
            data.writeStrongBinder(sp<IBinder>(new CountedToken()));
            IInterface::asBinder(service)->transact(ITovarinService::GET_HEAD_TRACKER_HANDLE, data,
                                                    &reply);
            reply.readExceptionCode();
            held.id = reply.readInt32();
        }
        usleep(200 * 1000);
        say("token alive while held=" + std::to_string(gDestroyedTokens.load() == 0));
        service->releaseHeadTrackerHandle(held);
        for (int i = 0; i < 100 && gDestroyedTokens.load() == 0; ++i) usleep(20 * 1000);
        say("token destroyed after release=" + std::to_string(gDestroyedTokens.load() == 1));
    }
    say("operations done");
    return 0;
}

int runEvents(int toggles) {
    sp<ITovarinService> service = connect();
    sp<EventCollector> listener = new EventCollector();
    say("register=" + std::to_string(service->registerStateChangeListener(listener)));
    for (int i = 0; i < toggles; ++i) service->setEnabledState(i % 2 == 0 ? 0 : 1);
    const std::vector<StateChangeEvent> events = listener->waitFor(toggles, 5000);
    std::string flags;
    bool ordered = true;
    for (size_t i = 0; i < events.size(); ++i) {
        flags += events[i].flag ? '1' : '0';
        if (i > 0 && events[i].timestamp < events[i - 1].timestamp) ordered = false;
    }
    say("events " + flags + " ordered=" + std::to_string(ordered));
    service->unregisterStateChangeListener(listener);
    say("unregistered handle=" + std::to_string(listener->getHandle()));
    return 0;
}

int runIntrude(const std::vector<int>& ids) {
    sp<ITovarinService> service = connect();
    for (int id : ids) {
        HeadTrackerHandle handle;
        handle.id = id;
        handle.secondaryId = -1;
        HeadTrackingEvent event;
        const status_t start = service->start(handle);
        const status_t stop = service->stop(handle);
        const status_t standby = service->standby(handle);
        const status_t configure = service->setConfiguration(handle, HeadTrackingConfiguration());
        const status_t sampled = service->sample(handle, event);
        service->releaseHeadTrackerHandle(handle);
        say("intruded " + std::to_string(id) + ": " + std::to_string(start) + " " +
            std::to_string(stop) + " " + std::to_string(standby) + " " + std::to_string(configure) +
            " " + std::to_string(sampled));
    }
    return 0;
}

int runSetEnabled(int value) {
    sp<ITovarinService> service = connect();
    service->setEnabledState(value);
    say("enabled=" + std::to_string(service->getEnabled()));
    return 0;
}

int runProtocol() {
    sp<IBinder> binder = IInterface::asBinder(connect());
    {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(String16("morvel.tovarin.raw_data_listener"));
        const status_t status = binder->transact(ITovarinService::GET_ENABLED, data, &reply);
        say("wrong token status=" + std::to_string(status) +
            " reply=" + std::to_string(reply.dataSize()));
    }
    {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(ITovarinService::descriptor);
        say("code 16 status=" + std::to_string(binder->transact(16, data, &reply)));
    }
    return 0;
}

// Random requests: mostly with the right token, arguments drawn from integers, strings and
// binders of every kind (none, ours, the service's own, a listener, a token).
int runHostile(unsigned seed, int count) {
    sp<ITovarinService> service = connect();
    sp<IBinder> serviceBinder = IInterface::asBinder(service);
    std::mt19937 random(seed);
    auto pick = [&](int n) { return static_cast<int>(random() % n); };
    std::vector<sp<IBinder>> binders = {nullptr, new BBinder(), serviceBinder,
                                        new BnHeadTrackingPoller(),
                                        new BnStateChangeListener(new EventCollector())};
    for (int i = 0; i < count; ++i) {
        Parcel data;
        Parcel reply;
        if (pick(10) != 0) data.writeInterfaceToken(ITovarinService::descriptor);
        const int items = pick(6);
        for (int item = 0; item < items; ++item) {
            switch (pick(6)) {
                case 0:
                    data.writeInt32(static_cast<int32_t>(random()));
                    break;
                case 1:
                    data.writeInt32(pick(8) - 2);
                    break;
                case 2:
                    data.writeInt64(static_cast<int64_t>(random()) << 20);
                    break;
                case 3:
                    data.writeString8(String8(std::string(pick(300), 'x').c_str()));
                    break;
                case 4:
                    data.writeStrongBinder(binders[pick(binders.size())]);
                    break;
                default:
                    data.writeInt32(-1);
                    break;
            }
        }
        const uint32_t code = static_cast<uint32_t>(pick(18));
        const uint32_t flags = pick(8) == 0 ? IBinder::FLAG_ONEWAY : 0;
        serviceBinder->transact(code, data, &reply, flags);
    }
    say("hostile done alive=" + std::to_string(serviceBinder->pingBinder() == OK) +
        " enabled-answers=" + std::to_string(service->getHardwareState() >= 0));
    return 0;
}

// One-way calls with every code of the product's interfaces and of the platform, each with the
// target's interface token and a few arguments. Then: did the server handle them all, and does
// it still answer the target's interface query?
int runOneWay(const std::string& target) {
    const char* name = nullptr;
    for (const OneWayTarget& t : kOneWayTargets) {
        if (target == t.target) name = t.serviceName;
    }
    sp<IBinder> stub =
            name != nullptr ? defaultServiceManager()->checkService(String16(name)) : nullptr;
    sp<IBinder> probe = defaultServiceManager()->checkService(String16(kProbeName));
    if (stub == nullptr || probe == nullptr) {
        say("no " + target);
        return 1;
    }
    auto handled = [&] {
        Parcel none;
        Parcel reply;
        return probe->transact(kOneWayHandledCode, none, &reply) == OK ? reply.readInt32() : -1;
    };
    // Asked afresh each time (a proxy caches its descriptor).
    auto askDescriptor = [&] {
        Parcel none;
        Parcel reply;
        return stub->transact(IBinder::INTERFACE_TRANSACTION, none, &reply) == OK
                       ? reply.readString16()
                       : String16();
    };
    const String16 descriptor = askDescriptor();
    std::vector<uint32_t> codes = {IBinder::INTERFACE_TRANSACTION, IBinder::DUMP_TRANSACTION,
                                   IBinder::SHELL_COMMAND_TRANSACTION,
                                   IBinder::SYSPROPS_TRANSACTION};
    for (uint32_t code = 0; code <= 20; ++code) codes.push_back(code);
    const int32_t before = handled();
    for (uint32_t code : codes) {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeInt32(0);
        data.writeInt32(1);
        data.writeStrongBinder(nullptr);
        stub->transact(code, data, nullptr, IBinder::FLAG_ONEWAY);
    }
    const int32_t expected = before + static_cast<int32_t>(codes.size());
    int32_t now = handled();
    for (int i = 0; i < 250 && now >= 0 && now < expected; ++i) {
        usleep(20 * 1000);
        now = handled();
    }
    say("oneway " + target + " handled=" + std::to_string(now - before) + "/" +
        std::to_string(codes.size()) +
        " answers=" + std::to_string(descriptor.size() > 0 && askDescriptor() == descriptor));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "server") return runServer();
    if (mode == "probe") return runProbe();
    if (mode == "hold") return runHold();
    if (mode == "operations") return runOperations();
    if (mode == "events" && argc > 2) return runEvents(atoi(argv[2]));
    if (mode == "intrude" && argc > 2) {
        std::vector<int> ids;
        for (int i = 2; i < argc; ++i) ids.push_back(atoi(argv[i]));
        return runIntrude(ids);
    }
    if (mode == "setenabled" && argc > 2) return runSetEnabled(atoi(argv[2]));
    if (mode == "protocol") return runProtocol();
    if (mode == "oneway" && argc > 2) return runOneWay(argv[2]);
    if (mode == "hostile" && argc > 3)
        return runHostile(strtoul(argv[2], nullptr, 10), atoi(argv[3]));
    fprintf(stderr,
            "usage: %s server|probe|hold|intrude ID...|operations|events N|setenabled V|protocol|"
            "hostile SEED N|oneway TARGET\n",
            argv[0]);
    return 2;
}
