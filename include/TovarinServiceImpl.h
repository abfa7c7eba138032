/*
 * TovarinServiceImpl: what an application uses to reach the head-tracking service. One per
 * process (getInstance()).
 *
 * Every operation looks the service up without waiting and forwards to it; without a service
 * it answers a fixed fallback at once (0, false, -19 NO_INIT, a state of primary 32, or a
 * handle of id -1). Listeners that the service accepted are remembered; when the service
 * process dies, the instance waits up to five seconds for a new one and registers them all
 * again, raw data listeners first. A service that stays away longer is not waited for again:
 * later calls find a new service but the remembered listeners are not registered with it.
 *
 * Locks, always taken in this order: a listener-set lock, mServiceLock, then the lookup lock of
 * ITovarinService. Calls to the service are made with a listener-set lock held when they change
 * registrations, and with no lock of this class otherwise.
 */
#pragma once

#include "ITovarinService.h"

#include <binder/IBinder.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/TovarinListener.h>
#include <tovarin/TovarinService.h>

#include <set>

namespace morvel {
namespace tovarin {
namespace binder {

class TovarinServiceImpl : public TovarinService, public android::IBinder::DeathRecipient {
public:
    // The process's one instance, created on first use and kept until the process exits.
    static android::sp<TovarinServiceImpl> getInstance();
    // The cached proxy, looked up (and linked to this instance's death notice) when there is
    // none yet; empty when the service is not registered. Never waits.
    static android::sp<ITovarinService> checkService();
    // Like checkService(), but tries six times, one second apart, before giving up.
    static android::sp<ITovarinService> getService();

    virtual ~TovarinServiceImpl();

    // Register with a given service: -19 (NO_INIT) for an empty one, otherwise its answer.
    // Nothing is remembered.
    android::status_t registerRawDataListener(const android::sp<ITovarinService>& service,
                                              android::sp<RawDataListener> listener);
    android::status_t registerStateChangeListener(const android::sp<ITovarinService>& service,
                                                  android::sp<StateChangeListener> listener);

    // Remembers the listener when the service accepted it (status 0).
    virtual android::status_t registerRawDataListener(android::sp<RawDataListener> listener);
    // Asks the service, if reachable, and forgets the listener in any case.
    virtual void unregisterRawDataListener(android::sp<RawDataListener> listener);
    virtual void setEnabledState(int state);
    virtual bool getEnabled() const;
    // Asks the service but always answers 0.
    virtual int32_t getHardwareState() const;
    virtual HeadTrackingState getHeadTrackingState() const;
    virtual android::status_t registerStateChangeListener(
            android::sp<StateChangeListener> listener);
    virtual void unregisterStateChangeListener(android::sp<StateChangeListener> listener);
    virtual HeadTrackerHandle getHeadTrackerHandle();
    virtual void releaseHeadTrackerHandle(const HeadTrackerHandle& handle);
    virtual android::status_t start(const HeadTrackerHandle& handle);
    virtual android::status_t stop(const HeadTrackerHandle& handle);
    virtual android::status_t standby(const HeadTrackerHandle& handle);
    virtual android::status_t setConfiguration(const HeadTrackerHandle& handle,
                                               const HeadTrackingConfiguration& configuration);
    // Without a service the event is left as it was.
    virtual android::status_t sample(const HeadTrackerHandle& handle,
                                     HeadTrackingEvent& event) const;
    virtual android::status_t setPid(const HeadTrackerHandle& handle, int pid);

    // The service's death notice, on a binder thread of this process. Blocks that thread for
    // up to five seconds while it waits for a new service.
    virtual void binderDied(const android::wp<android::IBinder>& who);

private:
    TovarinServiceImpl();
    TovarinServiceImpl(const TovarinServiceImpl&) = delete;
    TovarinServiceImpl& operator=(const TovarinServiceImpl&) = delete;

    // Ordered by the listener object's address (sp compares its pointers).
    typedef std::set<android::sp<RawDataListener>> RawDataListenerSet;
    typedef std::set<android::sp<StateChangeListener>> StateChangeListenerSet;

    // Destroyed in reverse order: the state change set, the raw data set, the three locks,
    // then the cached proxy.
    android::sp<ITovarinService> mService;
    android::Mutex mServiceLock;
    android::Mutex mRawDataListenerLock;
    android::Mutex mStateChangeListenerLock;
    RawDataListenerSet mRawDataListeners;
    StateChangeListenerSet mStateChangeListeners;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
