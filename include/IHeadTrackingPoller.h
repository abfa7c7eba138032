/*
 * IHeadTrackingPoller: a binder interface without operations. A client sends a fresh
 * BnHeadTrackingPoller with every head tracker handle request; the service keeps the binder
 * and links to its death, so that the handles a client held are released when its process
 * dies. When the service releases the handle and drops the binder, the token is destroyed in
 * the client.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

namespace morvel {
namespace tovarin {
namespace binder {

class IHeadTrackingPoller : public android::IInterface {
public:
    static constexpr char HEAD_TRACKING_POLLER_NAME[] = "morvel.tovarin.head_tracker";

    static const android::String16 descriptor;
    static android::sp<IHeadTrackingPoller> asInterface(
            const android::sp<android::IBinder>& binder);

    IHeadTrackingPoller();
    virtual ~IHeadTrackingPoller();

    virtual const android::String16& getInterfaceDescriptor() const;
};

// The liveness token. Every code goes to the platform's default handling.
class BnHeadTrackingPoller : public android::BnInterface<IHeadTrackingPoller> {
public:
    virtual android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                         android::Parcel* reply, uint32_t flags = 0);
};

class BpHeadTrackingPoller : public android::BpInterface<IHeadTrackingPoller> {
public:
    explicit BpHeadTrackingPoller(const android::sp<android::IBinder>& impl);
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
