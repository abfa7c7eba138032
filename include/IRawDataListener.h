/*
 * IRawDataListener: the callback interface through which the service delivers raw data events
 * (camera frame plus tracking results) to an application. One one-way transaction, ON_EVENT.
 *
 * In the client process the application's RawDataListener is wrapped in a BnRawDataListener;
 * in the service process the received binder becomes a BpRawDataListener.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <tovarin/RawDataEvent.h>
#include <tovarin/TovarinListener.h>

#include "RawDataEventParceler.h"

namespace morvel {
namespace tovarin {
namespace binder {

class IRawDataListener : public RawDataListener, public android::IInterface {
public:
    static constexpr char RAW_DATA_LISTENER_NAME[] = "morvel.tovarin.raw_data_listener";

    enum {
        ON_EVENT = android::IBinder::FIRST_CALL_TRANSACTION,  // one-way
    };

    static const android::String16 descriptor;
    static android::sp<IRawDataListener> asInterface(const android::sp<android::IBinder>& binder);

    IRawDataListener();
    virtual ~IRawDataListener();

    virtual const android::String16& getInterfaceDescriptor() const;
};

// Service side. Handle, pid and registration time live in the proxy itself and never cross
// the process boundary; only onEvent is transmitted (one-way, failures are dropped).
class BpRawDataListener : public android::BpInterface<IRawDataListener> {
public:
    explicit BpRawDataListener(const android::sp<android::IBinder>& impl);
    virtual ~BpRawDataListener();

    virtual void onEvent(const RawDataEvent& event);
};

// Client side: wraps the application's listener, which it holds strongly. The handle and
// onEvent are forwarded to the application's object; setPid and updateRegistrationTimestamp
// act on this wrapper's own fields. Frame pixels of an incoming event land in a buffer owned
// by this object (reused while the frame size stays the same) and are valid only during the
// application's onEvent.
class BnRawDataListener : public android::BnInterface<IRawDataListener> {
public:
    explicit BnRawDataListener(const android::sp<RawDataListener>& listener);
    virtual ~BnRawDataListener();

    virtual int getHandle() const;
    virtual void setHandle(int handle);
    virtual int getPid() const;
    virtual int64_t getRegistrationTimestamp() const;
    virtual void onEvent(const RawDataEvent& event);

    virtual android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                         android::Parcel* reply, uint32_t flags = 0);

    const android::sp<RawDataListener>& getListener() const;

private:
    android::sp<RawDataListener> mListener;
    // Owns the receive buffer of frame pixels, reused from event to event while the frame size
    // stays the same; incoming events are read through it.
    CameraFrameEventParceler mParceler;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
