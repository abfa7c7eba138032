#define LOG_TAG "hostbinder"

#include <binder/BpBinder.h>

#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <log/log.h>

namespace android {

// ---------------------------------------------------------------------------------------------
// ObjectManager

BpBinder::ObjectManager::ObjectManager() {}

BpBinder::ObjectManager::~ObjectManager() {
    kill();
}

void BpBinder::ObjectManager::attach(const void* objectID, void* object, void* cleanupCookie,
                                     IBinder::object_cleanup_func func) {
    entry_t e{object, cleanupCookie, func};
    if (mObjects.indexOfKey(objectID) >= 0) {
        ALOGE("object %p attached twice to one proxy", objectID);
        return;
    }
    mObjects.add(objectID, e);
}

void* BpBinder::ObjectManager::find(const void* objectID) const {
    ssize_t i = mObjects.indexOfKey(objectID);
    return i < 0 ? nullptr : mObjects.valueAt(i).object;
}

void BpBinder::ObjectManager::detach(const void* objectID) {
    mObjects.removeItem(objectID);
}

void BpBinder::ObjectManager::kill() {
    const size_t n = mObjects.size();
    for (size_t i = 0; i < n; i++) {
        const entry_t& e = mObjects.valueAt(i);
        if (e.func != nullptr) e.func(mObjects.keyAt(i), e.object, e.cleanupCookie);
    }
    mObjects.clear();
}

// ---------------------------------------------------------------------------------------------

BpBinder* BpBinder::create(int32_t handle) {
    return new BpBinder(handle, -1);
}

BpBinder::BpBinder(int32_t handle, int32_t trackedUid)
      : mHandle(handle),
        mAlive(1),
        mObitsSent(0),
        mObituaries(nullptr),
        mDeathRequested(false),
        mConstantData(nullptr),
        mTrackedUid(trackedUid),
        mGeneration(ProcessState::self()->generation()) {}

BpBinder::~BpBinder() {
    delete mObituaries;
    delete mConstantData;
}

bool BpBinder::isDescriptorCached() const {
    Mutex::Autolock _l(mLock);
    return mDescriptorCache.size() != 0;
}

const String16& BpBinder::getInterfaceDescriptor() const {
    if (!isDescriptorCached()) {
        Parcel send, reply;
        status_t err = const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, send, &reply);
        if (err == NO_ERROR) {
            String16 res(reply.readString16());
            Mutex::Autolock _l(mLock);
            if (mDescriptorCache.size() == 0) mDescriptorCache = res;
        }
    }
    // The cache only changes from empty to its final value.
    return mDescriptorCache;
}

bool BpBinder::isBinderAlive() const {
    return mAlive != 0 && mGeneration == ProcessState::self()->generation();
}

status_t BpBinder::pingBinder() {
    Parcel send, reply;
    return transact(PING_TRANSACTION, send, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel send, reply;
    send.writeFileDescriptor(fd);
    const size_t numArgs = args.size();
    send.writeInt32(static_cast<int32_t>(numArgs));
    for (size_t i = 0; i < numArgs; i++) send.writeString16(args[i]);
    return transact(DUMP_TRANSACTION, send, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (mAlive == 0) return DEAD_OBJECT;
    IPCThreadState* ipc = IPCThreadState::self();
    if (ipc->ensureRuntimeConnection() != NO_ERROR ||
        mGeneration != ProcessState::self()->generation()) {
        mAlive = 0;
        return DEAD_OBJECT;
    }
    status_t status = ipc->transact(mHandle, code, data, reply, flags);
    if (status == DEAD_OBJECT) mAlive = 0;
    return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                               uint32_t flags) {
    if (recipient == nullptr) return BAD_VALUE;
    bool request = false;
    {
        Mutex::Autolock _l(mLock);
        if (mObitsSent) return DEAD_OBJECT;
        if (mObituaries == nullptr) mObituaries = new Vector<Obituary>;
        mObituaries->add(Obituary{recipient, cookie, flags});
        if (!mDeathRequested) {
            mDeathRequested = true;
            request = true;
        }
    }
    if (!request) return NO_ERROR;
    status_t err = IPCThreadState::self()->requestDeathNotification(mHandle, this);
    if (err == NO_ERROR) return NO_ERROR;
    // The object's process is already gone (or the runtime is): this proxy is dead, and the
    // recipient just added is not called.
    Mutex::Autolock _l(mLock);
    mAlive = 0;
    mObitsSent = 1;
    delete mObituaries;
    mObituaries = nullptr;
    return DEAD_OBJECT;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie,
                                 uint32_t flags, wp<DeathRecipient>* outRecipient) {
    bool clear = false;
    {
        Mutex::Autolock _l(mLock);
        if (mObitsSent) return DEAD_OBJECT;
        if (mObituaries == nullptr) return NAME_NOT_FOUND;
        const size_t n = mObituaries->size();
        size_t i = 0;
        for (; i < n; i++) {
            const Obituary& obit = mObituaries->itemAt(i);
            if ((obit.recipient == recipient || (recipient == nullptr && obit.cookie == cookie)) &&
                obit.flags == flags) {
                break;
            }
        }
        if (i == n) return NAME_NOT_FOUND;
        if (outRecipient != nullptr) *outRecipient = mObituaries->itemAt(i).recipient;
        mObituaries->removeAt(i);
        if (mObituaries->isEmpty() && mDeathRequested) {
            mDeathRequested = false;
            delete mObituaries;
            mObituaries = nullptr;
            clear = true;
        }
    }
    if (clear) IPCThreadState::self()->clearDeathNotification(mHandle, this);
    return NO_ERROR;
}

void BpBinder::sendObituary() {
    Vector<Obituary>* obits;
    {
        Mutex::Autolock _l(mLock);
        mAlive = 0;
        if (mObitsSent) return;
        mObitsSent = 1;
        obits = mObituaries;
        mObituaries = nullptr;
    }
    if (obits == nullptr) return;
    // No lock is held while recipients run: they may call back into this proxy.
    const size_t n = obits->size();
    for (size_t i = 0; i < n; i++) reportOneDeath(obits->itemAt(i));
    delete obits;
}

void BpBinder::reportOneDeath(const Obituary& obit) {
    sp<DeathRecipient> recipient = obit.recipient.promote();
    if (recipient == nullptr) return;
    recipient->binderDied(wp<IBinder>(this));
}

void BpBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                            object_cleanup_func func) {
    Mutex::Autolock _l(mLock);
    mObjects.attach(objectID, object, cleanupCookie, func);
}

void* BpBinder::findObject(const void* objectID) const {
    Mutex::Autolock _l(mLock);
    return mObjects.find(objectID);
}

void BpBinder::detachObject(const void* objectID) {
    Mutex::Autolock _l(mLock);
    mObjects.detach(objectID);
}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

status_t BpBinder::setConstantData(const void* data, size_t size) {
    Mutex::Autolock _l(mLock);
    if (mConstantData == nullptr) mConstantData = new Parcel;
    return mConstantData->setData(static_cast<const uint8_t*>(data), size);
}

void BpBinder::onFirstRef() {}

void BpBinder::onLastStrongRef(const void* /*id*/) {
    // Tells the runtime this process no longer holds the object.
    ProcessState::self()->proxyGone(mHandle, this);
}

bool BpBinder::onIncStrongAttempted(uint32_t, const void*) {
    return false;
}

uint32_t BpBinder::getBinderProxyCount(uint32_t) {
    return 0;
}
void BpBinder::getCountByUid(Vector<uint32_t>&, Vector<uint32_t>&) {}
void BpBinder::enableCountByUid() {}
void BpBinder::disableCountByUid() {}
void BpBinder::setCountByUidEnabled(bool) {}
void BpBinder::setLimitCallback(void (*)(int)) {}
void BpBinder::setBinderProxyCountWatermarks(int, int) {}

}  // namespace android
