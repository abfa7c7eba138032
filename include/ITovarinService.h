/*
 * ITovarinService: the binder interface of the head-tracking service, its client proxy
 * (BpTovarinService) and the service object (BnTovarinService) that the service process
 * publishes as "morvel.tovarin.service".
 *
 * Wire protocol (every request starts with the interface token, every accepted reply with the
 * no-exception header; "handle" is the HeadTrackerHandle form):
 *
 *   code  request                        reply
 *    1    raw data listener binder       int32 handle, int32 status
 *    2    listener binder, int32 handle  -
 *    3    int32 enabled state            -
 *    4    -                              int32 enabled
 *    5    -                              int32 hardware state
 *    6    -                              HeadTrackingState form
 *    7    state change listener binder   int32 handle, int32 status
 *    8    listener binder, int32 handle  -
 *    9    poller token binder            handle
 *   10    handle                         -
 *   11-13 handle                         int32 status   (start, stop, standby)
 *   14    handle, configuration form     int32 status
 *   15    handle                         int32 status, HeadTrackingEvent form
 *
 * setPid() has no code: the proxy answers it locally.
 */
#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/TovarinFacade.h>
#include <tovarin/TovarinListener.h>
#include <tovarin/TovarinService.h>

#include <pthread.h>
#include <stdint.h>

#include <map>

namespace morvel {
namespace tovarin {
namespace binder {

class BnRawDataListener;
class BnStateChangeListener;

class ITovarinService : public TovarinService, public android::IInterface {
public:
    // The name under which the service is registered; also the interface token.
    static constexpr char SERVICE_NAME[] = "morvel.tovarin.service";

    enum {
        REGISTER_RAW_DATA_LISTENER = android::IBinder::FIRST_CALL_TRANSACTION,  // 1
        UNREGISTER_RAW_DATA_LISTENER,                                           // 2
        SET_ENABLED_STATE,                                                      // 3
        GET_ENABLED,                                                            // 4
        GET_HARDWARE_STATE,                                                     // 5
        GET_HEAD_TRACKING_STATE,                                                // 6
        REGISTER_STATE_CHANGE_LISTENER,                                         // 7
        UNREGISTER_STATE_CHANGE_LISTENER,                                       // 8
        GET_HEAD_TRACKER_HANDLE,                                                // 9
        RELEASE_HEAD_TRACKER_HANDLE,                                            // 10
        START,                                                                  // 11
        STOP,                                                                   // 12
        STANDBY,                                                                // 13
        SET_CONFIGURATION,                                                      // 14
        SAMPLE,                                                                 // 15
    };

    static const android::String16 descriptor;

    // Null for a null binder; the local object when `binder` lives in this process and
    // implements the interface; a new BpTovarinService otherwise.
    static android::sp<ITovarinService> asInterface(const android::sp<android::IBinder>& binder);

    ITovarinService();
    virtual ~ITovarinService();

    virtual const android::String16& getInterfaceDescriptor() const;

    // Client-side lookup of the service, cached per process. Never waits: returns an empty
    // reference when the service manager does not know the service right now. The cache is
    // cleared by DeathNotifier when the service process dies. Thread-safe.
    static android::sp<ITovarinService> checkService();

    // Empties the lookup cache when the service's binder dies.
    class DeathNotifier : public android::IBinder::DeathRecipient {
    public:
        virtual void binderDied(const android::wp<android::IBinder>& who);
    };

    // Guards sService and sDeathNotifier.
    static pthread_mutex_t sLock;
    static android::sp<ITovarinService>& sService;
    static android::sp<DeathNotifier>& sDeathNotifier;
};

// ---------------------------------------------------------------------------------------------

// Client end: one synchronous transaction per operation. Keeps each listener wrapper that the
// service accepted alive under the handle the service assigned, until it is unregistered.
// Takes no lock: concurrent register/unregister calls must be serialised by the user.
class BpTovarinService : public android::BpInterface<ITovarinService> {
public:
    explicit BpTovarinService(const android::sp<android::IBinder>& impl);
    virtual ~BpTovarinService();

    virtual android::status_t registerRawDataListener(android::sp<RawDataListener> listener);
    virtual void unregisterRawDataListener(android::sp<RawDataListener> listener);
    virtual void setEnabledState(int state);
    virtual bool getEnabled() const;
    virtual int32_t getHardwareState() const;
    virtual HeadTrackingState getHeadTrackingState() const;
    virtual android::status_t registerStateChangeListener(
            android::sp<StateChangeListener> listener);
    virtual void unregisterStateChangeListener(android::sp<StateChangeListener> listener);
    virtual HeadTrackerHandle getHeadTrackerHandle();
    virtual void releaseHeadTrackerHandle(const HeadTrackerHandle& handle);
    virtual android::status_t start(const HeadTrackerHandle& handle);
    virtual android::status_t stop(const HeadTrackerHandle& handle);
    virtual android::status_t standby(const HeadTrackerHandle& handle);
    virtual android::status_t setConfiguration(const HeadTrackerHandle& handle,
                                               const HeadTrackingConfiguration& configuration);
    virtual android::status_t sample(const HeadTrackerHandle& handle,
                                     HeadTrackingEvent& event) const;
    virtual android::status_t setPid(const HeadTrackerHandle& handle, int pid);

private:
    // Sends the token, the handle and, when given, the configuration, and skips the reply's
    // exception header. Returns the first failing write or transaction status, else OK.
    android::status_t sendHandleRequest(uint32_t code, const HeadTrackerHandle& handle,
                                        const HeadTrackingConfiguration* configuration,
                                        android::Parcel* reply) const;
    // A handle request whose reply is one int32 status.
    android::status_t transactHandle(
            uint32_t code, const HeadTrackerHandle& handle,
            const HeadTrackingConfiguration* configuration = nullptr) const;

    std::map<int32_t, android::sp<BnRawDataListener>> mRawDataListeners;
    std::map<int32_t, android::sp<BnStateChangeListener>> mStateChangeListeners;
};

// ---------------------------------------------------------------------------------------------

// The service object: the server stub of ITovarinService over a TovarinFacade, to which every
// operation is forwarded. It remembers which client process holds each head tracker handle
// and each state change listener registration, and undoes them when that process dies.
//
//   BnTovarinService ──mHeadTrackingPollerDeathMapper──▶ ClientDeathMapper ─mOwner─┐
//         ▲        └──mStateChangeListenerDeathMapper──▶ ClientDeathMapper ─mOwner─┤
//         └────────────────────────────────────────────────────────────────────────┘
//
// The object and its two mappers hold each other strongly and are never freed: the service
// lives as long as its process.
class BnTovarinService : public android::BnInterface<ITovarinService> {
public:
    // One client registration, as remembered for death tracking.
    struct ClientDeathData {
        int32_t handle;                        // listener handle, or the head tracker's id
        android::sp<android::IBinder> binder;  // the client binder linked to death
        int32_t pid;                           // calling pid at registration
        android::String8 processName;          // looked up once, at registration
    };

    // Tracks clients by key and runs the owner's handler for a client whose process died.
    // addClient, removeClient and binderDied are serialised by mLock; the handler runs with
    // the lock held and must not call back into the same mapper.
    class ClientDeathMapper : public android::IBinder::DeathRecipient {
    public:
        typedef void (BnTovarinService::*Handler)(const ClientDeathData& data);

        ClientDeathMapper(const android::sp<BnTovarinService>& owner, Handler handler);

        virtual void binderDied(const android::wp<android::IBinder>& who);
        virtual ~ClientDeathMapper();

        // Links `binder` to death and files a record under `handle`. An existing record
        // under the same key is kept (the new binder is linked all the same).
        void addClient(int32_t handle, const android::sp<android::IBinder>& binder, int32_t pid);
        // Unlinks and forgets the record under `handle`, if any.
        void removeClient(int32_t handle);

        // Introspection for diagnostics and tests.
        size_t clientCount() const;
        bool findClient(int32_t handle, ClientDeathData* out) const;

    private:
        android::sp<BnTovarinService> mOwner;
        Handler mHandler;
        mutable pthread_mutex_t mLock;
        std::map<int32_t, ClientDeathData> mClients;
    };

    explicit BnTovarinService(const android::sp<TovarinFacade>& facade);
    virtual ~BnTovarinService();

    virtual android::status_t registerRawDataListener(android::sp<RawDataListener> listener);
    virtual void unregisterRawDataListener(android::sp<RawDataListener> listener);
    virtual void setEnabledState(int state);
    virtual bool getEnabled() const;
    virtual int32_t getHardwareState() const;
    virtual HeadTrackingState getHeadTrackingState() const;
    virtual android::status_t registerStateChangeListener(
            android::sp<StateChangeListener> listener);
    virtual void unregisterStateChangeListener(android::sp<StateChangeListener> listener);
    virtual HeadTrackerHandle getHeadTrackerHandle();
    virtual void releaseHeadTrackerHandle(const HeadTrackerHandle& handle);
    virtual android::status_t start(const HeadTrackerHandle& handle);
    virtual android::status_t stop(const HeadTrackerHandle& handle);
    virtual android::status_t standby(const HeadTrackerHandle& handle);
    virtual android::status_t setConfiguration(const HeadTrackerHandle& handle,
                                               const HeadTrackingConfiguration& configuration);
    virtual android::status_t sample(const HeadTrackerHandle& handle,
                                     HeadTrackingEvent& event) const;
    virtual android::status_t setPid(const HeadTrackerHandle& handle, int pid);

    // Runs on a binder thread for every incoming transaction.
    virtual android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                         android::Parcel* reply, uint32_t flags = 0);
    // The report for the platform's dump tool; needs "android.permission.DUMP". Always 0.
    virtual android::status_t dump(int fd, const android::Vector<android::String16>& args);

    // "name(pid)" of the process whose transaction this binder thread is serving.
    android::String8 getCallingPidString() const;
    // "name(pid)" of a client that has died, from its record.
    android::String8 getDeadClientString(const ClientDeathData& data) const;

    void handleStateChangeListenerClientDeath(const ClientDeathData& data);
    void handleHeadTrackingPollerClientDeath(const ClientDeathData& data);

    const android::sp<ClientDeathMapper>& headTrackingPollerDeathMapper() const {
        return mHeadTrackingPollerDeathMapper;
    }
    const android::sp<ClientDeathMapper>& stateChangeListenerDeathMapper() const {
        return mStateChangeListenerDeathMapper;
    }

private:
    // True when tracker `id` was handed to a process other than the caller and not released
    // since; logs the refusal, naming the caller. Called on the binder thread serving the call.
    bool trackerHeldByAnotherProcess(int32_t id) const;

    android::sp<TovarinFacade> mFacade;
    android::sp<ClientDeathMapper> mHeadTrackingPollerDeathMapper;
    android::sp<ClientDeathMapper> mStateChangeListenerDeathMapper;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
