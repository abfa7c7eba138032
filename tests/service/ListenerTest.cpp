/*
 * The listener interfaces and the poller token: descriptors, default handling of foreign
 * codes, the token check, what the wrappers forward, and raw frames carried end to end.
 */
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"
#include "ServiceTestSupport.h"

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <vector>

namespace morvel {
namespace tovarin {
namespace testing {
namespace {

using namespace android;
using namespace binder;

class FrameListener : public RawDataListener {
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
    sp<FrameListener> raw = new FrameListener();
    sp<StateListener> state = new StateListener();
    struct Case {
        sp<IBinder> binder;
        const char* descriptor;
        String16 eventToken;  // code 1 is sent with this token
        android::status_t eventStatus;
    } cases[] = {
            // An event with another interface's token is refused.
            {new BnRawDataListener(raw), "morvel.tovarin.raw_data_listener",
             IStateChangeListener::descriptor, PERMISSION_DENIED},
            {new BnStateChangeListener(state), "morvel.tovarin.state_change_listener",
             IRawDataListener::descriptor, PERMISSION_DENIED},
            // The token has no transaction at all, not even code 1.
            {new BnHeadTrackingPoller(), "morvel.tovarin.head_tracker",
             String16("morvel.tovarin.head_tracker"), UNKNOWN_TRANSACTION},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.descriptor);
        Parcel none;
        Parcel reply;
        ASSERT_EQ(OK, c.binder->transact(IBinder::INTERFACE_TRANSACTION, none, &reply));
        EXPECT_EQ(String16(c.descriptor), reply.readString16());
        for (uint32_t code : {0u, 2u, 3u}) {
            Parcel request;
            request.writeInterfaceToken(String16(c.descriptor));
            EXPECT_EQ(UNKNOWN_TRANSACTION, c.binder->transact(code, request, &reply)) << code;
        }
        Parcel event;
        event.writeInterfaceToken(c.eventToken);
        event.writeInt64(1);
        EXPECT_EQ(c.eventStatus, c.binder->transact(1, event, &reply, IBinder::FLAG_ONEWAY));
    }
    EXPECT_TRUE(raw->timestamps.empty());
    EXPECT_TRUE(state->events().empty());
}

// The handle and the listener's own pid and registration time are read through the wrapper;
// the wrapper's pid and time are its own.
template <typename Wrapper, typename Listener>
void expectForwarding() {
    sp<Listener> app = new Listener();
    sp<Wrapper> wrapper = new Wrapper(app);
    EXPECT_EQ(app, wrapper->getListener());
    wrapper->setHandle(3);
    EXPECT_EQ(3, app->getHandle());
    EXPECT_EQ(3, wrapper->getHandle());
    wrapper->setPid(42);
    wrapper->updateRegistrationTimestamp();
    EXPECT_EQ(-1, app->getPid());
    EXPECT_EQ(0, app->getRegistrationTimestamp());
    app->setPid(7);
    app->updateRegistrationTimestamp();
    EXPECT_EQ(7, wrapper->getPid());
    EXPECT_EQ(app->getRegistrationTimestamp(), wrapper->getRegistrationTimestamp());
}

TEST(ListenerInterfaceTest, WrappersForwardTheHandleButKeepPidAndTimeToThemselves) {
    expectForwarding<BnStateChangeListener, StateListener>();
    expectForwarding<BnRawDataListener, FrameListener>();
}

TEST(ListenerInterfaceTest, RawFramesLandInTheStubsReusedBuffer) {
    sp<FrameListener> app = new FrameListener();
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
