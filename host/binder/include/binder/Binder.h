/*
 * hostbinder: BBinder (a binder object implemented in this process) and BpRefBase (the base of
 * interface proxies, holding the remote IBinder).
 */
#pragma once

#include <binder/IBinder.h>

#include <atomic>
#include <stdint.h>

namespace android {

class BBinder : public IBinder {
public:
    BBinder();

    virtual const String16& getInterfaceDescriptor() const;
    virtual bool isBinderAlive() const;
    virtual status_t pingBinder();
    virtual status_t dump(int fd, const Vector<String16>& args);

    // Rewinds `data` to position 0 and runs onTransact(), except for PING_TRANSACTION, which
    // writes pingBinder()'s status (an int32) to `reply` when there is one. Whenever `reply` is
    // given it is rewound to position 0 afterwards, ready to be read.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) final;

    // A local object cannot die while this process runs: both answer INVALID_OPERATION.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0);
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr);

    virtual void attachObject(const void* objectID, void* object, void* cleanupCookie,
                              object_cleanup_func func);
    virtual void* findObject(const void* objectID) const;
    virtual void detachObject(const void* objectID);

    virtual BBinder* localBinder();

    bool isRequestingSid();
    void setRequestingSid(bool requestSid);

protected:
    virtual ~BBinder();

    // Default handling of the platform's own codes: INTERFACE_TRANSACTION writes the
    // descriptor, DUMP_TRANSACTION reads an fd and String16 arguments and calls dump(),
    // SHELL_COMMAND_TRANSACTION consumes its fds, arguments and binders and answers NO_ERROR
    // without running anything, SYSPROPS_TRANSACTION answers NO_ERROR; any other code answers
    // UNKNOWN_TRANSACTION.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

private:
    BBinder(const BBinder& o);
    BBinder& operator=(const BBinder& o);

    class Extras;

    Extras* getOrCreateExtras();

    std::atomic<Extras*> mExtras;
    void* mReserved0;
};

// ---------------------------------------------------------------------------

class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& o);
    virtual ~BpRefBase();
    virtual void onFirstRef();
    virtual void onLastStrongRef(const void* id);
    virtual bool onIncStrongAttempted(uint32_t flags, const void* id);

    inline IBinder* remote() { return mRemote; }
    inline IBinder* remote() const { return mRemote; }

private:
    BpRefBase(const BpRefBase& o);
    BpRefBase& operator=(const BpRefBase& o);

    IBinder* const mRemote;
    RefBase::weakref_type* mRefs;
    std::atomic<int32_t> mState;
};

}  // namespace android
