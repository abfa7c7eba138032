/*
 * BnTovarinService: the service object. Forwards every operation to the TovarinFacade and
 * undoes the registrations of client processes that die.
 */
#include "ITovarinService.h"

#include "IStateChangeListener.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/Utils.h>

namespace morvel {
namespace tovarin {
namespace binder {

using android::IPCThreadState;
using android::sp;
using android::status_t;
using android::String8;

namespace {

constexpr char kTag[] = "TovarinBnTovarinService";

// Log state word of this module; only the log writer touches it.
int32_t sLogState = -1;

bool shouldLog(int level) {
    return TovarinLogger::getInstance()->shouldLog(kTag, level);
}

}  // namespace

BnTovarinService::BnTovarinService(const sp<TovarinFacade>& facade) : mFacade(facade) {
    {
        sp<BnTovarinService> self(this);
        mHeadTrackingPollerDeathMapper =
                new ClientDeathMapper(self, &BnTovarinService::handleHeadTrackingPollerClientDeath);
    }
    {
        sp<BnTovarinService> self(this);
        mStateChangeListenerDeathMapper = new ClientDeathMapper(
                self, &BnTovarinService::handleStateChangeListenerClientDeath);
    }
}

BnTovarinService::~BnTovarinService() {
    mStateChangeListenerDeathMapper.clear();
    mHeadTrackingPollerDeathMapper.clear();
    mFacade.clear();
}

status_t BnTovarinService::registerRawDataListener(sp<RawDataListener> listener) {
    return mFacade->registerRawDataListener(listener);
}

void BnTovarinService::unregisterRawDataListener(sp<RawDataListener> listener) {
    mFacade->unregisterRawDataListener(listener);
}

void BnTovarinService::setEnabledState(int state) {
    mFacade->setEnabledState(state);
}

bool BnTovarinService::getEnabled() const {
    return mFacade->getEnabled();
}

int32_t BnTovarinService::getHardwareState() const {
    return mFacade->getHardwareState();
}

HeadTrackingState BnTovarinService::getHeadTrackingState() const {
    return mFacade->getHeadTrackingState();
}

status_t BnTovarinService::registerStateChangeListener(sp<StateChangeListener> listener) {
    return mFacade->registerStateChangeListener(listener);
}

void BnTovarinService::unregisterStateChangeListener(sp<StateChangeListener> listener) {
    mFacade->unregisterStateChangeListener(listener);
}

HeadTrackerHandle BnTovarinService::getHeadTrackerHandle() {
    return mFacade->getHeadTrackerHandle();
}

void BnTovarinService::releaseHeadTrackerHandle(const HeadTrackerHandle& handle) {
    mFacade->releaseHeadTrackerHandle(handle);
}

status_t BnTovarinService::start(const HeadTrackerHandle& handle) {
    if (shouldLog(ANDROID_LOG_INFO)) {
        const String8 caller = getCallingPidString();
        rendel_log_write2(ANDROID_LOG_INFO, &sLogState, 2, kTag, "%s: head tracker (%d) - started",
                          caller.string(), handle.id);
    }
    return mFacade->start(handle);
}

status_t BnTovarinService::stop(const HeadTrackerHandle& handle) {
    if (shouldLog(ANDROID_LOG_INFO)) {
        const String8 caller = getCallingPidString();
        rendel_log_write2(ANDROID_LOG_INFO, &sLogState, 2, kTag, "%s: head tracker (%d) - stopped",
                          caller.string(), handle.id);
    }
    return mFacade->stop(handle);
}

status_t BnTovarinService::standby(const HeadTrackerHandle& handle) {
    if (shouldLog(ANDROID_LOG_INFO)) {
        const String8 caller = getCallingPidString();
        rendel_log_write2(ANDROID_LOG_INFO, &sLogState, 2, kTag, "%s: head tracker (%d) - standby",
                          caller.string(), handle.id);
    }
    return mFacade->standby(handle);
}

status_t BnTovarinService::setConfiguration(const HeadTrackerHandle& handle,
                                            const HeadTrackingConfiguration& configuration) {
    if (shouldLog(ANDROID_LOG_INFO)) {
        const String8 caller = getCallingPidString();
        const String8 rendered = String8::format("debugString=%s; fidelity=%d; filter=%d",
                                                 configuration.debugString.c_str(),
                                                 configuration.fidelity, configuration.filter);
        rendel_log_write2(ANDROID_LOG_INFO, &sLogState, 2, kTag,
                          "%s: head tracker (%d) - setConfiguration to %s", caller.string(),
                          handle.id, rendered.string());
    }
    return mFacade->setConfiguration(handle, configuration);
}

status_t BnTovarinService::sample(const HeadTrackerHandle& handle, HeadTrackingEvent& event) const {
    return mFacade->sample(handle, event);
}

status_t BnTovarinService::setPid(const HeadTrackerHandle& handle, int pid) {
    return mFacade->setPid(handle, pid);
}

String8 BnTovarinService::getCallingPidString() const {
    const int pid = IPCThreadState::self()->getCallingPid();
    const String8 name = Utils::getProcessNameFromPID(pid);
    return String8::format("%s(%d)", name.string(), pid);
}

String8 BnTovarinService::getDeadClientString(const ClientDeathData& data) const {
    return String8::format("%s(%d)", data.processName.string(), data.pid);
}

void BnTovarinService::handleStateChangeListenerClientDeath(const ClientDeathData& data) {
    if (shouldLog(ANDROID_LOG_ERROR)) {
        const String8 client = getDeadClientString(data);
        rendel_log_write2(ANDROID_LOG_ERROR, &sLogState, 2, kTag,
                          "%s: state change listener client died", client.string());
    }
    // The facade finds the registration by its handle; the proxy carries it locally.
    sp<IStateChangeListener> listener = IStateChangeListener::asInterface(data.binder);
    if (listener == nullptr) {
        return;
    }
    listener->setHandle(data.handle);
    unregisterStateChangeListener(listener);
}

void BnTovarinService::handleHeadTrackingPollerClientDeath(const ClientDeathData& data) {
    if (shouldLog(ANDROID_LOG_ERROR)) {
        const String8 client = getDeadClientString(data);
        rendel_log_write2(ANDROID_LOG_ERROR, &sLogState, 2, kTag,
                          "%s: head tracking polling client died", client.string());
    }
    HeadTrackerHandle handle;
    handle.id = data.handle;
    handle.secondaryId = -1;
    releaseHeadTrackerHandle(handle);
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
