/*
 * hostbinder: IBinder's default answers and the shell command request.
 */

#include <binder/IBinder.h>

#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

IBinder::IBinder() : RefBase() {}

IBinder::~IBinder() {}

sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) {
    return nullptr;
}

bool IBinder::checkSubclass(const void* /*subclassID*/) const {
    return false;
}

BBinder* IBinder::localBinder() {
    return nullptr;
}

BpBinder* IBinder::remoteBinder() {
    return nullptr;
}

status_t IBinder::shellCommand(const sp<IBinder>& target, int in, int out, int err,
                               Vector<String16>& args, const sp<IShellCallback>& /*callback*/,
                               const sp<IResultReceiver>& /*resultReceiver*/) {
    if (target == nullptr) return BAD_VALUE;
    Parcel send;
    Parcel reply;
    send.writeFileDescriptor(in);
    send.writeFileDescriptor(out);
    send.writeFileDescriptor(err);
    send.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; i < args.size(); i++) {
        send.writeString16(args[i]);
    }
    // This system defines no shell callback or result receiver interface: both travel as null
    // binders, which is what every caller here passes.
    send.writeStrongBinder(nullptr);
    send.writeStrongBinder(nullptr);
    return target->transact(SHELL_COMMAND_TRANSACTION, send, &reply);
}

}  // namespace android
