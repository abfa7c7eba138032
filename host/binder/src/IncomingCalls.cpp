#define LOG_TAG "hostbinder"

#include "IncomingCalls.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <log/log.h>

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

namespace android {
namespace hostbinder {

namespace {
// The epoll tags that are not connections.
char gListenTag;
char gWakeTag;
char gRuntimeTag;

// Log lines about misbehaving peers are rate limited: a peer that makes many connections
// break the protocol does not fill the log.
bool mayLog() {
    static std::atomic<int64_t> windowStart{0};
    static std::atomic<int> inWindow{0};
    timeval now{};
    gettimeofday(&now, nullptr);
    const int64_t second = now.tv_sec;
    if (windowStart.exchange(second) != second) inWindow = 0;
    return ++inWindow <= 20;
}

size_t onewayCost(const DirectCall& call) {
    return size_t(call.dataSize) + kOnewayCallOverhead;
}
}  // namespace

IncomingCalls::IncomingCalls(int listenFd, int runtimeFd)
      : mListenFd(listenFd), mRuntime(std::make_shared<ThreadConnection>(runtimeFd)) {
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = &gListenTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mListenFd, &ev);
    ev.data.ptr = &gWakeTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mWakeFd, &ev);
    ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    ev.data.ptr = &gRuntimeTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, runtimeFd, &ev);
}

IncomingCalls::~IncomingCalls() {
    shutdown();
    ::close(mWakeFd);
    ::close(mEpollFd);
}

void IncomingCalls::shutdown() {
    std::vector<std::shared_ptr<IncomingConnection>> conns;
    {
        std::lock_guard<std::mutex> l(mLock);
        if (mShutdown) return;
        mShutdown = true;
        for (auto& [raw, c] : mConns) conns.push_back(c);
        mReadyCalls.clear();
        mReadyObjects.clear();
    }
    for (auto& c : conns) close(c, nullptr);
    ::shutdown(mListenFd, SHUT_RDWR);
    ::close(mListenFd);
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, mRuntime->fd(), nullptr);
    mRuntime->shutdown();
    std::lock_guard<std::mutex> l(mLock);
    mOneway.clear();
    // Every waiting thread wakes (one after the other) and finds the calls ended.
    const uint64_t many = uint64_t(1) << 32;
    ssize_t n = write(mWakeFd, &many, sizeof(many));
    (void)n;
    arm(mWakeFd, &gWakeTag);
}

namespace {
// The binder threads of this process (inside joinThreadPool) and those of them running a
// direct call now; a spawned thread counts as pending until it joins.
std::mutex gPoolLock;
size_t gLoopers = 0;
size_t gBusy = 0;
bool gSpawnPending = false;
}  // namespace

void IncomingCalls::joinPool() {
    std::lock_guard<std::mutex> l(gPoolLock);
    gLoopers++;
    gSpawnPending = false;
}

void IncomingCalls::leavePool() {
    std::lock_guard<std::mutex> l(gPoolLock);
    gLoopers--;
}

void IncomingCalls::arm(int fd, void* tag) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    ev.data.ptr = tag;
    epoll_ctl(mEpollFd, EPOLL_CTL_MOD, fd, &ev);
}

// mLock held: one more piece of work for an idle thread.
void IncomingCalls::wake() {
    const uint64_t one = 1;
    ssize_t n = write(mWakeFd, &one, sizeof(one));
    (void)n;
}

// A thread took work: when no other binder thread is left free, the pool grows by one (up to
// its maximum), as the kernel driver asks a process to spawn a looper; one at a time, the next
// once the last one joined.
void IncomingCalls::tookWork(bool looper) {
    bool spawn;
    {
        std::lock_guard<std::mutex> l(gPoolLock);
        if (looper) gBusy++;
        spawn = gBusy >= gLoopers && !gSpawnPending;
        if (spawn) gSpawnPending = true;
    }
    if (spawn) ProcessState::self()->spawnPooledThread(false);
}

void IncomingCalls::workDone(bool looper) {
    if (!looper) return;
    std::lock_guard<std::mutex> l(gPoolLock);
    gBusy--;
}

bool IncomingCalls::serveOne(IPCThreadState* self) {
    return serve(self, 0);
}

bool IncomingCalls::serveBlocking(IPCThreadState* self) {
    return serve(self, -1);
}

size_t IncomingCalls::idleThreads() const {
    std::lock_guard<std::mutex> l(mLock);
    return mIdle;
}

bool IncomingCalls::serve(IPCThreadState* self, int timeoutMs) {
    std::unique_ptr<IncomingCall> mine;
    IBinder* object = nullptr;
    bool runtime = false;
    {
        std::lock_guard<std::mutex> l(mLock);
        if (mShutdown) return false;
        if (mRuntimePending) {
            mRuntimePending = false;
            runtime = true;
        } else if (!mReadyCalls.empty()) {
            mine = std::move(mReadyCalls.front());
            mReadyCalls.pop_front();
        } else if (!mReadyObjects.empty()) {
            object = mReadyObjects.front();
            mReadyObjects.pop_front();
        } else if (timeoutMs != 0) {
            mIdle++;
            if (mWakeDisarmed) {
                mWakeDisarmed = false;
                arm(mWakeFd, &gWakeTag);
            }
        }
    }
    if (runtime) {
        readRuntime(self);
        return true;
    }
    if (mine == nullptr && object == nullptr) {
        // Threads that wait here are woken one at a time, as the kernel driver wakes one
        // looper for each piece of process work.
        epoll_event ev{};
        const int n = epoll_wait(mEpollFd, &ev, 1, timeoutMs);
        if (timeoutMs != 0) {
            std::lock_guard<std::mutex> l(mLock);
            mIdle--;
        }
        if (n != 1) return timeoutMs != 0;
        if (!dispatchEvent(ev, self, &mine)) return true;
    }
    const bool looper = self->isLooper();
    tookWork(looper);
    if (mine != nullptr) {
        self->serveIncoming(std::move(mine));
    } else {
        runOneway(self, object);
    }
    workDone(looper);
    return true;
}

// One event from the epoll set. `self` null: a thread waiting for a reply, which only reads
// (calls of its chain reach its mailbox) and leaves the rest to the binder threads. True when a
// synchronous call was left in `mine` for the caller to serve.
bool IncomingCalls::dispatchEvent(const epoll_event& ev, IPCThreadState* self,
                                  std::unique_ptr<IncomingCall>* mine) {
    if (ev.data.ptr == &gWakeTag) {
        std::lock_guard<std::mutex> l(mLock);
        if (self != nullptr) {
            uint64_t count;
            ssize_t n = read(mWakeFd, &count, sizeof(count));  // one count: EFD_SEMAPHORE
            (void)n;
            arm(mWakeFd, &gWakeTag);  // the next waiting thread wakes if more is counted
        } else if (mIdle > 0) {
            arm(mWakeFd, &gWakeTag);  // for the binder threads
        } else {
            mWakeDisarmed = true;  // the next binder thread to wait arms it
        }
        return false;
    }
    if (ev.data.ptr == &gListenTag) {
        acceptWaiting();
        return false;
    }
    if (ev.data.ptr == &gRuntimeTag) {
        if (self != nullptr) {
            readRuntime(self);
        } else {
            std::lock_guard<std::mutex> l(mLock);
            mRuntimePending = true;
            wake();
        }
        return false;
    }
    std::shared_ptr<IncomingConnection> c;
    {
        std::lock_guard<std::mutex> l(mLock);
        auto it = mConns.find(static_cast<IncomingConnection*>(ev.data.ptr));
        if (it == mConns.end()) return false;
        c = it->second;
    }
    readConnection(c, self != nullptr ? mine : nullptr);
    return mine != nullptr && *mine != nullptr;
}

bool IncomingCalls::readForChain() {
    {
        std::lock_guard<std::mutex> l(mLock);
        if (mShutdown) return false;
    }
    epoll_event ev{};
    if (epoll_wait(mEpollFd, &ev, 1, 0) != 1) return false;
    dispatchEvent(ev, nullptr, nullptr);
    return true;
}

// Work from the runtime for the process (death notices, object releases), run on `self`.
void IncomingCalls::readRuntime(IPCThreadState* self) {
    {
        std::lock_guard<std::mutex> l(mLock);  // after the previous reader (see resume())
        if (mShutdown) return;
    }
    const status_t filled = mRuntime->fillAvailable();
    for (;;) {
        InboundFrame frame;
        const FrameReader::Result r = mRuntime->pop(&frame);
        if (r == FrameReader::Result::kNeedMore) break;
        if (r == FrameReader::Result::kMalformed) {
            ALOGE("malformed frame from the binder runtime");
            shutdown();
            return;
        }
        self->executeProcessWork(frame);
    }
    if (filled != NO_ERROR) {
        // The runtime is gone: the binder threads leave, the next call joins again.
        shutdown();
        return;
    }
    std::lock_guard<std::mutex> l(mLock);
    if (!mShutdown) arm(mRuntime->fd(), &gRuntimeTag);
}

void IncomingCalls::acceptWaiting() {
    for (int i = 0; i < 64; i++) {
        const int fd = accept4(mListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) break;
        auto c = std::make_shared<IncomingConnection>();
        c->conn = std::make_shared<ThreadConnection>(fd, false);
        if (!peerIdentity(fd, &c->peer)) continue;  // gone already
        // A peer that does not read its replies costs the thread answering it at most this.
        timeval timeout{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        std::lock_guard<std::mutex> l(mLock);
        if (mShutdown) break;
        if (mConns.size() >= kMaxConnections || mPerPid[c->peer.pid] >= kMaxPerProcess ||
            mPerUid[c->peer.uid] >= kMaxPerUid) {
            if (mayLog()) {
                ALOGW("refused a direct connection from pid %d uid %u: too many connections",
                      c->peer.pid, c->peer.uid);
            }
            if (mPerPid[c->peer.pid] == 0) mPerPid.erase(c->peer.pid);
            if (mPerUid[c->peer.uid] == 0) mPerUid.erase(c->peer.uid);
            continue;
        }
        mPerPid[c->peer.pid]++;
        mPerUid[c->peer.uid]++;
        mConns[c.get()] = c;
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
        ev.data.ptr = c.get();
        epoll_ctl(mEpollFd, EPOLL_CTL_ADD, fd, &ev);
    }
    std::lock_guard<std::mutex> l(mLock);
    if (!mShutdown) arm(mListenFd, &gListenTag);
}

void IncomingCalls::close(const std::shared_ptr<IncomingConnection>& c, const char* why) {
    {
        std::lock_guard<std::mutex> l(mLock);
        if (c->closed) return;
        c->closed = true;
        if (mConns.erase(c.get()) > 0) {
            if (--mPerPid[c->peer.pid] == 0) mPerPid.erase(c->peer.pid);
            if (--mPerUid[c->peer.uid] == 0) mPerUid.erase(c->peer.uid);
        }
    }
    if (why != nullptr && mayLog()) {
        ALOGW("closing a direct connection from pid %d uid %u: %s", c->peer.pid, c->peer.uid,
              why);
    }
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, c->conn->fd(), nullptr);
    // The descriptor stays open (and so unused by anyone else) until the last holder lets go
    // of the connection; reads and writes on it fail from now on.
    c->conn->shutdown();
}

void IncomingCalls::resume(const std::shared_ptr<IncomingConnection>& c) {
    std::unique_ptr<IncomingCall> more;
    {
        // The lock orders this thread's reads of the connection before the next reader's
        // (epoll hands the connection over, but a lock is what tools see).
        std::lock_guard<std::mutex> l(mLock);
        if (c->closed) return;
        if (!c->conn->hasBufferedFrame()) {
            arm(c->conn->fd(), c.get());
            return;
        }
    }
    {
        // Frames that came in one read with the call: read them as if the socket had them.
        readConnection(c, &more);
        if (more != nullptr) {
            std::lock_guard<std::mutex> l(mLock);
            mReadyCalls.push_back(std::move(more));
            wake();
        }
    }
}

bool IncomingCalls::resolve(const std::shared_ptr<IncomingConnection>& c, const DirectCall& call,
                            sp<IBinder>* target) {
    sp<ProcessState> proc = ProcessState::self();
    // The proof ties the name to this peer process: a name the runtime gave another process,
    // or one derived from a name it was given, does not pass.
    if (!nameGivenTo(proc->objectKey(), call.name, call.proof, c->peer)) {
        close(c, "it named an object without the runtime's proof");
        return false;
    }
    *target = proc->localForToken(call.name);
    return true;
}

void IncomingCalls::readConnection(const std::shared_ptr<IncomingConnection>& c,
                                   std::unique_ptr<IncomingCall>* mine) {
    ThreadConnection& conn = *c->conn;
    {
        std::lock_guard<std::mutex> l(mLock);  // after the previous reader (see resume())
        if (c->closed) return;
    }
    const status_t filled = conn.fillAvailable();
    // A binder thread that reads runs the first object it makes ready itself (it takes it from
    // the queue next); another thread is woken only for the rest.
    bool keepOne = mine != nullptr;
    bool kept = false;
    for (;;) {
        auto call = std::make_unique<IncomingCall>();
        const FrameReader::Result r = conn.pop(&call->frame);
        if (r == FrameReader::Result::kNeedMore) break;
        if (r == FrameReader::Result::kMalformed ||
            call->frame.header.type != kFrameDirectCall) {
            close(c, "it broke the direct call protocol");
            return;
        }
        const DirectCall dc = call->frame.fixed<DirectCall>();
        call->from = c;
        call->owner = this;
        if (!resolve(c, dc, &call->target)) return;
        const bool oneway = (dc.flags & IBinder::FLAG_ONEWAY) != 0;
        if (oneway) {
            call->onewayCost = onewayCost(dc);
            bool beyondBudget = false;
            {
            std::lock_guard<std::mutex> l(mLock);
            if (c->onewayHeld + call->onewayCost > kDirectOnewayBudget) {
                // Beyond what the sender was given: it did not count as it must.
                beyondBudget = true;
            } else if (call->target == nullptr) {
                // An object it was given that is gone: nobody to run it; its bytes go back.
                c->creditOwed += call->onewayCost;
            } else {
                c->onewayHeld += call->onewayCost;
                IBinder* object = call->target.get();
                ObjectQueue& q = mOneway[object];
                q.calls.push_back(std::move(call));
                if (!q.running) {
                    q.running = true;
                    mReadyObjects.push_back(object);
                    if (keepOne) {
                        keepOne = false;
                        kept = true;
                    } else {
                        wake();
                    }
                }
            }
            }
            if (!beyondBudget) continue;
            close(c, "one-way calls beyond its budget");
            return;
        }
        // A synchronous call: the peer's thread waits for its reply, so nothing more comes
        // from it until then, and this connection stays disarmed, with the call, until it is
        // answered (resume()).
        if (dc.serveOn != 0 && ChainThreads::get().handTo(dc.serveOn, &call)) {
            return;
        }
        if (mine != nullptr && *mine == nullptr) {
            *mine = std::move(call);
            if (kept) {
                std::lock_guard<std::mutex> l(mLock);
                wake();  // this thread serves the call: another runs the object
            }
        } else {
            std::lock_guard<std::mutex> l(mLock);
            mReadyCalls.push_back(std::move(call));
            wake();
        }
        return;
    }
    if (filled != NO_ERROR) {
        // The peer hung up (or its thread ended), or sent descriptors.
        close(c, filled == BAD_VALUE ? "it sent descriptors" : nullptr);
        return;
    }
    std::lock_guard<std::mutex> l(mLock);
    if (!c->closed) arm(conn.fd(), c.get());
}

void IncomingCalls::runOneway(IPCThreadState* self, IBinder* object) {
    for (;;) {
        std::unique_ptr<IncomingCall> call;
        {
            std::lock_guard<std::mutex> l(mLock);
            auto it = mOneway.find(object);
            if (it == mOneway.end()) return;
            if (it->second.calls.empty()) {
                mOneway.erase(it);
                return;
            }
            call = std::move(it->second.calls.front());
            it->second.calls.pop_front();
        }
        self->runOneway(*call);
        std::shared_ptr<IncomingConnection> from = call->from;
        size_t credit = 0;
        {
            std::lock_guard<std::mutex> l(mLock);
            from->onewayHeld -= call->onewayCost;
            from->creditOwed += call->onewayCost;
            // Credit goes back in eighths of the budget: the sender never has more than a few
            // credit frames unread, so giving it back never blocks.
            if (from->creditOwed >= kDirectOnewayBudget / 8 && !from->closed) {
                credit = from->creditOwed;
                from->creditOwed = 0;
            }
        }
        call.reset();  // the parcel and its target go before the credit
        if (credit != 0) {
            DirectCredit dc{credit};
            iovec part{&dc, sizeof(dc)};
            from->conn->send(kFrameDirectCredit, 0, &part, 1);
        }
    }
}

ChainThreads& ChainThreads::get() {
    static ChainThreads& threads = *new ChainThreads;  // used until the process ends
    return threads;
}

uint64_t ChainThreads::add(IPCThreadState* thread) {
    uint64_t id = 0;
    while (id == 0) randomBytes(&id, sizeof(id));
    std::lock_guard<std::mutex> l(mLock);
    mThreads[id] = thread;
    return id;
}

void ChainThreads::remove(uint64_t id) {
    std::lock_guard<std::mutex> l(mLock);
    mThreads.erase(id);
}

bool ChainThreads::handTo(uint64_t id, std::unique_ptr<IncomingCall>* call) {
    std::lock_guard<std::mutex> l(mLock);
    auto it = mThreads.find(id);
    return it != mThreads.end() && it->second->offerChainCall(call);
}

}  // namespace hostbinder
}  // namespace android
