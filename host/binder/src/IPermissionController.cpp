#include <binder/IPermissionController.h>

#include <binder/Parcel.h>

namespace android {

class BpPermissionController : public BpInterface<IPermissionController> {
public:
    explicit BpPermissionController(const sp<IBinder>& impl)
          : BpInterface<IPermissionController>(impl) {}

    bool checkPermission(const String16& permission, int32_t pid, int32_t uid) override {
        Parcel data, reply;
        data.writeInterfaceToken(IPermissionController::getInterfaceDescriptor());
        data.writeString16(permission);
        data.writeInt32(pid);
        data.writeInt32(uid);
        if (remote()->transact(CHECK_PERMISSION_TRANSACTION, data, &reply) != NO_ERROR) {
            return false;
        }
        if (reply.readExceptionCode() != 0) return false;
        return reply.readInt32() != 0;
    }

    int32_t noteOp(const String16& op, int32_t uid, const String16& packageName) override {
        Parcel data, reply;
        data.writeInterfaceToken(IPermissionController::getInterfaceDescriptor());
        data.writeString16(op);
        data.writeInt32(uid);
        data.writeString16(packageName);
        if (remote()->transact(NOTE_OP_TRANSACTION, data, &reply) != NO_ERROR) return 2;
        if (reply.readExceptionCode() != 0) return 2;  // MODE_ERRORED
        return reply.readInt32();
    }

    void getPackagesForUid(const uid_t uid, Vector<String16>& packages) override {
        Parcel data, reply;
        data.writeInterfaceToken(IPermissionController::getInterfaceDescriptor());
        data.writeInt32(static_cast<int32_t>(uid));
        if (remote()->transact(GET_PACKAGES_FOR_UID_TRANSACTION, data, &reply) != NO_ERROR) {
            return;
        }
        if (reply.readExceptionCode() != 0) return;
        const int32_t size = reply.readInt32();
        if (size <= 0) return;
        packages.clear();
        for (int32_t i = 0; i < size && reply.dataAvail() > 0; i++) {
            packages.add(reply.readString16());
        }
    }

    bool isRuntimePermission(const String16& permission) override {
        Parcel data, reply;
        data.writeInterfaceToken(IPermissionController::getInterfaceDescriptor());
        data.writeString16(permission);
        if (remote()->transact(IS_RUNTIME_PERMISSION_TRANSACTION, data, &reply) != NO_ERROR) {
            return false;
        }
        if (reply.readExceptionCode() != 0) return false;
        return reply.readInt32() != 0;
    }

    int getPackageUid(const String16& package, int flags) override {
        Parcel data, reply;
        data.writeInterfaceToken(IPermissionController::getInterfaceDescriptor());
        data.writeString16(package);
        data.writeInt32(flags);
        if (remote()->transact(GET_PACKAGE_UID_TRANSACTION, data, &reply) != NO_ERROR) {
            return -1;
        }
        if (reply.readExceptionCode() != 0) return -1;
        return reply.readInt32();
    }
};

IMPLEMENT_META_INTERFACE(PermissionController, "android.os.IPermissionController");

status_t BnPermissionController::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                            uint32_t flags) {
    switch (code) {
        case CHECK_PERMISSION_TRANSACTION: {
            CHECK_INTERFACE(IPermissionController, data, reply);
            String16 permission = data.readString16();
            int32_t pid = data.readInt32();
            int32_t uid = data.readInt32();
            bool res = checkPermission(permission, pid, uid);
            reply->writeNoException();
            reply->writeInt32(res ? 1 : 0);
            return NO_ERROR;
        }
        case NOTE_OP_TRANSACTION: {
            CHECK_INTERFACE(IPermissionController, data, reply);
            String16 op = data.readString16();
            int32_t uid = data.readInt32();
            String16 packageName = data.readString16();
            int32_t res = noteOp(op, uid, packageName);
            reply->writeNoException();
            reply->writeInt32(res);
            return NO_ERROR;
        }
        case GET_PACKAGES_FOR_UID_TRANSACTION: {
            CHECK_INTERFACE(IPermissionController, data, reply);
            int32_t uid = data.readInt32();
            Vector<String16> packages;
            getPackagesForUid(static_cast<uid_t>(uid), packages);
            reply->writeNoException();
            reply->writeInt32(static_cast<int32_t>(packages.size()));
            for (size_t i = 0; i < packages.size(); i++) reply->writeString16(packages[i]);
            return NO_ERROR;
        }
        case IS_RUNTIME_PERMISSION_TRANSACTION: {
            CHECK_INTERFACE(IPermissionController, data, reply);
            String16 permission = data.readString16();
            const bool res = isRuntimePermission(permission);
            reply->writeNoException();
            reply->writeInt32(res ? 1 : 0);
            return NO_ERROR;
        }
        case GET_PACKAGE_UID_TRANSACTION: {
            CHECK_INTERFACE(IPermissionController, data, reply);
            String16 package = data.readString16();
            int flags2 = data.readInt32();
            const int uid = getPackageUid(package, flags2);
            reply->writeNoException();
            reply->writeInt32(uid);
            return NO_ERROR;
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

}  // namespace android
