/*
 * The service stub and the client proxy in one process, over a scripted recording facade:
 * every code as a raw request and through the proxy, the proxy's fallbacks and its keeping of
 * listener wrappers and tokens, the stub's death records, the quiet paths and the dump report.
 */
#include "HeadTrackerHandleParceler.h"
#include "HeadTrackingEventParceler.h"
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ITovarinService.h"
#include "RecordingFacade.h"
#include "ServiceTestSupport.h"
#include "TovarinPermission.h"

#include <binder/Binder.h>
#include <gtest/gtest.h>
#include <hostbinder_test/Runtime.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>
#include <utils/Timers.h>

#include <string.h>
#include <unistd.h>

#include <functional>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using namespace android;
using namespace binder;

// One runtime for the permission checks of this executable, every permission granted.
hostbinder_test::RuntimeInstance* gRuntime = nullptr;
const std::string kFullPolicy = policyGranting({kControl, kDump});

class RuntimeEnvironment : public ::testing::Environment {
public:
    void SetUp() override { gRuntime = new hostbinder_test::RuntimeInstance(kFullPolicy); }
    void TearDown() override { delete gRuntime; }
};

::testing::Environment* const kRuntimeEnvironment =
        ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment());

// The object and its death trackers hold each other and are never freed; kept reachable here.
sp<BnTovarinService> makeService(const sp<TovarinFacade>& facade) {
    static auto* keep = new std::vector<sp<BnTovarinService>>();
    keep->push_back(new BnTovarinService(facade));
    return keep->back();
}

// Stands between the proxy and the stub: records each transaction's code and the first binder
// of its request, and can fail them all with a chosen status.
class TransactionRecorder : public BBinder {
public:
    explicit TransactionRecorder(const sp<IBinder>& target) : mTarget(target) {}

    void failWith(status_t status) { mFailure = status; }
    std::vector<uint32_t> codes;
    std::vector<wp<IBinder>> binders;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        codes.push_back(code);
        if (data.enforceInterface(ITovarinService::descriptor) && data.objectsCount() > 0) {
            const size_t position = data.dataPosition();
            binders.push_back(data.readStrongBinder());
            data.setDataPosition(position);
        }
        return mFailure != OK ? mFailure : mTarget->transact(code, data, reply, flags);
    }

private:
    sp<IBinder> mTarget;
    status_t mFailure = OK;
};

using Args = std::function<void(Parcel&)>;

Args ints(std::vector<int32_t> values) {
    return [values](Parcel& p) {
        for (int32_t v : values) p.writeInt32(v);
    };
}

Args strong(sp<IBinder> binder, std::vector<int32_t> values = {}) {
    return [binder, values](Parcel& p) {
        p.writeStrongBinder(binder);
        for (int32_t v : values) p.writeInt32(v);
    };
}

// "level|text" of each captured line, all of which must be the service's.
std::vector<std::string> serviceLines(const TovarinLogCapture& capture) {
    std::vector<std::string> out;
    for (const TovarinLogLine& line : capture.lines()) {
        EXPECT_EQ("TovarinBnTovarinService", line.tag) << line.text;
        out.push_back(std::to_string(line.level) + "|" + line.text);
    }
    return out;
}

class ServiceStubTest : public ::testing::Test {
protected:
    void SetUp() override {
        TovarinLogger::getInstance()->configure("*:I");
        mScript.operationStatus = BAD_VALUE;
        mFacade->setScript(mScript);
    }
    void TearDown() override { TovarinLogger::getInstance()->reset(); }

    status_t call(uint32_t code, const Args& args, Parcel* reply,
                  const String16& token = ITovarinService::descriptor, uint32_t flags = 0) {
        Parcel data;
        data.writeInterfaceToken(token);
        if (args) args(data);
        return mBinder->transact(code, data, reply, flags);
    }

    std::vector<int32_t> callWords(uint32_t code, const Args& args) {
        Parcel reply;
        EXPECT_EQ(OK, call(code, args, &reply)) << "code " << code;
        std::vector<int32_t> out(reply.dataSize() / sizeof(int32_t));
        if (!out.empty()) memcpy(out.data(), reply.data(), out.size() * sizeof(int32_t));
        return out;
    }

    RecordingFacade::Script mScript;
    sp<RecordingFacade> mFacade = new RecordingFacade();
    sp<BnTovarinService> mService = makeService(mFacade);
    sp<IBinder> mBinder = IInterface::asBinder(mService);
    sp<TransactionRecorder> mRecorder = new TransactionRecorder(mBinder);
    sp<BpTovarinService> mProxy = new BpTovarinService(mRecorder);
};

// Each row is one request: its reply words, the facade calls and the log lines it causes.
TEST_F(ServiceStubTest, EveryCodeRepliesInItsLayoutAndCallsTheFacade) {
    const std::string pid = std::to_string(getpid());
    const std::string caller = "4|" + callerString(getpid()) + ": head tracker (2) - ";
    const std::string refused = "6|Raw data is available only on non-USER builds.";
    HeadTrackingConfiguration configuration;
    configuration.fidelity = 3;
    configuration.filter = 0;
    configuration.debugString = "abc";
    const Args configured = [&](Parcel& p) {
        p.writeInt32(2);
        HeadTrackerHandleParceler::parcel(configuration, p);
    };
    const std::string set = caller + "setConfiguration to debugString=abc; fidelity=3; filter=0";
    const sp<IBinder> any = new BBinder();
    struct Row {
        const char* name;
        uint32_t code;
        Args args;
        std::vector<int32_t> reply;
        std::vector<std::string> calls = {};
        std::vector<std::string> log = {};
    } rows[] = {
            {"register raw", 1, strong(any), {0, -1, -1}, {}, {refused}},
            {"unregister raw", 2, strong(any, {3}), {0}, {}, {refused}},
            {"set enabled", 3, ints({1}), {0}, {"setEnabledState 1"}},
            {"get enabled", 4, nullptr, {0, 1}, {"getEnabled"}},
            {"hardware state", 5, nullptr, {0, 7}, {"getHardwareState"}},
            {"tracking state", 6, nullptr, {0, 3, 4}, {"getHeadTrackingState"}},
            {"register", 7, strong(any), {0, 5, 0}, {"registerStateChangeListener pid=" + pid}},
            {"register null", 7, strong(nullptr), {0, -1, BAD_VALUE}},
            {"register nothing", 7, nullptr, {0, -1, BAD_VALUE}},
            {"unregister", 8, strong(any, {5}), {0}, {"unregisterStateChangeListener 5"}},
            {"unregister null", 8, strong(nullptr, {5}), {0}},
            {"unregister nothing", 8, nullptr, {0}},
            {"handle", 9, strong(any), {0, 2}, {"getHeadTrackerHandle -> 2", "setPid 2 " + pid}},
            {"release handle", 10, ints({2}), {0}, {"releaseHeadTrackerHandle 2 -1"}},
            {"start", 11, ints({2}), {0, BAD_VALUE}, {"start 2"}, {caller + "started"}},
            {"stop", 12, ints({2}), {0, BAD_VALUE}, {"stop 2"}, {caller + "stopped"}},
            {"standby", 13, ints({2}), {0, BAD_VALUE}, {"standby 2"}, {caller + "standby"}},
            {"configure", 14, configured, {0, BAD_VALUE}, {"setConfiguration 2 3 0 abc"}, {set}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        mFacade->clearCalls();
        TovarinLogCapture capture;
        EXPECT_EQ(row.reply, callWords(row.code, row.args));
        EXPECT_EQ(row.calls, mFacade->calls());
        EXPECT_EQ(row.log, serviceLines(capture));
    }
}

TEST_F(ServiceStubTest, ProxySendsEachOperationAndReturnsTheFacadesAnswer) {
    sp<IgnoringRawListener> raw = new IgnoringRawListener();
    raw->setHandle(12);
    EXPECT_EQ(-1, mProxy->registerRawDataListener(raw));
    EXPECT_EQ(-1, raw->getHandle());
    mProxy->unregisterRawDataListener(raw);  // not registered: nothing to send
    mProxy->setEnabledState(1);
    EXPECT_TRUE(mProxy->getEnabled());
    EXPECT_EQ(7, mProxy->getHardwareState());
    const HeadTrackingState state = mProxy->getHeadTrackingState();
    EXPECT_EQ(3, state.primary);
    EXPECT_EQ(4, state.secondary);
    const HeadTrackerHandle handle = mProxy->getHeadTrackerHandle();
    EXPECT_EQ(2, handle.id);
    EXPECT_EQ(-1, handle.secondaryId);  // never crosses processes
    mProxy->releaseHeadTrackerHandle(HeadTrackerHandle{2, 9});
    EXPECT_EQ(BAD_VALUE, mProxy->start(handle));
    EXPECT_EQ(BAD_VALUE, mProxy->stop(handle));
    EXPECT_EQ(BAD_VALUE, mProxy->standby(handle));
    HeadTrackingConfiguration configuration;
    configuration.fidelity = 1;
    configuration.filter = 2;
    configuration.debugString = "near";
    EXPECT_EQ(BAD_VALUE, mProxy->setConfiguration(handle, configuration));
    EXPECT_EQ(OK, mProxy->setPid(handle, 1234));
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(
            (std::vector<std::string>{"setEnabledState 1", "getEnabled", "getHardwareState",
                                      "getHeadTrackingState", "getHeadTrackerHandle -> 2",
                                      "setPid 2 " + pid, "releaseHeadTrackerHandle 2 -1", "start 2",
                                      "stop 2", "standby 2", "setConfiguration 2 1 2 near"}),
            mFacade->calls());
    // setPid is answered by the proxy itself.
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 4, 5, 6, 9, 10, 11, 12, 13, 14}), mRecorder->codes);
}

TEST_F(ServiceStubTest, SampleRepliesTheStatusThenAnEventThatTheProxyTakesOnlyOnSuccess) {
    mScript.sampledEvent.timestamp = 1234567890123LL;
    mScript.sampledEvent.flag1 = true;
    strcpy(mScript.sampledEvent.text, "pose");
    mFacade->setScript(mScript);
    HeadTrackingEvent event;
    EXPECT_EQ(OK, mProxy->sample(HeadTrackerHandle{2, -1}, event));
    EXPECT_EQ(1234567890123LL, event.timestamp);
    EXPECT_TRUE(event.flag1);
    EXPECT_STREQ("pose", event.text);
    EXPECT_EQ(std::vector<std::string>{"sample 2"}, mFacade->calls());

    // A failing facade leaves the event alone: the stub's prepared event travels, and the proxy
    // leaves the caller's event alone.
    mScript.sampleStatus = BAD_VALUE;
    mFacade->setScript(mScript);
    HeadTrackingEvent kept;
    kept.component0 = 8.0f;
    EXPECT_EQ(BAD_VALUE, mProxy->sample(HeadTrackerHandle{2, -1}, kept));
    EXPECT_EQ(8.0f, kept.component0);
    EXPECT_EQ(0, kept.timestamp);
    const nsecs_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    Parcel reply;
    ASSERT_EQ(OK, call(ITovarinService::SAMPLE, ints({2}), &reply));
    const nsecs_t after = systemTime(SYSTEM_TIME_MONOTONIC);
    EXPECT_EQ(0, reply.readInt32());
    EXPECT_EQ(BAD_VALUE, reply.readInt32());
    HeadTrackingEvent prepared;
    prepared.component1 = 9.0f;
    HeadTrackingEventParceler::unparcel(prepared, reply);
    EXPECT_GE(prepared.timestamp, before);
    EXPECT_LE(prepared.timestamp, after);
    for (float value :
         {prepared.component0, prepared.component1, prepared.component2, prepared.scalar}) {
        EXPECT_EQ(0.0f, value);
    }
    EXPECT_FALSE(prepared.flag0);
    EXPECT_FALSE(prepared.flag1);
    EXPECT_STREQ("", prepared.text);
    EXPECT_EQ(0u, reply.dataAvail());
}

TEST_F(ServiceStubTest, ProxyGivesFixedFallbacksWhenTheTransactionFails) {
    for (status_t failure : {DEAD_OBJECT, PERMISSION_DENIED}) {
        SCOPED_TRACE("failure " + std::to_string(failure));
        mRecorder->failWith(failure);
        const HeadTrackerHandle handle{1, -1};
        EXPECT_FALSE(mProxy->getEnabled());
        EXPECT_EQ(0, mProxy->getHardwareState());
        const HeadTrackingState state = mProxy->getHeadTrackingState();
        EXPECT_EQ(0, state.primary);
        EXPECT_EQ(2, state.secondary);
        const HeadTrackerHandle none = mProxy->getHeadTrackerHandle();
        EXPECT_EQ(-1, none.id);
        EXPECT_EQ(-1, none.secondaryId);
        for (status_t status : {mProxy->start(handle), mProxy->stop(handle),
                                mProxy->standby(handle), mProxy->setConfiguration(handle, {})}) {
            EXPECT_EQ(failure, status);
        }
        HeadTrackingEvent event;
        event.timestamp = 5;
        EXPECT_EQ(failure, mProxy->sample(handle, event));
        EXPECT_EQ(5, event.timestamp);
        sp<StateListener> listener = new StateListener();
        EXPECT_EQ(failure, mProxy->registerStateChangeListener(listener));
        EXPECT_EQ(-1, listener->getHandle());
        mProxy->setEnabledState(0);
        mProxy->releaseHeadTrackerHandle(handle);
    }
    EXPECT_TRUE(mFacade->calls().empty());
}

// The proxy keeps the wrapper it sent under the handle the service gave; the service keeps a
// death record under that handle, naming the caller.
TEST_F(ServiceStubTest, ListenerRegistrationsAreKeptByHandleOnBothSides) {
    const auto& records = mService->stateChangeListenerDeathMapper();
    EXPECT_EQ(BAD_VALUE, mProxy->registerStateChangeListener(nullptr));
    sp<StateListener> first = new StateListener();
    sp<StateListener> second = new StateListener();
    ASSERT_EQ(OK, mProxy->registerStateChangeListener(first));
    EXPECT_EQ(5, first->getHandle());
    // The same handle again: the service keeps its first record, the proxy the newer wrapper.
    ASSERT_EQ(OK, mProxy->registerStateChangeListener(second));
    ASSERT_EQ(2u, mRecorder->binders.size());
    {
        BnTovarinService::ClientDeathData record;
        ASSERT_TRUE(records->findClient(5, &record));
        EXPECT_EQ(mRecorder->binders[0].promote(), record.binder);
        EXPECT_NE(nullptr, record.binder->queryLocalInterface(IStateChangeListener::descriptor));
        EXPECT_EQ(getpid(), record.pid);
        EXPECT_EQ(Utils::getProcessNameFromPID(getpid()), record.processName);
    }
    // A death notice for a binder without a record changes nothing.
    sp<IBinder> stranger = new BBinder();
    records->binderDied(stranger);
    EXPECT_EQ(1u, records->clientCount());

    // A failed unregistration keeps the proxy's entry for a retry, which sends the newer wrapper.
    mRecorder->failWith(DEAD_OBJECT);
    mProxy->unregisterStateChangeListener(first);
    EXPECT_EQ(5, second->getHandle());
    mRecorder->failWith(OK);
    mProxy->unregisterStateChangeListener(first);
    EXPECT_EQ(-1, second->getHandle());
    EXPECT_EQ(5, first->getHandle());
    EXPECT_EQ("unregisterStateChangeListener 5", mFacade->calls().back());
    EXPECT_EQ(0u, records->clientCount());
    EXPECT_EQ(nullptr, mRecorder->binders[0].promote());
    EXPECT_EQ(nullptr, mRecorder->binders[1].promote());
    mProxy->unregisterStateChangeListener(first);  // nothing left to send

    // Neither side keeps a refused registration; the proxy keeps none without a handle.
    mScript.registerStatus = BAD_VALUE;
    mScript.listenerHandle = 6;
    mFacade->setScript(mScript);
    sp<StateListener> refused = new StateListener();
    EXPECT_EQ(BAD_VALUE, mProxy->registerStateChangeListener(refused));
    EXPECT_EQ(6, refused->getHandle());
    EXPECT_FALSE(records->findClient(6, nullptr));
    mProxy->unregisterStateChangeListener(refused);
    mScript.registerStatus = OK;
    mScript.listenerHandle = -1;
    mFacade->setScript(mScript);
    EXPECT_EQ(OK, mProxy->registerStateChangeListener(refused));
    mProxy->unregisterStateChangeListener(refused);
    EXPECT_EQ((std::vector<uint32_t>{7, 7, 8, 8, 7, 7}), mRecorder->codes);
}

// Each handle request carries a fresh token; the service's record is its only holder, so
// releasing the handle destroys it.
TEST_F(ServiceStubTest, EachHandleIsTrackedThroughAFreshTokenOnlyTheServiceHolds) {
    const auto& records = mService->headTrackingPollerDeathMapper();
    mScript.handle = HeadTrackerHandle{1, -1};
    mFacade->setScript(mScript);
    const HeadTrackerHandle first = mProxy->getHeadTrackerHandle();
    // No tracker free: the refusal is tracked all the same.
    mScript.handle = HeadTrackerHandle{-1, -1};
    mFacade->setScript(mScript);
    const HeadTrackerHandle none = mProxy->getHeadTrackerHandle();
    ASSERT_EQ(2u, mRecorder->binders.size());
    EXPECT_NE(mRecorder->binders[0].promote(), mRecorder->binders[1].promote());
    for (int32_t id : {1, -1}) {
        BnTovarinService::ClientDeathData record;
        ASSERT_TRUE(records->findClient(id, &record));
        EXPECT_EQ(mRecorder->binders[id == 1 ? 0 : 1].promote(), record.binder);
        EXPECT_NE(nullptr, record.binder->queryLocalInterface(IHeadTrackingPoller::descriptor));
    }
    mProxy->releaseHeadTrackerHandle(first);
    EXPECT_EQ(nullptr, mRecorder->binders[0].promote());
    EXPECT_NE(nullptr, mRecorder->binders[1].promote());
    mProxy->releaseHeadTrackerHandle(none);
    EXPECT_EQ(nullptr, mRecorder->binders[1].promote());

    // Without a token there is nothing to watch: the handle is granted, nothing is tracked.
    EXPECT_EQ((std::vector<int32_t>{0, -1}), callWords(9, strong(nullptr)));
    EXPECT_EQ(0u, records->clientCount());
}

TEST_F(ServiceStubTest, RequestsOutsideTheInterfaceReachNothing) {
    for (uint32_t code = 1; code <= 15; ++code) {
        SCOPED_TRACE("code " + std::to_string(code));
        Parcel wrong;
        EXPECT_EQ(PERMISSION_DENIED,
                  call(code, ints({1, 2, 3}), &wrong, String16(IStateChangeListener::descriptor)));
        EXPECT_EQ(0u, wrong.dataSize());
        Parcel empty;
        Parcel missing;
        EXPECT_EQ(PERMISSION_DENIED, mBinder->transact(code, empty, &missing));
        EXPECT_EQ(0u, missing.dataSize());
    }
    for (uint32_t code : {0u, 16u, static_cast<uint32_t>(IBinder::LAST_CALL_TRANSACTION)}) {
        Parcel reply;
        EXPECT_EQ(UNKNOWN_TRANSACTION, call(code, ints({1}), &reply)) << code;
        EXPECT_EQ(0u, reply.dataSize()) << code;
    }
    EXPECT_TRUE(mFacade->calls().empty());
    Parcel none;
    Parcel reply;
    ASSERT_EQ(OK, mBinder->transact(IBinder::INTERFACE_TRANSACTION, none, &reply));
    EXPECT_EQ(String16("morvel.tovarin.service"), reply.readString16());
    // A one-way request without a reply parcel is carried out all the same.
    EXPECT_EQ(OK, call(3, ints({0}), nullptr, ITovarinService::descriptor, IBinder::FLAG_ONEWAY));
    EXPECT_EQ(std::vector<std::string>{"setEnabledState 0"}, mFacade->calls());
}

// Below the logger's threshold no line is written and no process name looked up; the control
// check without a method name never logs.
TEST_F(ServiceStubTest, QuietPathsNeitherLogNorLookUpNames) {
    TovarinLogCapture capture;
    const uint64_t lookups = Utils::processNameLookupCount();
    gRuntime->setPolicy(policyGranting({kDump}));
    EXPECT_FALSE(TovarinPermission::validateAccess(nullptr));
    gRuntime->setPolicy(kFullPolicy);
    EXPECT_TRUE(TovarinPermission::validateAccess(nullptr));
    TovarinLogger::getInstance()->configure("*:F");
    for (uint32_t code : {1u, 2u, 11u, 12u, 13u, 14u}) callWords(code, ints({3}));
    EXPECT_EQ(4u, mFacade->calls().size());
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(lookups, Utils::processNameLookupCount());
}

TEST_F(ServiceStubTest, DumpReportHasOneSectionPerNonEmptyStore) {
    auto* debug = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
    auto* errors = TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR);
    auto* overrides = TovarinOverrides::getInstance();
    const std::string empty = "Tovarin Debug Diagnostics:\n\n";
    const std::string withOverrides = "\nTovarin Overrides:\nfidelity=3\n";
    const std::string withErrors = "\nTovarin Error Diagnostics:\ncamera=lost\n";
    struct Case {
        bool debug, errors, overrides;
        std::string report;
    } cases[] = {{false, false, false, empty},
                 {false, false, true, empty + withOverrides},
                 {false, true, false, empty + withErrors},
                 {true, true, true,
                  "Tovarin Debug Diagnostics:\nframes=30\n" + withErrors + withOverrides}};
    for (const Case& c : cases) {
        debug->clearAll();
        errors->clearAll();
        overrides->clearAll();
        if (c.debug) debug->set("frames", "30");
        if (c.errors) errors->set("camera", "lost");
        if (c.overrides) overrides->set("fidelity", "3");
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        EXPECT_EQ(0, mService->dump(fds[1], {}));
        close(fds[1]);
        std::string text;
        char buffer[4096];
        for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) text.append(buffer, n);
        close(fds[0]);
        EXPECT_EQ(c.report, text);
    }
    debug->clearAll();
    errors->clearAll();
    overrides->clearAll();
}

template <typename I>
void expectLookup(const sp<I>& local) {
    SCOPED_TRACE(android::String8(I::descriptor).string());
    EXPECT_EQ(nullptr, I::asInterface(nullptr));
    EXPECT_EQ(local.get(), I::asInterface(IInterface::asBinder(local)).get());
    sp<IBinder> foreign = new BBinder();
    sp<I> proxy = I::asInterface(foreign);
    ASSERT_NE(nullptr, proxy);
    EXPECT_EQ(foreign, IInterface::asBinder(proxy));
}

TEST(InterfaceLookupTest, NullTheLocalObjectOrAProxy) {
    expectLookup<ITovarinService>(makeService(new RecordingFacade()));
    expectLookup<IStateChangeListener>(new BnStateChangeListener(new StateListener()));
    expectLookup<IRawDataListener>(new BnRawDataListener(new IgnoringRawListener()));
    expectLookup<IHeadTrackingPoller>(new BnHeadTrackingPoller());
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
