/*
 * The client singleton: forwarding, fallbacks, remembered listeners and their recovery after a
 * service restart.
 */
#include "TovarinServiceImpl.h"

#include <utils/Errors.h>

#include <tovarin/TovarinLogger.h>

#include <unistd.h>

using android::AutoMutex;
using android::IBinder;
using android::IInterface;
using android::NO_INIT;
using android::sp;
using android::status_t;
using android::wp;

namespace morvel {
namespace tovarin {
namespace binder {

namespace {

const char kTag[] = "TovarinServiceImpl";

// Log state word of this module, read and written only by the log writer.
int32_t sLogState = -1;

// Lookups made by getService(): one at once, then one after each of five one-second pauses.
constexpr int kServiceWaitPauses = 5;

}  // namespace

TovarinServiceImpl::TovarinServiceImpl() {}

TovarinServiceImpl::~TovarinServiceImpl() {}

sp<TovarinServiceImpl> TovarinServiceImpl::getInstance() {
    // Never destroyed: pool threads (death notices, the recovery below, incoming events) may
    // still use the instance while the process's static destructors run.
    static const sp<TovarinServiceImpl>& sInstance =
            *new sp<TovarinServiceImpl>(new TovarinServiceImpl());
    return sInstance;
}

sp<ITovarinService> TovarinServiceImpl::checkService() {
    sp<TovarinServiceImpl> self = getInstance();
    AutoMutex lock(self->mServiceLock);
    if (self->mService == nullptr) {
        // The lookup links its own death notifier before this instance links itself: notices
        // arrive in link order, so by the time binderDied() below looks the service up again,
        // the lookup no longer holds the dead proxy.
        sp<ITovarinService> service = ITovarinService::checkService();
        // A proxy that cannot be linked (the service died since the lookup) would never be
        // replaced, as no death notice comes for it: it is dropped, and the next call looks
        // the service up again.
        if (service != nullptr &&
            IInterface::asBinder(service)->linkToDeath(self, nullptr, 0) == android::OK) {
            self->mService = service;
        }
    }
    return self->mService;
}

sp<ITovarinService> TovarinServiceImpl::getService() {
    sp<ITovarinService> service = checkService();
    for (int pause = 0; service == nullptr && pause < kServiceWaitPauses; ++pause) {
        if (TovarinLogger::getInstance()->shouldLog(kTag, 3)) {
            rendel_log_write2(3, &sLogState, 2, kTag, "Waiting for Tovarin Service...");
        }
        sleep(1);
        service = checkService();
    }
    return service;
}

status_t TovarinServiceImpl::registerRawDataListener(const sp<ITovarinService>& service,
                                                     sp<RawDataListener> listener) {
    if (service == nullptr) {
        return NO_INIT;
    }
    return service->registerRawDataListener(listener);
}

status_t TovarinServiceImpl::registerStateChangeListener(const sp<ITovarinService>& service,
                                                         sp<StateChangeListener> listener) {
    if (service == nullptr) {
        return NO_INIT;
    }
    return service->registerStateChangeListener(listener);
}

status_t TovarinServiceImpl::registerRawDataListener(sp<RawDataListener> listener) {
    AutoMutex lock(mRawDataListenerLock);
    const status_t status = registerRawDataListener(checkService(), listener);
    if (status != android::OK) {
        return status;
    }
    mRawDataListeners.insert(listener);
    return android::OK;
}

void TovarinServiceImpl::unregisterRawDataListener(sp<RawDataListener> listener) {
    AutoMutex lock(mRawDataListenerLock);
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        service->unregisterRawDataListener(listener);
    }
    mRawDataListeners.erase(listener);
}

status_t TovarinServiceImpl::registerStateChangeListener(sp<StateChangeListener> listener) {
    AutoMutex lock(mStateChangeListenerLock);
    const status_t status = registerStateChangeListener(checkService(), listener);
    if (status != android::OK) {
        return status;
    }
    mStateChangeListeners.insert(listener);
    return android::OK;
}

void TovarinServiceImpl::unregisterStateChangeListener(sp<StateChangeListener> listener) {
    AutoMutex lock(mStateChangeListenerLock);
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        service->unregisterStateChangeListener(listener);
    }
    mStateChangeListeners.erase(listener);
}

void TovarinServiceImpl::setEnabledState(int state) {
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        service->setEnabledState(state);
    }
}

bool TovarinServiceImpl::getEnabled() const {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->getEnabled() : false;
}

int32_t TovarinServiceImpl::getHardwareState() const {
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        // The service is asked, but its answer is not passed on.
        service->getHardwareState();
    }
    return 0;
}

HeadTrackingState TovarinServiceImpl::getHeadTrackingState() const {
    HeadTrackingState state;
    state.primary = 32;
    state.secondary = 0;
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        state = service->getHeadTrackingState();
    }
    return state;
}

HeadTrackerHandle TovarinServiceImpl::getHeadTrackerHandle() {
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        return service->getHeadTrackerHandle();
    }
    HeadTrackerHandle none;
    none.id = -1;
    none.secondaryId = -1;
    return none;
}

void TovarinServiceImpl::releaseHeadTrackerHandle(const HeadTrackerHandle& handle) {
    sp<ITovarinService> service = checkService();
    if (service != nullptr) {
        service->releaseHeadTrackerHandle(handle);
    }
}

status_t TovarinServiceImpl::start(const HeadTrackerHandle& handle) {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->start(handle) : NO_INIT;
}

status_t TovarinServiceImpl::stop(const HeadTrackerHandle& handle) {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->stop(handle) : NO_INIT;
}

status_t TovarinServiceImpl::standby(const HeadTrackerHandle& handle) {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->standby(handle) : NO_INIT;
}

status_t TovarinServiceImpl::setConfiguration(const HeadTrackerHandle& handle,
                                              const HeadTrackingConfiguration& configuration) {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->setConfiguration(handle, configuration) : NO_INIT;
}

status_t TovarinServiceImpl::sample(const HeadTrackerHandle& handle,
                                    HeadTrackingEvent& event) const {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->sample(handle, event) : NO_INIT;
}

status_t TovarinServiceImpl::setPid(const HeadTrackerHandle& handle, int pid) {
    sp<ITovarinService> service = checkService();
    return service != nullptr ? service->setPid(handle, pid) : NO_INIT;
}

// Recovery after the service's death:
//
//   connected ──death──▶ not connected ──getService() finds one within 5 s──▶ connected,
//                              │                                    every remembered raw data
//                              │                                    listener, then every state
//                              │                                    change listener registered
//                              └──no service after 5 s──▶ "Unable to find service...", stays
//                                                         not connected; a later call connects
//                                                         without registering anything again.
void TovarinServiceImpl::binderDied(const wp<IBinder>& /*who*/) {
    {
        AutoMutex lock(mServiceLock);
        if (mService != nullptr) {
            IInterface::asBinder(mService)->unlinkToDeath(wp<IBinder::DeathRecipient>(this),
                                                          nullptr, 0, nullptr);
        }
        mService.clear();
        if (TovarinLogger::getInstance()->shouldLog(kTag, 6)) {
            rendel_log_write2(6, &sLogState, 2, kTag,
                              "Client's binder connection to Tovarin died!");
        }
    }

    // No lock of this class is held while waiting.
    sp<ITovarinService> service = getService();
    if (service == nullptr) {
        if (TovarinLogger::getInstance()->shouldLog(kTag, 5)) {
            rendel_log_write2(5, &sLogState, 2, kTag, "Unable to find service...");
        }
        return;
    }

    {
        AutoMutex lock(mRawDataListenerLock);
        for (const sp<RawDataListener>& listener : mRawDataListeners) {
            registerRawDataListener(service, listener);
        }
    }
    {
        AutoMutex lock(mStateChangeListenerLock);
        for (const sp<StateChangeListener>& listener : mStateChangeListeners) {
            registerStateChangeListener(service, listener);
        }
    }
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
