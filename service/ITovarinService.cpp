/*
 * The ITovarinService interface object: descriptor and proxy creation.
 */
#include "ITovarinService.h"

namespace morvel {
namespace tovarin {
namespace binder {

using android::IBinder;
using android::sp;
using android::String16;

const String16 ITovarinService::descriptor(ITovarinService::SERVICE_NAME);

ITovarinService::ITovarinService() {}

ITovarinService::~ITovarinService() {}

const String16& ITovarinService::getInterfaceDescriptor() const {
    return descriptor;
}

sp<ITovarinService> ITovarinService::asInterface(const sp<IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    sp<ITovarinService> local =
            static_cast<ITovarinService*>(binder->queryLocalInterface(descriptor).get());
    if (local != nullptr) {
        return local;
    }
    return new BpTovarinService(binder);
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
