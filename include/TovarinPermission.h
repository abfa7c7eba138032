/*
 * TovarinPermission: the check that guards operations changing the tracker's behaviour or
 * exposing its internals.
 */
#pragma once

#include <utils/String16.h>

namespace morvel {
namespace tovarin {

class TovarinPermission {
public:
    // "com.morvel.permission.TOVARIN_CONTROL"
    static const android::String16 CONTROL_PERMISSION;

    // True when the process whose transaction this binder thread is serving holds the control
    // permission. A refusal with a non-null `method` writes one error line naming the caller
    // and the method; a null `method` checks silently. Reentrant; any binder thread.
    static bool validateAccess(const char* method);
};

}  // namespace tovarin
}  // namespace morvel
