#define LOG_TAG "hostbinder"

#include <binder/IPCThreadState.h>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <log/log.h>

#include "DirectState.h"
#include "ThreadConnection.h"

#include <errno.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <vector>

namespace android {

using hostbinder::InboundFrame;
using hostbinder::ThreadConnection;

namespace {

pthread_key_t gTLS;
pthread_once_t gTLSOnce = PTHREAD_ONCE_INIT;
std::atomic<bool> gShutdown{false};

// A received transaction or reply buffer, adopted by a Parcel until the Parcel frees it.
struct ReceivedBuffer {
    uint8_t* frame;          // malloc'd frame payload holding the data and the offsets
    uint64_t bufferId;       // non-zero: the runtime waits for it to be given back
    std::vector<sp<IBinder>> proxies;  // proxies for the handles in the buffer
};

}  // namespace

namespace hostbinder {

// Fills in the descriptors received with a frame and counts the handles it carries.
void adoptFrame(InboundFrame& frame, uint64_t bufferId, Parcel* parcel) {
    hostbinder::FrameBody body = hostbinder::frameBody(frame.header, frame.payload);
    ReceivedBuffer* rb = new ReceivedBuffer{nullptr, bufferId, {}};
    size_t nextFd = 0;
    sp<ProcessState> proc = ProcessState::self();
    for (size_t i = 0; i < body.objectsCount; i++) {
        // Objects sit at 4-byte aligned offsets: work on an aligned copy.
        flat_binder_object copy;
        memcpy(&copy, body.data + body.offsets[i], sizeof(copy));
        flat_binder_object* obj = &copy;
        if (obj->hdr.type == BINDER_TYPE_HANDLE) {
            rb->proxies.push_back(proc->receiveHandle(static_cast<int32_t>(obj->handle)));
        } else if (obj->hdr.type == BINDER_TYPE_FD) {
            if (nextFd < frame.fds.size()) {
                obj->handle = static_cast<uint32_t>(frame.fds[nextFd]);
                frame.fds[nextFd] = -1;  // the parcel owns it now
                obj->cookie = 1;
                nextFd++;
            } else {
                obj->handle = static_cast<uint32_t>(-1);
                obj->cookie = 0;
            }
            memcpy(body.data + body.offsets[i], &copy, sizeof(copy));
        }
    }
    rb->frame = frame.takePayload();
    parcel->ipcSetDataReference(body.data, body.dataSize,
                                reinterpret_cast<const binder_size_t*>(body.offsets),
                                body.objectsCount, IPCThreadState::freeBuffer, rb);
}

// The descriptors of the fd objects in `p`, in object order.
bool collectFds(const Parcel& p, std::vector<int>* fds) {
    const uint8_t* data = reinterpret_cast<const uint8_t*>(p.ipcData());
    const binder_size_t* offsets = reinterpret_cast<const binder_size_t*>(p.ipcObjects());
    for (size_t i = 0; i < p.ipcObjectsCount(); i++) {
        flat_binder_object obj;
        memcpy(&obj, data + offsets[i], sizeof(obj));
        if (obj.hdr.type == BINDER_TYPE_FD) fds->push_back(static_cast<int>(obj.handle));
    }
    return fds->size() <= kMaxFdsPerFrame;
}

bool replyFits(const Parcel& reply, std::vector<int>* fds) {
    return reply.errorCheck() == NO_ERROR &&
           reply.ipcDataSize() + reply.ipcObjectsCount() * sizeof(uint64_t) <=
                   kMaxTransactionBytes &&
           collectFds(reply, fds);
}

// Local objects in `p` are counted as sent before the frame leaves.
void noteLocalObjects(const Parcel& p) {
    const uint8_t* data = reinterpret_cast<const uint8_t*>(p.ipcData());
    const binder_size_t* offsets = reinterpret_cast<const binder_size_t*>(p.ipcObjects());
    sp<ProcessState> proc;
    for (size_t i = 0; i < p.ipcObjectsCount(); i++) {
        flat_binder_object obj;
        memcpy(&obj, data + offsets[i], sizeof(obj));
        if (obj.hdr.type == BINDER_TYPE_BINDER && obj.cookie != 0) {
            if (proc == nullptr) proc = ProcessState::self();
            proc->localSent(reinterpret_cast<IBinder*>(obj.cookie));
        }
    }
}

}  // namespace hostbinder

using hostbinder::adoptFrame;
using hostbinder::collectFds;
using hostbinder::noteLocalObjects;

static void makeKey() {
    pthread_key_create(&gTLS, IPCThreadState::threadDestructor);
}

IPCThreadState* IPCThreadState::self() {
    pthread_once(&gTLSOnce, makeKey);
    IPCThreadState* st = static_cast<IPCThreadState*>(pthread_getspecific(gTLS));
    if (st == nullptr) {
        st = new IPCThreadState();
        pthread_setspecific(gTLS, st);
    }
    return st;
}

IPCThreadState* IPCThreadState::selfOrNull() {
    pthread_once(&gTLSOnce, makeKey);
    return static_cast<IPCThreadState*>(pthread_getspecific(gTLS));
}

void IPCThreadState::shutdown() {
    gShutdown = true;
    IPCThreadState* st = selfOrNull();
    if (st != nullptr) {
        pthread_setspecific(gTLS, nullptr);
        delete st;
    }
}

void IPCThreadState::threadDestructor(void* st) {
    delete static_cast<IPCThreadState*>(st);
}

IPCThreadState::IPCThreadState()
      : mProcess(ProcessState::self()),
        mConnection(nullptr),
        mLastError(NO_ERROR),
        mCallingPid(getpid()),
        mCallingUid(getuid()),
        mWorkSource(kUnsetWorkSource),
        mPropagateWorkSource(false),
        mStrictModePolicy(0),
        mLastTransactionBinderFlags(0),
        mIsLooper(false),
        mConnectionGeneration(0),
        mOnewayUnackedCalls(0),
        mOnewayUnackedBytes(0),
        mOnewayMustAck(false),
        mDirect(new hostbinder::DirectState) {
    mDirect->mailboxFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    mDirect->threadId = hostbinder::ChainThreads::get().add(this);
}

IPCThreadState::~IPCThreadState() {
    hostbinder::ChainThreads::get().remove(mDirect->threadId);
    if (mDirect->mailboxFd >= 0) close(mDirect->mailboxFd);
    delete mDirect;
    delete mConnection;
}

sp<ProcessState> IPCThreadState::process() {
    return mProcess;
}

status_t IPCThreadState::clearLastError() {
    const status_t err = mLastError;
    mLastError = NO_ERROR;
    return err;
}

pid_t IPCThreadState::getCallingPid() const {
    return mCallingPid;
}

const char* IPCThreadState::getCallingSid() const {
    return nullptr;
}

uid_t IPCThreadState::getCallingUid() const {
    return mCallingUid;
}

int64_t IPCThreadState::clearCallingIdentity() {
    int64_t token = (static_cast<int64_t>(mCallingUid) << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = getpid();
    mCallingUid = getuid();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(static_cast<uint64_t>(token) >> 32);
    mCallingPid = static_cast<pid_t>(static_cast<uint32_t>(token));
}

void IPCThreadState::setStrictModePolicy(int32_t policy) {
    mStrictModePolicy = policy;
}

int32_t IPCThreadState::getStrictModePolicy() const {
    return mStrictModePolicy;
}

int64_t IPCThreadState::setCallingWorkSourceUid(uid_t uid) {
    int64_t token = setCallingWorkSourceUidWithoutPropagation(uid);
    mPropagateWorkSource = true;
    return token;
}

int64_t IPCThreadState::setCallingWorkSourceUidWithoutPropagation(uid_t uid) {
    const int64_t propagatedBit = static_cast<int64_t>(mPropagateWorkSource) << 32;
    int64_t token = propagatedBit | static_cast<uint32_t>(mWorkSource);
    mWorkSource = static_cast<int32_t>(uid);
    return token;
}

uid_t IPCThreadState::getCallingWorkSourceUid() const {
    return static_cast<uid_t>(mWorkSource);
}

int64_t IPCThreadState::clearCallingWorkSource() {
    return setCallingWorkSourceUid(static_cast<uid_t>(kUnsetWorkSource));
}

void IPCThreadState::restoreCallingWorkSource(int64_t token) {
    mWorkSource = static_cast<int32_t>(token & 0xffffffff);
    mPropagateWorkSource = ((token >> 32) & 1) != 0;
}

void IPCThreadState::clearPropagateWorkSource() {
    mPropagateWorkSource = false;
}

bool IPCThreadState::shouldPropagateWorkSource() const {
    return mPropagateWorkSource;
}

void IPCThreadState::setLastTransactionBinderFlags(int32_t flags) {
    mLastTransactionBinderFlags = flags;
}

int32_t IPCThreadState::getLastTransactionBinderFlags() const {
    return mLastTransactionBinderFlags;
}

int IPCThreadState::setupPolling(int* fd) {
    if (ensureConnected() != NO_ERROR) return -ENODEV;
    hostbinder::IncomingCalls* incoming = mProcess->incoming();
    if (incoming == nullptr) return -ENODEV;
    hostbinder::EnterLooper enter{1, 0};
    iovec part{&enter, sizeof(enter)};
    mConnection->send(hostbinder::kFrameEnterLooper, mProcess->nextFrameSeq(), &part, 1);
    mIsLooper = true;
    // Readable when the runtime sent the process work or a direct call waits.
    *fd = incoming->waitFd();
    return 0;
}

// Handles everything that has arrived, so that the descriptor is not readable afterwards
// unless more came meanwhile (one read may bring several calls).
status_t IPCThreadState::handlePolledCommands() {
    hostbinder::IncomingCalls* incoming = mProcess->incoming();
    if (mConnection == nullptr || incoming == nullptr) return DEAD_OBJECT;
    while (incoming->serveOne(this)) {
    }
    return NO_ERROR;
}

void IPCThreadState::flushCommands() {}

void IPCThreadState::stopProcess(bool) {}

void IPCThreadState::blockUntilThreadAvailable() {}

void IPCThreadState::disableBackgroundScheduling(bool) {}

bool IPCThreadState::backgroundSchedulingDisabled() {
    return false;
}

status_t IPCThreadState::ensureRuntimeConnection() {
    if (mConnection != nullptr && !mConnection->broken() &&
        mConnectionGeneration == mProcess->generation() && !mProcess->instanceMoved()) {
        return NO_ERROR;
    }
    return ensureConnected();
}

status_t IPCThreadState::ensureConnected() {
    if (mConnection != nullptr && !mConnection->broken() &&
        mConnectionGeneration == mProcess->generation()) {
        return NO_ERROR;
    }
    if (gShutdown) return DEAD_OBJECT;
    if (mIsLooper && mConnection != nullptr) return DEAD_OBJECT;  // a pool thread ends with it
    if (mProcess->ensureRuntime() != NO_ERROR) return DEAD_OBJECT;
    if (mConnection != nullptr && !mConnection->broken() &&
        mConnectionGeneration == mProcess->generation()) {
        return NO_ERROR;
    }
    delete mConnection;
    mConnection = nullptr;
    mConnectionGeneration = mProcess->generation();
    int fd = hostbinder::connectUnix(mProcess->socketPath().string());
    if (fd < 0) return DEAD_OBJECT;
    mConnection = new ThreadConnection(fd);
    mOnewayUnackedCalls = 0;
    mOnewayUnackedBytes = 0;
    mOnewayMustAck = false;
    hostbinder::Hello hello{hostbinder::kWireMagic, hostbinder::kWireVersion,
                            hostbinder::kRoleThread, 0, {}};
    iovec part{&hello, sizeof(hello)};
    return mConnection->send(hostbinder::kFrameHello, 0, &part, 1);
}

void IPCThreadState::joinThreadPool(bool isMain) {
    if (ensureConnected() != NO_ERROR) {
        ALOGE("binder thread cannot join the pool: no runtime");
        return;
    }
    hostbinder::EnterLooper enter{isMain ? 1u : 0u, 0};
    iovec part{&enter, sizeof(enter)};
    if (mConnection->send(hostbinder::kFrameEnterLooper, mProcess->nextFrameSeq(), &part, 1) !=
        NO_ERROR) {
        return;
    }
    mIsLooper = true;
    hostbinder::IncomingCalls::joinPool();
    while (waitForWork() == NO_ERROR) {
    }
    hostbinder::IncomingCalls::leavePool();
    mIsLooper = false;
}

// One piece of a binder thread's work: the runtime's work for the process, or direct calls.
// Returns DEAD_OBJECT when the calls of the instance ended (the thread leaves the pool).
status_t IPCThreadState::waitForWork() {
    hostbinder::IncomingCalls* incoming = mProcess->incoming();
    if (incoming == nullptr) return DEAD_OBJECT;
    return incoming->serveBlocking(this) ? NO_ERROR : DEAD_OBJECT;
}

status_t IPCThreadState::transact(int32_t handle, uint32_t code, const Parcel& data,
                                  Parcel* reply, uint32_t flags) {
    status_t err = data.errorCheck();
    if (err == NO_ERROR && data.ipcDataSize() + data.ipcObjectsCount() * sizeof(uint64_t) >
                                   hostbinder::kMaxTransactionBytes) {
        ALOGE("transaction of %zu bytes exceeds the limit", data.ipcDataSize());
        err = FAILED_TRANSACTION;
    }
    std::vector<int> fds;
    if (err == NO_ERROR && !collectFds(data, &fds)) err = FAILED_TRANSACTION;
    if (err == NO_ERROR && ensureConnected() != NO_ERROR) err = DEAD_OBJECT;
    if (err != NO_ERROR) {
        if (reply) reply->setError(err);
        return err;
    }
    noteLocalObjects(data);
    const bool oneway = (flags & IBinder::FLAG_ONEWAY) != 0;
    hostbinder::DirectTarget target;
    if (handle != hostbinder::kServiceManagerHandle &&
        mProcess->handleOwner(handle, &target.owner, &target.ownerStart, &target.name,
                              &target.proof)) {
        // Calls on another process's object go straight to it, when it can be reached;
        // otherwise through the runtime, which also knows whether it is still alive.
        const bool sent =
                oneway ? sendOnewayDirect(target, code, data, flags, fds.data(), fds.size(), &err)
                       : transactDirect(target, code, data, reply, flags, fds.data(), fds.size(),
                                        &err);
        if (sent) return err;
    }
    const size_t bodyBytes = data.ipcDataSize() + data.ipcObjectsCount() * sizeof(uint64_t);
    bool ackWanted = false;
    if (oneway) {
        // Within the window the call goes without waiting; beyond it the runtime says whether
        // it took the call (see WireProtocol.h).
        ackWanted = mOnewayMustAck || !fds.empty() ||
                    handle != hostbinder::kServiceManagerHandle ||
                    mOnewayUnackedCalls >= hostbinder::kOnewayWindowCalls ||
                    mOnewayUnackedBytes + bodyBytes > hostbinder::kOnewayWindowBytes;
        if (!ackWanted) {
            mOnewayUnackedCalls++;
            mOnewayUnackedBytes += bodyBytes;
        }
    }
    hostbinder::Transaction t{handle,
                              code,
                              flags & IBinder::FLAG_ONEWAY,
                              static_cast<uint32_t>(data.ipcDataSize()),
                              static_cast<uint32_t>(data.ipcObjectsCount()),
                              ackWanted ? hostbinder::kTransactionAckWanted : 0};
    iovec parts[3] = {
            {&t, sizeof(t)},
            {reinterpret_cast<void*>(data.ipcObjects()), data.ipcObjectsCount() * sizeof(uint64_t)},
            {reinterpret_cast<void*>(data.ipcData()), data.ipcDataSize()},
    };
    err = mConnection->send(hostbinder::kFrameTransaction, mProcess->nextFrameSeq(), parts, 3,
                            fds.data(), fds.size());
    if (err != NO_ERROR) return err;
    if (oneway && !ackWanted) return NO_ERROR;
    if (oneway) {
        Parcel ack;
        err = waitForResponse(&ack, hostbinder::kFrameIncomingReply, nullptr);
        mOnewayUnackedCalls = 0;
        mOnewayUnackedBytes = 0;
        mOnewayMustAck = (err == FAILED_TRANSACTION);
        return err;
    }
    if (reply != nullptr) return waitForResponse(reply, hostbinder::kFrameIncomingReply, nullptr);
    Parcel fakeReply;
    return waitForResponse(&fakeReply, hostbinder::kFrameIncomingReply, nullptr);
}

status_t IPCThreadState::waitForResponse(Parcel* reply, uint32_t wantType, int32_t* outValue) {
    for (;;) {
        InboundFrame frame;
        status_t err = mConnection->read(&frame);
        if (err != NO_ERROR) return err;
        const uint16_t type = frame.header.type;
        if (type == wantType && type == hostbinder::kFrameIncomingReply) {
            const auto& r = frame.fixed<hostbinder::IncomingReply>();
            if (r.status != NO_ERROR) return r.status;
            if (reply != nullptr) {
                adoptFrame(frame, r.bufferId, reply);
            } else if (r.bufferId != 0) {
                Parcel discard;
                adoptFrame(frame, r.bufferId, &discard);
            }
            return NO_ERROR;
        }
        if (type == wantType && type == hostbinder::kFrameDeathAck) {
            if (outValue) *outValue = frame.fixed<hostbinder::DeathAck>().status;
            return NO_ERROR;
        }
        executeCommand(frame);
    }
}

status_t IPCThreadState::executeCommand(InboundFrame& frame) {
    // On a thread's connection the runtime sends only replies and the introductions before
    // them; the process's work comes on the process connection (executeProcessWork()).
    switch (frame.header.type) {
        case hostbinder::kFrameIntroduce: {
            const auto& i = frame.fixed<hostbinder::Introduce>();
            mProcess->noteHandleOwner(i.handle, i.ownerPid, i.ownerStart, i.name, i.proof);
            // This thread connects to the owner now, so that its first call finds it made.
            if (i.ownerPid != getpid()) {
                DirectConnection conn;
                hostbinder::PeerIdentity peer;
                outgoingTo(hostbinder::DirectTarget{i.ownerPid, i.ownerStart, i.name, i.proof},
                           &conn, &peer);
            }
            return NO_ERROR;
        }
        default:
            // Stray replies or acknowledgements (a caller that gave up) are dropped with the frame.
            return NO_ERROR;
    }
}

// Work from the runtime for the process, that is not a call: an object released, a death
// notice, a thread more. Anything else is dropped with the frame.
void IPCThreadState::executeProcessWork(InboundFrame& frame) {
    switch (frame.header.type) {
        case hostbinder::kFrameReleaseNode: {
            const auto& r = frame.fixed<hostbinder::ReleaseNode>();
            mProcess->localReleased(reinterpret_cast<IBinder*>(r.cookie), r.count);
            break;
        }
        case hostbinder::kFrameDeadBinder: {
            sp<IBinder> proxy =
                    mProcess->existingProxyForHandle(frame.fixed<hostbinder::HandleRef>().handle);
            if (proxy != nullptr && proxy->remoteBinder() != nullptr) {
                proxy->remoteBinder()->sendObituary();
            }
            break;
        }
        case hostbinder::kFrameSpawnLooper:
            mProcess->spawnPooledThread(false);
            return;
        default:
            return;
    }
}

status_t IPCThreadState::transactAsCaller(pid_t pid, uid_t uid, const sp<IBinder>& target,
                                          uint32_t code, const Parcel& data, Parcel* reply,
                                          uint32_t flags) {
    const pid_t origPid = mCallingPid;
    const uid_t origUid = mCallingUid;
    const int32_t origStrictModePolicy = mStrictModePolicy;
    const int32_t origTransactionBinderFlags = mLastTransactionBinderFlags;
    const int32_t origWorkSource = mWorkSource;
    const bool origPropagateWorkSource = mPropagateWorkSource;
    mCallingPid = pid;
    mCallingUid = uid;
    mLastTransactionBinderFlags = static_cast<int32_t>(flags);
    mWorkSource = kUnsetWorkSource;
    mPropagateWorkSource = false;
    const status_t error = target->transact(code, data, reply, flags);
    mCallingPid = origPid;
    mCallingUid = origUid;
    mStrictModePolicy = origStrictModePolicy;
    mLastTransactionBinderFlags = origTransactionBinderFlags;
    mWorkSource = origWorkSource;
    mPropagateWorkSource = origPropagateWorkSource;
    return error;
}

void IPCThreadState::freeBuffer(Parcel* parcel, const uint8_t*, size_t, const binder_size_t*,
                                size_t, void* cookie) {
    if (parcel != nullptr) parcel->closeFileDescriptors();
    ReceivedBuffer* rb = static_cast<ReceivedBuffer*>(cookie);
    if (rb == nullptr) return;
    const uint64_t id = rb->bufferId;
    free(rb->frame);
    std::vector<sp<IBinder>> proxies;
    proxies.swap(rb->proxies);
    delete rb;
    if (id != 0) {
        hostbinder::BufferRef ref{id};
        ProcessState::self()->sendProcessFrame(hostbinder::kFrameFreeBuffer, &ref, sizeof(ref));
    }
    // The proxies go last: releasing one may talk to the runtime.
}

void IPCThreadState::incStrongHandle(int32_t, BpBinder*) {}
void IPCThreadState::decStrongHandle(int32_t) {}
void IPCThreadState::incWeakHandle(int32_t, BpBinder*) {}
void IPCThreadState::decWeakHandle(int32_t) {}

status_t IPCThreadState::attemptIncStrongHandle(int32_t) {
    return INVALID_OPERATION;
}

void IPCThreadState::expungeHandle(int32_t handle, IBinder* binder) {
    ProcessState::self()->expungeHandle(handle, binder);
}

void IPCThreadState::releaseHandle(int32_t handle, uint64_t count) {
    hostbinder::HandleCount release{handle, 0, count};
    mProcess->sendProcessFrame(hostbinder::kFrameReleaseHandle, &release, sizeof(release));
}

status_t IPCThreadState::requestDeathNotification(int32_t handle, BpBinder*) {
    if (ensureConnected() != NO_ERROR) return DEAD_OBJECT;
    hostbinder::HandleRef ref{handle, 0};
    iovec part{&ref, sizeof(ref)};
    status_t err =
            mConnection->send(hostbinder::kFrameRequestDeath, mProcess->nextFrameSeq(), &part, 1);
    if (err != NO_ERROR) return err;
    int32_t status = NO_ERROR;
    err = waitForResponse(nullptr, hostbinder::kFrameDeathAck, &status);
    return err != NO_ERROR ? err : status;
}

status_t IPCThreadState::clearDeathNotification(int32_t handle, BpBinder*) {
    hostbinder::HandleRef ref{handle, 0};
    return mProcess->sendProcessFrame(hostbinder::kFrameClearDeath, &ref, sizeof(ref));
}

}  // namespace android
