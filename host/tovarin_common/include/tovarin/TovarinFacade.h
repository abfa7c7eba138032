/*
 * TovarinFacade: the head-tracking engine behind the service. On a Linux host it is a simulated
 * head tracker: a fixed set of trackers, each with a small state machine, a smooth synthetic head
 * motion for sample(), state change events for registered listeners, and a stream of synthetic
 * camera frames for raw data listeners.
 *
 * Threads: every operation may be called from any thread at any time. No operation waits for a
 * listener. Listener callbacks run on two delivery threads owned by the facade (one for state
 * change events, one for raw data events), never with a lock held that an operation needs, so a
 * listener may call back into the facade, and may even drop the last reference to it.
 *
 * Tracker states (per tracker id 0..trackerCount-1):
 *
 *               getHeadTrackerHandle()
 *      FREE ---------------------------> STOPPED <-------- stop() ---------+
 *       ^                                   |                              |
 *       |                                start()                           |
 *       | releaseHeadTrackerHandle()        v                              |
 *       +---- (from any state)          STARTED ---- standby() ----> STANDBY
 *                                           ^                              |
 *                                           +---------- start() -----------+
 *
 *  - start() on STOPPED or STANDBY gives STARTED; on STARTED it is OK and changes nothing.
 *    While the facade is disabled start() fails with INVALID_OPERATION.
 *  - stop() on STARTED or STANDBY gives STOPPED; on STOPPED it is OK and changes nothing.
 *  - standby() on STARTED gives STANDBY; on STANDBY it is OK; on STOPPED it fails with
 *    INVALID_OPERATION.
 *  - setEnabledState(0) moves every STARTED tracker to STANDBY.
 *  - Any operation on a handle whose id is out of range or FREE fails with BAD_VALUE, except
 *    releaseHeadTrackerHandle(), which then does nothing.
 *  - sample() fills the event only for a STARTED tracker; otherwise INVALID_OPERATION (BAD_VALUE
 *    for an unknown handle) and the event is left as it was.
 *
 * Tracking state reported by getHeadTrackingState() and in StateChangeEvent::state:
 *   primary:   TRACKING_IDLE (no tracker STARTED or STANDBY), TRACKING_STANDBY (some in STANDBY,
 *              none STARTED), TRACKING_ACTIVE (at least one STARTED);
 *   secondary: AVAILABILITY_READY when enabled, AVAILABILITY_DISABLED when disabled.
 * StateChangeEvent::flag is the enabled state. An event is queued on every change of the enabled
 * state or of the tracking state, never when an operation leaves both unchanged.
 *
 * Listener handles are assigned by the facade from 0 upward (one counter per listener kind,
 * never reused) and stored with listener->setHandle(). Unregistration finds the registration by
 * listener->getHandle(), so a different object carrying the same handle unregisters it (the
 * service passes such proxies). A state change event is delivered to the listeners registered
 * when the change happened that are still registered when its delivery begins. A raw data
 * listener may receive one frame that was already on its way when it was unregistered. Raw data
 * flows while the facade is enabled and has raw data listeners, whatever the trackers do; the
 * frame's pixels are valid during the callback only.
 *
 * Motion: poses come from Options::motion (SyntheticMotion when none is given). A tracker's clock
 * starts when it goes from STOPPED to STARTED and keeps running through STANDBY; raw data frames
 * use the time since the facade was created.
 *
 * Faults on demand: keys under "sim." in the overrides store (TovarinOverrides) make the
 * simulated tracker misbehave while they are set; the facade watches the store, so a change
 * takes effect at once, whoever changed the store (the debug interface included):
 *   sim.hardwareState N   getHardwareState() reports N (0 OFF, 1 IDLE, 2 STREAMING)
 *   sim.refuseStart 1     start() of a known handle fails with INVALID_OPERATION
 *   sim.failSamples N     every Nth sample() of a STARTED tracker, counted from the change of
 *                         the key, fails with TIMED_OUT (1: all of them), the event left as it was
 *   sim.confidence C      confidence is at most C (0..1) in samples and raw data events;
 *                         flag1 then follows it (C >= 0.85)
 *   sim.stallEventsMs N   no event is delivered for N ms from the moment the key is set
 *                         (setting it again starts a new stall, clearing it ends the stall);
 *                         state changes meanwhile are delivered afterwards, in order, raw data
 *                         frames of the stalled time are lost
 * A value that does not parse is ignored with a warning, as if the key were not set.
 */
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tovarin/MotionSource.h>
#include <tovarin/TovarinService.h>

namespace morvel {
namespace tovarin {

class TovarinFacade : public TovarinService {
public:
    static constexpr int32_t kFrameWidth = 640;
    static constexpr int32_t kFrameHeight = 480;
    static constexpr int32_t kMaxTrackers = 16;

    enum TrackerState : int32_t { FREE = 0, STOPPED = 1, STARTED = 2, STANDBY = 3 };
    enum : int32_t { TRACKING_IDLE = 0, TRACKING_STANDBY = 1, TRACKING_ACTIVE = 2 };
    enum : int32_t { AVAILABILITY_READY = 0, AVAILABILITY_DISABLED = 2 };
    // getHardwareState(): OFF while disabled; STREAMING while enabled and a tracker is STARTED or
    // a raw data listener is registered; IDLE otherwise.
    enum : int32_t { HARDWARE_OFF = 0, HARDWARE_IDLE = 1, HARDWARE_STREAMING = 2 };

    struct Options {
        int32_t trackerCount = 4;      // 1..kMaxTrackers; out of range values are clamped
        double rawFrameRateHz = 30.0;  // raw data events per second, 0.1..240 (clamped)
        bool enabled = true;           // initial enabled state
        // Keep the debug diagnostics store (TovarinDiagnostics::DEBUG) up to date with the
        // facade's state: keys "facade.enabled", "facade.trackingState" and "tracker.<id>" for
        // every held tracker. Off by default so that the store belongs to its other users.
        bool publishDiagnostics = false;
        // Where poses come from; null means SyntheticMotion.
        std::shared_ptr<const MotionSource> motion;
    };

    // The keys of the faults on demand (see above).
    static const char kSimHardwareState[];
    static const char kSimRefuseStart[];
    static const char kSimFailSamples[];
    static const char kSimConfidence[];
    static const char kSimStallEventsMs[];

    struct TrackerInfo {
        int32_t id = -1;
        TrackerState state = FREE;
        int32_t pid = -1;  // as recorded by setPid(); -1 after allocation
        HeadTrackingConfiguration configuration;
    };

    TovarinFacade();
    explicit TovarinFacade(const Options& options);
    // Stops and joins the delivery threads (see shutdown()).
    ~TovarinFacade() override;

    android::status_t registerRawDataListener(android::sp<RawDataListener> listener) override;
    void unregisterRawDataListener(android::sp<RawDataListener> listener) override;
    void setEnabledState(int enabled) override;
    bool getEnabled() const override;
    int32_t getHardwareState() const override;
    HeadTrackingState getHeadTrackingState() const override;
    android::status_t registerStateChangeListener(
            android::sp<StateChangeListener> listener) override;
    void unregisterStateChangeListener(android::sp<StateChangeListener> listener) override;
    HeadTrackerHandle getHeadTrackerHandle() override;
    void releaseHeadTrackerHandle(const HeadTrackerHandle& handle) override;
    android::status_t start(const HeadTrackerHandle& handle) override;
    android::status_t stop(const HeadTrackerHandle& handle) override;
    android::status_t standby(const HeadTrackerHandle& handle) override;
    android::status_t setConfiguration(const HeadTrackerHandle& handle,
                                       const HeadTrackingConfiguration& config) override;
    android::status_t sample(const HeadTrackerHandle& handle,
                             HeadTrackingEvent& event) const override;
    android::status_t setPid(const HeadTrackerHandle& handle, int pid) override;

    // Host extras (not part of the service interface).

    // Stops both delivery threads and waits for them; undelivered events are dropped and no
    // listener is called after it returns. Operations keep working afterwards, but no event is
    // delivered any more. Idempotent; safe from several threads at once. Called from a listener
    // callback it stops delivery without waiting (the threads end when their callbacks return).
    virtual void shutdown();

    // Changes the raw data event rate (BAD_VALUE outside 0.1..240 per second).
    virtual android::status_t setRawFrameRate(double hz);
    virtual double getRawFrameRate() const;

    int32_t getTrackerCount() const { return mTrackerCount; }
    // False for an id out of range.
    virtual bool getTrackerInfo(int32_t id, TrackerInfo* out) const;
    virtual size_t getStateChangeListenerCount() const;
    virtual size_t getRawDataListenerCount() const;

    // Waits until every state change event queued before the call has been delivered (or the
    // facade was shut down). False on timeout. For tests and tools; not from a callback.
    bool waitForStateChangeDelivery(int64_t timeoutMs) const;

private:
    struct Tracker {
        TrackerState state = FREE;
        int32_t pid = -1;
        HeadTrackingConfiguration configuration;
        int64_t startedNs = 0;  // when it last went from STOPPED to STARTED
    };
    // The faults on demand in force, as read from the overrides store.
    struct Faults {
        bool forceHardwareState = false;
        int32_t hardwareState = 0;
        bool refuseStart = false;
        int64_t failSamplesEvery = 0;  // 0: none
        double confidenceCap = -1.0;   // < 0: none
        std::chrono::steady_clock::time_point stallUntil;
    };
    struct PendingStateChange {
        uint64_t sequence = 0;
        StateChangeEvent event;
        std::vector<std::pair<int32_t, android::sp<StateChangeListener>>> listeners;
    };

    // All *Locked functions expect mLock held.
    Tracker* findTrackerLocked(const HeadTrackerHandle& handle);
    const Tracker* findTrackerLocked(const HeadTrackerHandle& handle) const;
    HeadTrackingState trackingStateLocked() const;
    // Queues a state change event if the enabled or tracking state differs from the last one
    // reported.
    void noteStateLocked();
    void publishDiagnosticsLocked() const;
    void stopThreads(bool destroying);
    void stateDeliveryLoop();
    void rawDeliveryLoop();
    void renderFrame(int64_t frameIndex, const HeadTrackingEvent& pose,
                     unsigned char* pixels) const;
    // Fills *event with the pose elapsedNs into a tracker's clock, stamped timeNs; applies the
    // confidence fault given.
    void fillSample(int64_t elapsedNs, const HeadTrackingConfiguration& config, int64_t timeNs,
                    double confidenceCap, HeadTrackingEvent* event) const;
    // Called by the overrides store on every change; `key` is the key changed ("" for all).
    void onOverrideChanged(const std::string& key);
    bool stalledLocked() const;

    const int32_t mTrackerCount;
    const int64_t mEpochNs;  // origin of the raw data frames' motion clock
    const bool mPublishDiagnostics;
    const std::shared_ptr<const MotionSource> mMotion;
    int mOverridesObserver = -1;

    mutable std::mutex mLock;
    std::condition_variable mStateCond;      // a state change was queued, or shutdown
    mutable std::condition_variable mDeliveredCond;  // mDeliveredSequence advanced
    std::condition_variable mRawCond;        // raw listeners or rate changed, or shutdown
    bool mShutdown = false;
    bool mEnabled = true;
    double mRawFrameRateHz = 30.0;
    std::vector<Tracker> mTrackers;
    HeadTrackingState mReportedState;
    bool mReportedEnabled = true;
    std::map<int32_t, android::sp<StateChangeListener>> mStateListeners;
    std::map<int32_t, android::sp<RawDataListener>> mRawListeners;
    int32_t mNextStateListenerHandle = 0;
    int32_t mNextRawListenerHandle = 0;
    std::deque<PendingStateChange> mPendingStateChanges;
    uint64_t mQueuedSequence = 0;
    uint64_t mDeliveredSequence = 0;
    Faults mFaults;
    mutable uint64_t mSampleCount = 0;  // sample() calls of STARTED trackers, for failSamples

    std::mutex mJoinLock;  // serialises joining the delivery threads
    std::thread mStateThread;
    std::thread mRawThread;
    std::thread::id mStateThreadId;  // set by the constructor, constant afterwards
    std::thread::id mRawThreadId;
};

}  // namespace tovarin
}  // namespace morvel
