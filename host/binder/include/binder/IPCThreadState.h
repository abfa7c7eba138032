/*
 * hostbinder: IPCThreadState, the per-thread side of the binder runtime. Each thread that
 * makes or serves calls has its own connection to the runtime instance; a thread waiting for a
 * reply also serves calls that come back to its process from the call it is waiting on.
 */
#pragma once

#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <utils/Errors.h>
#include <utils/Vector.h>

#include <sys/types.h>

#include <memory>

namespace android {

namespace hostbinder {
class ThreadConnection;
struct InboundFrame;
struct DirectState;
struct DirectTarget;
struct IncomingCall;
struct PeerIdentity;
}  // namespace hostbinder

class IPCThreadState {
public:
    static IPCThreadState* self();
    static IPCThreadState* selfOrNull();

    sp<ProcessState> process();

    status_t clearLastError();

    // The pid and uid of the process whose call this thread is serving, as the kernel reported
    // them for its connection; outside a call, this process's own.
    pid_t getCallingPid() const;
    const char* getCallingSid() const;
    uid_t getCallingUid() const;

    void setStrictModePolicy(int32_t policy);
    int32_t getStrictModePolicy() const;

    int64_t setCallingWorkSourceUid(uid_t uid);
    int64_t setCallingWorkSourceUidWithoutPropagation(uid_t uid);
    uid_t getCallingWorkSourceUid() const;
    int64_t clearCallingWorkSource();
    void restoreCallingWorkSource(int64_t token);
    void clearPropagateWorkSource();
    bool shouldPropagateWorkSource() const;

    void setLastTransactionBinderFlags(int32_t flags);
    int32_t getLastTransactionBinderFlags() const;

    // Makes this thread's identity the caller's identity until restoreCallingIdentity(token).
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    int setupPolling(int* fd);
    status_t handlePolledCommands();
    void flushCommands();

    // Serves calls on this thread until the runtime connection ends.
    void joinThreadPool(bool isMain = true);

    void stopProcess(bool immediate = true);

    status_t transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags);

    void incStrongHandle(int32_t handle, BpBinder* proxy);
    void decStrongHandle(int32_t handle);
    void incWeakHandle(int32_t handle, BpBinder* proxy);
    void decWeakHandle(int32_t handle);
    status_t attemptIncStrongHandle(int32_t handle);
    static void expungeHandle(int32_t handle, IBinder* binder);
    status_t requestDeathNotification(int32_t handle, BpBinder* proxy);
    status_t clearDeathNotification(int32_t handle, BpBinder* proxy);

    static void shutdown();

    static void disableBackgroundScheduling(bool disable);
    bool backgroundSchedulingDisabled();

    void blockUntilThreadAvailable();

    static void freeBuffer(Parcel* parcel, const uint8_t* data, size_t dataSize,
                           const binder_size_t* objects, size_t objectsSize, void* cookie);

    static const int32_t kUnsetWorkSource = -1;

    // Frees a thread's state when the thread ends.
    static void threadDestructor(void* st);

    // ---- hostbinder's own ------------------------------------------------------------------
    // Returns `count` deliveries of `handle` to the runtime (the proxy for it is gone).
    void releaseHandle(int32_t handle, uint64_t count);
    // Makes sure this thread is connected to the process's current runtime instance.
    status_t ensureRuntimeConnection();
    // Serves a synchronous call another process made directly, and answers it.
    void serveIncoming(std::unique_ptr<hostbinder::IncomingCall> call);
    // Runs a one-way call another process made directly.
    void runOneway(hostbinder::IncomingCall& call);
    // True inside joinThreadPool().
    bool isLooper() const { return mIsLooper; }
    // Runs work the runtime sent the process (read from the process connection).
    void executeProcessWork(hostbinder::InboundFrame& frame);
    // A call of this thread's chain: taken (true) when this thread waits for a direct reply.
    // Any thread.
    bool offerChainCall(std::unique_ptr<hostbinder::IncomingCall>* call);

private:
    IPCThreadState();
    ~IPCThreadState();

    status_t ensureConnected();
    status_t waitForResponse(Parcel* reply, uint32_t wantType, int32_t* outValue);
    status_t executeCommand(hostbinder::InboundFrame& frame);
    // Runs `target`'s transaction with the calling identity set to pid/uid (and the work
    // source unset), restoring this thread's identity afterwards.
    status_t transactAsCaller(pid_t pid, uid_t uid, const sp<IBinder>& target, uint32_t code,
                              const Parcel& data, Parcel* reply, uint32_t flags);

    // Direct calls (DirectCalls.cpp). False: the owner cannot be reached directly, the call
    // goes through the runtime; true: the call was made, with `result`.
    using DirectConnection = std::shared_ptr<hostbinder::ThreadConnection>;
    bool transactDirect(const hostbinder::DirectTarget& target, uint32_t code,
                        const Parcel& data, Parcel* reply, uint32_t flags, const int* fds,
                        size_t fdCount, status_t* result);
    bool sendOnewayDirect(const hostbinder::DirectTarget& target, uint32_t code,
                          const Parcel& data, uint32_t flags, const int* fds, size_t fdCount,
                          status_t* result);
    bool outgoingTo(const hostbinder::DirectTarget& target, DirectConnection* conn,
                    hostbinder::PeerIdentity* peer);
    status_t waitForDirectReply(const DirectConnection& conn,
                                const hostbinder::PeerIdentity& peer, Parcel* reply);
    // Serves a call that arrived on `conn` (from `peer`) on this thread and answers it there.
    void serveDirectCall(const DirectConnection& conn, const hostbinder::PeerIdentity& peer,
                         hostbinder::InboundFrame& frame, const sp<IBinder>& target);
    status_t directBody(const hostbinder::PeerIdentity& peer, hostbinder::InboundFrame& frame,
                        Parcel* buffer);
    void addCredit(pid_t peer, hostbinder::InboundFrame& frame);
    status_t drainCredits(pid_t peer);
    status_t parkBody(pid_t peer, const Parcel& body, const int* fds, size_t fdCount,
                      uint64_t* parkId);
    status_t fetchParked(pid_t peer, uint64_t parkId, Parcel* out);
    // Serves `frame` when it is a synchronous call from `peer` with the runtime's proof for it;
    // false otherwise (the peer broke the protocol).
    bool serveNestedCall(const DirectConnection& conn, const hostbinder::PeerIdentity& peer,
                         hostbinder::InboundFrame& frame);
    // Serves a call read from the connection of a call this thread serves (other than
    // `waitingOn`); false when none has one.
    bool serveNestedOnServing(const DirectConnection& waitingOn);
    // Takes one call from the mailbox and serves it; false when it is empty.
    bool serveMailbox();
    // Waits for work as a binder thread: a frame from the runtime, or direct calls.
    status_t waitForWork();

    const sp<ProcessState> mProcess;
    hostbinder::ThreadConnection* mConnection;
    status_t mLastError;
    pid_t mCallingPid;
    uid_t mCallingUid;
    int32_t mWorkSource;
    bool mPropagateWorkSource;
    int32_t mStrictModePolicy;
    int32_t mLastTransactionBinderFlags;
    bool mIsLooper;
    uint32_t mConnectionGeneration;
    // One-way calls sent on this connection since the runtime last acknowledged one.
    uint32_t mOnewayUnackedCalls;
    size_t mOnewayUnackedBytes;
    bool mOnewayMustAck;  // the last acknowledged one was refused
    hostbinder::DirectState* mDirect;
};

}  // namespace android
