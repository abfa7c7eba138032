/*
 * Listener classes of the head-tracking service. An application derives from RawDataListener or
 * StateChangeListener and implements onEvent; the service assigns the handle when it registers
 * the listener (-1 = not registered) and records pid and registration time on its own copies.
 */
#pragma once

#include <stdint.h>

#include <utils/RefBase.h>
#include <utils/Timers.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/RawDataEvent.h>

namespace morvel {
namespace tovarin {

class TovarinListener : public virtual android::RefBase {
public:
    virtual ~TovarinListener() {}

    virtual int getHandle() const { return mHandle; }
    virtual void setHandle(int handle) { mHandle = handle; }
    virtual int getPid() const { return mPid; }
    virtual void setPid(int pid) { mPid = pid; }
    // Wall-clock time of the registration in milliseconds since the epoch; 0 = never.
    virtual int64_t getRegistrationTimestamp() const { return mRegistrationTimestamp; }
    virtual void updateRegistrationTimestamp() {
        mRegistrationTimestamp = systemTime(SYSTEM_TIME_REALTIME) / 1000000;
    }

protected:
    int32_t mHandle = -1;
    int32_t mPid = -1;
    int64_t mRegistrationTimestamp = 0;
};

class RawDataListener : public TovarinListener {
public:
    // Called on a delivery thread; event.cameraFrameEvent.data is valid during the call only.
    virtual void onEvent(const RawDataEvent& event) = 0;
};

class StateChangeListener : public TovarinListener {
public:
    // Called on a delivery thread, one event at a time, in the order of the changes.
    virtual void onEvent(const StateChangeEvent& event) = 0;
};

}  // namespace tovarin
}  // namespace morvel
