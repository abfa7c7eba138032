/*
 * Feeds arbitrary requests to the tracking service stub in one process: the code, the token,
 * the transaction flags (one-way or not) and a sequence of integers, strings and binders (none,
 * foreign, the service itself, a poller token, a state change listener) are all taken from the
 * input. As on the platform, the stub always gets a reply parcel, one-way calls included.
 *
 * Code 3 is left out: its permission check needs a running runtime, which a fuzzer does not
 * start; the multi-process tests cover it.
 */
#include "IHeadTrackingPoller.h"
#include "IStateChangeListener.h"
#include "ITovarinService.h"

#include <android/log.h>
#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <tovarin/TovarinFacade.h>
#include <tovarin/TovarinLogger.h>

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

using android::BBinder;
using android::IBinder;
using android::IInterface;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;
using morvel::tovarin::StateChangeEvent;
using morvel::tovarin::StateChangeListener;
using morvel::tovarin::TovarinFacade;
using morvel::tovarin::binder::BnHeadTrackingPoller;
using morvel::tovarin::binder::BnStateChangeListener;
using morvel::tovarin::binder::BnTovarinService;
using morvel::tovarin::binder::ITovarinService;

namespace {

class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    bool empty() const { return mSize == 0; }
    uint32_t take(size_t bytes) {
        uint32_t value = 0;
        const size_t n = bytes < mSize ? bytes : mSize;
        memcpy(&value, mData, n);
        mData += n;
        mSize -= n;
        return value;
    }

private:
    const uint8_t* mData;
    size_t mSize;
};

class SilentListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent&) override {}
};

struct Target {
    sp<BnTovarinService> service;
    std::vector<sp<IBinder>> binders;
};

Target& target() {
    // Lives for the process, like the service in its own process.
    static Target* t = [] {
        morvel::tovarin::TovarinLogger::getInstance()->configure("*:F");
        auto* created = new Target();
        created->service = new BnTovarinService(new TovarinFacade());
        created->binders = {nullptr, new BBinder(), IInterface::asBinder(created->service),
                            new BnHeadTrackingPoller(),
                            new BnStateChangeListener(new SilentListener())};
        return created;
    }();
    return *t;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);  // refused requests are logged
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Target& t = target();
    Input input(data, size);
    uint32_t code = input.take(1) % 18;
    if (code == ITovarinService::SET_ENABLED_STATE) code = ITovarinService::GET_ENABLED;
    // Bits 0-2: the token (left out one time in eight); bits 3-7: the flags (bit 3: one-way).
    const uint32_t header = input.take(1);
    const uint32_t flags = header >> 3;
    Parcel request;
    if (header % 8 != 0) request.writeInterfaceToken(ITovarinService::descriptor);
    while (!input.empty()) {
        switch (input.take(1) % 5) {
            case 0:
                request.writeInt32(static_cast<int32_t>(input.take(4)));
                break;
            case 1:
                request.writeInt64(static_cast<int64_t>(input.take(4)) << 16);
                break;
            case 2: {
                const std::string text(input.take(2) % 512, 's');
                request.writeString8(String8(text.c_str()));
                break;
            }
            case 3:
                request.writeStrongBinder(t.binders[input.take(1) % t.binders.size()]);
                break;
            default:
                request.writeInt32(static_cast<int32_t>(input.take(1)) - 2);
                break;
        }
    }
    Parcel reply;
    IInterface::asBinder(t.service)->transact(code, request, &reply, flags);
    // Undo what the input acquired so that runs stay independent and bounded.
    if (code == ITovarinService::REGISTER_STATE_CHANGE_LISTENER && reply.dataSize() >= 12) {
        reply.setDataPosition(4);
        const int32_t handle = reply.readInt32();
        Parcel unregister;
        unregister.writeInterfaceToken(ITovarinService::descriptor);
        unregister.writeStrongBinder(t.binders[1]);
        unregister.writeInt32(handle);
        Parcel none;
        IInterface::asBinder(t.service)->transact(ITovarinService::UNREGISTER_STATE_CHANGE_LISTENER,
                                                  unregister, &none, 0);
    }
    for (int32_t id = -1; id < 4; ++id) {
        Parcel release;
        release.writeInterfaceToken(ITovarinService::descriptor);
        release.writeInt32(id);
        Parcel none;
        IInterface::asBinder(t.service)->transact(ITovarinService::RELEASE_HEAD_TRACKER_HANDLE,
                                                  release, &none, 0);
    }
    return 0;
}
