#define LOG_TAG "hostbinder"

#include <binder/ProcessState.h>

#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <log/log.h>

#include "IncomingCalls.h"
#include "PeerIdentity.h"
#include "WireSocket.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>


namespace android {

// The process's one ProcessState and its lock are never destroyed: pool threads keep using
// them until the process ends, static destructors included.
static Mutex& gProcessMutex = *new Mutex;
static sp<ProcessState>& gProcess = *new sp<ProcessState>;

sp<ProcessState> ProcessState::self() {
    Mutex::Autolock _l(gProcessMutex);
    if (gProcess == nullptr) gProcess = new ProcessState("/dev/binder");
    return gProcess;
}

sp<ProcessState> ProcessState::selfOrNull() {
    Mutex::Autolock _l(gProcessMutex);
    return gProcess;
}

sp<ProcessState> ProcessState::initWithDriver(const char* driver) {
    Mutex::Autolock _l(gProcessMutex);
    if (gProcess == nullptr) gProcess = new ProcessState(driver);
    return gProcess;
}

ProcessState::ProcessState(const char* /*driver*/)
      : mSocketPath(hostbinder::instanceSocketPath()),
        mRuntimeFd(-1),
        mFrameSeq(1),
        mGeneration(0),
        mMaxThreads(15),
        mThreadPoolSeq(1),
        mThreadPoolStarted(false),
        mCallRestriction(CallRestriction::NONE),
        mNameMask(0),
        mIncoming(nullptr),
        mSpawnedThreads(0) {
    static_assert(sizeof(mObjectKey) == hostbinder::kObjectKeyBytes);
    hostbinder::randomBytes(mObjectKey, sizeof(mObjectKey));
    mNameMask = hostbinder::nameMask(mObjectKey);
}

ProcessState::~ProcessState() {
    if (mRuntimeFd >= 0) close(mRuntimeFd);
    stopDirectListener();
}

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) {
    return getStrongProxyForHandle(hostbinder::kServiceManagerHandle);
}

bool ProcessState::becomeContextManager(bool (*)(const String16&, const sp<IBinder>&, void*),
                                        void*) {
    // The runtime itself is the service manager of its instance.
    return false;
}

bool ProcessState::isContextManager(void) const {
    return false;
}

status_t ProcessState::ensureRuntime() {
    Vector<IBinder*> released;
    status_t err = connectRuntime(&released);
    // Local objects held for the instance that is gone are let go, outside every lock.
    for (size_t i = 0; i < released.size(); i++) released[i]->decStrong(this);
    return err;
}

status_t ProcessState::connectRuntime(Vector<IBinder*>* released) {
    Mutex::Autolock _l(mRuntimeLock);
    if (mRuntimeFd >= 0) {
        // The binder threads read the runtime's work for the process from this connection;
        // its end is the runtime's.
        pollfd pfd{mRuntimeFd, POLLRDHUP, 0};
        const bool moved = strcmp(hostbinder::instanceSocketPath(), mSocketPath.string()) != 0;
        if (!moved && poll(&pfd, 1, 0) == 0) return NO_ERROR;
        ALOGW("leaving the binder runtime at %s", mSocketPath.string());
        stopDirectListener();
        close(mRuntimeFd);
        mRuntimeFd = -1;
        mFrameSeq = 1;
        mGeneration.fetch_add(1, std::memory_order_release);
        Mutex::Autolock _p(mLock);
        for (size_t i = 0; i < mHandleToObject.size(); i++) {
            if (mHandleToObject.valueAt(i).refs != nullptr) {
                mHandleToObject.valueAt(i).refs->decWeak(this);
            }
        }
        mHandleToObject.clear();
        for (size_t i = 0; i < mLocalSent.size(); i++) {
            if (mLocalSent.valueAt(i) != 0) released->add(mLocalSent.keyAt(i));
        }
        mLocalSent.clear();
    }
    mSocketPath = hostbinder::instanceSocketPath();
    int fd = hostbinder::connectUnix(mSocketPath.string());
    if (fd < 0) {
        ALOGE("cannot reach the binder runtime at %s: %s", mSocketPath.string(), strerror(-fd));
        return DEAD_OBJECT;
    }
    hostbinder::Hello hello{hostbinder::kWireMagic, hostbinder::kWireVersion,
                            hostbinder::kRoleProcess, static_cast<uint32_t>(maxThreads()), {}};
    memcpy(hello.objectKey, mObjectKey, sizeof(mObjectKey));
    iovec part{&hello, sizeof(hello)};
    if (hostbinder::sendFrameBlocking(fd, hostbinder::kFrameHello, 0, &part, 1, nullptr, 0) != 0) {
        close(fd);
        return DEAD_OBJECT;
    }
    hostbinder::FrameReader reader;
    hostbinder::InboundFrame ack;
    for (;;) {
        auto r = reader.pop(&ack);
        if (r == hostbinder::FrameReader::Result::kFrame) break;
        if (r == hostbinder::FrameReader::Result::kMalformed || reader.fill(fd, 0) <= 0) {
            ALOGE("the binder runtime at %s did not answer", mSocketPath.string());
            close(fd);
            return DEAD_OBJECT;
        }
    }
    if (ack.header.type != hostbinder::kFrameHelloAck ||
        ack.fixed<hostbinder::HelloAck>().version != hostbinder::kWireVersion) {
        ALOGE("the binder runtime at %s speaks another protocol", mSocketPath.string());
        close(fd);
        return DEAD_OBJECT;
    }
    mRuntimeFd = fd;
    startDirectListener();
    return NO_ERROR;
}

// Direct connections from other processes of the instance are served by the binder threads
// (IncomingCalls). mRuntimeLock held.
void ProcessState::startDirectListener() {
    int fd = hostbinder::listenDirect(hostbinder::directAddress(mSocketPath.string(), getpid()));
    if (fd < 0) {
        ALOGE("cannot listen for direct calls: %s", strerror(-fd));
        return;
    }
    // Non-blocking: a binder thread accepts what is waiting and goes back to its work.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    mIncoming = new hostbinder::IncomingCalls(fd, fcntl(mRuntimeFd, F_DUPFD_CLOEXEC, 0));
}

// mRuntimeLock held. The old instance's calls end; threads that still hold it find nothing.
// It is kept (a binder thread may be about to wait on its descriptors), in a list that is never
// destroyed either.
void ProcessState::stopDirectListener() {
    static std::vector<hostbinder::IncomingCalls*>& retired =
            *new std::vector<hostbinder::IncomingCalls*>;
    if (mIncoming != nullptr) {
        mIncoming->shutdown();
        retired.push_back(mIncoming);
    }
    mIncoming = nullptr;
}

hostbinder::IncomingCalls* ProcessState::incoming() {
    Mutex::Autolock _l(mRuntimeLock);
    return mIncoming;
}

void ProcessState::noteHandleOwner(int32_t handle, pid_t owner, uint64_t ownerStart,
                                   uint64_t name, uint64_t proof) {
    Mutex::Autolock _l(mLock);
    ssize_t i = mHandleToObject.indexOfKey(handle);
    if (i < 0) {
        // The introduction comes before the frame that carries the handle: the entry is made
        // now and its proxy when the frame is read.
        handle_entry fresh{nullptr, nullptr, 0, owner, ownerStart, name, proof};
        mHandleToObject.add(handle, fresh);
        return;
    }
    handle_entry& e = mHandleToObject.editValueAt(i);
    e.owner = owner;
    e.ownerStart = ownerStart;
    e.name = name;
    e.proof = proof;
}

bool ProcessState::handleOwner(int32_t handle, pid_t* owner, uint64_t* ownerStart,
                               uint64_t* name, uint64_t* proof) {
    Mutex::Autolock _l(mLock);
    ssize_t i = mHandleToObject.indexOfKey(handle);
    if (i < 0 || mHandleToObject.valueAt(i).owner <= 0) return false;
    const handle_entry& e = mHandleToObject.valueAt(i);
    *owner = e.owner;
    *ownerStart = e.ownerStart;
    *name = e.name;
    *proof = e.proof;
    return true;
}

sp<IBinder> ProcessState::localForToken(uint64_t name) {
    IBinder* candidate = reinterpret_cast<IBinder*>(name ^ mNameMask);
    Mutex::Autolock _l(mLock);
    ssize_t i = mLocalSent.indexOfKey(candidate);
    // Held by mLocalSent while its count is not zero, so it is alive.
    if (i < 0 || mLocalSent.valueAt(i) <= 0) return nullptr;
    return candidate;
}

bool ProcessState::instanceMoved() const {
    const char* env = getenv("HOSTBINDER_SOCKET");
    return env != nullptr && env[0] != '\0' && strcmp(env, mSocketPath.string()) != 0;
}

uint32_t ProcessState::nextFrameSeq() {
    return mFrameSeq.fetch_add(1, std::memory_order_relaxed);
}

status_t ProcessState::sendProcessFrame(uint16_t type, const void* payload, size_t size) {
    Mutex::Autolock _l(mRuntimeLock);
    if (mRuntimeFd < 0) return DEAD_OBJECT;
    iovec part{const_cast<void*>(payload), size};
    int r = hostbinder::sendFrameBlocking(mRuntimeFd, type, nextFrameSeq(), &part, 1, nullptr, 0);
    return r == 0 ? NO_ERROR : DEAD_OBJECT;
}

sp<IBinder> ProcessState::getStrongProxyForHandle(int32_t handle) {
    Mutex::Autolock _l(mLock);
    sp<IBinder> result = existingProxyForHandleLocked(handle);
    if (result != nullptr) return result;
    const ssize_t i = mHandleToObject.indexOfKey(handle);
    BpBinder* b = BpBinder::create(handle);
    handle_entry fresh{b, b->getWeakRefs(), 0, 0, 0, 0, 0};
    fresh.refs->incWeak(this);
    if (i >= 0) {
        handle_entry& e = mHandleToObject.editValueAt(i);
        // The dying proxy's deliveries pass on to the new one.
        fresh.received = e.received;
        fresh.owner = e.owner;
        fresh.ownerStart = e.ownerStart;
        fresh.name = e.name;
        fresh.proof = e.proof;
        if (e.refs != nullptr) e.refs->decWeak(this);
        e = fresh;
    } else {
        mHandleToObject.add(handle, fresh);
    }
    result = b;
    return result;
}

wp<IBinder> ProcessState::getWeakProxyForHandle(int32_t handle) {
    return wp<IBinder>(getStrongProxyForHandle(handle));
}

sp<IBinder> ProcessState::existingProxyForHandle(int32_t handle) {
    Mutex::Autolock _l(mLock);
    return existingProxyForHandleLocked(handle);
}

sp<IBinder> ProcessState::existingProxyForHandleLocked(int32_t handle) {
    sp<IBinder> result;
    ssize_t i = mHandleToObject.indexOfKey(handle);
    if (i >= 0) {
        handle_entry& e = mHandleToObject.editValueAt(i);
        if (e.binder != nullptr && e.refs->attemptIncStrong(this)) {
            result = e.binder;
            e.binder->decStrong(this);
        }
    }
    return result;
}

sp<IBinder> ProcessState::receiveHandle(int32_t handle) {
    sp<IBinder> proxy = getStrongProxyForHandle(handle);
    if (handle != hostbinder::kServiceManagerHandle) {
        Mutex::Autolock _l(mLock);
        ssize_t i = mHandleToObject.indexOfKey(handle);
        if (i >= 0) mHandleToObject.editValueAt(i).received++;
    }
    return proxy;
}

void ProcessState::expungeHandle(int32_t handle, IBinder* binder) {
    Mutex::Autolock _l(mLock);
    ssize_t i = mHandleToObject.indexOfKey(handle);
    if (i >= 0 && mHandleToObject.valueAt(i).binder == binder) {
        mHandleToObject.editValueAt(i).binder = nullptr;
    }
}

void ProcessState::proxyGone(int32_t handle, BpBinder* proxy) {
    uint64_t count = 0;
    RefBase::weakref_type* refs = nullptr;
    {
        Mutex::Autolock _l(mLock);
        ssize_t i = mHandleToObject.indexOfKey(handle);
        if (i < 0 || mHandleToObject.valueAt(i).binder != proxy) return;
        count = mHandleToObject.valueAt(i).received;
        refs = mHandleToObject.valueAt(i).refs;
        mHandleToObject.removeItemsAt(i);
    }
    if (refs != nullptr) refs->decWeak(this);
    if (count > 0) {
        hostbinder::HandleCount release{handle, 0, count};
        sendProcessFrame(hostbinder::kFrameReleaseHandle, &release, sizeof(release));
    }
}

void ProcessState::localSent(IBinder* binder) {
    bool acquire = false;
    {
        Mutex::Autolock _l(mLock);
        ssize_t i = mLocalSent.indexOfKey(binder);
        if (i < 0) {
            mLocalSent.add(binder, 1);
            acquire = true;
        } else {
            int64_t& c = mLocalSent.editValueAt(i);
            acquire = (c == 0);
            c++;
        }
    }
    // The sender holds a strong reference while it sends, so this cannot be the first one.
    if (acquire) binder->incStrong(this);
}

void ProcessState::localReleased(IBinder* binder, uint64_t count) {
    bool release = false;
    {
        Mutex::Autolock _l(mLock);
        ssize_t i = mLocalSent.indexOfKey(binder);
        if (i < 0) {
            ALOGE("runtime released an object this process never sent");
            return;
        }
        int64_t& c = mLocalSent.editValueAt(i);
        c -= static_cast<int64_t>(count);
        if (c == 0) {
            mLocalSent.removeItemsAt(i);
            release = true;
        }
    }
    if (release) binder->decStrong(this);
}

size_t ProcessState::maxThreads() const {
    Mutex::Autolock _l(mLock);
    return mMaxThreads;
}

String8 ProcessState::makeBinderThreadName() {
    int32_t s = __atomic_fetch_add(&mThreadPoolSeq, 1, __ATOMIC_RELAXED);
    String8 name;
    name.appendFormat("Binder:%d_%X", getpid(), s);
    return name;
}

namespace {
struct PoolThreadArgs {
    bool isMain;
    String8 name;
};

void* poolThreadMain(void* arg) {
    PoolThreadArgs* a = static_cast<PoolThreadArgs*>(arg);
    pthread_setname_np(pthread_self(), a->name.string());
    bool isMain = a->isMain;
    delete a;
    IPCThreadState::self()->joinThreadPool(isMain);
    return nullptr;
}
}  // namespace

void ProcessState::spawnPooledThread(bool isMain) {
    if (!mThreadPoolStarted) return;
    if (!isMain) {
        // The pool grows up to its maximum, whoever asks (the runtime, or direct calls finding
        // no idle thread).
        size_t spawned = mSpawnedThreads.load();
        do {
            if (spawned >= maxThreads()) return;
        } while (!mSpawnedThreads.compare_exchange_weak(spawned, spawned + 1));
    }
    PoolThreadArgs* args = new PoolThreadArgs{isMain, makeBinderThreadName()};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t t;
    if (pthread_create(&t, &attr, poolThreadMain, args) != 0) {
        ALOGE("cannot start a binder thread");
        delete args;
        if (!isMain) mSpawnedThreads--;
    }
    pthread_attr_destroy(&attr);
}

void ProcessState::startThreadPool() {
    {
        Mutex::Autolock _l(mLock);
        if (mThreadPoolStarted) return;
        mThreadPoolStarted = true;
    }
    spawnPooledThread(true);
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    if (maxThreads > UINT32_MAX) return BAD_VALUE;
    {
        Mutex::Autolock _l(mLock);
        mMaxThreads = maxThreads;
    }
    hostbinder::SetMaxThreads msg{static_cast<uint32_t>(maxThreads), 0};
    Mutex::Autolock _l(mRuntimeLock);
    if (mRuntimeFd < 0) return NO_ERROR;  // sent with the hello when the process connects
    iovec part{&msg, sizeof(msg)};
    hostbinder::sendFrameBlocking(mRuntimeFd, hostbinder::kFrameSetMaxThreads, nextFrameSeq(),
                                  &part, 1, nullptr, 0);
    return NO_ERROR;
}

void ProcessState::giveThreadPoolName() {
    pthread_setname_np(pthread_self(), makeBinderThreadName().string());
}

String8 ProcessState::getDriverName() {
    return mSocketPath;
}

ssize_t ProcessState::getKernelReferences(size_t, uintptr_t*) {
    return -1;
}

void ProcessState::setCallRestriction(CallRestriction restriction) {
    mCallRestriction = restriction;
}

}  // namespace android
