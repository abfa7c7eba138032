/*
 * The service stub and service object in one process: reply layouts of every code, token and
 * range checks, the permission gate, death tracking, log lines and the dump report.
 */
#include "ServiceTestSupport.h"

#include "HeadTrackerHandleParceler.h"
#include "HeadTrackingEventParceler.h"
#include "TovarinPermission.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <gtest/gtest.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>
#include <tovarin/Utils.h>
#include <utils/Timers.h>

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using android::BAD_VALUE;
using android::BBinder;
using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::status_t;
using android::String16;
using android::UNKNOWN_TRANSACTION;
using binder::BnTovarinService;
using binder::ITovarinService;

class ServiceStubTest : public ::testing::Test {
protected:
    void SetUp() override {
        clearStores();
        TovarinLogger::getInstance()->configure("*:I");
        mFacade = new RecordingFacade();
        mService = makeService(mFacade);
        mBinder = IInterface::asBinder(mService);
        mScript.handle = HeadTrackerHandle{2, 9};
        mScript.operationStatus = BAD_VALUE;
        mFacade->setScript(mScript);
    }
    void TearDown() override {
        TovarinLogger::getInstance()->reset();
        setTestPolicy(fullPolicy());
        clearStores();
    }
    static void clearStores() {
        TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->clearAll();
        TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->clearAll();
        TovarinOverrides::getInstance()->clearAll();
    }

    status_t call(uint32_t code, const std::function<void(Parcel&)>& args, Parcel* reply,
                  const String16& token = ITovarinService::descriptor) {
        Parcel data;
        data.writeInterfaceToken(token);
        if (args) args(data);
        return mBinder->transact(code, data, reply);
    }

    std::vector<int32_t> callWords(uint32_t code, const std::function<void(Parcel&)>& args) {
        Parcel reply;
        EXPECT_EQ(OK, call(code, args, &reply)) << "code " << code;
        std::vector<int32_t> out(reply.dataSize() / sizeof(int32_t));
        if (!out.empty()) memcpy(out.data(), reply.data(), out.size() * sizeof(int32_t));
        return out;
    }

    RecordingFacade::Script mScript;
    sp<RecordingFacade> mFacade;
    sp<BnTovarinService> mService;
    sp<IBinder> mBinder;
};

std::function<void(Parcel&)> writeInts(std::vector<int32_t> values) {
    return [values](Parcel& p) {
        for (int32_t v : values) p.writeInt32(v);
    };
}

std::function<void(Parcel&)> writeBinder(sp<IBinder> binder, std::vector<int32_t> values = {}) {
    return [binder, values](Parcel& p) {
        p.writeStrongBinder(binder);
        for (int32_t v : values) p.writeInt32(v);
    };
}

// The captured lines are exactly `texts`, in order, each at `level` under `tag`.
void expectLog(const TovarinLogCapture& capture, int level, const std::string& tag,
               const std::vector<std::string>& texts) {
    const std::vector<TovarinLogLine> lines = capture.lines();
    ASSERT_EQ(texts.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(level, lines[i].level) << i;
        EXPECT_EQ(tag, lines[i].tag) << i;
        EXPECT_EQ(texts[i], lines[i].text);
    }
}

TEST_F(ServiceStubTest, EveryCodeRepliesInItsLayoutAndCallsTheFacade) {
    const std::string pid = std::to_string(getpid());
    HeadTrackingConfiguration configuration;
    configuration.fidelity = 3;
    configuration.filter = 0;
    configuration.debugString = "abc";
    struct Case {
        uint32_t code;
        std::function<void(Parcel&)> args;
        std::vector<int32_t> reply;
        std::vector<std::string> calls;
    } cases[] = {
            {1, writeBinder(new BBinder()), {0, -1, -1}, {}},
            {2, writeBinder(new BBinder(), {3}), {0}, {}},
            {3, writeInts({1}), {0}, {"setEnabledState 1"}},
            {4, nullptr, {0, 1}, {"getEnabled"}},
            {5, nullptr, {0, 7}, {"getHardwareState"}},
            {6, nullptr, {0, 3, 4}, {"getHeadTrackingState"}},
            {7, writeBinder(new BBinder()), {0, 5, 0}, {"registerStateChangeListener pid=" + pid}},
            {8, writeBinder(new BBinder(), {5}), {0}, {"unregisterStateChangeListener 5"}},
            {9,
             writeBinder(new BBinder()),
             {0, 2},
             {"getHeadTrackerHandle -> 2", "setPid 2 " + pid}},
            {10, writeInts({2}), {0}, {"releaseHeadTrackerHandle 2 -1"}},
            {11, writeInts({2}), {0, BAD_VALUE}, {"start 2"}},
            {12, writeInts({2}), {0, BAD_VALUE}, {"stop 2"}},
            {13, writeInts({2}), {0, BAD_VALUE}, {"standby 2"}},
            {14,
             [&](Parcel& p) {
                 p.writeInt32(2);
                 binder::HeadTrackerHandleParceler::parcel(configuration, p);
             },
             {0, BAD_VALUE},
             {"setConfiguration 2 3 0 abc"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("code " + std::to_string(c.code));
        mFacade->clearCalls();
        EXPECT_EQ(c.reply, callWords(c.code, c.args));
        EXPECT_EQ(c.calls, mFacade->calls());
    }
}

TEST_F(ServiceStubTest, SampleRepliesStatusThenTheEventWhateverTheStatus) {
    mScript.sampledEvent.timestamp = 1234567890123LL;
    mScript.sampledEvent.component0 = 1.5f;
    mScript.sampledEvent.flag1 = true;
    strcpy(mScript.sampledEvent.text, "pose");
    mScript.sampleStatus = OK;
    mFacade->setScript(mScript);
    Parcel reply;
    ASSERT_EQ(OK, call(15, writeInts({2}), &reply));
    HeadTrackingEvent event;
    reply.setDataPosition(0);
    EXPECT_EQ(0, reply.readInt32());
    EXPECT_EQ(OK, reply.readInt32());
    binder::HeadTrackingEventParceler::unparcel(event, reply);
    EXPECT_EQ(1234567890123LL, event.timestamp);
    EXPECT_EQ(1.5f, event.component0);
    EXPECT_TRUE(event.flag1);
    EXPECT_STREQ("pose", event.text);

    // A failing facade that leaves the event alone: the prepared event travels.
    mScript.sampleStatus = BAD_VALUE;
    mScript.sampleFills = false;
    mFacade->setScript(mScript);
    const nsecs_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    Parcel failed;
    ASSERT_EQ(OK, call(15, writeInts({2}), &failed));
    const nsecs_t after = systemTime(SYSTEM_TIME_MONOTONIC);
    failed.setDataPosition(0);
    EXPECT_EQ(0, failed.readInt32());
    EXPECT_EQ(BAD_VALUE, failed.readInt32());
    HeadTrackingEvent prepared;
    prepared.component1 = 9.0f;  // must be overwritten by the reply's form
    binder::HeadTrackingEventParceler::unparcel(prepared, failed);
    EXPECT_GE(prepared.timestamp, before);
    EXPECT_LE(prepared.timestamp, after);
    for (float value : {prepared.component0, prepared.component1, prepared.component2,
                         prepared.scalar}) {
        EXPECT_EQ(0.0f, value);
    }
    EXPECT_FALSE(prepared.flag0);
    EXPECT_FALSE(prepared.flag1);
    EXPECT_STREQ("", prepared.text);
    EXPECT_EQ(0u, failed.dataAvail());
}

TEST_F(ServiceStubTest, WrongOrMissingTokenIsDeniedWithAnEmptyReply) {
    for (uint32_t code = 1; code <= 15; ++code) {
        SCOPED_TRACE("code " + std::to_string(code));
        Parcel wrong;
        EXPECT_EQ(PERMISSION_DENIED, call(code, writeInts({1, 2, 3}), &wrong,
                                          String16("morvel.tovarin.state_change_listener")));
        EXPECT_EQ(0u, wrong.dataSize());
        Parcel empty;
        Parcel missing;
        EXPECT_EQ(PERMISSION_DENIED, mBinder->transact(code, empty, &missing));
        EXPECT_EQ(0u, missing.dataSize());
    }
    EXPECT_TRUE(mFacade->calls().empty());
}

TEST_F(ServiceStubTest, CodesOutsideTheServiceGoToTheDefaultHandling) {
    for (uint32_t code : {0u, 16u, 17u, static_cast<uint32_t>(IBinder::LAST_CALL_TRANSACTION)}) {
        SCOPED_TRACE("code " + std::to_string(code));
        Parcel reply;
        EXPECT_EQ(UNKNOWN_TRANSACTION, call(code, writeInts({1}), &reply));
    }
    EXPECT_TRUE(mFacade->calls().empty());

    Parcel data;
    Parcel reply;
    ASSERT_EQ(OK, mBinder->transact(IBinder::INTERFACE_TRANSACTION, data, &reply));
    EXPECT_EQ(String16("morvel.tovarin.service"), reply.readString16());
}

TEST_F(ServiceStubTest, RawDataIsRefusedWithOneErrorLine) {
    TovarinLogCapture capture;
    EXPECT_EQ((std::vector<int32_t>{0, -1, -1}), callWords(1, writeBinder(new BBinder())));
    EXPECT_EQ((std::vector<int32_t>{0}), callWords(2, writeBinder(new BBinder(), {0})));
    const std::string refused = "Raw data is available only on non-USER builds.";
    expectLog(capture, 6, "TovarinBnTovarinService", {refused, refused});

    capture.clear();
    TovarinLogger::getInstance()->configure("*:F");
    EXPECT_EQ((std::vector<int32_t>{0, -1, -1}), callWords(1, writeBinder(new BBinder())));
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(ServiceStubTest, MissingListenerIsRejectedWithoutCallingAnything) {
    EXPECT_EQ((std::vector<int32_t>{0, -1, BAD_VALUE}), callWords(7, writeBinder(nullptr)));
    EXPECT_EQ((std::vector<int32_t>{0, -1, BAD_VALUE}), callWords(7, nullptr));
    EXPECT_EQ((std::vector<int32_t>{0}), callWords(8, writeBinder(nullptr, {5})));
    EXPECT_EQ((std::vector<int32_t>{0}), callWords(8, nullptr));
    EXPECT_TRUE(mFacade->calls().empty());
    EXPECT_EQ(0u, mService->stateChangeListenerDeathMapper()->clientCount());
}

TEST_F(ServiceStubTest, StateChangeRegistrationsAreTrackedByHandle) {
    const auto& mapper = mService->stateChangeListenerDeathMapper();
    sp<IBinder> first = new BBinder();
    sp<IBinder> second = new BBinder();
    callWords(7, writeBinder(first));
    // The facade answers the same handle again: the first record stays.
    callWords(7, writeBinder(second));
    BnTovarinService::ClientDeathData record;
    ASSERT_TRUE(mapper->findClient(5, &record));
    EXPECT_EQ(first, record.binder);
    EXPECT_EQ(getpid(), record.pid);
    EXPECT_EQ(Utils::getProcessNameFromPID(getpid()), record.processName);
    EXPECT_EQ(1u, mapper->clientCount());

    // A refused registration is not tracked.
    mScript.listenerHandle = 6;
    mScript.registerStatus = BAD_VALUE;
    mFacade->setScript(mScript);
    EXPECT_EQ((std::vector<int32_t>{0, 6, BAD_VALUE}), callWords(7, writeBinder(new BBinder())));
    EXPECT_FALSE(mapper->findClient(6, nullptr));

    // Unregistering a handle that was never registered still reaches the facade.
    mFacade->clearCalls();
    callWords(8, writeBinder(second, {7}));
    EXPECT_EQ(std::vector<std::string>{"unregisterStateChangeListener 7"}, mFacade->calls());
    EXPECT_EQ(1u, mapper->clientCount());

    callWords(8, writeBinder(first, {5}));
    EXPECT_EQ(0u, mapper->clientCount());
}

TEST_F(ServiceStubTest, HeadTrackerHandlesAreTrackedEvenWhenNoTrackerIsFree) {
    const auto& mapper = mService->headTrackingPollerDeathMapper();
    mScript.handle = HeadTrackerHandle{-1, -1};
    mFacade->setScript(mScript);
    sp<IBinder> token = new BBinder();
    EXPECT_EQ((std::vector<int32_t>{0, -1}), callWords(9, writeBinder(token)));
    BnTovarinService::ClientDeathData record;
    ASSERT_TRUE(mapper->findClient(-1, &record));
    EXPECT_EQ(token, record.binder);

    callWords(10, writeInts({-1}));
    EXPECT_EQ(0u, mapper->clientCount());

    // Without a token there is nothing to watch: the handle is granted, nothing is tracked.
    mFacade->clearCalls();
    EXPECT_EQ((std::vector<int32_t>{0, -1}), callWords(9, writeBinder(nullptr)));
    EXPECT_EQ(0u, mapper->clientCount());
    EXPECT_EQ(2u, mFacade->calls().size());
}

TEST_F(ServiceStubTest, DeadClientsRegistrationsAreUndone) {
    sp<IBinder> listener = new BBinder();
    sp<IBinder> token = new BBinder();
    callWords(7, writeBinder(listener));
    callWords(9, writeBinder(token));
    mFacade->clearCalls();
    TovarinLogCapture capture;

    mService->stateChangeListenerDeathMapper()->binderDied(listener);
    mService->headTrackingPollerDeathMapper()->binderDied(token);

    EXPECT_EQ((std::vector<std::string>{"unregisterStateChangeListener 5",
                                        "releaseHeadTrackerHandle 2 -1"}),
              mFacade->calls());
    expectLog(capture, 6, "TovarinBnTovarinService",
              {selfCallerString() + ": state change listener client died",
               selfCallerString() + ": head tracking polling client died"});
    EXPECT_EQ(0u, mService->stateChangeListenerDeathMapper()->clientCount());
    EXPECT_EQ(0u, mService->headTrackingPollerDeathMapper()->clientCount());

    // Notices for binders without a record, or already gone, change nothing.
    mFacade->clearCalls();
    mService->headTrackingPollerDeathMapper()->binderDied(token);
    android::wp<IBinder> gone;
    {
        sp<IBinder> temporary = new BBinder();
        gone = temporary;
    }
    mService->headTrackingPollerDeathMapper()->binderDied(gone);
    EXPECT_TRUE(mFacade->calls().empty());
}

TEST_F(ServiceStubTest, TrackerOperationsLogTheCallerAtInformationLevel) {
    HeadTrackingConfiguration configuration;
    configuration.debugString = "abc";
    const auto callAll = [&] {
        for (uint32_t code : {11u, 12u, 13u}) callWords(code, writeInts({3}));
        callWords(14, [&](Parcel& p) {
            p.writeInt32(3);
            binder::HeadTrackerHandleParceler::parcel(configuration, p);
        });
    };
    {
        TovarinLogCapture capture;
        callAll();
        const std::string caller = selfCallerString() + ": head tracker (3) - ";
        expectLog(capture, 4, "TovarinBnTovarinService",
                  {caller + "started", caller + "stopped", caller + "standby",
                   caller + "setConfiguration to debugString=abc; fidelity=2; filter=1"});
    }
    // Refused by the logger: no name lookup, no line, the facade is still called.
    TovarinLogger::getInstance()->configure("*:W");
    mFacade->clearCalls();
    TovarinLogCapture capture;
    const uint64_t lookups = Utils::processNameLookupCount();
    callAll();
    EXPECT_EQ(lookups, Utils::processNameLookupCount());
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(4u, mFacade->calls().size());
}

TEST_F(ServiceStubTest, EnabledStateNeedsTheControlPermission) {
    setTestPolicy(policyGranting({kDump}));
    TovarinLogCapture capture;
    EXPECT_EQ((std::vector<int32_t>{0}), callWords(3, writeInts({0})));
    EXPECT_TRUE(mFacade->calls().empty());
    expectLog(capture, 6, "TovarinPermission",
              {"Permission Error: " + selfCallerString() +
               " must have permission \"com.morvel.permission.TOVARIN_CONTROL\" /> before "
               "calling setEnabled"});
}

TEST_F(ServiceStubTest, PermissionCheckLogsOnlyNamedRefusals) {
    struct Case {
        bool granted;
        const char* method;
        bool logged;
    } cases[] = {
            {true, "setEnabled", false},
            {true, nullptr, false},
            {false, nullptr, false},
            {false, "getOverride", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.granted ? "granted " : "refused ") +
                     (c.method ? c.method : "(null)"));
        setTestPolicy(c.granted ? fullPolicy() : policyGranting({kDump}));
        TovarinLogCapture capture;
        const uint64_t lookups = Utils::processNameLookupCount();
        EXPECT_EQ(c.granted, TovarinPermission::validateAccess(c.method));
        const auto lines = capture.lines();
        ASSERT_EQ(c.logged ? 1u : 0u, lines.size());
        if (c.logged) {
            EXPECT_NE(std::string::npos, lines[0].text.find("before calling getOverride"));
        } else {
            EXPECT_EQ(lookups, Utils::processNameLookupCount());
        }
    }
}

// Collects what dump() writes, one entry per write call.
class DumpTarget {
public:
    DumpTarget() {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, mFds));
        fcntl(mFds[1], F_SETFL, O_NONBLOCK);
    }
    ~DumpTarget() {
        close(mFds[0]);
        close(mFds[1]);
    }
    int fd() const { return mFds[0]; }
    std::vector<std::string> writes() {
        std::vector<std::string> out;
        char buffer[4096];
        ssize_t n;
        while ((n = read(mFds[1], buffer, sizeof(buffer))) > 0) out.emplace_back(buffer, n);
        return out;
    }

private:
    int mFds[2];
};

using ServiceDumpTest = ServiceStubTest;

TEST_F(ServiceDumpTest, ReportHasOneSectionPerNonEmptyStore) {
    const std::string debugHeading = "Tovarin Debug Diagnostics:\n";
    const std::string errorHeading = "\nTovarin Error Diagnostics:\n";
    const std::string overridesHeading = "\nTovarin Overrides:\n";
    struct Case {
        const char* name;
        bool debug, errors, overrides;
    } cases[] = {
            {"all empty", false, false, false},
            {"overrides only", false, false, true},
            {"errors only", false, true, false},
            {"all three", true, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        clearStores();
        auto* debug = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
        auto* errors = TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR);
        auto* overrides = TovarinOverrides::getInstance();
        if (c.debug) debug->set("frames", "30");
        if (c.errors) errors->set("camera", "lost");
        if (c.overrides) overrides->set("fidelity", "3");
        std::vector<std::string> expected = {debugHeading,
                                             std::string(debug->toString().string()) + "\n"};
        if (c.errors) {
            expected.push_back(errorHeading);
            expected.push_back(std::string(errors->toString().string()) + "\n");
        }
        if (c.overrides) {
            expected.push_back(overridesHeading);
            expected.push_back(std::string(overrides->toString().string()) + "\n");
        }
        for (bool withArgs : {false, true}) {
            android::Vector<String16> args;
            if (withArgs) args.push(String16("--errors-only"));
            DumpTarget target;
            EXPECT_EQ(0, mService->dump(target.fd(), args));
            EXPECT_EQ(expected, target.writes());
        }
    }
}

TEST_F(ServiceDumpTest, CallerWithoutDumpPermissionGetsOneDenialLine) {
    TovarinOverrides::getInstance()->set("fidelity", "3");
    setTestPolicy(policyGranting({kControl}));
    DumpTarget target;
    EXPECT_EQ(0, mService->dump(target.fd(), android::Vector<String16>()));
    const std::string expected =
            "Permission Denial: can't dump Tovarin from pid=" + std::to_string(getpid()) +
            ", uid=" + std::to_string(getuid()) + "\n";
    EXPECT_EQ(std::vector<std::string>{expected}, target.writes());
    // A closed descriptor changes nothing about the result.
    EXPECT_EQ(0, mService->dump(-1, android::Vector<String16>()));
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
