/*
 * IHeadTrackingPoller: the liveness token a client sends with each head tracker request.
 */
#include "IHeadTrackingPoller.h"

namespace morvel {
namespace tovarin {
namespace binder {

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;

const String16 IHeadTrackingPoller::descriptor(IHeadTrackingPoller::HEAD_TRACKING_POLLER_NAME);

IHeadTrackingPoller::IHeadTrackingPoller() {}

IHeadTrackingPoller::~IHeadTrackingPoller() {}

const String16& IHeadTrackingPoller::getInterfaceDescriptor() const {
    return descriptor;
}

sp<IHeadTrackingPoller> IHeadTrackingPoller::asInterface(const sp<IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    sp<IHeadTrackingPoller> local =
            static_cast<IHeadTrackingPoller*>(binder->queryLocalInterface(descriptor).get());
    if (local != nullptr) {
        return local;
    }
    return new BpHeadTrackingPoller(binder);
}

status_t BnHeadTrackingPoller::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                          uint32_t flags) {
    return BBinder::onTransact(code, data, reply, flags);
}

BpHeadTrackingPoller::BpHeadTrackingPoller(const sp<IBinder>& impl)
    : android::BpInterface<IHeadTrackingPoller>(impl) {}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
