#include "RecordingFacade.h"

#include <string.h>

namespace morvel {
namespace tovarin {
namespace testing {

using android::sp;
using android::status_t;

namespace {

std::string str(int32_t value) {
    return std::to_string(value);
}

}  // namespace

RecordingFacade::RecordingFacade(bool passThrough) : mPassThrough(passThrough) {}

void RecordingFacade::setScript(const Script& script) {
    std::lock_guard<std::mutex> guard(mRecordLock);
    mScript = script;
}

RecordingFacade::Script RecordingFacade::script() const {
    std::lock_guard<std::mutex> guard(mRecordLock);
    return mScript;
}

std::vector<std::string> RecordingFacade::calls() const {
    std::lock_guard<std::mutex> guard(mRecordLock);
    return mCalls;
}

void RecordingFacade::clearCalls() {
    std::lock_guard<std::mutex> guard(mRecordLock);
    mCalls.clear();
}

void RecordingFacade::record(const std::string& line) const {
    std::lock_guard<std::mutex> guard(mRecordLock);
    mCalls.push_back(line);
}

status_t RecordingFacade::registerRawDataListener(sp<RawDataListener> listener) {
    record("registerRawDataListener");
    if (mPassThrough) return TovarinFacade::registerRawDataListener(listener);
    listener->setHandle(script().listenerHandle);
    return script().registerStatus;
}

void RecordingFacade::unregisterRawDataListener(sp<RawDataListener> listener) {
    record("unregisterRawDataListener " + str(listener->getHandle()));
    if (mPassThrough) TovarinFacade::unregisterRawDataListener(listener);
}

void RecordingFacade::setEnabledState(int enabled) {
    record("setEnabledState " + str(enabled));
    if (mPassThrough) TovarinFacade::setEnabledState(enabled);
}

bool RecordingFacade::getEnabled() const {
    record("getEnabled");
    return mPassThrough ? TovarinFacade::getEnabled() : script().enabled;
}

int32_t RecordingFacade::getHardwareState() const {
    record("getHardwareState");
    return mPassThrough ? TovarinFacade::getHardwareState() : script().hardwareState;
}

HeadTrackingState RecordingFacade::getHeadTrackingState() const {
    record("getHeadTrackingState");
    return mPassThrough ? TovarinFacade::getHeadTrackingState() : script().state;
}

status_t RecordingFacade::registerStateChangeListener(sp<StateChangeListener> listener) {
    record("registerStateChangeListener pid=" + str(listener->getPid()));
    if (mPassThrough) return TovarinFacade::registerStateChangeListener(listener);
    listener->setHandle(script().listenerHandle);
    return script().registerStatus;
}

void RecordingFacade::unregisterStateChangeListener(sp<StateChangeListener> listener) {
    record("unregisterStateChangeListener " + str(listener->getHandle()));
    if (mPassThrough) TovarinFacade::unregisterStateChangeListener(listener);
}

HeadTrackerHandle RecordingFacade::getHeadTrackerHandle() {
    const HeadTrackerHandle handle =
            mPassThrough ? TovarinFacade::getHeadTrackerHandle() : script().handle;
    record("getHeadTrackerHandle -> " + str(handle.id));
    return handle;
}

void RecordingFacade::releaseHeadTrackerHandle(const HeadTrackerHandle& handle) {
    record("releaseHeadTrackerHandle " + str(handle.id) + " " + str(handle.secondaryId));
    if (mPassThrough) TovarinFacade::releaseHeadTrackerHandle(handle);
}

status_t RecordingFacade::start(const HeadTrackerHandle& handle) {
    record("start " + str(handle.id));
    return mPassThrough ? TovarinFacade::start(handle) : script().operationStatus;
}

status_t RecordingFacade::stop(const HeadTrackerHandle& handle) {
    record("stop " + str(handle.id));
    return mPassThrough ? TovarinFacade::stop(handle) : script().operationStatus;
}

status_t RecordingFacade::standby(const HeadTrackerHandle& handle) {
    record("standby " + str(handle.id));
    return mPassThrough ? TovarinFacade::standby(handle) : script().operationStatus;
}

status_t RecordingFacade::setConfiguration(const HeadTrackerHandle& handle,
                                           const HeadTrackingConfiguration& config) {
    record("setConfiguration " + str(handle.id) + " " + str(config.fidelity) + " " +
           str(config.filter) + " " + config.debugString);
    return mPassThrough ? TovarinFacade::setConfiguration(handle, config)
                        : script().operationStatus;
}

status_t RecordingFacade::sample(const HeadTrackerHandle& handle, HeadTrackingEvent& event) const {
    record("sample " + str(handle.id));
    if (mPassThrough) return TovarinFacade::sample(handle, event);
    const Script s = script();
    if (s.sampleFills) event = s.sampledEvent;
    return s.sampleStatus;
}

status_t RecordingFacade::setPid(const HeadTrackerHandle& handle, int pid) {
    record("setPid " + str(handle.id) + " " + str(pid));
    return mPassThrough ? TovarinFacade::setPid(handle, pid) : script().setPidStatus;
}

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
