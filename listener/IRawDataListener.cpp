/*
 * IRawDataListener: raw data callbacks, service to application, one-way.
 */
#include "IRawDataListener.h"

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

const String16 IRawDataListener::descriptor(IRawDataListener::RAW_DATA_LISTENER_NAME);

IRawDataListener::IRawDataListener() {}

IRawDataListener::~IRawDataListener() {}

const String16& IRawDataListener::getInterfaceDescriptor() const {
    return descriptor;
}

sp<IRawDataListener> IRawDataListener::asInterface(const sp<IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    sp<IRawDataListener> local =
            static_cast<IRawDataListener*>(binder->queryLocalInterface(descriptor).get());
    if (local != nullptr) {
        return local;
    }
    return new BpRawDataListener(binder);
}

// ---------------------------------------------------------------------------------------------

BpRawDataListener::BpRawDataListener(const sp<IBinder>& impl)
    : android::BpInterface<IRawDataListener>(impl) {}

BpRawDataListener::~BpRawDataListener() {}

void BpRawDataListener::onEvent(const RawDataEvent& event) {
    Parcel data;
    Parcel reply;
    RawDataEventParceler parceler;
    if (data.writeInterfaceToken(descriptor) == OK && parceler.parcel(event, data) == OK) {
        remote()->transact(ON_EVENT, data, &reply, IBinder::FLAG_ONEWAY);
    }
    reply.readExceptionCode();
}

// ---------------------------------------------------------------------------------------------

BnRawDataListener::BnRawDataListener(const sp<RawDataListener>& listener) : mListener(listener) {}

BnRawDataListener::~BnRawDataListener() {}

int BnRawDataListener::getHandle() const {
    return mListener->getHandle();
}

void BnRawDataListener::setHandle(int handle) {
    mListener->setHandle(handle);
}

int BnRawDataListener::getPid() const {
    return mListener->getPid();
}

int64_t BnRawDataListener::getRegistrationTimestamp() const {
    return mListener->getRegistrationTimestamp();
}

void BnRawDataListener::onEvent(const RawDataEvent& event) {
    mListener->onEvent(event);
}

const sp<RawDataListener>& BnRawDataListener::getListener() const {
    return mListener;
}

status_t BnRawDataListener::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                       uint32_t flags) {
    if (code != ON_EVENT) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return PERMISSION_DENIED;
    }
    // Frame pixels land in the buffer owned by mParceler; they are valid during onEvent only.
    RawDataEvent event;
    const status_t status = RawDataEventParceler::unparcel(event, data, mParceler);
    onEvent(event);
    if (reply != nullptr) {
        reply->writeNoException();
    }
    event.cameraFrameEvent.sensorData.clear();
    return status;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
