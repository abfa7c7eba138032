/*
 * BpTovarinService: the client end of ITovarinService. One synchronous transaction per
 * operation; failures of value-returning getters are hidden behind fixed fallbacks.
 */
#include "ITovarinService.h"

#include "HeadTrackerHandleParceler.h"
#include "HeadTrackingEventParceler.h"
#include "HeadTrackingStateParceler.h"
#include "IHeadTrackingPoller.h"
#include "IRawDataListener.h"
#include "IStateChangeListener.h"

namespace morvel {
namespace tovarin {
namespace binder {

using android::BAD_VALUE;
using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;

namespace {

// The client's half of a listener registration. `Wrapper` is the local binder that the
// service calls back; the map keeps it alive under the handle that the service assigned.
template <typename Wrapper, typename Listener>
status_t registerListener(IBinder* remote, uint32_t code, const sp<Listener>& listener,
                          std::map<int32_t, sp<Wrapper>>& wrappers) {
    if (listener == nullptr) {
        return BAD_VALUE;
    }
    Parcel data;
    Parcel reply;
    status_t status = data.writeInterfaceToken(ITovarinService::descriptor);
    if (status != OK) {
        return status;
    }
    sp<Wrapper> wrapper = new Wrapper(listener);
    status = data.writeStrongBinder(IInterface::asBinder(wrapper));
    if (status != OK) {
        return status;
    }
    status = remote->transact(code, data, &reply, 0);
    if (status != OK) {
        return status;
    }
    reply.readExceptionCode();
    const int32_t handle = reply.readInt32();
    const status_t result = reply.readInt32();
    listener->setHandle(handle);
    if (result == OK && handle != -1) {
        wrappers[handle] = wrapper;
        return OK;
    }
    return result;
}

// Unregistration sends the stored wrapper and its handle. The entry is kept when the
// transaction fails, so that a later call can try again.
template <typename Wrapper, typename Listener>
void unregisterListener(IBinder* remote, uint32_t code, const sp<Listener>& listener,
                        std::map<int32_t, sp<Wrapper>>& wrappers) {
    if (listener == nullptr) {
        return;
    }
    const int32_t handle = listener->getHandle();
    if (handle == -1) {
        return;
    }
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(ITovarinService::descriptor) != OK) {
        return;
    }
    auto entry = wrappers.find(handle);
    if (entry == wrappers.end()) {
        return;
    }
    data.writeStrongBinder(IInterface::asBinder(entry->second));
    data.writeInt32(handle);
    if (remote->transact(code, data, &reply, 0) != OK) {
        return;
    }
    entry->second->setHandle(-1);
    wrappers.erase(entry);
}

}  // namespace

BpTovarinService::BpTovarinService(const sp<IBinder>& impl)
    : android::BpInterface<ITovarinService>(impl) {}

BpTovarinService::~BpTovarinService() {}

status_t BpTovarinService::registerRawDataListener(sp<RawDataListener> listener) {
    return registerListener(remote(), REGISTER_RAW_DATA_LISTENER, listener, mRawDataListeners);
}

void BpTovarinService::unregisterRawDataListener(sp<RawDataListener> listener) {
    unregisterListener(remote(), UNREGISTER_RAW_DATA_LISTENER, listener, mRawDataListeners);
}

void BpTovarinService::setEnabledState(int state) {
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) != OK) {
        return;
    }
    data.writeInt32(state);
    if (remote()->transact(SET_ENABLED_STATE, data, &reply, 0) != OK) {
        return;
    }
    reply.readExceptionCode();
}

bool BpTovarinService::getEnabled() const {
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) != OK ||
        remote()->transact(GET_ENABLED, data, &reply, 0) != OK) {
        return false;
    }
    reply.readExceptionCode();
    return reply.readInt32() != 0;
}

int32_t BpTovarinService::getHardwareState() const {
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) != OK ||
        remote()->transact(GET_HARDWARE_STATE, data, &reply, 0) != OK) {
        return 0;
    }
    reply.readExceptionCode();
    return reply.readInt32();
}

HeadTrackingState BpTovarinService::getHeadTrackingState() const {
    HeadTrackingState state;
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) != OK ||
        remote()->transact(GET_HEAD_TRACKING_STATE, data, &reply, 0) != OK) {
        state.primary = 0;
        state.secondary = 2;
        return state;
    }
    reply.readExceptionCode();
    HeadTrackingStateParceler::unparcel(state, reply);
    return state;
}

status_t BpTovarinService::registerStateChangeListener(sp<StateChangeListener> listener) {
    return registerListener(remote(), REGISTER_STATE_CHANGE_LISTENER, listener,
                            mStateChangeListeners);
}

void BpTovarinService::unregisterStateChangeListener(sp<StateChangeListener> listener) {
    unregisterListener(remote(), UNREGISTER_STATE_CHANGE_LISTENER, listener, mStateChangeListeners);
}

HeadTrackerHandle BpTovarinService::getHeadTrackerHandle() {
    HeadTrackerHandle none;
    none.id = -1;
    none.secondaryId = -1;
    Parcel data;
    Parcel reply;
    if (data.writeInterfaceToken(descriptor) != OK) {
        return none;
    }
    // A fresh token per request: the service holds the only lasting reference to it, which is
    // how it notices the death of this process.
    sp<BnHeadTrackingPoller> token = new BnHeadTrackingPoller();
    if (data.writeStrongBinder(IInterface::asBinder(token)) != OK) {
        return none;
    }
    if (remote()->transact(GET_HEAD_TRACKER_HANDLE, data, &reply, 0) != OK) {
        return none;
    }
    reply.readExceptionCode();
    return HeadTrackerHandleParceler::unparcel(reply);
}

void BpTovarinService::releaseHeadTrackerHandle(const HeadTrackerHandle& handle) {
    Parcel reply;
    // The reply carries nothing after the exception header; failures are not reported.
    (void)sendHandleRequest(RELEASE_HEAD_TRACKER_HANDLE, handle, nullptr, &reply);
}

status_t BpTovarinService::sendHandleRequest(uint32_t code, const HeadTrackerHandle& handle,
                                             const HeadTrackingConfiguration* configuration,
                                             Parcel* reply) const {
    Parcel data;
    status_t status = data.writeInterfaceToken(descriptor);
    if (status != OK) {
        return status;
    }
    status = HeadTrackerHandleParceler::parcel(handle, data);
    if (status != OK) {
        return status;
    }
    if (configuration != nullptr) {
        status = HeadTrackerHandleParceler::parcel(*configuration, data);
        if (status != OK) {
            return status;
        }
    }
    status = remote()->transact(code, data, reply, 0);
    if (status != OK) {
        return status;
    }
    reply->readExceptionCode();
    return OK;
}

status_t BpTovarinService::transactHandle(uint32_t code, const HeadTrackerHandle& handle,
                                          const HeadTrackingConfiguration* configuration) const {
    Parcel reply;
    const status_t status = sendHandleRequest(code, handle, configuration, &reply);
    return status != OK ? status : reply.readInt32();
}

status_t BpTovarinService::start(const HeadTrackerHandle& handle) {
    return transactHandle(START, handle);
}

status_t BpTovarinService::stop(const HeadTrackerHandle& handle) {
    return transactHandle(STOP, handle);
}

status_t BpTovarinService::standby(const HeadTrackerHandle& handle) {
    return transactHandle(STANDBY, handle);
}

status_t BpTovarinService::setConfiguration(const HeadTrackerHandle& handle,
                                            const HeadTrackingConfiguration& configuration) {
    return transactHandle(SET_CONFIGURATION, handle, &configuration);
}

status_t BpTovarinService::sample(const HeadTrackerHandle& handle, HeadTrackingEvent& event) const {
    Parcel reply;
    const status_t status = sendHandleRequest(SAMPLE, handle, nullptr, &reply);
    if (status != OK) {
        return status;
    }
    const status_t result = reply.readInt32();
    if (result == OK) {
        HeadTrackingEventParceler::unparcel(event, reply);
    }
    return result;
}

status_t BpTovarinService::setPid(const HeadTrackerHandle& /*handle*/, int /*pid*/) {
    // Only the service records owners; nothing crosses the process boundary.
    return OK;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
