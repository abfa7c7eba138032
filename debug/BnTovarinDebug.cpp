/*
 * ITovarinDebug's service end: the permission gate, the request layouts, and the seven
 * operations on the common library's overrides and diagnostics stores.
 */
#include "ITovarinDebug.h"

#include "TovarinPermission.h"

#include <tovarin/TovarinDiagnostics.h>
#include <tovarin/TovarinOverrides.h>

#include <string>

using android::BBinder;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::status_t;
using android::String16;
using android::String8;

namespace morvel {
namespace tovarin {
namespace binder {

namespace {

// Sent back in place of a text result when the caller lacks the control permission.
const String16 kPermissionDenied("PERMISSION DENIED");

// Reads a text argument and returns it as UTF-8; a missing or malformed text reads as empty.
String8 readText(const Parcel& data) {
    return String8(data.readString16());
}

TovarinDiagnostics* diagnostics(int type) {
    // The type is the caller's number, handed on unchecked: the store decides what it means.
    return TovarinDiagnostics::getInstance(static_cast<TovarinDiagnostics::Type>(type));
}

String8 toString8(const std::string& text) {
    return String8(text.data(), text.size());
}

}  // namespace

BnTovarinDebug::BnTovarinDebug() {}
BnTovarinDebug::~BnTovarinDebug() {}

String8 BnTovarinDebug::getOverride(const char* key) const {
    std::string value;
    TovarinOverrides::getInstance()->get(key, &value);
    return toString8(value);
}

String8 BnTovarinDebug::getAllOverrides() const {
    return String8(TovarinOverrides::getInstance()->toString());
}

int BnTovarinDebug::setOverride(const char* key, const char* value) {
    TovarinOverrides::getInstance()->set(key, value);
    return 0;
}

void BnTovarinDebug::clearOverride(const char* key) {
    TovarinOverrides::getInstance()->clear(key);
}

String8 BnTovarinDebug::getDiagnostic(int type, const char* key) const {
    std::string value;
    diagnostics(type)->get(key, &value);
    return toString8(value);
}

String8 BnTovarinDebug::getAllDiagnostics(int type) const {
    return String8(diagnostics(type)->toString());
}

void BnTovarinDebug::setDiagnostic(int type, const char* key, const char* value) {
    diagnostics(type)->set(key, value);
}

// Every accepted request gets the no-exception word first, then the permission check named
// after the operation. A refused request's arguments are left unread; text operations answer
// kPermissionDenied, setOverride -1, the two without a result nothing more.
status_t BnTovarinDebug::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                    uint32_t flags) {
    if (code < GET_OVERRIDE || code > SET_DIAGNOSTIC) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return PERMISSION_DENIED;
    }
    status_t status = reply->writeNoException();

    switch (code) {
        case GET_OVERRIDE: {
            if (!TovarinPermission::validateAccess("getOverride")) {
                return reply->writeString16(kPermissionDenied);
            }
            const String8 key = readText(data);
            return reply->writeString16(String16(getOverride(key.string())));
        }
        case GET_ALL_OVERRIDES: {
            if (!TovarinPermission::validateAccess("getAllOverrides")) {
                return reply->writeString16(kPermissionDenied);
            }
            return reply->writeString16(String16(getAllOverrides()));
        }
        case SET_OVERRIDE: {
            if (!TovarinPermission::validateAccess("setOverride")) {
                return reply->writeInt32(-1);
            }
            const String8 key = readText(data);
            const String8 value = readText(data);
            return reply->writeInt32(setOverride(key.string(), value.string()));
        }
        case CLEAR_OVERRIDE: {
            if (!TovarinPermission::validateAccess("clearOverride")) {
                return OK;
            }
            const String8 key = readText(data);
            clearOverride(key.string());
            return OK;
        }
        case GET_DIAGNOSTIC: {
            if (!TovarinPermission::validateAccess("getDiagnostic")) {
                return reply->writeString16(kPermissionDenied);
            }
            const int32_t type = data.readInt32();
            const String8 key = readText(data);
            return reply->writeString16(String16(getDiagnostic(type, key.string())));
        }
        case GET_ALL_DIAGNOSTICS: {
            if (!TovarinPermission::validateAccess("getAllDiagnostics")) {
                return reply->writeString16(kPermissionDenied);
            }
            const int32_t type = data.readInt32();
            return reply->writeString16(String16(getAllDiagnostics(type)));
        }
        case SET_DIAGNOSTIC: {
            if (!TovarinPermission::validateAccess("setDiagnostic")) {
                return OK;
            }
            const int32_t type = data.readInt32();
            const String8 key = readText(data);
            const String8 value = readText(data);
            setDiagnostic(type, key.string(), value.string());
            return OK;
        }
    }
    return status;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
