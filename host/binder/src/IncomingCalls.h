/*
 * hostbinder: the direct calls other processes make to this one, served by its binder threads.
 *
 * The process listens on one abstract Unix address; every connection a peer's thread opens
 * there, the listener itself and a wake-up descriptor sit in one epoll set (waitFd()). There is
 * no thread per connection: a binder thread with nothing to do waits on waitFd() and, when it
 * is readable, calls serveOne(), which takes one piece of work and runs it on that thread:
 *
 *  - a connection with frames to read: the thread reads what has arrived. One-way calls join
 *    their object's queue; a synchronous call is served by this thread (or, when it names a
 *    thread of this process waiting further up its chain, handed to that thread's mailbox).
 *    A connection is armed with EPOLLONESHOT, so at most one thread reads it at a time, and it
 *    stays disarmed while one of its synchronous calls is being served: the serving thread
 *    alone reads it then (nested calls back), and re-arms it with resume() after the reply.
 *  - an object with queued one-way calls: the thread runs them one at a time, in arrival
 *    order, then gives the sender its bytes back (DirectCredit).
 *  - the listener: the thread accepts what is waiting, within the caps below.
 *
 * Threading: every method may be called from any thread. The connection table, the queues and
 * the counters are guarded by mLock, which is never held while a call runs or while anything is
 * read from or written to a socket.
 */
#pragma once

#include "PeerIdentity.h"
#include "ThreadConnection.h"
#include "WireSocket.h"

#include <binder/IBinder.h>

#include <sys/epoll.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace android {

class IPCThreadState;

namespace hostbinder {

// One connection a peer opened to this process.
struct IncomingConnection {
    std::shared_ptr<ThreadConnection> conn;
    PeerIdentity peer;
    size_t onewayHeld = 0;   // one-way bytes received and not yet given back (mLock)
    size_t creditOwed = 0;   // one-way bytes run and not yet given back (mLock)
    bool closed = false;     // (mLock)
};

// One call read from a connection, with the object it names.
class IncomingCalls;
struct IncomingCall {
    std::shared_ptr<IncomingConnection> from;
    IncomingCalls* owner = nullptr;  // resume(from) once a synchronous call is answered
    InboundFrame frame;
    sp<IBinder> target;
    size_t onewayCost = 0;
};

class IncomingCalls {
public:
    // Caps on connections from other processes (beyond them a new connection is closed at
    // once): per peer process, per peer uid, in all.
    static constexpr size_t kMaxPerProcess = 64;
    static constexpr size_t kMaxPerUid = 128;
    static constexpr size_t kMaxConnections = 512;

    // Takes the listening socket and a descriptor of the process's connection to the
    // runtime, which the binder threads read for the process's work from the runtime.
    IncomingCalls(int listenFd, int runtimeFd);
    ~IncomingCalls();
    IncomingCalls(const IncomingCalls&) = delete;
    IncomingCalls& operator=(const IncomingCalls&) = delete;

    // Readable when a connection, the listener, the runtime or queued work needs a thread
    // (an epoll set).
    int waitFd() const { return mEpollFd; }

    // Takes at most one piece of work, if there is one now, and runs it on `self`. False when
    // there was none.
    bool serveOne(IPCThreadState* self);
    // Waits for one piece of work and runs it on `self`: binder threads wait here, and the
    // kernel wakes one of them for each event. False once the calls have ended (shutdown(),
    // or the runtime went away).
    bool serveBlocking(IPCThreadState* self);
    // Binder threads waiting in serveBlocking() now.
    size_t idleThreads() const;

    // For a thread that waits for a reply: reads what one connection sent, without running
    // anything itself. Calls of its own chain reach it through its mailbox; the rest is queued
    // for the binder threads. False when nothing was ready.
    bool readForChain();

    // A synchronous call from `c` has been answered: its connection is read again.
    void resume(const std::shared_ptr<IncomingConnection>& c);

    // Ends the connection (the peer broke the protocol or is gone).
    void close(const std::shared_ptr<IncomingConnection>& c, const char* why);

    // Closes the listener and every connection; serveOne() finds nothing from now on.
    void shutdown();

    // A thread joins the process's binder pool (joinThreadPool) or leaves it. Process-wide.
    static void joinPool();
    static void leavePool();


private:
    bool serve(IPCThreadState* self, int timeoutMs);
    bool dispatchEvent(const epoll_event& ev, IPCThreadState* self,
                       std::unique_ptr<IncomingCall>* mine);
    void readRuntime(IPCThreadState* self);
    void acceptWaiting();
    // Reads what `c` has sent; a synchronous call for this thread to serve goes to `mine`
    // (null: the thread serves none, the call is queued).
    void readConnection(const std::shared_ptr<IncomingConnection>& c,
                        std::unique_ptr<IncomingCall>* mine);
    // Checks a call's proof (false: the connection is closed) and finds its object (null when
    // this process no longer holds it for the runtime).
    bool resolve(const std::shared_ptr<IncomingConnection>& c, const DirectCall& call,
                 sp<IBinder>* target);
    void runOneway(IPCThreadState* self, IBinder* object);
    void arm(int fd, void* tag);
    void wake();
    void tookWork(bool looper);
    void workDone(bool looper);

    struct ObjectQueue {
        std::deque<std::unique_ptr<IncomingCall>> calls;
        bool running = false;
    };

    mutable std::mutex mLock;
    int mEpollFd = -1;
    int mListenFd = -1;
    int mWakeFd = -1;
    std::shared_ptr<ThreadConnection> mRuntime;  // the process connection, read side
    bool mShutdown = false;
    size_t mIdle = 0;              // threads in serveBlocking()
    bool mWakeDisarmed = false;    // a waiting-for-reply thread took the wake event
    bool mRuntimePending = false;  // the runtime sent work a binder thread has to read
    std::unordered_map<IncomingConnection*, std::shared_ptr<IncomingConnection>> mConns;
    std::map<pid_t, size_t> mPerPid;
    std::map<uid_t, size_t> mPerUid;
    std::unordered_map<IBinder*, ObjectQueue> mOneway;
    std::deque<IBinder*> mReadyObjects;   // objects with one-way calls and no thread on them
    std::deque<std::unique_ptr<IncomingCall>> mReadyCalls;  // synchronous calls to serve
};

// The threads of this process by the ids they carry in call chains (ChainLink): a synchronous
// call that names one of them in `serveOn` runs on it when it is waiting for a reply, as the
// kernel driver runs a call on the thread whose transaction stack it belongs to. Ids are
// random, so a process outside the chain cannot name one.
class ChainThreads {
public:
    static ChainThreads& get();
    uint64_t add(IPCThreadState* thread);
    void remove(uint64_t id);
    // True when the thread took the call (it is waiting for a reply now).
    bool handTo(uint64_t id, std::unique_ptr<IncomingCall>* call);

private:
    std::mutex mLock;
    std::unordered_map<uint64_t, IPCThreadState*> mThreads;
};

}  // namespace hostbinder
}  // namespace android
