/*
 * A TovarinFacade that records every operation the service forwards as one text line ("start 2",
 * "setPid 2 1234"). Scripted mode answers with fixed values (enabled, hardware state 7, tracking
 * state 3/4) and those set in Script; pass-through mode forwards to the simulated tracker after
 * recording. Thread-safe.
 */
#pragma once

#include <tovarin/TovarinFacade.h>

#include <mutex>
#include <string>
#include <vector>

namespace morvel {
namespace tovarin {
namespace testing {

class RecordingFacade : public TovarinFacade {
public:
    using status_t = android::status_t;
    template <typename T>
    using sp = android::sp<T>;

    struct Script {
        HeadTrackerHandle handle{2, 9};
        status_t operationStatus = 0;  // start, stop, standby, setConfiguration
        status_t registerStatus = 0;
        int32_t listenerHandle = 5;  // given to registered listeners
        status_t sampleStatus = 0;
        HeadTrackingEvent sampledEvent;  // written into the caller's event when sampleStatus is 0
    };

    explicit RecordingFacade(bool passThrough = false) : mPassThrough(passThrough) {}

    void setScript(const Script& script) {
        std::lock_guard<std::mutex> guard(mLock);
        mScript = script;
    }
    std::vector<std::string> calls() const {
        std::lock_guard<std::mutex> guard(mLock);
        return mCalls;
    }
    void clearCalls() {
        std::lock_guard<std::mutex> guard(mLock);
        mCalls.clear();
    }

    void setEnabledState(int enabled) override {
        record("setEnabledState " + str(enabled));
        if (mPassThrough) TovarinFacade::setEnabledState(enabled);
    }
    bool getEnabled() const override {
        record("getEnabled");
        return mPassThrough ? TovarinFacade::getEnabled() : true;
    }
    int32_t getHardwareState() const override {
        record("getHardwareState");
        return mPassThrough ? TovarinFacade::getHardwareState() : 7;
    }
    HeadTrackingState getHeadTrackingState() const override {
        record("getHeadTrackingState");
        return mPassThrough ? TovarinFacade::getHeadTrackingState() : HeadTrackingState{3, 4};
    }
    status_t registerStateChangeListener(sp<StateChangeListener> listener) override {
        record("registerStateChangeListener pid=" + str(listener->getPid()));
        if (mPassThrough) return TovarinFacade::registerStateChangeListener(listener);
        listener->setHandle(script().listenerHandle);
        return script().registerStatus;
    }
    void unregisterStateChangeListener(sp<StateChangeListener> listener) override {
        record("unregisterStateChangeListener " + str(listener->getHandle()));
        if (mPassThrough) TovarinFacade::unregisterStateChangeListener(listener);
    }
    HeadTrackerHandle getHeadTrackerHandle() override {
        const HeadTrackerHandle handle =
                mPassThrough ? TovarinFacade::getHeadTrackerHandle() : script().handle;
        record("getHeadTrackerHandle -> " + str(handle.id));
        return handle;
    }
    void releaseHeadTrackerHandle(const HeadTrackerHandle& handle) override {
        record("releaseHeadTrackerHandle " + str(handle.id) + " " + str(handle.secondaryId));
        if (mPassThrough) TovarinFacade::releaseHeadTrackerHandle(handle);
    }
    status_t start(const HeadTrackerHandle& handle) override {
        record("start " + str(handle.id));
        return mPassThrough ? TovarinFacade::start(handle) : script().operationStatus;
    }
    status_t stop(const HeadTrackerHandle& handle) override {
        record("stop " + str(handle.id));
        return mPassThrough ? TovarinFacade::stop(handle) : script().operationStatus;
    }
    status_t standby(const HeadTrackerHandle& handle) override {
        record("standby " + str(handle.id));
        return mPassThrough ? TovarinFacade::standby(handle) : script().operationStatus;
    }
    status_t setConfiguration(const HeadTrackerHandle& handle,
                              const HeadTrackingConfiguration& config) override {
        record("setConfiguration " + str(handle.id) + " " + str(config.fidelity) + " " +
               str(config.filter) + " " + config.debugString);
        return mPassThrough ? TovarinFacade::setConfiguration(handle, config)
                            : script().operationStatus;
    }
    status_t sample(const HeadTrackerHandle& handle, HeadTrackingEvent& event) const override {
        record("sample " + str(handle.id));
        if (mPassThrough) return TovarinFacade::sample(handle, event);
        const Script s = script();
        if (s.sampleStatus == 0) event = s.sampledEvent;
        return s.sampleStatus;
    }
    status_t setPid(const HeadTrackerHandle& handle, int pid) override {
        record("setPid " + str(handle.id) + " " + str(pid));
        return mPassThrough ? TovarinFacade::setPid(handle, pid) : 0;
    }

private:
    static std::string str(int32_t value) { return std::to_string(value); }
    void record(const std::string& line) const {
        std::lock_guard<std::mutex> guard(mLock);
        mCalls.push_back(line);
    }
    Script script() const {
        std::lock_guard<std::mutex> guard(mLock);
        return mScript;
    }

    const bool mPassThrough;
    mutable std::mutex mLock;
    mutable std::vector<std::string> mCalls;
    Script mScript;
};

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
