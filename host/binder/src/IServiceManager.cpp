#define LOG_TAG "hostbinder"

#include <binder/IServiceManager.h>

#include <binder/IPCThreadState.h>
#include <binder/IPermissionController.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <utils/String8.h>
#include <utils/SystemClock.h>

#include <unistd.h>

namespace android {

namespace {
constexpr int64_t kGetServiceWaitMs = 5000;
constexpr int64_t kPermissionWaitMs = 5000;
constexpr useconds_t kPollIntervalUs = 100 * 1000;
}  // namespace

class BpServiceManager : public BpInterface<IServiceManager> {
public:
    explicit BpServiceManager(const sp<IBinder>& impl) : BpInterface<IServiceManager>(impl) {}

    sp<IBinder> getService(const String16& name) const override {
        const int64_t deadline = uptimeMillis() + kGetServiceWaitMs;
        for (;;) {
            sp<IBinder> svc = checkService(name);
            if (svc != nullptr) return svc;
            if (!remote()->isBinderAlive() || uptimeMillis() >= deadline) return nullptr;
            usleep(kPollIntervalUs);
        }
    }

    sp<IBinder> checkService(const String16& name) const override {
        Parcel data, reply;
        data.writeInterfaceToken(IServiceManager::getInterfaceDescriptor());
        data.writeString16(name);
        if (remote()->transact(CHECK_SERVICE_TRANSACTION, data, &reply) != NO_ERROR) {
            return nullptr;
        }
        return reply.readStrongBinder();
    }

    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpsysPriority) override {
        Parcel data, reply;
        data.writeInterfaceToken(IServiceManager::getInterfaceDescriptor());
        data.writeString16(name);
        data.writeStrongBinder(service);
        data.writeInt32(allowIsolated ? 1 : 0);
        data.writeInt32(dumpsysPriority);
        status_t err = remote()->transact(ADD_SERVICE_TRANSACTION, data, &reply);
        return err == NO_ERROR ? reply.readExceptionCode() : err;
    }

    Vector<String16> listServices(int dumpsysPriority) override {
        Vector<String16> res;
        for (int n = 0;; n++) {
            Parcel data, reply;
            data.writeInterfaceToken(IServiceManager::getInterfaceDescriptor());
            data.writeInt32(n);
            data.writeInt32(dumpsysPriority);
            if (remote()->transact(LIST_SERVICES_TRANSACTION, data, &reply) != NO_ERROR) break;
            res.add(reply.readString16());
        }
        return res;
    }
};

IMPLEMENT_META_INTERFACE(ServiceManager, "android.os.IServiceManager");

sp<IServiceManager> defaultServiceManager() {
    // Never destroyed, like the process state: pool threads may call in while the process exits.
    static Mutex& sLock = *new Mutex;
    static sp<IServiceManager>& sManager = *new sp<IServiceManager>;
    // Joins the instance HOSTBINDER_SOCKET names (again, when it changed).
    ProcessState::self()->ensureRuntime();
    Mutex::Autolock _l(sLock);
    if (sManager == nullptr || !IInterface::asBinder(sManager)->isBinderAlive()) {
        sManager = interface_cast<IServiceManager>(ProcessState::self()->getContextObject(nullptr));
    }
    return sManager;
}

bool checkCallingPermission(const String16& permission) {
    return checkCallingPermission(permission, nullptr, nullptr);
}

bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid) {
    IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    if (outPid) *outPid = pid;
    if (outUid) *outUid = static_cast<int32_t>(uid);
    return checkPermission(permission, pid, uid);
}

bool checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    static Mutex& sLock = *new Mutex;
    static sp<IPermissionController>& sController = *new sp<IPermissionController>;
    static const String16& kPermissionService = *new String16("permission");

    sp<IPermissionController> pc;
    {
        Mutex::Autolock _l(sLock);
        pc = sController;
    }
    const int64_t deadline = uptimeMillis() + kPermissionWaitMs;
    for (;;) {
        if (pc != nullptr) {
            if (pc->checkPermission(permission, pid, static_cast<int32_t>(uid))) return true;
            if (IInterface::asBinder(pc)->isBinderAlive()) {
                ALOGW("Permission failure: %s from uid=%d pid=%d",
                      String8(permission).string(), static_cast<int>(uid), pid);
                return false;
            }
            Mutex::Autolock _l(sLock);
            if (sController == pc) sController = nullptr;
        }
        sp<IServiceManager> sm = defaultServiceManager();
        sp<IBinder> binder = sm->checkService(kPermissionService);
        if (binder != nullptr) {
            pc = interface_cast<IPermissionController>(binder);
            Mutex::Autolock _l(sLock);
            sController = pc;
            continue;
        }
        // No permission service: wait a bounded time for it, unless the runtime itself is gone.
        if (!IInterface::asBinder(sm)->isBinderAlive() || uptimeMillis() >= deadline) {
            ALOGW("no permission service: %s denied to uid=%d pid=%d",
                  String8(permission).string(), static_cast<int>(uid), pid);
            return false;
        }
        usleep(kPollIntervalUs);
    }
}

}  // namespace android
