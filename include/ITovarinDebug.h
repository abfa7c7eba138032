/*
 * ITovarinDebug: remote reading and setting of the tracking service's overrides and
 * diagnostics stores, for callers that hold "com.morvel.permission.TOVARIN_CONTROL".
 *
 * Wire protocol (every request starts with the interface token, every accepted reply with the
 * no-exception word, also when the caller is refused; texts travel as String16 and are UTF-8
 * at both ends):
 *
 *   code  operation          request               reply            reply when refused
 *    1    getOverride        key                   value            "PERMISSION DENIED"
 *    2    getAllOverrides    -                     text             "PERMISSION DENIED"
 *    3    setOverride        key, value            int32 0          int32 -1
 *    4    clearOverride      key                   -                -
 *    5    getDiagnostic      int32 type, key       value            "PERMISSION DENIED"
 *    6    getAllDiagnostics  int32 type            text             "PERMISSION DENIED"
 *    7    setDiagnostic      int32 type, key, val  -                -
 *
 * A refused request's arguments are never read. Other codes get the platform's handling.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <stdint.h>

namespace morvel {
namespace tovarin {
namespace binder {

class ITovarinDebug : public android::IInterface {
public:
    // The name under which the service process publishes the debug binder; also the token.
    static constexpr char SERVICE_NAME[] = "com.morvel.util.tovarin.debug.ITovarinDebugService";

    enum {
        GET_OVERRIDE = android::IBinder::FIRST_CALL_TRANSACTION,  // 1
        GET_ALL_OVERRIDES,                                        // 2
        SET_OVERRIDE,                                             // 3
        CLEAR_OVERRIDE,                                           // 4
        GET_DIAGNOSTIC,                                           // 5
        GET_ALL_DIAGNOSTICS,                                      // 6
        SET_DIAGNOSTIC,                                           // 7
    };

    static const android::String16 descriptor;

    // Null for a null binder; the local object when `binder` lives in this process and
    // implements the interface; a new BpTovarinDebug otherwise.
    static android::sp<ITovarinDebug> asInterface(const android::sp<android::IBinder>& binder);

    ITovarinDebug();
    virtual ~ITovarinDebug();

    virtual const android::String16& getInterfaceDescriptor() const;

    // Texts are UTF-8. An unknown key reads as an empty text.
    virtual android::String8 getOverride(const char* key) const = 0;
    virtual android::String8 getAllOverrides() const = 0;
    virtual int setOverride(const char* key, const char* value) = 0;
    virtual void clearOverride(const char* key) = 0;
    // `type` selects a diagnostics store: 0 debug, 1 error; passed on unchecked.
    virtual android::String8 getDiagnostic(int type, const char* key) const = 0;
    virtual android::String8 getAllDiagnostics(int type) const = 0;
    virtual void setDiagnostic(int type, const char* key, const char* value) = 0;
};

// ---------------------------------------------------------------------------------------------

// Client end: one synchronous transaction per operation. Transport failures are not reported:
// a failed call reads as an empty text, or 0 from setOverride. A null text argument is sent as
// an empty text.
class BpTovarinDebug : public android::BpInterface<ITovarinDebug> {
public:
    explicit BpTovarinDebug(const android::sp<android::IBinder>& impl);
    virtual ~BpTovarinDebug();

    virtual android::String8 getOverride(const char* key) const;
    virtual android::String8 getAllOverrides() const;
    virtual int setOverride(const char* key, const char* value);
    virtual void clearOverride(const char* key);
    virtual android::String8 getDiagnostic(int type, const char* key) const;
    virtual android::String8 getAllDiagnostics(int type) const;
    virtual void setDiagnostic(int type, const char* key, const char* value);
};

// ---------------------------------------------------------------------------------------------

// Service end, working directly on the process-wide stores of the common library. Stateless;
// runs on any number of binder threads at once. Every transaction is gated by the control
// permission, named after the operation.
class BnTovarinDebug : public android::BnInterface<ITovarinDebug> {
public:
    BnTovarinDebug();
    virtual ~BnTovarinDebug();

    virtual android::String8 getOverride(const char* key) const;
    virtual android::String8 getAllOverrides() const;
    // Always 0: the store's own answer is not passed on.
    virtual int setOverride(const char* key, const char* value);
    virtual void clearOverride(const char* key);
    virtual android::String8 getDiagnostic(int type, const char* key) const;
    virtual android::String8 getAllDiagnostics(int type) const;
    virtual void setDiagnostic(int type, const char* key, const char* value);

    virtual android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                         android::Parcel* reply, uint32_t flags = 0);
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
