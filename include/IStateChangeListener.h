/*
 * IStateChangeListener: the callback interface through which the service delivers state
 * change events to an application. One one-way transaction, ON_EVENT.
 *
 * In the client process the application's StateChangeListener is wrapped in a
 * BnStateChangeListener; in the service process the received binder becomes a
 * BpStateChangeListener.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/TovarinListener.h>

namespace morvel {
namespace tovarin {
namespace binder {

class IStateChangeListener : public StateChangeListener, public android::IInterface {
public:
    static constexpr char STATE_CHANGE_LISTENER_NAME[] = "morvel.tovarin.state_change_listener";

    enum {
        ON_EVENT = android::IBinder::FIRST_CALL_TRANSACTION,  // one-way
    };

    static const android::String16 descriptor;
    static android::sp<IStateChangeListener> asInterface(
            const android::sp<android::IBinder>& binder);

    IStateChangeListener();
    virtual ~IStateChangeListener();

    virtual const android::String16& getInterfaceDescriptor() const;
};

// Service side. Handle, pid and registration time live in the proxy itself and never cross
// the process boundary; only onEvent is transmitted (one-way, failures are dropped).
class BpStateChangeListener : public android::BpInterface<IStateChangeListener> {
public:
    explicit BpStateChangeListener(const android::sp<android::IBinder>& impl);
    virtual ~BpStateChangeListener();

    virtual void onEvent(const StateChangeEvent& event);
};

// Client side: wraps the application's listener, which it holds strongly. The handle and
// onEvent are forwarded to the application's object; setPid and updateRegistrationTimestamp
// act on this wrapper's own fields.
class BnStateChangeListener : public android::BnInterface<IStateChangeListener> {
public:
    explicit BnStateChangeListener(const android::sp<StateChangeListener>& listener);
    virtual ~BnStateChangeListener();

    virtual int getHandle() const;
    virtual void setHandle(int handle);
    virtual int getPid() const;
    virtual int64_t getRegistrationTimestamp() const;
    virtual void onEvent(const StateChangeEvent& event);

    virtual android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                         android::Parcel* reply, uint32_t flags = 0);

    const android::sp<StateChangeListener>& getListener() const;

private:
    android::sp<StateChangeListener> mListener;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
