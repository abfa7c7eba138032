/*
 * BnTovarinService::onTransact: the server side of the ITovarinService protocol.
 *
 * Every accepted transaction (codes 1 to 15 with the right interface token) gets a reply that
 * starts with the no-exception header, written before any permission check or work.
 * Operation failures travel inside the reply; the transaction status is that of the writes.
 *
 * A head tracker handed out by GET_HEAD_TRACKER_HANDLE belongs to the calling process until it
 * releases it or dies: the poller death tracker's record for the tracker names its holder.
 * Codes 10-15 from any other process naming that tracker never reach the facade.
 */
#include "ITovarinService.h"

#include "HeadTrackerHandleParceler.h"
#include "HeadTrackingEventParceler.h"
#include "HeadTrackingStateParceler.h"
#include "IStateChangeListener.h"
#include "TovarinPermission.h"

#include <android/log.h>
#include <binder/IPCThreadState.h>
#include <tovarin/TovarinLogger.h>
#include <utils/Timers.h>

namespace morvel {
namespace tovarin {
namespace binder {

using android::BAD_VALUE;
using android::BBinder;
using android::IBinder;
using android::INVALID_OPERATION;
using android::IPCThreadState;
using android::OK;
using android::Parcel;
using android::PERMISSION_DENIED;
using android::sp;
using android::status_t;

namespace {

constexpr char kTag[] = "TovarinBnTovarinService";

// Log state word of this module; only the log writer touches it.
int32_t sLogState = -1;

void logRawDataRefusal() {
    if (TovarinLogger::getInstance()->shouldLog(kTag, ANDROID_LOG_ERROR)) {
        rendel_log_write2(ANDROID_LOG_ERROR, &sLogState, 2, kTag,
                          "Raw data is available only on non-USER builds.");
    }
}

}  // namespace

bool BnTovarinService::trackerHeldByAnotherProcess(int32_t id) const {
    if (id < 0) {
        return false;  // not a tracker: the facade answers as usual
    }
    ClientDeathData holder;
    if (!mHeadTrackingPollerDeathMapper->findClient(id, &holder) ||
        holder.pid == IPCThreadState::self()->getCallingPid()) {
        return false;
    }
    if (TovarinLogger::getInstance()->shouldLog(kTag, ANDROID_LOG_WARN)) {
        rendel_log_write2(ANDROID_LOG_WARN, &sLogState, 2, kTag,
                          "%s: head tracker (%d) is not held by this process",
                          getCallingPidString().string(), id);
    }
    return true;
}

status_t BnTovarinService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                      uint32_t flags) {
    if (code - 1 > 14) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return PERMISSION_DENIED;
    }
    // A one-way caller gets no reply; the work is done all the same.
    Parcel discarded;
    if (reply == nullptr) {
        reply = &discarded;
    }
    const status_t header = reply->writeNoException();

    switch (code) {
        case REGISTER_RAW_DATA_LISTENER: {
            logRawDataRefusal();
            reply->writeInt32(-1);
            return reply->writeInt32(-1);
        }
        case UNREGISTER_RAW_DATA_LISTENER: {
            logRawDataRefusal();
            return header;
        }
        case SET_ENABLED_STATE: {
            if (!TovarinPermission::validateAccess("setEnabled")) {
                return header;
            }
            setEnabledState(data.readInt32());
            return header;
        }
        case GET_ENABLED:
            return reply->writeInt32(getEnabled() ? 1 : 0);
        case GET_HARDWARE_STATE:
            return reply->writeInt32(getHardwareState());
        case GET_HEAD_TRACKING_STATE:
            return HeadTrackingStateParceler::parcel(getHeadTrackingState(), *reply);
        case REGISTER_STATE_CHANGE_LISTENER: {
            const sp<IBinder> binder = data.readStrongBinder();
            const sp<IStateChangeListener> listener = IStateChangeListener::asInterface(binder);
            if (listener == nullptr) {
                reply->writeInt32(-1);
                return reply->writeInt32(BAD_VALUE);
            }
            const int pid = IPCThreadState::self()->getCallingPid();
            listener->setPid(pid);
            const status_t result = registerStateChangeListener(listener);
            if (result == OK) {
                mStateChangeListenerDeathMapper->addClient(listener->getHandle(), binder, pid);
            }
            reply->writeInt32(listener->getHandle());
            return reply->writeInt32(result);
        }
        case UNREGISTER_STATE_CHANGE_LISTENER: {
            const sp<IStateChangeListener> listener =
                    IStateChangeListener::asInterface(data.readStrongBinder());
            const int32_t handle = data.readInt32();
            if (listener == nullptr) {
                return header;
            }
            listener->setHandle(handle);
            unregisterStateChangeListener(listener);
            mStateChangeListenerDeathMapper->removeClient(handle);
            return header;
        }
        case GET_HEAD_TRACKER_HANDLE: {
            HeadTrackerHandle handle;
            handle.id = -1;
            handle.secondaryId = -1;
            const sp<IBinder> token = data.readStrongBinder();
            handle = getHeadTrackerHandle();
            const int pid = IPCThreadState::self()->getCallingPid();
            setPid(handle, pid);
            mHeadTrackingPollerDeathMapper->addClient(handle.id, token, pid);
            HeadTrackerHandleParceler::parcel(handle, *reply);
            return header;
        }
        case RELEASE_HEAD_TRACKER_HANDLE: {
            const HeadTrackerHandle handle = HeadTrackerHandleParceler::unparcel(data);
            if (trackerHeldByAnotherProcess(handle.id)) {
                return header;
            }
            releaseHeadTrackerHandle(handle);
            mHeadTrackingPollerDeathMapper->removeClient(handle.id);
            return header;
        }
    }

    // Codes 11-15: the tracker named first in the request.
    const HeadTrackerHandle handle = HeadTrackerHandleParceler::unparcel(data);
    if (trackerHeldByAnotherProcess(handle.id)) {
        return reply->writeInt32(INVALID_OPERATION);
    }
    switch (code) {
        case START:
            return reply->writeInt32(start(handle));
        case STOP:
            return reply->writeInt32(stop(handle));
        case STANDBY:
            return reply->writeInt32(standby(handle));
        case SET_CONFIGURATION: {
            HeadTrackingConfiguration configuration;
            HeadTrackerHandleParceler::unparcel(configuration, data);
            return reply->writeInt32(setConfiguration(handle, configuration));
        }
        case SAMPLE: {
            HeadTrackingEvent event;
            event.timestamp = systemTime(SYSTEM_TIME_MONOTONIC);
            event.component0 = 0.0f;
            event.component1 = 0.0f;
            event.component2 = 0.0f;
            event.scalar = 0.0f;
            event.flag0 = false;
            event.flag1 = false;
            event.text[0] = '\0';
            reply->writeInt32(sample(handle, event));
            return HeadTrackingEventParceler::parcel(event, *reply);
        }
    }
    return BBinder::onTransact(code, data, reply, flags);
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
