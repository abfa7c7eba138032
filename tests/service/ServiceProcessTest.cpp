/*
 * The tracking service across real processes. Each test has its own runtime and a server role
 * that publishes the service over a recording, pass-through facade, the product's other stubs,
 * and a probe into the server. This process is the client; roles play the clients that die.
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ITovarinDebug.h"
#include "ITovarinService.h"
#include "RecordingFacade.h"
#include "ServiceTestSupport.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <hostbinder_test/Roles.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <random>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using namespace android;
using namespace binder;

constexpr char kProbe[] = "morvel.tovarin.test.probe";
constexpr uint32_t kReport = IBinder::FIRST_CALL_TRANSACTION;
constexpr uint32_t kOneWayHandled = IBinder::FIRST_CALL_TRANSACTION + 1;

// The server's stubs, by the names they are published under.
constexpr const char* kStubNames[] = {ITovarinService::SERVICE_NAME, ITovarinDebug::SERVICE_NAME,
                                      "morvel.tovarin.test.state_listener",
                                      "morvel.tovarin.test.raw_listener",
                                      "morvel.tovarin.test.poller"};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void expectLines(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) EXPECT_TRUE(contains(text, part)) << part << "\n" << text;
}

// One-way calls that a stub of the server has returned from.
std::atomic<int32_t> gOneWayHandled{0};

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

// kReport: one line per facade call ("call: start 0"), the death records ("records state=1
// poller=0"), then one line per line logged since the server started ("log: 4|tag|text").
// kOneWayHandled: gOneWayHandled.
class Probe : public BBinder {
public:
    Probe(const sp<RecordingFacade>& facade, const sp<BnTovarinService>& service)
        : mFacade(facade), mService(service) {}

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == kOneWayHandled) return reply->writeInt32(gOneWayHandled.load());
        if (code != kReport) return BBinder::onTransact(code, data, reply, flags);
        std::string report;
        for (const std::string& call : mFacade->calls()) report += "call: " + call + "\n";
        report += "records state=" +
                  std::to_string(mService->stateChangeListenerDeathMapper()->clientCount()) +
                  " poller=" +
                  std::to_string(mService->headTrackingPollerDeathMapper()->clientCount()) + "\n";
        for (const TovarinLogLine& line : mCapture.lines()) {
            report +=
                    "log: " + std::to_string(line.level) + "|" + line.tag + "|" + line.text + "\n";
        }
        return reply->writeString16(String16(report.c_str()));
    }

private:
    sp<RecordingFacade> mFacade;
    sp<BnTovarinService> mService;
    TovarinLogCapture mCapture;
};

TEST_ROLE(server) {
    // Non-empty debug diagnostics and overrides, empty error diagnostics, for the dump report.
    TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->set("frames", "30");
    TovarinOverrides::getInstance()->set("fidelity", "3");
    sp<RecordingFacade> facade = new RecordingFacade(/*passThrough=*/true);
    sp<BnTovarinService> service = new OneWayCounting<BnTovarinService>(facade);
    const sp<IBinder> stubs[] = {service, new OneWayCounting<BnTovarinDebug>(),
                                 new OneWayCounting<BnStateChangeListener>(new StateListener()),
                                 new OneWayCounting<BnRawDataListener>(new IgnoringRawListener()),
                                 new OneWayCounting<BnHeadTrackingPoller>()};
    for (size_t i = 0; i < std::size(stubs); ++i) {
        if (defaultServiceManager()->addService(String16(kStubNames[i]), stubs[i]) != OK) return 1;
    }
    if (defaultServiceManager()->addService(String16(kProbe), new Probe(facade, service)) != OK) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

sp<ITovarinService> connect() {
    return ITovarinService::asInterface(
            defaultServiceManager()->checkService(String16(ITovarinService::SERVICE_NAME)));
}

// Registers a state change listener, takes a head tracker, prints "held LISTENER TRACKER
// name(pid)", then waits to be killed.
TEST_ROLE(hold) {
    ProcessState::self()->startThreadPool();
    sp<ITovarinService> service = connect();
    if (service == nullptr) return 1;
    sp<StateListener> listener = new StateListener();
    service->registerStateChangeListener(listener);
    const HeadTrackerHandle handle = service->getHeadTrackerHandle();
    printf("held %d %d %s\n", listener->getHandle(), handle.id, callerString(getpid()).c_str());
    hostbinder_test::ready();
    for (;;) pause();
}

// Sends random requests to every code, mostly with the right token, with integers, strings and
// binders of every kind (none, its own, the service's, a poller token, a state change
// listener); then leaves, and with it whatever the service kept of it.
TEST_ROLE(hostile) {
    ProcessState::self()->startThreadPool();
    sp<IBinder> service =
            defaultServiceManager()->checkService(String16(ITovarinService::SERVICE_NAME));
    if (service == nullptr || args.empty()) return 1;
    std::mt19937 random(static_cast<unsigned>(atoi(args[0].c_str())));
    auto pick = [&](int n) { return static_cast<int>(random() % n); };
    const sp<IBinder> binders[] = {nullptr, new BBinder(), service, new BnHeadTrackingPoller(),
                                   new BnStateChangeListener(new StateListener())};
    for (int i = 0; i < 700; ++i) {
        Parcel data;
        Parcel reply;
        if (pick(10) != 0) data.writeInterfaceToken(ITovarinService::descriptor);
        for (int item = pick(6); item > 0; --item) {
            const int kind = pick(4);
            if (kind == 0) data.writeInt32(pick(2) ? static_cast<int32_t>(random()) : pick(8) - 2);
            if (kind == 1) data.writeInt64(static_cast<int64_t>(random()) << 20);
            if (kind == 2) data.writeString8(String8(std::string(pick(300), 'x').c_str()));
            if (kind == 3) data.writeStrongBinder(binders[pick(5)]);
        }
        service->transact(pick(18), data, &reply, pick(8) == 0 ? IBinder::FLAG_ONEWAY : 0);
    }
    return service->pingBinder() == OK ? 0 : 1;
}

class ServiceProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>(
                policyGranting({kControl, kDump}));
        ProcessState::self()->startThreadPool();
        mServer = hostbinder_test::startRole("server");
        ASSERT_TRUE(mServer);
        mService = connect();
        mProbe = defaultServiceManager()->checkService(String16(kProbe));
        ASSERT_NE(nullptr, mService);
        ASSERT_NE(nullptr, mProbe);
    }

    // The server must have survived whatever the test did to it.
    void TearDown() override {
        if (mProbe != nullptr) {
            EXPECT_TRUE(contains(report(), "records ")) << mServer->output();
        }
    }

    std::string report() {
        Parcel none;
        Parcel reply;
        if (mProbe->transact(kReport, none, &reply) != OK) return "";
        return String8(reply.readString16()).string();
    }

    int32_t oneWayHandled() {
        Parcel none;
        Parcel reply;
        return mProbe->transact(kOneWayHandled, none, &reply) == OK ? reply.readInt32() : -1;
    }

    std::unique_ptr<hostbinder_test::RuntimeInstance> mRuntime;
    std::unique_ptr<hostbinder_test::ChildProcess> mServer;
    sp<ITovarinService> mService;
    sp<IBinder> mProbe;
};

// Every operation from this process: the results, this process named in the server's log lines
// and to the facade, and state changes delivered in order.
TEST_F(ServiceProcessTest, EveryOperationAcrossProcesses) {
    EXPECT_TRUE(mService->getEnabled());
    const HeadTrackerHandle handle = mService->getHeadTrackerHandle();
    EXPECT_EQ(0, handle.id);
    EXPECT_EQ(-1, handle.secondaryId);
    HeadTrackingConfiguration configuration;
    configuration.fidelity = 3;
    configuration.filter = 2;
    configuration.debugString = "bench";
    EXPECT_EQ(OK, mService->setConfiguration(handle, configuration));
    EXPECT_EQ(OK, mService->start(handle));
    HeadTrackingEvent event;
    EXPECT_EQ(OK, mService->sample(handle, event));
    EXPECT_STREQ("simulated", event.text);
    EXPECT_EQ(OK, mService->standby(handle));
    EXPECT_EQ(OK, mService->stop(handle));
    mService->releaseHeadTrackerHandle(handle);
    sp<IgnoringRawListener> raw = new IgnoringRawListener();
    EXPECT_EQ(-1, mService->registerRawDataListener(raw));
    const std::string logged =
            "log: 4|TovarinBnTovarinService|" + callerString(getpid()) + ": head tracker (0) - ";
    expectLines(
            report(),
            {"call: setPid 0 " + std::to_string(getpid()), "call: setConfiguration 0 3 2 bench",
             "call: releaseHeadTrackerHandle 0 -1", "records state=0 poller=0", logged + "started",
             logged + "setConfiguration to debugString=bench; fidelity=3; filter=2"});

    sp<StateListener> listener = new StateListener();
    ASSERT_EQ(OK, mService->registerStateChangeListener(listener));
    EXPECT_TRUE(contains(report(), "records state=1 poller=0"));
    for (int i = 0; i < 12; ++i) mService->setEnabledState(i % 2);
    ASSERT_TRUE(hostbinder_test::waitUntil([&] { return listener->events().size() >= 12; }));
    const std::vector<StateChangeEvent> events = listener->events();
    std::string flags;
    for (const StateChangeEvent& event : events) flags += event.flag ? '1' : '0';
    EXPECT_EQ("010101010101", flags);
    mService->unregisterStateChangeListener(listener);
    EXPECT_EQ(-1, listener->getHandle());
    EXPECT_TRUE(contains(report(), "records state=0 poller=0"));
}

// A tracker handed to one process is that process's until it lets go or dies: another process
// naming it is refused before the facade and told so in the log, while a tracker handed to no
// one reaches the facade from anyone. The holder's death undoes its registrations.
TEST_F(ServiceProcessTest, TrackerBelongsToItsHolderUntilItDies) {
    auto holder = hostbinder_test::startRole("hold");
    ASSERT_TRUE(holder);
    const std::string out = holder->output();
    const char* line = strstr(out.c_str(), "held ");
    int listener = -1;
    int tracker = -1;
    char name[256] = "";
    ASSERT_TRUE(line != nullptr && sscanf(line, "held %d %d %255s", &listener, &tracker, name) == 3)
            << out;
    EXPECT_EQ(0, tracker);
    EXPECT_TRUE(contains(report(), "records state=1 poller=1"));

    for (int32_t id : {0, 1}) {
        const HeadTrackerHandle handle{id, -1};
        HeadTrackingEvent event;
        const status_t statuses[] = {
                mService->start(handle), mService->stop(handle), mService->standby(handle),
                mService->setConfiguration(handle, {}), mService->sample(handle, event)};
        mService->releaseHeadTrackerHandle(handle);
        if (id != 0) continue;
        for (status_t status : statuses) EXPECT_EQ(INVALID_OPERATION, status);
    }
    std::string report = this->report();
    for (std::string call :
         {"start", "stop", "standby", "setConfiguration", "sample", "releaseHeadTrackerHandle"}) {
        EXPECT_FALSE(contains(report, "call: " + call + " 0")) << report;
        EXPECT_TRUE(contains(report, "call: " + call + " 1")) << report;
    }
    const std::string warning = "log: 5|TovarinBnTovarinService|" + callerString(getpid()) +
                                ": head tracker (0) is not held by this process";
    int warnings = 0;
    for (size_t at = report.find(warning); at != std::string::npos;
         at = report.find(warning, at + 1)) {
        ++warnings;
    }
    EXPECT_EQ(6, warnings) << report;
    EXPECT_FALSE(contains(report, "head tracker (1) is not held")) << report;
    EXPECT_TRUE(contains(report, "records state=1 poller=1")) << report;

    holder->kill(SIGKILL);
    holder->wait();
    EXPECT_TRUE(hostbinder_test::waitUntil(
            [&] { return contains(this->report(), "records state=0 poller=0"); }));
    const std::string died = "log: 6|TovarinBnTovarinService|" + std::string(name) + ": ";
    expectLines(this->report(),
                {"call: unregisterStateChangeListener " + std::to_string(listener),
                 "call: releaseHeadTrackerHandle 0 -1", died + "state change listener client died",
                 died + "head tracking polling client died"});
    // The tracker is free again for the next process.
    EXPECT_EQ(0, mService->getHeadTrackerHandle().id);
}

TEST_F(ServiceProcessTest, EnabledStateAndDumpNeedTheirPermissions) {
    const char* dumpsys = getenv("DUMPSYS");
    ASSERT_NE(nullptr, dumpsys);
    mRuntime->setPolicy(policyGranting({kDump}));
    mService->setEnabledState(0);
    EXPECT_TRUE(mService->getEnabled());
    const std::string report = this->report();
    EXPECT_FALSE(contains(report, "call: setEnabledState")) << report;
    expectLines(report,
                {"log: 6|TovarinPermission|Permission Error: " + callerString(getpid()) +
                 " must have permission \"" + kControl + "\" /> before calling setEnabled"});
    {
        hostbinder_test::ChildProcess tool({dumpsys, ITovarinService::SERVICE_NAME});
        ASSERT_EQ(0, tool.wait());
        expectLines(tool.output(), {"Tovarin Debug Diagnostics:\nframes=30",
                                    "\n\nTovarin Overrides:\nfidelity=3"});
        EXPECT_FALSE(contains(tool.output(), "Error Diagnostics")) << tool.output();
    }

    mRuntime->setPolicy(policyGranting({kControl}));
    mService->setEnabledState(0);
    EXPECT_FALSE(mService->getEnabled());
    hostbinder_test::ChildProcess tool({dumpsys, ITovarinService::SERVICE_NAME});
    tool.wait();
    expectLines(tool.output(),
                {"Permission Denial: can't dump Tovarin from pid=" + std::to_string(tool.pid()) +
                 ", uid=" + std::to_string(getuid()) + "\n"});
    EXPECT_FALSE(contains(tool.output(), "Diagnostics")) << tool.output();
}

// One-way calls with every code to every stub of the server: a one-way call gets a reply parcel
// to write into, as on the platform, so every stub handles every call and still answers. Then
// random requests from processes that leave afterwards; the server lives on (TearDown).
TEST_F(ServiceProcessTest, OneWayAndHostileCallersLeaveEveryStubAnswering) {
    std::vector<uint32_t> codes = {IBinder::INTERFACE_TRANSACTION, IBinder::DUMP_TRANSACTION,
                                   IBinder::SHELL_COMMAND_TRANSACTION,
                                   IBinder::SYSPROPS_TRANSACTION};
    for (uint32_t code = 0; code <= 20; ++code) codes.push_back(code);
    for (const char* name : kStubNames) {
        SCOPED_TRACE(name);
        sp<IBinder> stub = defaultServiceManager()->checkService(String16(name));
        ASSERT_NE(nullptr, stub);
        const String16 descriptor = stub->getInterfaceDescriptor();
        const int32_t expected = oneWayHandled() + static_cast<int32_t>(codes.size());
        for (uint32_t code : codes) {
            Parcel data;
            data.writeInterfaceToken(descriptor);
            data.writeInt32(0);
            data.writeInt32(1);
            data.writeStrongBinder(nullptr);
            stub->transact(code, data, nullptr, IBinder::FLAG_ONEWAY);
        }
        EXPECT_TRUE(hostbinder_test::waitUntil([&] { return oneWayHandled() == expected; }))
                << oneWayHandled();
        Parcel none;
        Parcel reply;
        ASSERT_EQ(OK, stub->transact(IBinder::INTERFACE_TRANSACTION, none, &reply));
        EXPECT_EQ(descriptor, reply.readString16());
    }
    for (const char* seed : {"1", "2", "3"}) hostbinder_test::runRole("hostile", {seed});
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
