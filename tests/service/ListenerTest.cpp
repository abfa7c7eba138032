/*
 * The listener interfaces and the poller token: descriptors, default handling of foreign
 * codes, the token check, what the wrappers forward, and events carried end to end.
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using android::BBinder;
using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::String16;
using android::UNKNOWN_TRANSACTION;
using binder::BnHeadTrackingPoller;
using binder::BnRawDataListener;
using binder::BnStateChangeListener;
using binder::BpRawDataListener;
using binder::BpStateChangeListener;
using binder::IHeadTrackingPoller;
using binder::IRawDataListener;
using binder::IStateChangeListener;

class StateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent& event) override { events.push_back(event); }
    std::vector<StateChangeEvent> events;
};

class RawListener : public RawDataListener {
public:
    void onEvent(const RawDataEvent& event) override {
        timestamps.push_back(event.timestamp);
        const CameraFrameEvent& frame = event.cameraFrameEvent;
        frames.push_back(frame.data);
        if (frame.data != nullptr && frame.width > 0 && frame.height > 0) {
            pixels.assign(frame.data, frame.data + frame.width * frame.height);
        }
        locationValues.push_back(event.headLocation1.value);
    }
    std::vector<int64_t> timestamps;
    std::vector<const unsigned char*> frames;
    std::vector<unsigned char> pixels;
    std::vector<int32_t> locationValues;
};

TEST(ListenerInterfaceTest, NamesDefaultHandlingAndTokenCheck) {
    sp<RawListener> raw = new RawListener();
    sp<StateListener> state = new StateListener();
    struct Case {
        const char* name;
        sp<IBinder> binder;
        const char* descriptor;
        String16 codeOneToken;  // code 1 sent with this token
        android::status_t codeOneStatus;
    } cases[] = {
            // An event with another interface's token is refused.
            {"raw data", new BnRawDataListener(raw), "morvel.tovarin.raw_data_listener",
             IStateChangeListener::descriptor, PERMISSION_DENIED},
            {"state change", new BnStateChangeListener(state),
             "morvel.tovarin.state_change_listener", IRawDataListener::descriptor,
             PERMISSION_DENIED},
            // The token has no transaction at all, not even code 1.
            {"poller", new BnHeadTrackingPoller(), "morvel.tovarin.head_tracker",
             IHeadTrackingPoller::descriptor, UNKNOWN_TRANSACTION},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel data;
        Parcel reply;
        ASSERT_EQ(OK, c.binder->transact(IBinder::INTERFACE_TRANSACTION, data, &reply));
        EXPECT_EQ(String16(c.descriptor), reply.readString16());
        EXPECT_EQ(String16(c.descriptor), c.binder->getInterfaceDescriptor());
        for (uint32_t code : {0u, 2u, 3u}) {
            Parcel request;
            request.writeInterfaceToken(String16(c.descriptor));
            Parcel none;
            EXPECT_EQ(UNKNOWN_TRANSACTION, c.binder->transact(code, request, &none));
        }
        Parcel event;
        event.writeInterfaceToken(c.codeOneToken);
        event.writeInt64(1);
        EXPECT_EQ(c.codeOneStatus, c.binder->transact(1, event, &reply, IBinder::FLAG_ONEWAY));
    }
    EXPECT_TRUE(raw->timestamps.empty());
    EXPECT_TRUE(state->events.empty());
}

TEST(ListenerInterfaceTest, WrappersForwardTheHandleButKeepPidAndTimeToThemselves) {
    sp<StateListener> app = new StateListener();
    sp<BnStateChangeListener> wrapper = new BnStateChangeListener(app);
    EXPECT_EQ(app, wrapper->getListener());
    wrapper->setHandle(3);
    EXPECT_EQ(3, app->getHandle());
    EXPECT_EQ(3, wrapper->getHandle());
    wrapper->setPid(42);
    EXPECT_EQ(-1, app->getPid());
    EXPECT_EQ(-1, wrapper->getPid());
    wrapper->updateRegistrationTimestamp();
    EXPECT_EQ(0, app->getRegistrationTimestamp());
    EXPECT_EQ(0, wrapper->getRegistrationTimestamp());
    app->setPid(7);
    app->updateRegistrationTimestamp();
    EXPECT_EQ(7, wrapper->getPid());
    EXPECT_EQ(app->getRegistrationTimestamp(), wrapper->getRegistrationTimestamp());

    sp<RawListener> rawApp = new RawListener();
    sp<BnRawDataListener> rawWrapper = new BnRawDataListener(rawApp);
    EXPECT_EQ(rawApp, rawWrapper->getListener());
    rawWrapper->setHandle(8);
    rawWrapper->setPid(42);
    EXPECT_EQ(8, rawApp->getHandle());
    EXPECT_EQ(-1, rawWrapper->getPid());
}

TEST(ListenerInterfaceTest, ProxiesKeepHandlePidAndTimeLocally) {
    sp<BBinder> remote = new BBinder();
    sp<IStateChangeListener> state = IStateChangeListener::asInterface(remote);
    sp<IRawDataListener> raw = IRawDataListener::asInterface(remote);
    ASSERT_NE(nullptr, state);
    ASSERT_NE(nullptr, raw);
    for (TovarinListener* listener :
         {static_cast<TovarinListener*>(state.get()), static_cast<TovarinListener*>(raw.get())}) {
        EXPECT_EQ(-1, listener->getHandle());
        EXPECT_EQ(-1, listener->getPid());
        EXPECT_EQ(0, listener->getRegistrationTimestamp());
        listener->setHandle(4);
        listener->setPid(99);
        EXPECT_EQ(4, listener->getHandle());
        EXPECT_EQ(99, listener->getPid());
    }
    EXPECT_EQ(nullptr, IStateChangeListener::asInterface(nullptr));
    EXPECT_EQ(nullptr, IRawDataListener::asInterface(nullptr));
    EXPECT_EQ(nullptr, IHeadTrackingPoller::asInterface(nullptr));
    sp<BnStateChangeListener> local = new BnStateChangeListener(new StateListener());
    EXPECT_EQ(local.get(), IStateChangeListener::asInterface(local).get());
    sp<BnHeadTrackingPoller> token = new BnHeadTrackingPoller();
    EXPECT_EQ(token.get(), IHeadTrackingPoller::asInterface(token).get());
    EXPECT_NE(nullptr, IHeadTrackingPoller::asInterface(remote));
}

TEST(ListenerInterfaceTest, StateChangeEventsArriveThroughTheProxy) {
    sp<StateListener> app = new StateListener();
    sp<BpStateChangeListener> proxy = new BpStateChangeListener(new BnStateChangeListener(app));
    for (int i = 0; i < 3; ++i) {
        StateChangeEvent event;
        event.timestamp = 1000 + i;
        event.flag = (i % 2) == 1;
        event.state.primary = i;
        event.state.secondary = 10 * i;
        proxy->onEvent(event);
    }
    ASSERT_EQ(3u, app->events.size());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(1000 + i, app->events[i].timestamp);
        EXPECT_EQ((i % 2) == 1, app->events[i].flag);
        EXPECT_EQ(i, app->events[i].state.primary);
        EXPECT_EQ(10 * i, app->events[i].state.secondary);
    }
}

TEST(ListenerInterfaceTest, RawFramesLandInTheStubsReusedBuffer) {
    sp<RawListener> app = new RawListener();
    sp<BpRawDataListener> proxy = new BpRawDataListener(new BnRawDataListener(app));
    std::vector<unsigned char> pixels(64 * 48);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7);
    for (int i = 0; i < 2; ++i) {
        RawDataEvent event;
        event.timestamp = 500 + i;
        event.cameraFrameEvent.timestamp = 900 + i;
        event.cameraFrameEvent.data = pixels.data();
        event.cameraFrameEvent.width = 64;
        event.cameraFrameEvent.height = 48;
        event.headLocation1.value = 30 + i;
        proxy->onEvent(event);
    }
    ASSERT_EQ((std::vector<int64_t>{500, 501}), app->timestamps);
    EXPECT_EQ((std::vector<int32_t>{30, 31}), app->locationValues);
    ASSERT_NE(nullptr, app->frames[0]);
    EXPECT_NE(pixels.data(), app->frames[0]);
    EXPECT_EQ(app->frames[0], app->frames[1]);
    EXPECT_EQ(pixels, app->pixels);
}

}  // namespace
}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
