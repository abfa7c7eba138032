/*
 * TovarinPermission: the control permission check for guarded operations.
 */
#include "TovarinPermission.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <tovarin/TovarinLogger.h>
#include <tovarin/Utils.h>
#include <utils/String8.h>

namespace morvel {
namespace tovarin {

using android::IPCThreadState;
using android::String16;
using android::String8;

namespace {

constexpr char kTag[] = "TovarinPermission";
constexpr char kControlPermission[] = "com.morvel.permission.TOVARIN_CONTROL";

// Log state word of this module; only the log writer touches it.
int32_t sLogState = -1;

}  // namespace

const String16 TovarinPermission::CONTROL_PERMISSION(kControlPermission);

bool TovarinPermission::validateAccess(const char* method) {
    IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    const bool granted = android::checkPermission(CONTROL_PERMISSION, pid, uid);
    if (granted || method == nullptr) {
        return granted;
    }
    const int callingPid = ipc->getCallingPid();
    if (TovarinLogger::getInstance()->shouldLog(kTag, ANDROID_LOG_ERROR)) {
        const String8 name = Utils::getProcessNameFromPID(callingPid);
        rendel_log_write2(ANDROID_LOG_ERROR, &sLogState, 2, kTag,
                          "Permission Error: %s(%d) must have permission \"%s\" /> before "
                          "calling %s",
                          name.string(), callingPid, kControlPermission, method);
    }
    return false;
}

}  // namespace tovarin
}  // namespace morvel
