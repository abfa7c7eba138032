/*
 * hostbinder: BBinder and BpRefBase.
 */

#define LOG_TAG "hostbinder.Binder"

#include <binder/Binder.h>

#include <binder/Parcel.h>

#include <log/log.h>
#include <utils/Mutex.h>

#include <map>

namespace android {

// State most binders never need: the attached objects and the security-context request.
class BBinder::Extras {
public:
    struct Entry {
        void* object;
        void* cleanupCookie;
        IBinder::object_cleanup_func func;
    };

    // Runs the cleanup function of every object still attached, as the binder goes away.
    ~Extras() {
        for (const auto& [id, e] : mObjects) {
            if (e.func != nullptr) e.func(id, e.object, e.cleanupCookie);
        }
    }

    mutable Mutex mLock;
    std::map<const void*, Entry> mObjects;
    bool mRequestingSid = false;
};

BBinder::BBinder() : mExtras(nullptr), mReserved0(nullptr) {}

BBinder::~BBinder() {
    delete mExtras.load(std::memory_order_relaxed);
}

const String16& BBinder::getInterfaceDescriptor() const {
    // A function-local static (no dependence on static initialisation order), never destroyed
    // (pool threads may ask while static destructors run).
    static const String16& sEmptyDescriptor = *new String16;
    ALOGW("BBinder::getInterfaceDescriptor reached on %p: no interface", this);
    return sEmptyDescriptor;
}

bool BBinder::isBinderAlive() const {
    return true;
}

status_t BBinder::pingBinder() {
    return NO_ERROR;
}

status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) {
    return NO_ERROR;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    status_t err = NO_ERROR;
    if (code == PING_TRANSACTION) {
        if (reply != nullptr) err = reply->writeInt32(pingBinder());
    } else {
        err = onTransact(code, data, reply, flags);
    }
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                              uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

void BBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                           object_cleanup_func func) {
    Extras* e = getOrCreateExtras();
    if (e == nullptr) return;
    AutoMutex _l(e->mLock);
    if (!e->mObjects.emplace(objectID, Extras::Entry{object, cleanupCookie, func}).second) {
        ALOGE("attachObject: object ID %p is already attached to binder %p", objectID, this);
    }
}

void* BBinder::findObject(const void* objectID) const {
    Extras* e = mExtras.load(std::memory_order_acquire);
    if (e == nullptr) return nullptr;
    AutoMutex _l(e->mLock);
    auto it = e->mObjects.find(objectID);
    return it == e->mObjects.end() ? nullptr : it->second.object;
}

void BBinder::detachObject(const void* objectID) {
    Extras* e = mExtras.load(std::memory_order_acquire);
    if (e == nullptr) return;
    AutoMutex _l(e->mLock);
    e->mObjects.erase(objectID);
}

BBinder* BBinder::localBinder() {
    return this;
}

bool BBinder::isRequestingSid() {
    Extras* e = mExtras.load(std::memory_order_acquire);
    return e != nullptr && e->mRequestingSid;
}

void BBinder::setRequestingSid(bool requestingSid) {
    Extras* e = getOrCreateExtras();
    if (e == nullptr) return;
    e->mRequestingSid = requestingSid;
}

BBinder::Extras* BBinder::getOrCreateExtras() {
    Extras* e = mExtras.load(std::memory_order_acquire);
    if (e != nullptr) return e;
    Extras* created = new Extras();
    if (mExtras.compare_exchange_strong(e, created, std::memory_order_release,
                                        std::memory_order_acquire)) {
        return created;
    }
    delete created;  // Another thread won; `e` holds its Extras.
    return e;
}

namespace {

// Reads up to `argc` String16 arguments, stopping at the end of the data or at the first one
// that cannot be read at all (a hostile argc never makes this loop longer than the data).
void readArgs(const Parcel& data, int32_t argc, Vector<String16>* args) {
    for (int32_t i = 0; i < argc && data.dataAvail() > 0; i++) {
        const size_t before = data.dataPosition();
        String16 arg = data.readString16();
        if (data.dataPosition() == before) break;
        args->add(arg);
    }
}

}  // namespace

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                             uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            return reply->writeString16(getInterfaceDescriptor());

        case DUMP_TRANSACTION: {
            const int fd = data.readFileDescriptor();
            const int32_t argc = data.readInt32();
            Vector<String16> args;
            readArgs(data, argc, &args);
            return dump(fd, args);
        }

        case SHELL_COMMAND_TRANSACTION: {
            // The request is consumed whole; no local object of this system implements shell
            // commands, so nothing runs and no result is sent to the result receiver.
            for (int i = 0; i < 3; i++) (void)data.readFileDescriptor();
            Vector<String16> args;
            readArgs(data, data.readInt32(), &args);
            (void)data.readStrongBinder();  // shell callback
            (void)data.readStrongBinder();  // result receiver
            return NO_ERROR;
        }

        case SYSPROPS_TRANSACTION:
            return NO_ERROR;

        default:
            return UNKNOWN_TRANSACTION;
    }
}

// ------------------------------------------------------------------------------------------
// BpRefBase
//
// A proxy object (BpInterface) and its remote binder:
//
//   BpXxx --strong (until the BpXxx's own first strong ref)--> remote IBinder
//   BpXxx --weak (for its whole life)--------------------------> remote IBinder
//
// The constructor takes a strong reference so that the remote survives until the proxy object
// itself is first strongly referenced; from then on the proxy's strong count stands for it
// (onLastStrongRef drops it). The proxy's lifetime is extended to weak so that a promotion of a
// weak reference can take the remote again (onIncStrongAttempted).

namespace {
constexpr int32_t kRemoteAcquired = 0x00000001;
}  // namespace

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o.get()), mRefs(nullptr), mState(0) {
    extendObjectLifetime(OBJECT_LIFETIME_WEAK);
    if (mRemote != nullptr) {
        mRemote->incStrong(this);
        mRefs = mRemote->createWeak(this);
    }
}

BpRefBase::~BpRefBase() {
    if (mRemote != nullptr) {
        if (!(mState.load(std::memory_order_relaxed) & kRemoteAcquired)) {
            mRemote->decStrong(this);
        }
        mRefs->decWeak(this);
    }
}

void BpRefBase::onFirstRef() {
    mState.fetch_or(kRemoteAcquired, std::memory_order_relaxed);
}

void BpRefBase::onLastStrongRef(const void* /*id*/) {
    if (mRemote != nullptr) mRemote->decStrong(this);
}

bool BpRefBase::onIncStrongAttempted(uint32_t /*flags*/, const void* /*id*/) {
    return mRemote != nullptr ? mRefs->attemptIncStrong(this) : false;
}

}  // namespace android
