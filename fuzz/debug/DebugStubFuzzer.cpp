// Random requests to BnTovarinDebug, allowed and refused.
//
// Input: byte 0 picks the code (0 to 9, so the platform's own handling is reached too); byte 1
// bit 0 grants the control permission, bit 1 prefixes the interface token, bits 2 to 7 are the
// transaction flags (bit 2: one-way); the rest is the request after the token. As on the
// platform, the stub always gets a reply parcel, one-way calls included.
//
// The stores the stub writes to live for the process; they are emptied after every input so
// that runs stay independent and memory stays bounded.
#include "ITovarinDebug.h"
#include "TovarinPermission.h"

#include <android/log.h>
#include <binder/Parcel.h>
#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinOverrides.h>

#include <stddef.h>
#include <stdint.h>

using android::Parcel;
using android::sp;
using android::String16;
using morvel::tovarin::TovarinDiagnostics;
using morvel::tovarin::TovarinOverrides;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::ITovarinDebug;

namespace {
bool gGranted = false;
}  // namespace

// Stands in for the platform's permission check, which needs a runtime.
namespace morvel {
namespace tovarin {
const String16 TovarinPermission::CONTROL_PERMISSION("com.morvel.permission.TOVARIN_CONTROL");
bool TovarinPermission::validateAccess(const char*) {
    return gGranted;
}
}  // namespace tovarin
}  // namespace morvel

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);  // refused requests are logged
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static const sp<BnTovarinDebug> stub = new BnTovarinDebug();
    const uint32_t code = data[0] % 10;
    gGranted = (data[1] & 1) != 0;
    const uint32_t flags = data[1] >> 2;
    Parcel request, reply;
    if ((data[1] & 2) != 0) request.writeInterfaceToken(ITovarinDebug::descriptor);
    request.write(data + 2, size - 2);
    stub->transact(code, request, &reply, flags);
    TovarinOverrides::getInstance()->clearAll();
    TovarinDiagnostics::getInstance(TovarinDiagnostics::DEBUG)->clearAll();
    TovarinDiagnostics::getInstance(TovarinDiagnostics::ERROR)->clearAll();
    return 0;
}
