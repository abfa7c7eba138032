/*
 * ITovarinDebug's identity and its client proxy.
 */
#include "ITovarinDebug.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;

namespace morvel {
namespace tovarin {
namespace binder {

namespace {

// The wire form of an 8-bit argument. A null text travels as an empty one.
String16 toWire(const char* text) {
    return text != nullptr ? String16(text) : String16();
}

}  // namespace

const String16 ITovarinDebug::descriptor(ITovarinDebug::SERVICE_NAME);

sp<ITovarinDebug> ITovarinDebug::asInterface(const sp<IBinder>& binder) {
    sp<ITovarinDebug> debug;
    if (binder != nullptr) {
        debug = static_cast<ITovarinDebug*>(binder->queryLocalInterface(descriptor).get());
        if (debug == nullptr) {
            debug = new BpTovarinDebug(binder);
        }
    }
    return debug;
}

ITovarinDebug::ITovarinDebug() {}
ITovarinDebug::~ITovarinDebug() {}

const String16& ITovarinDebug::getInterfaceDescriptor() const {
    return descriptor;
}

// ---------------------------------------------------------------------------------------------
// Proxy. Each call: token, arguments, one synchronous transaction whose status is not
// examined, the exception word read and disregarded, then the result if there is one. A
// failed transaction leaves the reply empty, so its reads give an empty text or 0.

BpTovarinDebug::BpTovarinDebug(const sp<IBinder>& impl) : BpInterface<ITovarinDebug>(impl) {}
BpTovarinDebug::~BpTovarinDebug() {}

String8 BpTovarinDebug::getOverride(const char* key) const {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeString16(toWire(key));
    remote()->transact(GET_OVERRIDE, data, &reply, 0);
    reply.readExceptionCode();
    return String8(reply.readString16());
}

String8 BpTovarinDebug::getAllOverrides() const {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    remote()->transact(GET_ALL_OVERRIDES, data, &reply, 0);
    reply.readExceptionCode();
    return String8(reply.readString16());
}

int BpTovarinDebug::setOverride(const char* key, const char* value) {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeString16(toWire(key));
    data.writeString16(toWire(value));
    remote()->transact(SET_OVERRIDE, data, &reply, 0);
    reply.readExceptionCode();
    return reply.readInt32();
}

void BpTovarinDebug::clearOverride(const char* key) {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeString16(toWire(key));
    remote()->transact(CLEAR_OVERRIDE, data, &reply, 0);
    reply.readExceptionCode();
}

String8 BpTovarinDebug::getDiagnostic(int type, const char* key) const {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeInt32(type);
    data.writeString16(toWire(key));
    remote()->transact(GET_DIAGNOSTIC, data, &reply, 0);
    reply.readExceptionCode();
    return String8(reply.readString16());
}

String8 BpTovarinDebug::getAllDiagnostics(int type) const {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeInt32(type);
    remote()->transact(GET_ALL_DIAGNOSTICS, data, &reply, 0);
    reply.readExceptionCode();
    return String8(reply.readString16());
}

void BpTovarinDebug::setDiagnostic(int type, const char* key, const char* value) {
    Parcel data, reply;
    data.writeInterfaceToken(ITovarinDebug::descriptor);
    data.writeInt32(type);
    data.writeString16(toWire(key));
    data.writeString16(toWire(value));
    remote()->transact(SET_DIAGNOSTIC, data, &reply, 0);
    reply.readExceptionCode();
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
