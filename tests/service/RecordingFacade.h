/*
 * A TovarinFacade that records every operation as one text line ("start 2", "setPid 2 1234").
 * Scripted mode answers with the values set in Script; pass-through mode forwards to the
 * simulated tracker after recording. Thread-safe.
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
    struct Script {
        bool enabled = true;
        int32_t hardwareState = 7;
        HeadTrackingState state{3, 4};
        HeadTrackerHandle handle{2, 9};
        android::status_t operationStatus = 0;  // start, stop, standby, setConfiguration
        android::status_t registerStatus = 0;
        int32_t listenerHandle = 5;  // given to registered listeners
        android::status_t sampleStatus = 0;
        bool sampleFills = true;  // sample() writes sampledEvent into the caller's event
        HeadTrackingEvent sampledEvent;
        android::status_t setPidStatus = 0;
    };

    explicit RecordingFacade(bool passThrough = false);

    void setScript(const Script& script);
    std::vector<std::string> calls() const;
    void clearCalls();

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

private:
    void record(const std::string& line) const;
    Script script() const;

    const bool mPassThrough;
    mutable std::mutex mRecordLock;
    mutable std::vector<std::string> mCalls;
    Script mScript;
};

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
