/*
 * hostbinder: ProcessState, the per-process state of the binder runtime: the connection to
 * the runtime instance (HOSTBINDER_SOCKET, or /tmp/hostbinder.socket when unset), the table of
 * proxies by handle, and the binder thread pool.
 */
#pragma once

#include <binder/IBinder.h>
#include <utils/KeyedVector.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/threads.h>

#include <pthread.h>

#include <atomic>

namespace android {

class IPCThreadState;
namespace hostbinder {
class IncomingCalls;
}

class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();
    static sp<ProcessState> selfOrNull();

    // Accepted for source compatibility; the runtime instance is chosen by HOSTBINDER_SOCKET.
    static sp<ProcessState> initWithDriver(const char* driver);

    // The service manager (handle 0).
    sp<IBinder> getContextObject(const sp<IBinder>& caller);

    // Starts the first pool thread. Further threads are started on the runtime's request, up
    // to the maximum set with setThreadPoolMaxThreadCount (15 unless changed).
    void startThreadPool();

    bool becomeContextManager(bool (*checkFunc)(const String16& name, const sp<IBinder>& caller,
                                                void* userData),
                              void* userData);
    bool isContextManager(void) const;

    // The one proxy for `handle` in this process (created when there is none alive).
    sp<IBinder> getStrongProxyForHandle(int32_t handle);
    wp<IBinder> getWeakProxyForHandle(int32_t handle);
    void expungeHandle(int32_t handle, IBinder* binder);

    void spawnPooledThread(bool isMain);

    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    void giveThreadPoolName();

    String8 getDriverName();

    ssize_t getKernelReferences(size_t count, uintptr_t* buf);

    enum class CallRestriction {
        NONE,
        ERROR_IF_NOT_ONEWAY,
        FATAL_IF_NOT_ONEWAY,
    };
    void setCallRestriction(CallRestriction restriction);

    // ---- hostbinder's own: used by IPCThreadState and BpBinder ----------------------------
    // Path of the runtime instance's socket.
    const String8& socketPath() const { return mSocketPath; }
    size_t maxThreads() const;
    // Counts one delivery of `handle` to this process and returns its proxy.
    sp<IBinder> receiveHandle(int32_t handle);
    // The live proxy for `handle`, or null; never creates one.
    sp<IBinder> existingProxyForHandle(int32_t handle);
    // A proxy lost its last strong reference: forgets it and gives the runtime back every
    // delivery of its handle counted so far.
    void proxyGone(int32_t handle, BpBinder* proxy);
    // A local object is being sent to another process: it is held while the runtime may
    // count references to it.
    void localSent(IBinder* binder);
    // The runtime has dropped `count` of the references to a local object it counted.
    void localReleased(IBinder* binder, uint64_t count);

    // Connects this process to the runtime instance if it is not yet, or again when the
    // instance it was connected to is gone (then HOSTBINDER_SOCKET is read again, and every
    // proxy of the old instance is dead). Thread-safe.
    status_t ensureRuntime();
    // Counts the instances this process has joined; proxies of an earlier one are dead.
    uint32_t generation() const { return mGeneration.load(std::memory_order_acquire); }
    // True when HOSTBINDER_SOCKET now names another instance than the one joined.
    bool instanceMoved() const;
    // The frame number for the next frame this process sends (see WireProtocol.h).
    uint32_t nextFrameSeq();
    // Sends a frame on the process's lifetime connection.
    status_t sendProcessFrame(uint16_t type, const void* payload, size_t size);

    // Direct calls. The runtime introduces, with each handle it delivers, the process that
    // owns the object (pid and start time), its name there and the proof that this process
    // was given it.
    void noteHandleOwner(int32_t handle, pid_t owner, uint64_t ownerStart, uint64_t name,
                         uint64_t proof);
    // False when calls on `handle` go through the runtime.
    bool handleOwner(int32_t handle, pid_t* owner, uint64_t* ownerStart, uint64_t* name,
                     uint64_t* proof);
    // The local object a direct peer named, while the runtime may count references to it (so
    // only objects this process sent out); null otherwise.
    sp<IBinder> localForToken(uint64_t name);
    // The key of the proofs that go with the names of this process's objects.
    const uint8_t* objectKey() const { return mObjectKey; }
    // The direct calls other processes make to this one (null before it joined an instance).
    hostbinder::IncomingCalls* incoming();

private:
    // The live proxy for `handle`, or null; mLock held.
    sp<IBinder> existingProxyForHandleLocked(int32_t handle);
    friend class IPCThreadState;

    explicit ProcessState(const char* driver);
    ~ProcessState();

    ProcessState(const ProcessState& o);
    ProcessState& operator=(const ProcessState& o);
    String8 makeBinderThreadName();
    status_t connectRuntime(Vector<IBinder*>* released);
    void startDirectListener();
    void stopDirectListener();

    struct handle_entry {
        IBinder* binder;
        RefBase::weakref_type* refs;
        uint64_t received;  // deliveries of this handle the runtime has counted
        pid_t owner;        // the object's process, 0: calls go through the runtime
        uint64_t ownerStart;
        uint64_t name;      // the object's name there
        uint64_t proof;     // the runtime's proof that this process was given the name
    };

    String8 mSocketPath;
    mutable Mutex mLock;
    Mutex mRuntimeLock;  // guards mRuntimeFd and writes to it
    int mRuntimeFd;
    std::atomic<uint32_t> mFrameSeq;
    std::atomic<uint32_t> mGeneration;
    KeyedVector<int32_t, handle_entry> mHandleToObject;
    // Local objects the runtime may count references to, with the references sent and not
    // yet released: each holds one strong reference while its count is not zero.
    KeyedVector<IBinder*, int64_t> mLocalSent;
    size_t mMaxThreads;
    int32_t mThreadPoolSeq;
    bool mThreadPoolStarted;
    CallRestriction mCallRestriction;
    uint8_t mObjectKey[16];     // keys the proofs of our objects' names (Hello)
    uint64_t mNameMask;         // masks our objects' addresses in their names
    // The direct calls of the instance joined now (guarded by mRuntimeLock; one made per
    // instance joined and never destroyed, since a binder thread may still hold it).
    hostbinder::IncomingCalls* mIncoming;
    std::atomic<size_t> mSpawnedThreads;  // pool threads started (not the main one)
};

}  // namespace android
