// Random requests to BnTovarinDebug, allowed and refused.
//
// Input: byte 0 picks the code (0 to 9, so the platform's own handling is reached too); byte 1
// bit 0 grants the control permission, bit 1 prefixes the interface token; the rest is the
// request after the token.
#include "ITovarinDebug.h"
#include "TovarinPermission.h"

#include <binder/Parcel.h>

#include <stddef.h>
#include <stdint.h>

using android::Parcel;
using android::sp;
using android::String16;
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static const sp<BnTovarinDebug> stub = new BnTovarinDebug();
    const uint32_t code = data[0] % 10;
    gGranted = (data[1] & 1) != 0;
    Parcel request, reply;
    if ((data[1] & 2) != 0) request.writeInterfaceToken(ITovarinDebug::descriptor);
    request.write(data + 2, size - 2);
    stub->transact(code, request, &reply, 0);
    return 0;
}
