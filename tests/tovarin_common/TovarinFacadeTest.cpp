// The simulated head tracker behind TovarinFacade: tracker allocation, the per-tracker state
// machine, configuration, sampling, state change and raw data listeners, and its threads.

#include <math.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinFacade.h>

namespace morvel {
namespace tovarin {
namespace {

using android::BAD_VALUE;
using android::INVALID_OPERATION;
using android::OK;
using android::sp;
using android::status_t;
using F = TovarinFacade;

// Raw data off by default in these tests unless a test registers a raw listener.
sp<TovarinFacade> makeFacade(F::Options options = F::Options()) {
    return new TovarinFacade(options);
}

HeadTrackerHandle handleOf(int32_t id) {
    HeadTrackerHandle handle;
    handle.id = id;
    return handle;
}

F::TrackerState stateOf(const sp<TovarinFacade>& facade, int32_t id) {
    F::TrackerInfo info;
    EXPECT_TRUE(facade->getTrackerInfo(id, &info));
    return info.state;
}

// Allocation

TEST(TrackerAllocation, LowestFreeIdUntilExhaustedThenMinusOne) {
    F::Options two;
    two.trackerCount = 2;
    for (const auto& [options, count] : {std::pair{F::Options(), 4}, std::pair{two, 2}}) {
        SCOPED_TRACE(count);
        sp<TovarinFacade> facade = makeFacade(options);
        ASSERT_EQ(facade->getTrackerCount(), count);
        for (int32_t expected = 0; expected < count; ++expected) {
            HeadTrackerHandle handle = facade->getHeadTrackerHandle();
            EXPECT_EQ(handle.id, expected);
            EXPECT_EQ(handle.secondaryId, -1);
            EXPECT_EQ(stateOf(facade, expected), F::STOPPED);
        }
        HeadTrackerHandle none = facade->getHeadTrackerHandle();
        EXPECT_EQ(none.id, -1);
        EXPECT_EQ(none.secondaryId, -1);
        F::TrackerInfo info;
        EXPECT_FALSE(facade->getTrackerInfo(count, &info));

        // Freed ids come back lowest first, not most recently freed first.
        facade->releaseHeadTrackerHandle(handleOf(count - 2));
        facade->releaseHeadTrackerHandle(handleOf(count - 1));
        EXPECT_EQ(stateOf(facade, count - 2), F::FREE);
        EXPECT_EQ(facade->getHeadTrackerHandle().id, count - 2);
        EXPECT_EQ(facade->getHeadTrackerHandle().id, count - 1);
        EXPECT_EQ(facade->getHeadTrackerHandle().id, -1);
    }
}

TEST(TrackerAllocation, ReleasingFreeOrUnknownIdsChangesNothing) {
    sp<TovarinFacade> facade = makeFacade();
    ASSERT_EQ(facade->getHeadTrackerHandle().id, 0);
    ASSERT_EQ(facade->start(handleOf(0)), OK);
    for (int32_t id : {-1, 1, 3, 4, 1000, INT32_MIN}) {
        facade->releaseHeadTrackerHandle(handleOf(id));
    }
    EXPECT_EQ(stateOf(facade, 0), F::STARTED);
    EXPECT_EQ(facade->getHeadTrackerHandle().id, 1);

    // A released tracker starts afresh: stopped, default configuration, no pid.
    HeadTrackingConfiguration config;
    config.fidelity = 3;
    config.filter = 0;
    ASSERT_EQ(facade->setConfiguration(handleOf(0), config), OK);
    ASSERT_EQ(facade->setPid(handleOf(0), 321), OK);
    facade->releaseHeadTrackerHandle(handleOf(0));
    ASSERT_EQ(facade->getHeadTrackerHandle().id, 0);
    F::TrackerInfo info;
    ASSERT_TRUE(facade->getTrackerInfo(0, &info));
    EXPECT_EQ(info.state, F::STOPPED);
    EXPECT_EQ(info.pid, -1);
    EXPECT_EQ(info.configuration.fidelity, 2);
    EXPECT_EQ(info.configuration.filter, 1);
}

TEST(TrackerAllocation, ConcurrentCallersNeverShareATracker) {
    sp<TovarinFacade> facade = makeFacade();
    std::atomic<int> owners[4] = {};
    std::atomic<int> grants{0};
    std::atomic<int> shared{0};
    std::vector<std::thread> threads;
    for (int t = 1; t <= 6; ++t) {  // more callers than trackers
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                HeadTrackerHandle handle = facade->getHeadTrackerHandle();
                if (handle.id < 0) continue;
                ASSERT_LT(handle.id, 4);
                ++grants;
                if (owners[handle.id].exchange(t) != 0) ++shared;
                EXPECT_EQ(facade->start(handle), OK);
                owners[handle.id].store(0);
                facade->releaseHeadTrackerHandle(handle);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(shared.load(), 0) << "a tracker was given to two holders at once";
    EXPECT_GT(grants.load(), 0);
    for (int32_t id = 0; id < 4; ++id) EXPECT_EQ(stateOf(facade, id), F::FREE);
}

// State machine

enum class Op { Start, Stop, Standby, Disable, Enable };

struct Step {
    Op op;
    status_t status;
    F::TrackerState after;
};

const char* name(Op op) {
    switch (op) {
        case Op::Start: return "start";
        case Op::Stop: return "stop";
        case Op::Standby: return "standby";
        case Op::Disable: return "disable";
        case Op::Enable: return "enable";
    }
    return "?";
}

TEST(TrackerStateMachine, Transitions) {
    const std::vector<std::vector<Step>> scenarios = {
            {{Op::Start, OK, F::STARTED}, {Op::Start, OK, F::STARTED}, {Op::Stop, OK, F::STOPPED},
             {Op::Stop, OK, F::STOPPED}},
            {{Op::Standby, INVALID_OPERATION, F::STOPPED}, {Op::Start, OK, F::STARTED},
             {Op::Standby, OK, F::STANDBY}, {Op::Standby, OK, F::STANDBY},
             {Op::Start, OK, F::STARTED}},
            {{Op::Start, OK, F::STARTED}, {Op::Standby, OK, F::STANDBY},
             {Op::Stop, OK, F::STOPPED}, {Op::Standby, INVALID_OPERATION, F::STOPPED}},
            // Disabling parks started trackers in standby; nothing starts while disabled.
            {{Op::Start, OK, F::STARTED}, {Op::Disable, OK, F::STANDBY},
             {Op::Start, INVALID_OPERATION, F::STANDBY}, {Op::Stop, OK, F::STOPPED},
             {Op::Start, INVALID_OPERATION, F::STOPPED}, {Op::Enable, OK, F::STOPPED},
             {Op::Start, OK, F::STARTED}, {Op::Enable, OK, F::STARTED}},
            {{Op::Disable, OK, F::STOPPED}, {Op::Standby, INVALID_OPERATION, F::STOPPED}},
    };
    for (size_t s = 0; s < scenarios.size(); ++s) {
        sp<TovarinFacade> facade = makeFacade();
        HeadTrackerHandle handle = facade->getHeadTrackerHandle();
        ASSERT_EQ(handle.id, 0);
        for (size_t i = 0; i < scenarios[s].size(); ++i) {
            const Step& step = scenarios[s][i];
            SCOPED_TRACE(testing::Message() << "scenario " << s << " step " << i << " "
                                            << name(step.op));
            status_t status = OK;
            switch (step.op) {
                case Op::Start: status = facade->start(handle); break;
                case Op::Stop: status = facade->stop(handle); break;
                case Op::Standby: status = facade->standby(handle); break;
                case Op::Disable: facade->setEnabledState(0); break;
                case Op::Enable: facade->setEnabledState(1); break;
            }
            EXPECT_EQ(status, step.status);
            EXPECT_EQ(stateOf(facade, 0), step.after);
        }
    }
}

TEST(TrackerStateMachine, EveryOperationRejectsUnknownAndReleasedHandles) {
    sp<TovarinFacade> facade = makeFacade();
    HeadTrackerHandle held = facade->getHeadTrackerHandle();
    HeadTrackerHandle released = facade->getHeadTrackerHandle();
    facade->releaseHeadTrackerHandle(released);

    const std::vector<std::pair<const char*, std::function<status_t(const HeadTrackerHandle&)>>>
            operations = {
                    {"start", [&](const HeadTrackerHandle& h) { return facade->start(h); }},
                    {"stop", [&](const HeadTrackerHandle& h) { return facade->stop(h); }},
                    {"standby", [&](const HeadTrackerHandle& h) { return facade->standby(h); }},
                    {"setConfiguration",
                     [&](const HeadTrackerHandle& h) {
                         return facade->setConfiguration(h, HeadTrackingConfiguration());
                     }},
                    {"setPid", [&](const HeadTrackerHandle& h) { return facade->setPid(h, 9); }},
                    {"sample",
                     [&](const HeadTrackerHandle& h) {
                         HeadTrackingEvent event;
                         return facade->sample(h, event);
                     }},
            };
    for (const auto& [opName, operation] : operations) {
        for (int32_t id : {released.id, -1, 2, 4, 99, INT32_MAX}) {
            EXPECT_EQ(operation(handleOf(id)), BAD_VALUE) << opName << " id " << id;
        }
    }
    // Nothing above touched the tracker that is held.
    F::TrackerInfo info;
    ASSERT_TRUE(facade->getTrackerInfo(held.id, &info));
    EXPECT_EQ(info.state, F::STOPPED);
    EXPECT_EQ(info.pid, -1);
}

TEST(TrackerConfiguration, ValidatedAndStoredPerTracker) {
    struct Case {
        int32_t fidelity;
        int32_t filter;
        status_t status;
    };
    const Case cases[] = {{0, 0, OK},          {3, 2, OK},          {2, 1, OK},
                          {-1, 1, BAD_VALUE},  {4, 1, BAD_VALUE},   {2, -1, BAD_VALUE},
                          {2, 3, BAD_VALUE},   {INT32_MIN, 0, BAD_VALUE}};
    sp<TovarinFacade> facade = makeFacade();
    HeadTrackerHandle first = facade->getHeadTrackerHandle();
    HeadTrackerHandle second = facade->getHeadTrackerHandle();
    HeadTrackingConfiguration lastGood;
    for (const Case& c : cases) {
        HeadTrackingConfiguration config;
        config.fidelity = c.fidelity;
        config.filter = c.filter;
        config.debugString = "f" + std::to_string(c.fidelity);
        EXPECT_EQ(facade->setConfiguration(first, config), c.status)
                << c.fidelity << "/" << c.filter;
        if (c.status == OK) lastGood = config;
        F::TrackerInfo info;
        ASSERT_TRUE(facade->getTrackerInfo(first.id, &info));
        // A rejected configuration leaves the previous one in force.
        EXPECT_EQ(info.configuration.fidelity, lastGood.fidelity);
        EXPECT_EQ(info.configuration.filter, lastGood.filter);
        EXPECT_EQ(info.configuration.debugString, lastGood.debugString);
    }
    F::TrackerInfo other;
    ASSERT_TRUE(facade->getTrackerInfo(second.id, &other));
    EXPECT_EQ(other.configuration.fidelity, 2);
    EXPECT_EQ(other.configuration.filter, 1);
}

TEST(TrackerConfiguration, DiagnosticsFollowTheStateOnlyWhenAskedTo) {
    KeyValueStore* store = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
    store->clearAll();
    {
        sp<TovarinFacade> quiet = makeFacade();
        HeadTrackerHandle handle = quiet->getHeadTrackerHandle();
        ASSERT_EQ(quiet->start(handle), OK);
        EXPECT_EQ(store->size(), 0u);
    }
    F::Options options;
    options.publishDiagnostics = true;
    sp<TovarinFacade> facade = makeFacade(options);
    auto value = [&](const char* key) {
        std::string text = "(absent)";
        store->get(key, &text);
        return text;
    };
    EXPECT_EQ(value("facade.enabled"), "1");
    EXPECT_EQ(value("facade.trackingState"), "0,0");
    HeadTrackerHandle first = facade->getHeadTrackerHandle();
    HeadTrackerHandle second = facade->getHeadTrackerHandle();
    ASSERT_EQ(facade->setPid(second, 55), OK);
    HeadTrackingConfiguration config;
    config.fidelity = 3;
    ASSERT_EQ(facade->setConfiguration(second, config), OK);
    ASSERT_EQ(facade->start(second), OK);
    EXPECT_EQ(value("tracker.0"), "STOPPED pid -1 fidelity 2 filter 1");
    EXPECT_EQ(value("tracker.1"), "STARTED pid 55 fidelity 3 filter 1");
    EXPECT_EQ(value("facade.trackingState"), "2,0");
    facade->setEnabledState(0);
    EXPECT_EQ(value("facade.enabled"), "0");
    EXPECT_EQ(value("tracker.1"), "STANDBY pid 55 fidelity 3 filter 1");
    facade->releaseHeadTrackerHandle(first);
    EXPECT_EQ(value("tracker.0"), "(absent)");
    EXPECT_EQ(value("facade.trackingState"), "1,2");
    store->clearAll();
}

// Sampling

TEST(TrackerSampling, OnlyStartedTrackersSampleAndTheEventIsLeftAloneOtherwise) {
    sp<TovarinFacade> facade = makeFacade();
    HeadTrackerHandle handle = facade->getHeadTrackerHandle();
    HeadTrackingEvent untouched;
    untouched.component0 = 123.0f;
    strcpy(untouched.text, "mine");
    HeadTrackingEvent event = untouched;
    EXPECT_EQ(facade->sample(handle, event), INVALID_OPERATION);  // stopped
    ASSERT_EQ(facade->start(handle), OK);
    ASSERT_EQ(facade->standby(handle), OK);
    EXPECT_EQ(facade->sample(handle, event), INVALID_OPERATION);  // standby
    EXPECT_EQ(event.component0, 123.0f);
    EXPECT_STREQ(event.text, "mine");

    ASSERT_EQ(facade->start(handle), OK);
    memset(event.text, 'x', sizeof(event.text));  // the sample must terminate the text itself
    const int64_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    ASSERT_EQ(facade->sample(handle, event), OK);
    const int64_t after = systemTime(SYSTEM_TIME_MONOTONIC);
    EXPECT_GE(event.timestamp, before);
    EXPECT_LE(event.timestamp, after);
    EXPECT_STREQ(event.text, "simulated");
    EXPECT_TRUE(event.flag0);
    EXPECT_GT(event.scalar, 0.0f);
    EXPECT_LE(event.scalar, 1.0f);
    EXPECT_EQ(event.flag1, event.scalar >= 0.85f);
    // A plausible head: yaw, pitch and roll in degrees within the range of a human neck.
    EXPECT_LE(fabsf(event.component0), 90.0f);
    EXPECT_LE(fabsf(event.component1), 60.0f);
    EXPECT_LE(fabsf(event.component2), 45.0f);
}

TEST(TrackerSampling, MotionIsSmoothButMoving) {
    sp<TovarinFacade> facade = makeFacade();
    HeadTrackerHandle handle = facade->getHeadTrackerHandle();
    HeadTrackingConfiguration config;
    config.filter = 2;
    ASSERT_EQ(facade->setConfiguration(handle, config), OK);
    ASSERT_EQ(facade->start(handle), OK);

    HeadTrackingEvent previous;
    ASSERT_EQ(facade->sample(handle, previous), OK);
    float travelled = 0.0f;
    for (int i = 0; i < 40; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        HeadTrackingEvent event;
        ASSERT_EQ(facade->sample(handle, event), OK);
        ASSERT_GT(event.timestamp, previous.timestamp);
        const double seconds = double(event.timestamp - previous.timestamp) / 1e9;
        // No jumps: no component moves faster than 60 degrees per second.
        for (auto [a, b] : {std::pair{event.component0, previous.component0},
                            std::pair{event.component1, previous.component1},
                            std::pair{event.component2, previous.component2}}) {
            EXPECT_LE(fabs(a - b), 60.0 * seconds + 1e-3) << "sample " << i;
            travelled += fabsf(a - b);
        }
        previous = event;
    }
    EXPECT_GT(travelled, 0.5f) << "the head does not move";
}

// State change listeners

class RecordingStateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent& event) override {
        if (onEventHook) onEventHook(event);
        std::lock_guard<std::mutex> lock(mLock);
        mEvents.push_back(event);
        mThreads.push_back(std::this_thread::get_id());
        mCond.notify_all();
    }
    std::vector<StateChangeEvent> events() {
        std::lock_guard<std::mutex> lock(mLock);
        return mEvents;
    }
    std::vector<std::thread::id> threads() {
        std::lock_guard<std::mutex> lock(mLock);
        return mThreads;
    }
    bool waitForEvents(size_t count, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mLock);
        return mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return mEvents.size() >= count; });
    }
    std::function<void(const StateChangeEvent&)> onEventHook;

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<StateChangeEvent> mEvents;
    std::vector<std::thread::id> mThreads;
};

struct Expected {
    bool enabled;
    int32_t primary;
    int32_t secondary;
};

void expectEvents(const std::vector<StateChangeEvent>& events, const std::vector<Expected>& want) {
    ASSERT_EQ(events.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(events[i].flag, want[i].enabled) << "event " << i;
        EXPECT_EQ(events[i].state.primary, want[i].primary) << "event " << i;
        EXPECT_EQ(events[i].state.secondary, want[i].secondary) << "event " << i;
        if (i > 0) {
            EXPECT_GE(events[i].timestamp, events[i - 1].timestamp) << "event " << i;
        }
    }
}

TEST(StateChangeListeners, HandlesCountUpFromZeroAndStampTheRegistration) {
    sp<TovarinFacade> facade = makeFacade();
    std::vector<sp<RecordingStateListener>> listeners;
    const int64_t before = systemTime(SYSTEM_TIME_REALTIME) / 1000000;
    for (int i = 0; i < 3; ++i) {
        listeners.push_back(new RecordingStateListener());
        ASSERT_EQ(facade->registerStateChangeListener(listeners.back()), OK);
        EXPECT_EQ(listeners.back()->getHandle(), i);
        EXPECT_GE(listeners.back()->getRegistrationTimestamp(), before);
    }
    // Handles are never reused, even after an unregistration.
    facade->unregisterStateChangeListener(listeners[2]);
    sp<RecordingStateListener> late = new RecordingStateListener();
    ASSERT_EQ(facade->registerStateChangeListener(late), OK);
    EXPECT_EQ(late->getHandle(), 3);
    EXPECT_EQ(facade->getStateChangeListenerCount(), 3u);
    EXPECT_EQ(facade->registerStateChangeListener(nullptr), BAD_VALUE);
    EXPECT_EQ(facade->registerRawDataListener(nullptr), BAD_VALUE);
}

TEST(StateChangeListeners, OneEventPerChangeInOrderFromOneThread) {
    sp<TovarinFacade> facade = makeFacade();
    sp<RecordingStateListener> listener = new RecordingStateListener();
    ASSERT_EQ(facade->registerStateChangeListener(listener), OK);

    HeadTrackerHandle a = facade->getHeadTrackerHandle();  // no change: still idle
    HeadTrackerHandle b = facade->getHeadTrackerHandle();
    ASSERT_EQ(facade->start(a), OK);      // 1: active
    ASSERT_EQ(facade->start(b), OK);      // still active: no event
    ASSERT_EQ(facade->start(a), OK);      // no change
    ASSERT_EQ(facade->standby(a), OK);    // b still started: no event
    ASSERT_EQ(facade->stop(b), OK);       // 2: standby (a)
    facade->setEnabledState(5);           // already enabled: no event
    facade->setEnabledState(0);           // 3: disabled
    facade->setEnabledState(0);           // no change
    EXPECT_FALSE(facade->getEnabled());
    facade->setEnabledState(1);           // 4: enabled
    ASSERT_EQ(facade->start(a), OK);      // 5: active
    facade->setEnabledState(0);           // 6: disabled, a parked in standby
    facade->releaseHeadTrackerHandle(a);  // 7: idle (still disabled)
    facade->setEnabledState(1);           // 8: enabled, idle

    ASSERT_TRUE(facade->waitForStateChangeDelivery(5000));
    expectEvents(listener->events(), {
                                             {true, F::TRACKING_ACTIVE, F::AVAILABILITY_READY},
                                             {true, F::TRACKING_STANDBY, F::AVAILABILITY_READY},
                                             {false, F::TRACKING_STANDBY, F::AVAILABILITY_DISABLED},
                                             {true, F::TRACKING_STANDBY, F::AVAILABILITY_READY},
                                             {true, F::TRACKING_ACTIVE, F::AVAILABILITY_READY},
                                             {false, F::TRACKING_STANDBY, F::AVAILABILITY_DISABLED},
                                             {false, F::TRACKING_IDLE, F::AVAILABILITY_DISABLED},
                                             {true, F::TRACKING_IDLE, F::AVAILABILITY_READY},
                                     });
    // The last event agrees with what the getters say now.
    HeadTrackingState now = facade->getHeadTrackingState();
    EXPECT_EQ(now.primary, F::TRACKING_IDLE);
    EXPECT_EQ(now.secondary, F::AVAILABILITY_READY);

    const auto threads = listener->threads();
    for (const std::thread::id& id : threads) {
        EXPECT_EQ(id, threads.front());
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(StateChangeListeners, UnregisterFindsTheRegistrationByHandle) {
    sp<TovarinFacade> facade = makeFacade();
    sp<RecordingStateListener> first = new RecordingStateListener();
    sp<RecordingStateListener> second = new RecordingStateListener();
    ASSERT_EQ(facade->registerStateChangeListener(first), OK);
    ASSERT_EQ(facade->registerStateChangeListener(second), OK);

    // A stand-in that only carries the first listener's handle, as the service passes it.
    sp<RecordingStateListener> standIn = new RecordingStateListener();
    standIn->setHandle(first->getHandle());
    facade->unregisterStateChangeListener(standIn);
    // Unknown handles and never-registered objects are ignored.
    sp<RecordingStateListener> stranger = new RecordingStateListener();
    facade->unregisterStateChangeListener(stranger);
    stranger->setHandle(57);
    facade->unregisterStateChangeListener(stranger);
    facade->unregisterStateChangeListener(nullptr);
    EXPECT_EQ(facade->getStateChangeListenerCount(), 1u);

    facade->setEnabledState(0);
    ASSERT_TRUE(facade->waitForStateChangeDelivery(5000));
    EXPECT_TRUE(first->events().empty());
    EXPECT_TRUE(standIn->events().empty());
    ASSERT_EQ(second->events().size(), 1u);
    EXPECT_FALSE(second->events()[0].flag);

    // Unregistering twice is harmless.
    facade->unregisterStateChangeListener(second);
    facade->unregisterStateChangeListener(second);
    facade->setEnabledState(1);
    ASSERT_TRUE(facade->waitForStateChangeDelivery(5000));
    EXPECT_EQ(second->events().size(), 1u);
    EXPECT_EQ(facade->getStateChangeListenerCount(), 0u);
}

TEST(StateChangeListeners, ListenerMayCallBackAndSlowListenersDoNotBlockCallers) {
    sp<TovarinFacade> facade = makeFacade();
    sp<RecordingStateListener> listener = new RecordingStateListener();
    std::atomic<int> reentered{0};
    std::atomic<bool> release{false};
    listener->onEventHook = [&](const StateChangeEvent& event) {
        // Calls back into the facade from the delivery thread: must not deadlock.
        EXPECT_EQ(facade->getEnabled(), facade->getEnabled());
        facade->getHeadTrackingState();
        facade->getHardwareState();
        ++reentered;
        while (!release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        (void)event;
    };
    ASSERT_EQ(facade->registerStateChangeListener(listener), OK);

    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) facade->setEnabledState(i % 2);  // 50 changes, listener stuck
    HeadTrackerHandle handle = facade->getHeadTrackerHandle();
    EXPECT_EQ(facade->start(handle), OK);
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(elapsed, std::chrono::milliseconds(500)) << "callers waited for the listener";

    release = true;
    ASSERT_TRUE(listener->waitForEvents(51));
    ASSERT_TRUE(facade->waitForStateChangeDelivery(5000));
    EXPECT_EQ(reentered.load(), 51);
    const auto events = listener->events();
    for (int i = 0; i < 50; ++i) EXPECT_EQ(events[i].flag, (i % 2) == 1) << "event " << i;
}

TEST(StateChangeListeners, NoCallbackAfterShutdown) {
    sp<TovarinFacade> facade = makeFacade();
    sp<RecordingStateListener> listener = new RecordingStateListener();
    ASSERT_EQ(facade->registerStateChangeListener(listener), OK);
    facade->shutdown();
    facade->setEnabledState(0);
    EXPECT_TRUE(facade->waitForStateChangeDelivery(100));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(listener->events().empty());
    EXPECT_FALSE(facade->getEnabled());  // the operations still work
    facade->shutdown();                  // idempotent
}

// Raw data listeners

class RecordingRawListener : public RawDataListener {
public:
    struct Frame {
        int64_t timestamp;
        int64_t tag;
        int32_t width;
        int32_t height;
        bool hasData;
        uint64_t checksum;
        size_t sensorSamples;
        std::string text;
        float orientationNorm;
    };
    void onEvent(const RawDataEvent& event) override {
        const CameraFrameEvent& camera = event.cameraFrameEvent;
        Frame frame{event.timestamp, camera.tag, camera.width, camera.height,
                    camera.data != nullptr, 0, camera.sensorData.size(),
                    event.headTrackingEvent0.text, 0.0f};
        if (camera.data != nullptr) {
            // Reads every byte: ASan reports a buffer shorter than width * height.
            for (int32_t i = 0; i < camera.width * camera.height; ++i) {
                frame.checksum = frame.checksum * 31 + camera.data[i];
            }
        }
        for (float q : event.headLocation0.orientation) frame.orientationNorm += q * q;
        std::lock_guard<std::mutex> lock(mLock);
        mFrames.push_back(frame);
        mCond.notify_all();
    }
    std::vector<Frame> frames() {
        std::lock_guard<std::mutex> lock(mLock);
        return mFrames;
    }
    bool waitForFrames(size_t count, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mLock);
        return mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return mFrames.size() >= count; });
    }

private:
    std::mutex mLock;
    std::condition_variable mCond;
    std::vector<Frame> mFrames;
};

TEST(RawDataListeners, FramesOfAMovingSceneAtTheConfiguredRate) {
    F::Options options;
    options.rawFrameRateHz = 50;
    sp<TovarinFacade> facade = makeFacade(options);
    EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_IDLE);
    sp<RecordingRawListener> listener = new RecordingRawListener();
    ASSERT_EQ(facade->registerRawDataListener(listener), OK);
    EXPECT_EQ(listener->getHandle(), 0);
    EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_STREAMING);

    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    facade->unregisterRawDataListener(listener);
    const auto frames = listener->frames();
    // 50 per second; generous bounds for a loaded machine and sanitizers.
    EXPECT_GE(frames.size(), 10u);
    EXPECT_LE(frames.size(), 60u);
    ASSERT_GE(frames.size(), 2u);
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].width, 640);
        EXPECT_EQ(frames[i].height, 480);
        EXPECT_TRUE(frames[i].hasData);
        EXPECT_EQ(frames[i].sensorSamples, 1u);
        EXPECT_EQ(frames[i].text, "simulated");
        EXPECT_NEAR(frames[i].orientationNorm, 1.0f, 1e-3f);
        if (i > 0) {
            EXPECT_EQ(frames[i].tag, frames[i - 1].tag + 1);
            EXPECT_GT(frames[i].timestamp, frames[i - 1].timestamp);
            EXPECT_NE(frames[i].checksum, frames[i - 1].checksum) << "the scene stands still";
        }
    }
    // After unregistration at most the frame already on its way arrives, then nothing.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const size_t settled = listener->frames().size();
    EXPECT_LE(settled, frames.size() + 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(listener->frames().size(), settled);
    EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_IDLE);
}

TEST(RawDataListeners, RateChangesUnregisterByHandleAndDisabledMeansNoFrames) {
    F::Options options;
    options.rawFrameRateHz = 0.5;  // one frame every two seconds
    sp<TovarinFacade> facade = makeFacade(options);
    sp<RecordingRawListener> first = new RecordingRawListener();
    sp<RecordingRawListener> second = new RecordingRawListener();
    ASSERT_EQ(facade->registerRawDataListener(first), OK);
    ASSERT_EQ(facade->registerRawDataListener(second), OK);
    EXPECT_EQ(second->getHandle(), 1);
    ASSERT_TRUE(first->waitForFrames(1));

    // A faster rate takes effect at once, not after the current two-second period.
    EXPECT_EQ(facade->setRawFrameRate(0), BAD_VALUE);
    EXPECT_EQ(facade->setRawFrameRate(1000), BAD_VALUE);
    EXPECT_EQ(facade->setRawFrameRate(NAN), BAD_VALUE);
    ASSERT_EQ(facade->setRawFrameRate(100), OK);
    EXPECT_EQ(facade->getRawFrameRate(), 100);
    EXPECT_TRUE(first->waitForFrames(5, 1500));

    sp<RecordingRawListener> standIn = new RecordingRawListener();
    standIn->setHandle(first->getHandle());
    facade->unregisterRawDataListener(standIn);
    EXPECT_EQ(facade->getRawDataListenerCount(), 1u);
    const size_t firstCount = first->frames().size();
    ASSERT_TRUE(second->waitForFrames(second->frames().size() + 3));
    EXPECT_LE(first->frames().size(), firstCount + 1);  // at most one already on its way

    facade->setEnabledState(0);
    EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_OFF);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const size_t secondCount = second->frames().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(second->frames().size(), secondCount);
    facade->setEnabledState(1);
    EXPECT_TRUE(second->waitForFrames(secondCount + 2));
}

TEST(RawDataListeners, DestructionStopsDeliveryCleanly) {
    sp<RecordingRawListener> listener = new RecordingRawListener();
    {
        F::Options options;
        options.rawFrameRateHz = 200;
        sp<TovarinFacade> facade = makeFacade(options);
        ASSERT_EQ(facade->registerRawDataListener(listener), OK);
        ASSERT_TRUE(listener->waitForFrames(3));
    }
    const size_t count = listener->frames().size();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(listener->frames().size(), count);
    // The facade let go of the listener.
    EXPECT_EQ(listener->getStrongCount(), 1);
}

TEST(RawDataListeners, ListenersMayDropTheLastReferenceToTheFacade) {
    // Each listener holds the only reference to its facade and lets go of it in a callback, so
    // the facade is destroyed on its own delivery thread. ASan reports any later use.
    static std::atomic<bool> sRelease;
    sRelease = false;
    class Owning : public RecordingRawListener {
    public:
        sp<TovarinFacade> facade;
        void onEvent(const RawDataEvent& event) override {
            RecordingRawListener::onEvent(event);
            while (!sRelease.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            facade.clear();
        }
    };
    class OwningState : public RecordingStateListener {
    public:
        sp<TovarinFacade> facade;
        void onEvent(const StateChangeEvent& event) override {
            RecordingStateListener::onEvent(event);
            while (!sRelease.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            facade.clear();
        }
    };
    sp<Owning> raw = new Owning();
    sp<OwningState> state = new OwningState();
    {
        sp<TovarinFacade> facade = makeFacade();
        raw->facade = facade;
        ASSERT_EQ(facade->registerRawDataListener(raw), OK);
        sp<TovarinFacade> other = makeFacade();
        state->facade = other;
        ASSERT_EQ(other->registerStateChangeListener(state), OK);
        other->setEnabledState(0);
        ASSERT_TRUE(raw->waitForFrames(1));
        ASSERT_TRUE(state->waitForEvents(1));
    }
    sRelease = true;  // both callbacks now drop the last references
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(raw->frames().size(), 1u);
    EXPECT_EQ(state->events().size(), 1u);
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
