// The simulated head tracker behind TovarinFacade: tracker allocation, the per-tracker state
// machine, configuration, sampling and its motion, and delivery to state change and raw data
// listeners from the facade's own threads.

#include <math.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <hostbinder_test/Roles.h>
#include <utils/Timers.h>

#include <tovarin/ReplayMotion.h>
#include <tovarin/SyntheticMotion.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinFacade.h>
#include <tovarin/TovarinOverrides.h>

namespace morvel {
namespace tovarin {
namespace {

using android::BAD_VALUE;
using android::INVALID_OPERATION;
using android::OK;
using android::sp;
using android::status_t;
using hostbinder_test::kDeadlineMs;
using hostbinder_test::waitUntil;
using F = TovarinFacade;

HeadTrackerHandle handleOf(int32_t id) {
    HeadTrackerHandle handle;
    handle.id = id;
    return handle;
}

// One letter per tracker: F free, T stopped, S started, B standby.
std::string states(const sp<TovarinFacade>& facade) {
    std::string letters;
    F::TrackerInfo info;
    for (int32_t id = 0; facade->getTrackerInfo(id, &info); ++id) letters += "FTSB"[info.state];
    return letters;
}

TEST(Trackers, LowestFreeIdFirstAndOnlyHeldIdsAreAccepted) {
    for (int32_t count : {4, 2}) {  // 4 is the default
        SCOPED_TRACE(count);
        F::Options options;
        if (count != 4) options.trackerCount = count;
        sp<TovarinFacade> facade = new TovarinFacade(options);
        for (int32_t id = 0; id < count; ++id) EXPECT_EQ(facade->getHeadTrackerHandle().id, id);
        EXPECT_EQ(facade->getHeadTrackerHandle().id, -1);
        F::TrackerInfo info;
        EXPECT_FALSE(facade->getTrackerInfo(-1, &info));

        HeadTrackingConfiguration config;
        config.fidelity = 3;
        ASSERT_EQ(facade->start(handleOf(0)), OK);
        ASSERT_EQ(facade->setConfiguration(handleOf(0), config), OK);
        ASSERT_EQ(facade->setPid(handleOf(0), 321), OK);
        facade->releaseHeadTrackerHandle(handleOf(count - 1));
        // Every operation refuses ids that are free or out of range; releasing them does nothing.
        HeadTrackingEvent event;
        for (int32_t id : {count - 1, -1, count, INT32_MIN}) {
            SCOPED_TRACE(id);
            const HeadTrackerHandle h = handleOf(id);
            facade->releaseHeadTrackerHandle(h);
            EXPECT_EQ(facade->start(h), BAD_VALUE);
            EXPECT_EQ(facade->stop(h), BAD_VALUE);
            EXPECT_EQ(facade->standby(h), BAD_VALUE);
            EXPECT_EQ(facade->setConfiguration(h, config), BAD_VALUE);
            EXPECT_EQ(facade->setPid(h, 9), BAD_VALUE);
            EXPECT_EQ(facade->sample(h, event), BAD_VALUE);
        }
        EXPECT_EQ(states(facade), count == 4 ? "STTF" : "SF");

        // Freed ids come back lowest first, stopped, with no pid and the default configuration.
        facade->releaseHeadTrackerHandle(handleOf(0));
        EXPECT_EQ(facade->getHeadTrackerHandle().id, 0);
        ASSERT_TRUE(facade->getTrackerInfo(0, &info));
        EXPECT_EQ(info.pid, -1);
        EXPECT_EQ(info.configuration.fidelity, 2);
        EXPECT_EQ(facade->getHeadTrackerHandle().id, count - 1);
        EXPECT_EQ(states(facade), std::string(count, 'T'));
    }
}

TEST(Trackers, ConcurrentCallersNeverShareATracker) {
    sp<TovarinFacade> facade = new TovarinFacade();
    std::atomic<int> owners[4] = {};
    std::atomic<int> shared{0};
    std::vector<std::thread> threads;
    for (int t = 1; t <= 6; ++t) {  // more callers than trackers
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                const HeadTrackerHandle handle = facade->getHeadTrackerHandle();
                if (handle.id < 0 || handle.id >= 4) continue;
                if (owners[handle.id].exchange(t) != 0) ++shared;
                EXPECT_EQ(facade->start(handle), OK);
                owners[handle.id].store(0);
                facade->releaseHeadTrackerHandle(handle);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(shared.load(), 0) << "a tracker was given to two holders at once";
    EXPECT_EQ(states(facade), "FFFF");
}

// Each step is an operation and the state after it (letters as states() has them), joined by
// '=' when it succeeds and by '!' when it fails with INVALID_OPERATION. simV sets the fault key
// sim.refuseStart to V (start() fails while it is 1; other values count as not set), sim clears it.
TEST(Trackers, StateMachine) {
    const char* const scenarios[] = {
            "start=S start=S stop=T stop=T",
            "standby!T start=S standby=B standby=B start=S",
            "start=S standby=B stop=T standby!T",
            // Disabling parks started trackers in standby; nothing starts while disabled.
            "start=S disable=B start!B stop=T start!T enable=T start=S enable=S",
            "sim1=T start!T sim=T start=S stop=T sim1x=T start=S stop=T sim2=T start=S stop=T "
            "sim-1=T start=S stop=T sim0=T start=S sim=S",
    };
    for (const char* scenario : scenarios) {
        sp<TovarinFacade> facade = new TovarinFacade();
        const HeadTrackerHandle handle = facade->getHeadTrackerHandle();
        std::istringstream steps(scenario);
        for (std::string step; steps >> step;) {
            SCOPED_TRACE(std::string(scenario) + ": " + step);
            const std::string op = step.substr(0, step.size() - 2);
            status_t status = OK;
            if (op == "start") status = facade->start(handle);
            if (op == "stop") status = facade->stop(handle);
            if (op == "standby") status = facade->standby(handle);
            if (op == "disable" || op == "enable") facade->setEnabledState(op == "enable");
            if (op == "sim") TovarinOverrides::getInstance()->clear(F::kSimRefuseStart);
            if (op.size() > 3 && op.rfind("sim", 0) == 0) {
                TovarinOverrides::getInstance()->set(F::kSimRefuseStart, op.c_str() + 3);
            }
            EXPECT_EQ(status, step[op.size()] == '=' ? OK : INVALID_OPERATION);
            EXPECT_EQ(states(facade), step.substr(op.size() + 1) + "FFF");
        }
    }
}

TEST(Trackers, ConfigurationIsValidatedStoredPerTrackerAndPublishedWhenAskedTo) {
    KeyValueStore* store = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
    store->clearAll();
    {
        sp<TovarinFacade> quiet = new TovarinFacade();
        ASSERT_EQ(quiet->start(quiet->getHeadTrackerHandle()), OK);
        EXPECT_EQ(store->size(), 0u);
    }
    F::Options options;
    options.publishDiagnostics = true;
    sp<TovarinFacade> facade = new TovarinFacade(options);
    auto published = [&] { return std::string(store->toString().string()); };
    EXPECT_EQ(published(), "facade.enabled=1\nfacade.trackingState=0,0");
    const HeadTrackerHandle first = facade->getHeadTrackerHandle();
    const HeadTrackerHandle second = facade->getHeadTrackerHandle();

    // fidelity 0..3, filter 0..2; a refused configuration leaves the previous one in force.
    const int32_t tries[][3] = {
            {0, 0, OK},         {3, 2, OK},        {-1, 1, BAD_VALUE},       {4, 1, BAD_VALUE},
            {2, -1, BAD_VALUE}, {2, 3, BAD_VALUE}, {INT32_MIN, 0, BAD_VALUE}};
    for (const auto& [fidelity, filter, status] : tries) {
        HeadTrackingConfiguration config;
        config.fidelity = fidelity;
        config.filter = filter;
        EXPECT_EQ(facade->setConfiguration(second, config), status) << fidelity << "/" << filter;
    }
    ASSERT_EQ(facade->setPid(second, 55), OK);
    ASSERT_EQ(facade->start(second), OK);
    EXPECT_EQ(published(),
              "facade.enabled=1\nfacade.trackingState=2,0\ntracker.0=STOPPED pid -1 fidelity 2 "
              "filter 1\ntracker.1=STARTED pid 55 fidelity 3 filter 2");
    facade->setEnabledState(0);
    facade->releaseHeadTrackerHandle(first);
    EXPECT_EQ(published(),
              "facade.enabled=0\nfacade.trackingState=1,2\ntracker.1=STANDBY pid 55 fidelity 3 "
              "filter 2");
    store->clearAll();
}

// A replayed recording, still for a minute, so that a sample taken soon after start() is its
// first sample exactly: poses come from each tracker's clock, which starts with start().
TEST(TrackerSampling, OnlyStartedTrackersSampleTheMotionSource) {
    F::Options options;
    MotionRecording recording;
    std::string error;
    ASSERT_TRUE(MotionRecording::parse(
            "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,text\n0,11,-7,3,0.5,take-1\n"
            "60000000000,11,-7,3,0.5,take-1\n61000000000,50,50,50,1,take-1\n",
            &recording, &error));
    options.motion = std::make_shared<const ReplayMotion>(recording, false);
    sp<TovarinFacade> facade = new TovarinFacade(options);
    const HeadTrackerHandle handle = facade->getHeadTrackerHandle();
    HeadTrackingEvent event;
    strcpy(event.text, "mine");
    EXPECT_EQ(facade->sample(handle, event), INVALID_OPERATION);  // stopped
    ASSERT_EQ(facade->start(handle), OK);
    ASSERT_EQ(facade->standby(handle), OK);
    EXPECT_EQ(facade->sample(handle, event), INVALID_OPERATION);  // standby
    EXPECT_STREQ(event.text, "mine");

    ASSERT_EQ(facade->start(handle), OK);
    memset(event.text, 'x', sizeof(event.text));  // the sample must terminate the text itself
    const int64_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    ASSERT_EQ(facade->sample(handle, event), OK);
    EXPECT_GE(event.timestamp, before);  // the time of sampling, not the recording's
    EXPECT_LE(event.timestamp, systemTime(SYSTEM_TIME_MONOTONIC));
    std::ostringstream seen;
    seen << event.component0 << " " << event.component1 << " " << event.component2 << " "
         << event.scalar << " " << event.flag0 << event.flag1 << " " << event.text;
    EXPECT_EQ(seen.str(), "11 -7 3 0.5 10 take-1");
}

// The synthetic head over a minute: within the range of a human neck, never faster than 60
// degrees per second, and the stronger the filter the less it jitters.
TEST(TrackerSampling, SyntheticMotionIsASmoothPlausibleHead) {
    double jitter[3] = {};  // the largest difference of each filter's yaw from filter 2's
    MotionPose poses[3], previous;
    for (int64_t t = 0; t <= 60000000000; t += 10000000) {
        for (int32_t filter = 2; filter >= 0; --filter) {
            HeadTrackingConfiguration config;
            config.filter = filter;
            SyntheticMotion().poseAt(t, config, &poses[filter]);
            jitter[filter] = std::max(jitter[filter], fabs(poses[filter].yaw - poses[2].yaw));
        }
        const MotionPose& pose = poses[2];
        ASSERT_TRUE(fabs(pose.yaw) <= 90 && fabs(pose.pitch) <= 60 && fabs(pose.roll) <= 45) << t;
        const double moved =
                std::max({fabs(pose.yaw - previous.yaw), fabs(pose.pitch - previous.pitch),
                          fabs(pose.roll - previous.roll)});
        ASSERT_LE(t > 0 ? moved : 0.0, 0.6) << t;  // in 10 ms
        previous = pose;
    }
    EXPECT_GT(jitter[0], jitter[1]);
    EXPECT_GT(jitter[1], 0.0);
}

// Keeps a summary of each event a listener hears, made on the delivery thread, then runs `hook`.
template <typename Listener, typename Event, typename Summary>
class Recorder : public Listener {
public:
    explicit Recorder(std::function<Summary(const Event&)> summarize) : mSummarize(summarize) {}
    void onEvent(const Event& event) override {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mHeard.push_back(mSummarize(event));
        }
        if (hook) hook();
    }
    std::vector<Summary> heard() {
        std::lock_guard<std::mutex> lock(mLock);
        return mHeard;
    }
    bool waitFor(size_t count, int timeoutMs = kDeadlineMs) {
        return waitUntil([&] { return heard().size() >= count; }, timeoutMs);
    }
    std::function<void()> hook;

private:
    const std::function<Summary(const Event&)> mSummarize;
    std::mutex mLock;
    std::vector<Summary> mHeard;
};

using StateRecorder = Recorder<StateChangeListener, StateChangeEvent, StateChangeEvent>;

sp<StateRecorder> stateRecorder() {
    return new StateRecorder([](const StateChangeEvent& event) { return event; });
}

// Handles count up from 0 and are never reused; unregistration goes by handle, so a stand-in
// carrying one unregisters its listener (as the service passes them). Every change is delivered
// once, in order, to the listeners registered then.
TEST(StateChangeListeners, OneEventPerChangeInOrderToTheListenersRegistered) {
    sp<TovarinFacade> facade = new TovarinFacade();
    std::vector<sp<StateRecorder>> listeners;
    const int64_t before = systemTime(SYSTEM_TIME_REALTIME) / 1000000;
    for (int i = 0; i < 3; ++i) {
        listeners.push_back(stateRecorder());
        ASSERT_EQ(facade->registerStateChangeListener(listeners.back()), OK);
        EXPECT_EQ(listeners.back()->getHandle(), i);
        // Stamped in milliseconds of the wall clock.
        EXPECT_GE(listeners.back()->getRegistrationTimestamp(), before);
        EXPECT_LE(listeners.back()->getRegistrationTimestamp(), before + 10000);
    }
    sp<StateRecorder> standIn = stateRecorder();
    standIn->setHandle(listeners[1]->getHandle());
    for (const sp<StateRecorder>& gone : {standIn, listeners[2], listeners[2]}) {
        facade->unregisterStateChangeListener(gone);
    }
    standIn->setHandle(57);
    facade->unregisterStateChangeListener(standIn);
    facade->unregisterStateChangeListener(nullptr);
    EXPECT_EQ(facade->getStateChangeListenerCount(), 1u);
    listeners.push_back(stateRecorder());
    ASSERT_EQ(facade->registerStateChangeListener(listeners.back()), OK);
    EXPECT_EQ(listeners.back()->getHandle(), 3);

    const HeadTrackerHandle a = facade->getHeadTrackerHandle();  // no change: still idle
    const HeadTrackerHandle b = facade->getHeadTrackerHandle();
    ASSERT_EQ(facade->start(a), OK);      // 1: active
    ASSERT_EQ(facade->start(b), OK);      // still active: no event
    ASSERT_EQ(facade->start(a), OK);      // no change
    ASSERT_EQ(facade->standby(a), OK);    // b still started: no event
    ASSERT_EQ(facade->stop(b), OK);       // 2: standby (a)
    facade->setEnabledState(5);           // already enabled: no event
    facade->setEnabledState(0);           // 3: disabled
    facade->setEnabledState(0);           // no change
    facade->setEnabledState(1);           // 4: enabled
    ASSERT_EQ(facade->start(a), OK);      // 5: active
    facade->setEnabledState(0);           // 6: disabled, a parked in standby
    facade->releaseHeadTrackerHandle(a);  // 7: idle (still disabled)
    facade->setEnabledState(1);           // 8: enabled, idle

    ASSERT_TRUE(facade->waitForStateChangeDelivery(kDeadlineMs));
    for (const sp<StateRecorder>& gone : {listeners[1], listeners[2], standIn}) {
        EXPECT_TRUE(gone->heard().empty());
    }
    // Per event: enabled flag, tracking state (0 idle, 1 standby, 2 active), availability (0
    // ready, 2 disabled); then the same for what the getters say now.
    for (const sp<StateRecorder>& listener : {listeners[0], listeners[3]}) {
        std::string seen;
        const std::vector<StateChangeEvent> heard = listener->heard();
        for (size_t i = 0; i < heard.size(); ++i) {
            const StateChangeEvent& event = heard[i];
            seen += std::to_string(event.flag) + std::to_string(event.state.primary) +
                    std::to_string(event.state.secondary) + " ";
            EXPECT_GE(event.timestamp, heard[i ? i - 1 : 0].timestamp) << i;
        }
        const HeadTrackingState now = facade->getHeadTrackingState();
        seen += std::to_string(now.primary) + std::to_string(now.secondary);
        EXPECT_EQ(seen, "120 110 012 110 120 012 002 100 00");
    }
}

TEST(StateChangeListeners, ListenerMayCallBackAndSlowListenersDoNotBlockCallers) {
    sp<TovarinFacade> facade = new TovarinFacade();
    sp<StateRecorder> listener = stateRecorder();
    std::atomic<int> reentered{0};
    std::atomic<bool> release{false};
    listener->hook = [&] {
        // Calls back into the facade from the delivery thread: must not deadlock.
        facade->getEnabled();
        facade->getHeadTrackingState();
        facade->getHardwareState();
        ++reentered;
        waitUntil([&] { return release.load(); });
    };
    ASSERT_EQ(facade->registerStateChangeListener(listener), OK);

    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 50; ++i) facade->setEnabledState(i % 2);  // 50 changes, listener stuck
    EXPECT_EQ(facade->start(facade->getHeadTrackerHandle()), OK);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500))
            << "callers waited for the listener";

    release = true;
    ASSERT_TRUE(listener->waitFor(51));
    ASSERT_TRUE(facade->waitForStateChangeDelivery(kDeadlineMs));
    EXPECT_EQ(reentered.load(), 51);
    const auto heard = listener->heard();
    for (int i = 0; i < 50; ++i) EXPECT_EQ(heard[i].flag, (i % 2) == 1) << i;

    // After shutdown() no listener hears of anything, but the operations still work.
    facade->shutdown();
    facade->setEnabledState(0);
    EXPECT_TRUE(facade->waitForStateChangeDelivery(kDeadlineMs));
    EXPECT_FALSE(facade->getEnabled());
    facade->shutdown();  // idempotent
    EXPECT_EQ(listener->heard().size(), 51u);
}

struct Frame {
    int64_t timestamp;
    int64_t tag;
    uint64_t checksum;
};
using RawRecorder = Recorder<RawDataListener, RawDataEvent, Frame>;

// Checks each frame as it comes and keeps what later frames are compared with.
sp<RawRecorder> rawRecorder() {
    return new RawRecorder([](const RawDataEvent& event) {
        const CameraFrameEvent& camera = event.cameraFrameEvent;
        EXPECT_EQ(camera.width, 640);
        EXPECT_EQ(camera.height, 480);
        EXPECT_EQ(camera.sensorData.size(), 1u);
        EXPECT_STREQ(event.headTrackingEvent0.text, "simulated");
        float norm = 0.0f;
        for (float q : event.headLocation0.orientation) norm += q * q;
        EXPECT_NEAR(norm, 1.0f, 1e-3f);
        // Reads every byte: ASan reports a buffer shorter than width * height.
        Frame frame{event.timestamp, camera.tag, 0};
        for (int32_t i = 0; camera.data != nullptr && i < camera.width * camera.height; ++i) {
            frame.checksum = frame.checksum * 31 + camera.data[i];
        }
        return frame;
    });
}

TEST(RawDataListeners, FramesAtTheRateUntilUnregisteredDisabledOrDestroyed) {
    sp<RawRecorder> first = rawRecorder();
    sp<RawRecorder> second = rawRecorder();
    {
        sp<TovarinFacade> facade = new TovarinFacade();
        for (double hz : {0.0, 0.09, 240.1, double(NAN), 240.0}) {
            EXPECT_EQ(facade->setRawFrameRate(hz), hz == 240.0 ? OK : BAD_VALUE) << hz;
        }
        ASSERT_EQ(facade->setRawFrameRate(0.1), OK);  // one frame every ten seconds
        EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_IDLE);
        ASSERT_EQ(facade->registerRawDataListener(first), OK);
        ASSERT_EQ(facade->registerRawDataListener(second), OK);
        EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_STREAMING);
        ASSERT_TRUE(first->waitFor(1));

        // A faster rate takes effect at once, not after the current ten-second period.
        ASSERT_EQ(facade->setRawFrameRate(100), OK);
        EXPECT_TRUE(first->waitFor(9, 1500));

        // A stand-in carrying the handle unregisters; at most the frame on its way still comes.
        sp<RawRecorder> standIn = rawRecorder();
        standIn->setHandle(first->getHandle());
        facade->unregisterRawDataListener(standIn);
        const size_t firstCount = first->heard().size();
        ASSERT_TRUE(second->waitFor(second->heard().size() + 3));
        EXPECT_LE(first->heard().size(), firstCount + 1);

        // Nothing flows while disabled; with no frame to wait for, watch for five periods.
        facade->setEnabledState(0);
        EXPECT_EQ(facade->getHardwareState(), F::HARDWARE_OFF);
        const size_t secondCount = second->heard().size();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_LE(second->heard().size(), secondCount + 1);
        facade->setEnabledState(1);
        EXPECT_TRUE(second->waitFor(secondCount + 3));
    }
    // Destroying the facade stopped delivery and let go of the listeners.
    EXPECT_EQ(second->getStrongCount(), 1);
    const auto frames = first->heard();
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].tag, frames[i - 1].tag + 1) << i;
        EXPECT_GT(frames[i].timestamp, frames[i - 1].timestamp) << i;
        EXPECT_NE(frames[i].checksum, frames[i - 1].checksum) << i << ": the scene stands still";
    }
    // At 100 a second each frame waits out its period from when the previous one began (a
    // period of slack for the clock reads of the first).
    EXPECT_GE(frames.back().timestamp - frames[1].timestamp, int64_t(frames.size() - 3) * 10000000)
            << "faster than 100 frames a second";
}

// Each listener holds the only reference to its facade and lets go of it in a callback, so the
// facade is destroyed on its own delivery thread. ASan reports any later use.
TEST(RawDataListeners, ListenersMayDropTheLastReferenceToTheFacade) {
    std::atomic<bool> release{false};
    std::atomic<int> dropped{0};
    sp<TovarinFacade> rawOwner = new TovarinFacade();
    sp<TovarinFacade> stateOwner = new TovarinFacade();
    sp<RawRecorder> raw = rawRecorder();
    sp<StateRecorder> state = stateRecorder();
    auto dropOnRelease = [&](sp<TovarinFacade>* owner) {
        return [&, owner] {
            waitUntil([&] { return release.load(); });
            owner->clear();
            ++dropped;
        };
    };
    raw->hook = dropOnRelease(&rawOwner);
    state->hook = dropOnRelease(&stateOwner);
    ASSERT_EQ(rawOwner->registerRawDataListener(raw), OK);
    ASSERT_EQ(stateOwner->registerStateChangeListener(state), OK);
    stateOwner->setEnabledState(0);
    ASSERT_TRUE(raw->waitFor(1));
    ASSERT_TRUE(state->waitFor(1));
    release = true;  // both callbacks now drop the last references
    ASSERT_TRUE(waitUntil([&] { return dropped.load() == 2; }));
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
