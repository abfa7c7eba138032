// hostbinderd: the "permission" service (android.os.IPermissionController).
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <binder/IBinder.h>
#include <log/log.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/String8.h>

namespace android {
namespace hostbinder {

namespace {
const char16_t kPermissionDescriptor[] = u"android.os.IPermissionController";
}  // namespace

int32_t Broker::servePermission(Txn* x, BrokerParcelWriter* reply) {
    const uint8_t* data = x->body.data() + size_t(x->objectsCount) * 8;
    BrokerParcelReader in(data, x->dataSize);
    switch (x->code) {
        case IBinder::PING_TRANSACTION:
            return NO_ERROR;
        case IBinder::INTERFACE_TRANSACTION:
            reply->writeString16(kPermissionDescriptor);
            return NO_ERROR;
        case 1: {  // CHECK_PERMISSION_TRANSACTION
            std::u16string permission;
            if (!in.enforceInterface(kPermissionDescriptor)) return PERMISSION_DENIED;
            if (!in.readString16(&permission)) return BAD_VALUE;
            const int32_t pid = in.readInt32();
            const int32_t uid = in.readInt32();
            if (!in.ok()) return BAD_VALUE;
            const String8 perm(String16(permission.data(), permission.size()));
            const bool granted = mPolicy.check(perm.string(), static_cast<uid_t>(uid));
            ALOGV("permission %s for pid %d uid %d: %s", perm.string(), pid, uid,
                  granted ? "granted" : "denied");
            (void)pid;
            reply->writeInt32(0);  // no exception
            reply->writeInt32(granted ? 1 : 0);
            return NO_ERROR;
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

}  // namespace hostbinder
}  // namespace android
