/*
 * IStateChangeListener: state change callbacks, service to application, one-way.
 */
#include "IStateChangeListener.h"

#include "StateChangeEventParceler.h"

namespace morvel {
namespace tovarin {
namespace binder {

using android::BBinder;
using android::IBinder;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::status_t;
using android::String16;

const String16 IStateChangeListener::descriptor(IStateChangeListener::STATE_CHANGE_LISTENER_NAME);

IStateChangeListener::IStateChangeListener() {}

IStateChangeListener::~IStateChangeListener() {}

const String16& IStateChangeListener::getInterfaceDescriptor() const {
    return descriptor;
}

sp<IStateChangeListener> IStateChangeListener::asInterface(const sp<IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    sp<IStateChangeListener> local =
            static_cast<IStateChangeListener*>(binder->queryLocalInterface(descriptor).get());
    if (local != nullptr) {
        return local;
    }
    return new BpStateChangeListener(binder);
}

// ---------------------------------------------------------------------------------------------

BpStateChangeListener::BpStateChangeListener(const sp<IBinder>& impl)
    : android::BpInterface<IStateChangeListener>(impl) {}

BpStateChangeListener::~BpStateChangeListener() {}

void BpStateChangeListener::onEvent(const StateChangeEvent& event) {
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) == OK &&
        StateChangeEventParceler::parcel(event, data) == OK) {
        remote()->transact(ON_EVENT, data, &reply, IBinder::FLAG_ONEWAY);
    }
    reply.readExceptionCode();
}

// ---------------------------------------------------------------------------------------------

BnStateChangeListener::BnStateChangeListener(const sp<StateChangeListener>& listener)
    : mListener(listener) {}

BnStateChangeListener::~BnStateChangeListener() {}

int BnStateChangeListener::getHandle() const {
    return mListener->getHandle();
}

void BnStateChangeListener::setHandle(int handle) {
    mListener->setHandle(handle);
}

int BnStateChangeListener::getPid() const {
    return mListener->getPid();
}

int64_t BnStateChangeListener::getRegistrationTimestamp() const {
    return mListener->getRegistrationTimestamp();
}

void BnStateChangeListener::onEvent(const StateChangeEvent& event) {
    mListener->onEvent(event);
}

const sp<StateChangeListener>& BnStateChangeListener::getListener() const {
    return mListener;
}

status_t BnStateChangeListener::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                           uint32_t flags) {
    if (code != ON_EVENT) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return PERMISSION_DENIED;
    }
    StateChangeEvent event;
    StateChangeEventParceler::unparcel(event, data);
    onEvent(event);
    if (reply != nullptr) {
        reply->writeNoException();
    }
    return OK;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
