#include <tovarin/TovarinFacade.h>

#include <errno.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include <utils/Timers.h>

#include <tovarin/SyntheticMotion.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/TovarinOverrides.h>

namespace morvel {
namespace tovarin {

using android::BAD_VALUE;
using android::INVALID_OPERATION;
using android::OK;
using android::sp;
using android::status_t;
using android::TIMED_OUT;

namespace {

constexpr const char* kLogTag = "TovarinFacade";
int32_t sLogState = -1;

constexpr double kPi = 3.14159265358979323846;
constexpr double kMinFrameRateHz = 0.1;
constexpr double kMaxFrameRateHz = 240.0;
constexpr int32_t kMaxFidelity = 3;
constexpr int32_t kMaxFilter = 2;
// State changes waiting for delivery beyond this are dropped, oldest first, so that a slow
// listener and a caller toggling the state cannot grow memory without bound.
constexpr size_t kMaxPendingStateChanges = 1024;

constexpr int64_t kMaxStallMs = 3600 * 1000;

// Unit quaternion (x, y, z, w) of intrinsic yaw (about y), pitch (about x), roll (about z).
void quaternionFromPose(double yawDeg, double pitchDeg, double rollDeg, float out[4]) {
    const double toRad = kPi / 180.0;
    double cy = cos(yawDeg * toRad / 2), sy = sin(yawDeg * toRad / 2);
    double cp = cos(pitchDeg * toRad / 2), sp = sin(pitchDeg * toRad / 2);
    double cr = cos(rollDeg * toRad / 2), sr = sin(rollDeg * toRad / 2);
    out[0] = static_cast<float>(cy * sp * cr + sy * cp * sr);
    out[1] = static_cast<float>(sy * cp * cr - cy * sp * sr);
    out[2] = static_cast<float>(cy * cp * sr - sy * sp * cr);
    out[3] = static_cast<float>(cy * cp * cr + sy * sp * sr);
}

// Set on a delivery thread whose callback destroyed the facade: the thread's loop must leave
// without touching the facade again.
thread_local const void* tDestroyedFacade = nullptr;

int64_t nowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

// Reads an integer override in [min, max]; false when absent or malformed (logged).
bool readOverride(const char* key, int64_t min, int64_t max, int64_t* out) {
    std::string text;
    if (!TovarinOverrides::getInstance()->get(key, &text)) return false;
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && errno == 0 && value >= min && value <= max) {
        *out = value;
        return true;
    }
    if (TovarinLogger::getInstance()->shouldLog(kLogTag, 5)) {
        rendel_log_write2(5, &sLogState, 2, kLogTag, "ignoring %s=%s: not an integer in %lld..%lld",
                          key, text.c_str(), static_cast<long long>(min),
                          static_cast<long long>(max));
    }
    return false;
}

bool readOverride(const char* key, double min, double max, double* out) {
    std::string text;
    if (!TovarinOverrides::getInstance()->get(key, &text)) return false;
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && value >= min && value <= max) {
        *out = value;
        return true;
    }
    if (TovarinLogger::getInstance()->shouldLog(kLogTag, 5)) {
        rendel_log_write2(5, &sLogState, 2, kLogTag, "ignoring %s=%s: not a number in %g..%g", key,
                          text.c_str(), min, max);
    }
    return false;
}

}  // namespace

const char TovarinFacade::kSimHardwareState[] = "sim.hardwareState";
const char TovarinFacade::kSimRefuseStart[] = "sim.refuseStart";
const char TovarinFacade::kSimFailSamples[] = "sim.failSamples";
const char TovarinFacade::kSimConfidence[] = "sim.confidence";
const char TovarinFacade::kSimStallEventsMs[] = "sim.stallEventsMs";

TovarinFacade::TovarinFacade() : TovarinFacade(Options()) {}

TovarinFacade::TovarinFacade(const Options& options)
    : mTrackerCount(std::clamp<int32_t>(options.trackerCount, 1, kMaxTrackers)),
      mEpochNs(nowNs()),
      mPublishDiagnostics(options.publishDiagnostics),
      mMotion(options.motion != nullptr ? options.motion
                                        : std::make_shared<const SyntheticMotion>()) {
    mEnabled = options.enabled;
    mReportedEnabled = mEnabled;
    const double rate = isnan(options.rawFrameRateHz) ? Options().rawFrameRateHz
                                                       : options.rawFrameRateHz;
    mRawFrameRateHz = std::clamp(rate, kMinFrameRateHz, kMaxFrameRateHz);
    mTrackers.resize(static_cast<size_t>(mTrackerCount));
    mReportedState = trackingStateLocked();
    publishDiagnosticsLocked();
    mStateThread = std::thread(&TovarinFacade::stateDeliveryLoop, this);
    mRawThread = std::thread(&TovarinFacade::rawDeliveryLoop, this);
    mStateThreadId = mStateThread.get_id();
    mRawThreadId = mRawThread.get_id();
    // Faults already set count from now on.
    onOverrideChanged(std::string());
    mOverridesObserver = TovarinOverrides::getInstance()->addObserver(
            [this](const std::string& key) { onOverrideChanged(key); });
}

TovarinFacade::~TovarinFacade() {
    // Waits for a change being reported, so that no report reaches a destroyed facade.
    TovarinOverrides::getInstance()->removeObserver(mOverridesObserver);
    stopThreads(true);
}

// ---------------------------------------------------------------------------------------------
// Faults on demand
// ---------------------------------------------------------------------------------------------

void TovarinFacade::onOverrideChanged(const std::string& key) {
    if (!key.empty() && key.compare(0, 4, "sim.") != 0) return;
    Faults faults;
    int64_t value = 0;
    faults.forceHardwareState = readOverride(kSimHardwareState, INT32_MIN, INT32_MAX, &value);
    faults.hardwareState = static_cast<int32_t>(value);
    faults.refuseStart = readOverride(kSimRefuseStart, 0, 1, &value) && value == 1;
    if (readOverride(kSimFailSamples, 0, INT64_MAX, &value)) faults.failSamplesEvery = value;
    double cap = 0.0;
    if (readOverride(kSimConfidence, 0.0, 1.0, &cap)) faults.confidenceCap = cap;
    // Only a change of the stall key (or of every key) starts or ends a stall.
    const bool stallChanged = key.empty() || key == kSimStallEventsMs;
    int64_t stallMs = 0;
    const bool stall = stallChanged && readOverride(kSimStallEventsMs, 0, kMaxStallMs, &stallMs);
    {
        std::lock_guard<std::mutex> lock(mLock);
        const auto stallUntil = mFaults.stallUntil;
        // "Every Nth sample" counts from the change.
        if (faults.failSamplesEvery != mFaults.failSamplesEvery) mSampleCount = 0;
        mFaults = faults;
        mFaults.stallUntil = stallUntil;
        if (stallChanged) {
            mFaults.stallUntil =
                    stall ? std::chrono::steady_clock::now() + std::chrono::milliseconds(stallMs)
                          : std::chrono::steady_clock::time_point();
        }
    }
    mStateCond.notify_all();
    mRawCond.notify_all();
    if (key.empty()) return;
    bool known = false;
    for (const char* name : {kSimHardwareState, kSimRefuseStart, kSimFailSamples, kSimConfidence,
                             kSimStallEventsMs}) {
        known = known || key == name;
    }
    if (!known) {
        if (TovarinLogger::getInstance()->shouldLog(kLogTag, 5)) {
            rendel_log_write2(5, &sLogState, 2, kLogTag, "%s is not a fault the tracker knows",
                              key.c_str());
        }
        return;
    }
    if (TovarinLogger::getInstance()->shouldLog(kLogTag, 4)) {
        std::string text;
        const bool set = TovarinOverrides::getInstance()->get(key.c_str(), &text);
        rendel_log_write2(4, &sLogState, 2, kLogTag, "fault %s %s%s", key.c_str(),
                          set ? "set to " : "cleared", set ? text.c_str() : "");
    }
}

bool TovarinFacade::stalledLocked() const {
    return std::chrono::steady_clock::now() < mFaults.stallUntil;
}

void TovarinFacade::shutdown() {
    stopThreads(false);
}

void TovarinFacade::stopThreads(bool destroying) {
    std::deque<PendingStateChange> dropped;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mShutdown = true;
        dropped.swap(mPendingStateChanges);
    }
    mStateCond.notify_all();
    mRawCond.notify_all();
    mDeliveredCond.notify_all();

    const std::thread::id self = std::this_thread::get_id();
    const bool onDeliveryThread = self == mStateThreadId || self == mRawThreadId;
    // A delivery thread cannot wait for itself, and a concurrent shutdown() may be waiting for
    // it: leave the joining to that caller or to the destructor.
    if (onDeliveryThread && !destroying) return;

    std::lock_guard<std::mutex> joinLock(mJoinLock);
    for (std::thread* thread : {&mStateThread, &mRawThread}) {
        if (!thread->joinable()) continue;
        if (thread->get_id() == self) {
            // The last reference was dropped in a callback: this thread leaves its loop as soon
            // as the callbacks return, without touching the facade again.
            tDestroyedFacade = this;
            thread->detach();
        } else {
            thread->join();
        }
    }
    // The listener references of undelivered events are released here, without the lock.
}

// ---------------------------------------------------------------------------------------------
// Listeners
// ---------------------------------------------------------------------------------------------

status_t TovarinFacade::registerRawDataListener(sp<RawDataListener> listener) {
    if (listener == nullptr) return BAD_VALUE;
    int32_t handle;
    {
        std::lock_guard<std::mutex> lock(mLock);
        handle = mNextRawListenerHandle++;
    }
    // The listener's own operations run without the lock: they may be anybody's code.
    listener->setHandle(handle);
    listener->updateRegistrationTimestamp();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mRawListeners[handle] = listener;
    }
    mRawCond.notify_all();
    return OK;
}

void TovarinFacade::unregisterRawDataListener(sp<RawDataListener> listener) {
    if (listener == nullptr) return;
    const int32_t handle = listener->getHandle();
    sp<RawDataListener> removed;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mRawListeners.find(handle);
        if (it == mRawListeners.end()) return;
        removed = std::move(it->second);
        mRawListeners.erase(it);
    }
    // removed is released here, without the lock.
}

status_t TovarinFacade::registerStateChangeListener(sp<StateChangeListener> listener) {
    if (listener == nullptr) return BAD_VALUE;
    int32_t handle;
    {
        std::lock_guard<std::mutex> lock(mLock);
        handle = mNextStateListenerHandle++;
    }
    listener->setHandle(handle);
    listener->updateRegistrationTimestamp();
    {
        std::lock_guard<std::mutex> lock(mLock);
        mStateListeners[handle] = listener;
    }
    return OK;
}

void TovarinFacade::unregisterStateChangeListener(sp<StateChangeListener> listener) {
    if (listener == nullptr) return;
    const int32_t handle = listener->getHandle();
    sp<StateChangeListener> removed;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mStateListeners.find(handle);
        if (it == mStateListeners.end()) return;
        removed = std::move(it->second);
        mStateListeners.erase(it);
    }
}

size_t TovarinFacade::getStateChangeListenerCount() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mStateListeners.size();
}

size_t TovarinFacade::getRawDataListenerCount() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mRawListeners.size();
}

// ---------------------------------------------------------------------------------------------
// Enabled and tracking state
// ---------------------------------------------------------------------------------------------

void TovarinFacade::setEnabledState(int enabled) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        const bool enable = enabled != 0;
        if (enable == mEnabled) return;
        mEnabled = enable;
        if (!enable) {
            for (Tracker& tracker : mTrackers) {
                if (tracker.state == STARTED) tracker.state = STANDBY;
            }
        }
        noteStateLocked();
    }
    mRawCond.notify_all();
}

bool TovarinFacade::getEnabled() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mEnabled;
}

int32_t TovarinFacade::getHardwareState() const {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFaults.forceHardwareState) return mFaults.hardwareState;
    if (!mEnabled) return HARDWARE_OFF;
    if (!mRawListeners.empty()) return HARDWARE_STREAMING;
    for (const Tracker& tracker : mTrackers) {
        if (tracker.state == STARTED) return HARDWARE_STREAMING;
    }
    return HARDWARE_IDLE;
}

HeadTrackingState TovarinFacade::getHeadTrackingState() const {
    std::lock_guard<std::mutex> lock(mLock);
    return trackingStateLocked();
}

HeadTrackingState TovarinFacade::trackingStateLocked() const {
    HeadTrackingState state;
    bool started = false;
    bool standby = false;
    for (const Tracker& tracker : mTrackers) {
        started = started || tracker.state == STARTED;
        standby = standby || tracker.state == STANDBY;
    }
    state.primary = started ? TRACKING_ACTIVE : (standby ? TRACKING_STANDBY : TRACKING_IDLE);
    state.secondary = mEnabled ? AVAILABILITY_READY : AVAILABILITY_DISABLED;
    return state;
}

void TovarinFacade::noteStateLocked() {
    publishDiagnosticsLocked();
    const HeadTrackingState state = trackingStateLocked();
    if (state.primary == mReportedState.primary && state.secondary == mReportedState.secondary &&
        mEnabled == mReportedEnabled) {
        return;
    }
    mReportedState = state;
    mReportedEnabled = mEnabled;
    if (mShutdown) return;

    PendingStateChange change;
    change.sequence = ++mQueuedSequence;
    change.event.timestamp = nowNs();
    change.event.flag = mEnabled;
    change.event.state = state;
    change.listeners.assign(mStateListeners.begin(), mStateListeners.end());
    if (mPendingStateChanges.size() >= kMaxPendingStateChanges) {
        // Dropping the front releases listener references under the lock; they are still held
        // by the registration map, so no listener is destroyed here.
        mPendingStateChanges.pop_front();
        if (TovarinLogger::getInstance()->shouldLog(kLogTag, 5)) {
            rendel_log_write2(5, &sLogState, 2, kLogTag, "state change queue full, dropped one");
        }
    }
    mPendingStateChanges.push_back(std::move(change));
    mStateCond.notify_one();
}

void TovarinFacade::stateDeliveryLoop() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mStateCond.wait(lock, [this] { return mShutdown || !mPendingStateChanges.empty(); });
        if (mShutdown) return;
        if (stalledLocked()) {
            // Woken early by shutdown or a change of the stall.
            mStateCond.wait_until(lock, mFaults.stallUntil);
            continue;
        }
        PendingStateChange change = std::move(mPendingStateChanges.front());
        mPendingStateChanges.pop_front();

        // Only listeners that are still registered under the same handle hear of the change.
        std::vector<sp<StateChangeListener>> targets;
        targets.reserve(change.listeners.size());
        for (const auto& [handle, listener] : change.listeners) {
            auto it = mStateListeners.find(handle);
            if (it != mStateListeners.end() && it->second == listener) targets.push_back(listener);
        }
        const uint64_t sequence = change.sequence;
        lock.unlock();

        for (const sp<StateChangeListener>& listener : targets) listener->onEvent(change.event);
        targets.clear();
        change.listeners.clear();
        if (tDestroyedFacade == this) return;

        lock.lock();
        mDeliveredSequence = sequence;
        mDeliveredCond.notify_all();
    }
}

// The store has a lock of its own and never calls out, so it may be written under mLock.
void TovarinFacade::publishDiagnosticsLocked() const {
    if (!mPublishDiagnostics) return;
    static const char* const kStateNames[] = {"FREE", "STOPPED", "STARTED", "STANDBY"};
    TovarinDiagnostics* store = TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG);
    const HeadTrackingState state = trackingStateLocked();
    store->set("facade.enabled", mEnabled ? "1" : "0");
    store->set("facade.trackingState",
               (std::to_string(state.primary) + "," + std::to_string(state.secondary)).c_str());
    for (int32_t id = 0; id < mTrackerCount; ++id) {
        const Tracker& tracker = mTrackers[static_cast<size_t>(id)];
        const std::string key = "tracker." + std::to_string(id);
        if (tracker.state == FREE) {
            store->clear(key.c_str());
            continue;
        }
        const std::string value = std::string(kStateNames[tracker.state]) +
                                  " pid " + std::to_string(tracker.pid) + " fidelity " +
                                  std::to_string(tracker.configuration.fidelity) + " filter " +
                                  std::to_string(tracker.configuration.filter);
        store->set(key.c_str(), value.c_str());
    }
}

bool TovarinFacade::waitForStateChangeDelivery(int64_t timeoutMs) const {
    std::unique_lock<std::mutex> lock(mLock);
    const uint64_t target = mQueuedSequence;
    return mDeliveredCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        return mShutdown || mDeliveredSequence >= target;
    });
}

// ---------------------------------------------------------------------------------------------
// Trackers
// ---------------------------------------------------------------------------------------------

TovarinFacade::Tracker* TovarinFacade::findTrackerLocked(const HeadTrackerHandle& handle) {
    if (handle.id < 0 || handle.id >= mTrackerCount) return nullptr;
    Tracker& tracker = mTrackers[static_cast<size_t>(handle.id)];
    return tracker.state == FREE ? nullptr : &tracker;
}

const TovarinFacade::Tracker* TovarinFacade::findTrackerLocked(
        const HeadTrackerHandle& handle) const {
    return const_cast<TovarinFacade*>(this)->findTrackerLocked(handle);
}

HeadTrackerHandle TovarinFacade::getHeadTrackerHandle() {
    HeadTrackerHandle handle;
    std::lock_guard<std::mutex> lock(mLock);
    for (int32_t id = 0; id < mTrackerCount; ++id) {
        Tracker& tracker = mTrackers[static_cast<size_t>(id)];
        if (tracker.state != FREE) continue;
        tracker = Tracker();
        tracker.state = STOPPED;
        handle.id = id;
        publishDiagnosticsLocked();
        break;
    }
    return handle;
}

void TovarinFacade::releaseHeadTrackerHandle(const HeadTrackerHandle& handle) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return;
    *tracker = Tracker();
    noteStateLocked();
}

status_t TovarinFacade::start(const HeadTrackerHandle& handle) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return BAD_VALUE;
    if (mFaults.refuseStart || !mEnabled) return INVALID_OPERATION;
    if (tracker->state == STOPPED) tracker->startedNs = nowNs();
    tracker->state = STARTED;
    noteStateLocked();
    return OK;
}

status_t TovarinFacade::stop(const HeadTrackerHandle& handle) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return BAD_VALUE;
    tracker->state = STOPPED;
    noteStateLocked();
    return OK;
}

status_t TovarinFacade::standby(const HeadTrackerHandle& handle) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return BAD_VALUE;
    if (tracker->state == STOPPED) return INVALID_OPERATION;
    tracker->state = STANDBY;
    noteStateLocked();
    return OK;
}

status_t TovarinFacade::setConfiguration(const HeadTrackerHandle& handle,
                                         const HeadTrackingConfiguration& config) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return BAD_VALUE;
    if (config.fidelity < 0 || config.fidelity > kMaxFidelity || config.filter < 0 ||
        config.filter > kMaxFilter) {
        return BAD_VALUE;
    }
    tracker->configuration = config;
    publishDiagnosticsLocked();
    return OK;
}

status_t TovarinFacade::setPid(const HeadTrackerHandle& handle, int pid) {
    std::lock_guard<std::mutex> lock(mLock);
    Tracker* tracker = findTrackerLocked(handle);
    if (tracker == nullptr) return BAD_VALUE;
    tracker->pid = pid;
    publishDiagnosticsLocked();
    return OK;
}

bool TovarinFacade::getTrackerInfo(int32_t id, TrackerInfo* out) const {
    if (out == nullptr || id < 0 || id >= mTrackerCount) return false;
    std::lock_guard<std::mutex> lock(mLock);
    const Tracker& tracker = mTrackers[static_cast<size_t>(id)];
    out->id = id;
    out->state = tracker.state;
    out->pid = tracker.pid;
    out->configuration = tracker.configuration;
    return true;
}

status_t TovarinFacade::sample(const HeadTrackerHandle& handle, HeadTrackingEvent& event) const {
    HeadTrackingConfiguration config;
    int64_t startedNs;
    double confidenceCap;
    {
        std::lock_guard<std::mutex> lock(mLock);
        const Tracker* tracker = findTrackerLocked(handle);
        if (tracker == nullptr) return BAD_VALUE;
        if (tracker->state != STARTED) return INVALID_OPERATION;
        ++mSampleCount;
        if (mFaults.failSamplesEvery > 0 && mSampleCount % mFaults.failSamplesEvery == 0) {
            return TIMED_OUT;
        }
        config = tracker->configuration;
        startedNs = tracker->startedNs;
        confidenceCap = mFaults.confidenceCap;
    }
    const int64_t timeNs = nowNs();
    fillSample(timeNs - startedNs, config, timeNs, confidenceCap, &event);
    return OK;
}

void TovarinFacade::fillSample(int64_t elapsedNs, const HeadTrackingConfiguration& config,
                               int64_t timeNs, double confidenceCap,
                               HeadTrackingEvent* event) const {
    MotionPose pose;
    mMotion->poseAt(std::max<int64_t>(elapsedNs, 0), config, &pose);
    if (confidenceCap >= 0.0 && pose.confidence > confidenceCap) {
        pose.confidence = confidenceCap;
        pose.highConfidence = confidenceCap >= 0.85;
    }
    event->timestamp = timeNs;
    event->component0 = static_cast<float>(pose.yaw);
    event->component1 = static_cast<float>(pose.pitch);
    event->component2 = static_cast<float>(pose.roll);
    event->flag0 = pose.valid;
    event->flag1 = pose.highConfidence;
    event->scalar = static_cast<float>(pose.confidence);
    memset(event->text, 0, sizeof(event->text));
    strncpy(event->text, pose.text.c_str(), sizeof(event->text) - 1);
}

// ---------------------------------------------------------------------------------------------
// Raw data
// ---------------------------------------------------------------------------------------------

status_t TovarinFacade::setRawFrameRate(double hz) {
    if (!(hz >= kMinFrameRateHz && hz <= kMaxFrameRateHz)) return BAD_VALUE;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mRawFrameRateHz = hz;
    }
    mRawCond.notify_all();
    return OK;
}

double TovarinFacade::getRawFrameRate() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mRawFrameRateHz;
}

// A dark moving diagonal gradient with a bright disc (the head) that follows the pose's yaw and
// pitch.
void TovarinFacade::renderFrame(int64_t frameIndex, const HeadTrackingEvent& pose,
                                unsigned char* pixels) const {
    const int cx = kFrameWidth / 2 + static_cast<int>(std::clamp(pose.component0, -90.f, 90.f) * 6);
    const int cy =
            kFrameHeight / 2 - static_cast<int>(std::clamp(pose.component1, -60.f, 60.f) * 8);
    const int radius = 60;
    const int shift = static_cast<int>(frameIndex % 256) * 2;
    for (int y = 0; y < kFrameHeight; ++y) {
        unsigned char* row = pixels + static_cast<size_t>(y) * kFrameWidth;
        const int dy = y - cy;
        for (int x = 0; x < kFrameWidth; ++x) {
            const int dx = x - cx;
            row[x] = dx * dx + dy * dy <= radius * radius
                             ? 230
                             : static_cast<unsigned char>(((x + y + shift) & 0xff) >> 2);
        }
    }
}

void TovarinFacade::rawDeliveryLoop() {
    std::vector<unsigned char> pixels(static_cast<size_t>(kFrameWidth) * kFrameHeight);
    int64_t frameIndex = 0;
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mRawCond.wait(lock, [this] { return mShutdown || (mEnabled && !mRawListeners.empty()); });
        if (mShutdown) return;
        if (stalledLocked()) {
            mRawCond.wait_until(lock, mFaults.stallUntil);
            continue;
        }

        std::vector<sp<RawDataListener>> targets;
        targets.reserve(mRawListeners.size());
        for (const auto& entry : mRawListeners) targets.push_back(entry.second);
        const double rateHz = mRawFrameRateHz;
        const double confidenceCap = mFaults.confidenceCap;
        lock.unlock();

        const auto frameStart = std::chrono::steady_clock::now();
        const int64_t timeNs = nowNs();
        HeadTrackingConfiguration defaults;
        RawDataEvent event;
        fillSample(timeNs - mEpochNs, defaults, timeNs, confidenceCap, &event.headTrackingEvent0);
        // The second result is the pose predicted 50 ms ahead.
        fillSample(timeNs - mEpochNs + 50000000, defaults, timeNs, confidenceCap,
                   &event.headTrackingEvent1);
        renderFrame(frameIndex, event.headTrackingEvent0, pixels.data());

        event.timestamp = timeNs;
        CameraFrameEvent& frame = event.cameraFrameEvent;
        frame.timestamp = timeNs;
        frame.tag = frameIndex;
        frame.data = pixels.data();
        frame.width = kFrameWidth;
        frame.height = kFrameHeight;
        frame.settings.settingsA[0] = 8000;  // exposure, microseconds
        frame.settings.settingsA[1] = 100;   // gain, percent
        frame.settings.settingsFlag = true;  // automatic exposure
        SensorData gyro;
        gyro.timestamp = timeNs;
        gyro.tag = frameIndex;
        gyro.code = 1;
        frame.sensorData.push_back(gyro);

        HeadLocation& head = event.headLocation0;
        head.flag0 = true;
        head.value = 1;
        quaternionFromPose(event.headTrackingEvent0.component0,
                           event.headTrackingEvent0.component1,
                           event.headTrackingEvent0.component2, head.orientation);

        for (const sp<RawDataListener>& listener : targets) listener->onEvent(event);
        targets.clear();
        if (tDestroyedFacade == this) return;
        ++frameIndex;

        const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(1.0 / rateHz));
        lock.lock();
        // Sleep out the rest of the period; a rate change or shutdown ends the wait early.
        mRawCond.wait_until(lock, frameStart + period, [this, rateHz] {
            return mShutdown || mRawFrameRateHz != rateHz;
        });
    }
}

}  // namespace tovarin
}  // namespace morvel
