/*
 * hostbinder: BpBinder, the proxy standing in this process for a binder object that lives in
 * another process. A proxy is named by its handle, which is only meaningful in this process;
 * ProcessState keeps exactly one proxy per handle, so the same remote object always arrives as
 * the same BpBinder.
 */
#pragma once

#include <binder/IBinder.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/threads.h>

#include <atomic>

namespace android {

class BpBinder : public IBinder {
public:
    static BpBinder* create(int32_t handle);

    inline int32_t handle() const { return mHandle; }

    virtual const String16& getInterfaceDescriptor() const;
    virtual bool isBinderAlive() const;
    virtual status_t pingBinder();
    virtual status_t dump(int fd, const Vector<String16>& args);

    // Sends the call to the object's process. A synchronous call blocks until the reply; a
    // call to an object whose process is gone answers DEAD_OBJECT.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0);

    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0);
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr);

    virtual void attachObject(const void* objectID, void* object, void* cleanupCookie,
                              object_cleanup_func func);
    virtual void* findObject(const void* objectID) const;
    virtual void detachObject(const void* objectID);

    virtual BpBinder* remoteBinder();

    status_t setConstantData(const void* data, size_t size);

    // Called once the runtime reports the object's process gone: marks the proxy dead and
    // calls every linked recipient once, in linking order, with no lock held.
    void sendObituary();

    static uint32_t getBinderProxyCount(uint32_t uid);
    static void getCountByUid(Vector<uint32_t>& uids, Vector<uint32_t>& counts);
    static void enableCountByUid();
    static void disableCountByUid();
    static void setCountByUidEnabled(bool enable);
    static void setLimitCallback(void (*cb)(int));
    static void setBinderProxyCountWatermarks(int high, int low);

    class ObjectManager {
    public:
        ObjectManager();
        ~ObjectManager();

        void attach(const void* objectID, void* object, void* cleanupCookie,
                    IBinder::object_cleanup_func func);
        void* find(const void* objectID) const;
        void detach(const void* objectID);

        void kill();

    private:
        ObjectManager(const ObjectManager&);
        ObjectManager& operator=(const ObjectManager&);

        struct entry_t {
            void* object;
            void* cleanupCookie;
            IBinder::object_cleanup_func func;
        };

        KeyedVector<const void*, entry_t> mObjects;
    };

protected:
    BpBinder(int32_t handle, int32_t trackedUid);
    virtual ~BpBinder();
    virtual void onFirstRef();
    virtual void onLastStrongRef(const void* id);
    virtual bool onIncStrongAttempted(uint32_t flags, const void* id);

private:
    const int32_t mHandle;

    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };

    void reportOneDeath(const Obituary& obit);
    bool isDescriptorCached() const;

    mutable Mutex mLock;
    std::atomic<int32_t> mAlive;
    volatile int32_t mObitsSent;
    Vector<Obituary>* mObituaries;
    bool mDeathRequested;
    ObjectManager mObjects;
    Parcel* mConstantData;
    mutable String16 mDescriptorCache;
    int32_t mTrackedUid;
    const uint32_t mGeneration;  // the runtime instance the handle belongs to
};

}  // namespace android
