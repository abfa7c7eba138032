/*
 * The operations of the head-tracking service. Implemented by the tracking engine
 * (TovarinFacade), by the binder proxy and service object, and by the client singleton. The
 * order of the virtual operations is part of the interface: do not reorder.
 */
#pragma once

#include <stdint.h>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/TovarinListener.h>

namespace morvel {
namespace tovarin {

class TovarinService : public virtual android::RefBase {
public:
    virtual ~TovarinService() {}

    virtual android::status_t registerRawDataListener(android::sp<RawDataListener> listener) = 0;
    virtual void unregisterRawDataListener(android::sp<RawDataListener> listener) = 0;
    virtual void setEnabledState(int enabled) = 0;
    virtual bool getEnabled() const = 0;
    virtual int32_t getHardwareState() const = 0;
    virtual HeadTrackingState getHeadTrackingState() const = 0;
    virtual android::status_t registerStateChangeListener(
            android::sp<StateChangeListener> listener) = 0;
    virtual void unregisterStateChangeListener(android::sp<StateChangeListener> listener) = 0;
    virtual HeadTrackerHandle getHeadTrackerHandle() = 0;
    virtual void releaseHeadTrackerHandle(const HeadTrackerHandle& handle) = 0;
    virtual android::status_t start(const HeadTrackerHandle& handle) = 0;
    virtual android::status_t stop(const HeadTrackerHandle& handle) = 0;
    virtual android::status_t standby(const HeadTrackerHandle& handle) = 0;
    virtual android::status_t setConfiguration(const HeadTrackerHandle& handle,
                                               const HeadTrackingConfiguration& config) = 0;
    virtual android::status_t sample(const HeadTrackerHandle& handle,
                                     HeadTrackingEvent& event) const = 0;
    virtual android::status_t setPid(const HeadTrackerHandle& handle, int pid) = 0;
};

}  // namespace tovarin
}  // namespace morvel
