/*
 * The client proxy against the stub in one process: every operation end to end, the
 * fallbacks of a failing transport, and the proxy's keeping of listener wrappers and tokens.
 */
#include "ServiceTestSupport.h"

#include "IHeadTrackingPoller.h"
#include "IStateChangeListener.h"

#include <binder/Binder.h>
#include <gtest/gtest.h>

#include <string.h>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using android::BAD_VALUE;
using android::BBinder;
using android::DEAD_OBJECT;
using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::status_t;
using android::wp;
using binder::BnTovarinService;
using binder::BpTovarinService;
using binder::IHeadTrackingPoller;
using binder::ITovarinService;

// Stands between the proxy and the stub: records each transaction (and the first binder of
// its request), and can fail them all with a chosen status.
class TransactionRecorder : public BBinder {
public:
    explicit TransactionRecorder(const sp<IBinder>& target) : mTarget(target) {}

    void failWith(status_t status) { mFailure = status; }
    std::vector<uint32_t> codes() const { return mCodes; }
    std::vector<wp<IBinder>> binders() const { return mBinders; }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        mCodes.push_back(code);
        if (data.enforceInterface(ITovarinService::descriptor)) {
            const size_t position = data.dataPosition();
            if (data.objectsCount() > 0) mBinders.push_back(data.readStrongBinder());
            data.setDataPosition(position);
        }
        if (mFailure != OK) return mFailure;
        return mTarget->transact(code, data, reply, flags);
    }

private:
    sp<IBinder> mTarget;
    status_t mFailure = OK;
    std::vector<uint32_t> mCodes;
    std::vector<wp<IBinder>> mBinders;
};

class StateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent&) override {}
};

class RawListener : public RawDataListener {
public:
    void onEvent(const RawDataEvent&) override {}
};

class ServiceProxyTest : public ::testing::Test {
protected:
    void SetUp() override {
        mFacade = new RecordingFacade();
        mScript.operationStatus = BAD_VALUE;
        mScript.handle = HeadTrackerHandle{2, 9};
        mScript.sampledEvent.timestamp = 77;
        mScript.sampledEvent.component2 = -3.25f;
        strcpy(mScript.sampledEvent.text, "sampled");
        mFacade->setScript(mScript);
        mService = makeService(mFacade);
        mRecorder = new TransactionRecorder(IInterface::asBinder(mService));
        mProxy = new BpTovarinService(mRecorder);
    }

    RecordingFacade::Script mScript;
    sp<RecordingFacade> mFacade;
    sp<BnTovarinService> mService;
    sp<TransactionRecorder> mRecorder;
    sp<BpTovarinService> mProxy;
};

TEST_F(ServiceProxyTest, EveryOperationReachesTheFacadeAndReturnsItsAnswer) {
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
    HeadTrackingEvent event;
    EXPECT_EQ(OK, mProxy->sample(handle, event));
    EXPECT_EQ(77, event.timestamp);
    EXPECT_EQ(-3.25f, event.component2);
    EXPECT_STREQ("sampled", event.text);
    EXPECT_EQ(OK, mProxy->setPid(handle, 1234));

    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(
            (std::vector<std::string>{
                    "setEnabledState 1", "getEnabled", "getHardwareState", "getHeadTrackingState",
                    "getHeadTrackerHandle -> 2", "setPid 2 " + pid, "releaseHeadTrackerHandle 2 -1",
                    "start 2", "stop 2", "standby 2", "setConfiguration 2 1 2 near", "sample 2"}),
            mFacade->calls());
    // setPid is answered locally.
    EXPECT_EQ((std::vector<uint32_t>{3, 4, 5, 6, 9, 10, 11, 12, 13, 14, 15}), mRecorder->codes());
}

TEST_F(ServiceProxyTest, FailedTransactionsGiveTheFallbacks) {
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
        EXPECT_EQ(failure, mProxy->start(handle));
        EXPECT_EQ(failure, mProxy->stop(handle));
        EXPECT_EQ(failure, mProxy->standby(handle));
        EXPECT_EQ(failure, mProxy->setConfiguration(handle, HeadTrackingConfiguration()));
        HeadTrackingEvent event;
        event.timestamp = 5;
        strcpy(event.text, "kept");
        EXPECT_EQ(failure, mProxy->sample(handle, event));
        EXPECT_EQ(5, event.timestamp);
        EXPECT_STREQ("kept", event.text);
        EXPECT_EQ(OK, mProxy->setPid(handle, 1));
        sp<StateListener> listener = new StateListener();
        EXPECT_EQ(failure, mProxy->registerStateChangeListener(listener));
        EXPECT_EQ(-1, listener->getHandle());
        mProxy->setEnabledState(0);
        mProxy->releaseHeadTrackerHandle(handle);
    }
    EXPECT_TRUE(mFacade->calls().empty());
}

TEST_F(ServiceProxyTest, SampleWithAFailingStatusLeavesTheEventAlone) {
    mScript.sampleStatus = BAD_VALUE;  // the facade fills the event all the same
    mFacade->setScript(mScript);
    HeadTrackingEvent event;
    event.component0 = 8.0f;
    EXPECT_EQ(BAD_VALUE, mProxy->sample(HeadTrackerHandle{2, -1}, event));
    EXPECT_EQ(8.0f, event.component0);
    EXPECT_EQ(0, event.timestamp);
    EXPECT_STREQ("", event.text);
}

TEST_F(ServiceProxyTest, RefusedRawDataRegistrationIsNotKept) {
    sp<RawListener> listener = new RawListener();
    listener->setHandle(12);
    EXPECT_EQ(-1, mProxy->registerRawDataListener(listener));
    EXPECT_EQ(-1, listener->getHandle());
    mProxy->unregisterRawDataListener(listener);
    EXPECT_EQ(std::vector<uint32_t>{1}, mRecorder->codes());
}

TEST_F(ServiceProxyTest, StateChangeListenerWrappersAreKeptUnderTheServiceHandle) {
    sp<StateListener> listener = new StateListener();
    EXPECT_EQ(OK, mProxy->registerStateChangeListener(listener));
    EXPECT_EQ(5, listener->getHandle());
    // The wrapper sent to the service is the local binder that forwards to the listener.
    ASSERT_EQ(1u, mRecorder->binders().size());
    sp<IBinder> wrapper = mRecorder->binders()[0].promote();
    ASSERT_NE(nullptr, wrapper);
    EXPECT_NE(nullptr, wrapper->queryLocalInterface(binder::IStateChangeListener::descriptor));
    wrapper.clear();

    mProxy->unregisterStateChangeListener(listener);
    EXPECT_EQ(-1, listener->getHandle());
    EXPECT_EQ((std::vector<uint32_t>{7, 8}), mRecorder->codes());
    EXPECT_EQ(std::string("unregisterStateChangeListener 5"), mFacade->calls().back());
    // Neither the proxy's map nor the service's record holds the wrapper any more.
    EXPECT_EQ(nullptr, mRecorder->binders()[0].promote());

    // Not registered any more: nothing is sent.
    mProxy->unregisterStateChangeListener(listener);
    EXPECT_EQ((std::vector<uint32_t>{7, 8}), mRecorder->codes());
}

TEST_F(ServiceProxyTest, SameHandleTwiceKeepsTheNewerWrapper) {
    sp<StateListener> first = new StateListener();
    sp<StateListener> second = new StateListener();
    ASSERT_EQ(OK, mProxy->registerStateChangeListener(first));
    ASSERT_EQ(OK, mProxy->registerStateChangeListener(second));

    // Unregistering by the first listener's handle sends the stored (newer) wrapper.
    mProxy->unregisterStateChangeListener(first);
    EXPECT_EQ(-1, second->getHandle());
    EXPECT_EQ(5, first->getHandle());
    mProxy->unregisterStateChangeListener(first);
    EXPECT_EQ((std::vector<uint32_t>{7, 7, 8}), mRecorder->codes());
}

TEST_F(ServiceProxyTest, FailedUnregistrationKeepsTheEntryForARetry) {
    sp<StateListener> listener = new StateListener();
    ASSERT_EQ(OK, mProxy->registerStateChangeListener(listener));
    mRecorder->failWith(DEAD_OBJECT);
    mProxy->unregisterStateChangeListener(listener);
    EXPECT_EQ(5, listener->getHandle());
    mRecorder->failWith(OK);
    mProxy->unregisterStateChangeListener(listener);
    EXPECT_EQ(-1, listener->getHandle());
    EXPECT_EQ((std::vector<uint32_t>{7, 8, 8}), mRecorder->codes());
}

TEST_F(ServiceProxyTest, AcceptedRegistrationWithoutHandleIsNotKept) {
    mScript.listenerHandle = -1;
    mFacade->setScript(mScript);
    sp<StateListener> listener = new StateListener();
    EXPECT_EQ(OK, mProxy->registerStateChangeListener(listener));
    EXPECT_EQ(-1, listener->getHandle());
    mProxy->unregisterStateChangeListener(listener);
    EXPECT_EQ(std::vector<uint32_t>{7}, mRecorder->codes());
}

TEST_F(ServiceProxyTest, EachHandleRequestSendsAFreshTokenThatLivesWithTheHandle) {
    mScript.handle = HeadTrackerHandle{1, -1};
    mFacade->setScript(mScript);
    const HeadTrackerHandle first = mProxy->getHeadTrackerHandle();
    mScript.handle = HeadTrackerHandle{3, -1};
    mFacade->setScript(mScript);
    const HeadTrackerHandle second = mProxy->getHeadTrackerHandle();
    ASSERT_EQ(2u, mRecorder->binders().size());
    sp<IBinder> firstToken = mRecorder->binders()[0].promote();
    sp<IBinder> secondToken = mRecorder->binders()[1].promote();
    ASSERT_NE(nullptr, firstToken);
    ASSERT_NE(nullptr, secondToken);
    EXPECT_NE(firstToken, secondToken);
    EXPECT_NE(nullptr, firstToken->queryLocalInterface(IHeadTrackingPoller::descriptor));
    firstToken.clear();
    secondToken.clear();

    // Only the service's record holds a token; releasing the handle destroys it.
    mProxy->releaseHeadTrackerHandle(first);
    EXPECT_EQ(nullptr, mRecorder->binders()[0].promote());
    EXPECT_NE(nullptr, mRecorder->binders()[1].promote());
    mProxy->releaseHeadTrackerHandle(second);
    EXPECT_EQ(nullptr, mRecorder->binders()[1].promote());
}

TEST(ServiceInterfaceTest, AsInterfaceGivesTheLocalObjectOrAProxy) {
    EXPECT_EQ(nullptr, ITovarinService::asInterface(nullptr));
    sp<BnTovarinService> service = makeService(new RecordingFacade());
    EXPECT_EQ(service.get(), ITovarinService::asInterface(IInterface::asBinder(service)).get());
    sp<IBinder> foreign = new BBinder();
    sp<ITovarinService> proxy = ITovarinService::asInterface(foreign);
    ASSERT_NE(nullptr, proxy);
    EXPECT_EQ(foreign, IInterface::asBinder(proxy));
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
