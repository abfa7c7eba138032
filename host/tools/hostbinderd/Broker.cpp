#define LOG_TAG "hostbinderd"

#include "Broker.h"

#include <binder/IBinder.h>
#include <log/log.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace android {
namespace hostbinder {

namespace {

constexpr size_t kMaxConnections = 4096;
constexpr size_t kMaxOutBytes = 64 * 1024 * 1024;
constexpr size_t kMaxNodesPerProc = 1 << 17;
constexpr size_t kMaxRefsPerProc = 1 << 17;
constexpr size_t kMaxBuffersPerProc = 1 << 17;
constexpr size_t kMaxAsyncQueuedBytes = 32 * 1024 * 1024;
constexpr size_t kMaxServices = 4096;
constexpr size_t kMaxServiceName = 1024;
constexpr uint32_t kMaxThreadsLimit = 1024;
constexpr uint32_t kFlatBinderFlags = 0x113;

constexpr uint64_t kListenTag = 1;
constexpr uint64_t kStopTag = 2;

const char16_t kServiceManagerDescriptor[] = u"android.os.IServiceManager";
const char16_t kPermissionDescriptor[] = u"android.os.IPermissionController";

flat_binder_object readObjectAt(const uint8_t* data, uint64_t off) {
    flat_binder_object obj;
    memcpy(&obj, data + off, sizeof(obj));
    return obj;
}

void writeObjectAt(uint8_t* data, uint64_t off, const flat_binder_object& obj) {
    memcpy(data + off, &obj, sizeof(obj));
}

void closeAll(std::vector<int>* fds) {
    for (int fd : *fds) {
        if (fd >= 0) close(fd);
    }
    fds->clear();
}

}  // namespace

Broker::Broker(const BrokerOptions& options)
      : mOptions(options), mPolicy(options.permissionsFile) {
    mServiceManager.builtin = Builtin::kServiceManager;
    mPermission.builtin = Builtin::kPermission;
    mServices[u"permission"] = ServiceEntry{&mPermission};
}

Broker::~Broker() {
    for (Conn* c : mConns) {
        if (c->fd >= 0) close(c->fd);
        for (auto& chunk : c->outq) closeAll(&chunk.fds);
        delete c;
    }
    for (Conn* c : mClosing) delete c;
    for (auto& [pid, p] : mProcs) {
        for (Work& w : p->todo) {
            if (w.txn != nullptr) {
                closeAll(&w.txn->fds);
                delete w.txn;
            }
        }
        for (auto& [b, n] : p->nodes) {
            for (Txn* t : n->asyncTodo) {
                closeAll(&t->fds);
                delete t;
            }
        }
        delete p;
    }
    if (mListenFd >= 0) {
        close(mListenFd);
        unlink(mOptions.socketPath.c_str());
    }
    if (mEpollFd >= 0) close(mEpollFd);
}

int Broker::listen() {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (mOptions.socketPath.size() >= sizeof(addr.sun_path)) return -ENAMETOOLONG;
    strcpy(addr.sun_path, mOptions.socketPath.c_str());
    // A live instance already serving this path keeps it.
    int probe = connectUnix(addr.sun_path);
    if (probe >= 0) {
        close(probe);
        return -EADDRINUSE;
    }
    unlink(addr.sun_path);
    mListenFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (mListenFd < 0) return -errno;
    if (bind(mListenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        int e = errno;
        close(mListenFd);
        mListenFd = -1;
        return -e;
    }
    chmod(addr.sun_path, 0666);  // processes of any uid may join the instance
    if (::listen(mListenFd, SOMAXCONN) != 0) return -errno;
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    return mEpollFd < 0 ? -errno : 0;
}

void Broker::run(int stopFd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kListenTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mListenFd, &ev);
    ev.data.u64 = kStopTag;
    epoll_ctl(mEpollFd, EPOLL_CTL_ADD, stopFd, &ev);

    epoll_event events[64];
    for (;;) {
        int n = epoll_wait(mEpollFd, events, 64, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            ALOGE("epoll_wait: %s", strerror(errno));
            return;
        }
        for (int i = 0; i < n; i++) {
            const uint64_t tag = events[i].data.u64;
            if (tag == kStopTag) return;
            if (tag == kListenTag) {
                acceptConnections();
            } else {
                Conn* c = reinterpret_cast<Conn*>(tag);
                if (c->closed) continue;
                const uint32_t ev = events[i].events;
                if (ev & EPOLLOUT) onWritable(c);
                if (!c->closed && (ev & (EPOLLIN | EPOLLHUP | EPOLLERR))) onReadable(c);
                if (!c->closed && c->fd >= 0 && c->hasHead &&
                    (ev & (EPOLLRDHUP | EPOLLHUP | EPOLLERR))) {
                    onHangup(c);
                }
            }
            reapDying();
        }
        for (Conn* c : mClosing) delete c;
        mClosing.clear();
    }
}

// ---------------------------------------------------------------------------------------------
// Connections

void Broker::acceptConnections() {
    for (;;) {
        int fd = accept4(mListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            return;  // EAGAIN, or out of descriptors: try again on the next wake-up
        }
        if (mConns.size() >= kMaxConnections) {
            ALOGW("too many connections; refusing one");
            close(fd);
            continue;
        }
        ucred cred{};
        socklen_t len = sizeof(cred);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
            close(fd);
            continue;
        }
        Conn* c = new Conn;
        c->fd = fd;
        c->pid = cred.pid;
        c->uid = cred.uid;
        mConns.insert(c);
        updateEpoll(c);
    }
}

void Broker::updateEpoll(Conn* c) {
    if (c->closed) return;
    if (c->fd < 0) return;
    uint32_t events = EPOLLRDHUP;
    if (!c->eof && !c->hasHead) events |= EPOLLIN;
    if (c->wantWrite) events |= EPOLLOUT;
    if (events == c->epollEvents) return;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = reinterpret_cast<uint64_t>(c);
    epoll_ctl(mEpollFd, c->epollEvents == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, c->fd, &ev);
    c->epollEvents = events;
}

// The peer closed a connection the broker is not reading (its next frame waits for an
// earlier-numbered one): the rest of what it sent is taken in now and the descriptor let go.
void Broker::onHangup(Conn* c) {
    if (c->proc == nullptr || c == c->proc->control) {
        if (c->proc != nullptr) {
            drop(c->proc, nullptr);
        } else {
            closeConn(c);
        }
        return;
    }
    size_t taken = 0;
    for (;;) {
        ssize_t n = c->reader.fill(c->fd, MSG_DONTWAIT);
        if (n <= 0) break;
        taken += static_cast<size_t>(n);
        if (taken > 2 * kMaxFramePayload) {
            drop(c->proc, "too much data after hanging up");
            return;
        }
    }
    c->eof = true;
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, c->fd, nullptr);
    c->epollEvents = 0;
    close(c->fd);
    c->fd = -1;
    c->wantWrite = false;
    for (auto& chunk : c->outq) closeAll(&chunk.fds);
    c->outq.clear();
}

void Broker::onReadable(Conn* c) {
    if (c->fd < 0 || c->hasHead) return;
    ssize_t n = c->reader.fill(c->fd, MSG_DONTWAIT);
    if (n == 0 || (n < 0 && n != -EAGAIN)) {
        if (n == -EBADMSG && c->proc != nullptr) {
            drop(c->proc, "bad descriptor list");
            return;
        }
        c->eof = true;
    }
    pump(c);
    if (c->closed) return;
    updateEpoll(c);
    if (c->eof && !c->hasHead) {
        if (c->proc == nullptr) {
            closeConn(c);
        } else if (c->reader.buffered() > 0) {
            drop(c->proc, "truncated frame");
        } else if (c == c->proc->control) {
            drop(c->proc, nullptr);
        } else {
            threadGone(c);
        }
    }
}

void Broker::onWritable(Conn* c) {
    flush(c);
}

bool Broker::popHead(Conn* c) {
    Proc* p = c->proc;
    FrameReader::Result r = c->reader.pop(&c->head);
    if (r == FrameReader::Result::kNeedMore) return false;
    if (r == FrameReader::Result::kMalformed || c->head.header.type == kFrameHello) {
        drop(p, "malformed frame");
        return false;
    }
    const uint32_t seq = c->head.header.seq;
    if (p->waiting.count(seq) != 0) {
        drop(p, "frame number used twice");
        return false;
    }
    c->hasHead = true;
    p->waiting[seq] = c;
    return true;
}

void Broker::pump(Conn* c) {
    if (c->closed) return;
    if (c->proc == nullptr) {
        InboundFrame f;
        FrameReader::Result r = c->reader.pop(&f);
        if (r == FrameReader::Result::kNeedMore) return;
        if (r == FrameReader::Result::kMalformed || f.header.type != kFrameHello) {
            closeConn(c);
            return;
        }
        handleHello(c, f);
        if (c->closed || c->proc == nullptr) return;
    }
    Proc* p = c->proc;
    if (p->dying) return;
    if (!c->hasHead) popHead(c);
    // Handle the process's frames in the order it numbered them, across its connections.
    while (!p->dying) {
        auto it = p->waiting.find(p->expectedSeq);
        if (it == p->waiting.end()) break;
        Conn* cur = it->second;
        p->waiting.erase(it);
        cur->hasHead = false;
        p->expectedSeq++;
        handleFrame(cur, cur->head);
        cur->head.reset();
        if (p->dying || cur->closed) break;
        popHead(cur);
        if (cur != c) {
            updateEpoll(cur);
            if (cur->eof && !cur->hasHead && cur != p->control) {
                if (cur->reader.buffered() > 0) {
                    drop(p, "truncated frame");
                } else {
                    threadGone(cur);
                }
            }
        }
    }
}

void Broker::handleHello(Conn* c, InboundFrame& f) {
    const Hello& h = f.fixed<Hello>();
    if (h.magic != kWireMagic || h.version != kWireVersion) {
        ALOGW("pid %d speaks another protocol (version %u)", c->pid, h.version);
        closeConn(c);
        return;
    }
    if (h.role == kRoleProcess) {
        auto it = mProcs.find(c->pid);
        if (it != mProcs.end()) {
            ALOGW("pid %d joined twice", c->pid);
            closeConn(c);
            return;
        }
        Proc* p = new Proc;
        p->pid = c->pid;
        p->uid = c->uid;
        p->control = c;
        p->maxThreads = std::min(h.maxThreads, kMaxThreadsLimit);
        p->conns.insert(c);
        c->proc = p;
        c->role = kRoleProcess;
        mProcs[p->pid] = p;
        HelloAck ack{kWireMagic, kWireVersion, c->pid, c->uid};
        send(c, kFrameHelloAck, &ack, sizeof(ack), nullptr, 0, nullptr);
    } else if (h.role == kRoleThread) {
        auto it = mProcs.find(c->pid);
        if (it == mProcs.end() || it->second->dying) {
            closeConn(c);
            return;
        }
        c->proc = it->second;
        c->role = kRoleThread;
        c->proc->conns.insert(c);
    } else {
        closeConn(c);
    }
}

void Broker::handleFrame(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    switch (f.header.type) {
        case kFrameTransaction:
            handleTransaction(c, f);
            return;
        case kFrameReply:
            handleReply(c, f);
            return;
        case kFrameFreeBuffer: {
            auto it = p->buffers.find(f.fixed<BufferRef>().bufferId);
            if (it == p->buffers.end() || it->second.asyncNode != nullptr) {
                drop(p, "freed an unknown buffer");
                return;
            }
            releaseBuffer(p, it->first);
            return;
        }
        case kFrameReleaseHandle: {
            const HandleCount& hc = f.fixed<HandleCount>();
            if (!releaseHandle(p, hc.handle, hc.count)) drop(p, "released an unknown handle");
            return;
        }
        case kFrameRequestDeath: {
            const int32_t handle = f.fixed<HandleRef>().handle;
            DeathAck ack{handle, NO_ERROR};
            if (handle != kServiceManagerHandle) {
                auto it = p->refs.find(handle);
                if (it == p->refs.end()) {
                    drop(p, "death notice for an unknown handle");
                    return;
                }
                if (it->second.node->dead) {
                    ack.status = DEAD_OBJECT;
                } else {
                    it->second.deathRequested = true;
                }
            }
            send(c, kFrameDeathAck, &ack, sizeof(ack), nullptr, 0, nullptr);
            return;
        }
        case kFrameClearDeath: {
            auto it = p->refs.find(f.fixed<HandleRef>().handle);
            if (it != p->refs.end()) it->second.deathRequested = false;
            return;
        }
        case kFrameEnterLooper:
            if (c == p->control) {
                drop(p, "looper on the process connection");
                return;
            }
            if (!c->looper) {
                c->looper = true;
                if (f.fixed<EnterLooper>().isMain == 0) {
                    if (p->requestedSpawns > 0) p->requestedSpawns--;
                    p->spawnedLoopers++;
                }
            }
            dispatch(p);
            return;
        case kFrameLooperDone: {
            const uint64_t id = f.fixed<BufferRef>().bufferId;
            if (id != 0) {
                if (p->buffers.count(id) == 0) {
                    drop(p, "completed an unknown buffer");
                    return;
                }
                releaseBuffer(p, id);
            }
            c->busy = false;
            c->busyBuffer = 0;
            dispatch(p);
            return;
        }
        case kFrameSetMaxThreads:
            p->maxThreads = std::min(f.fixed<SetMaxThreads>().maxThreads, kMaxThreadsLimit);
            dispatch(p);
            return;
        default:
            drop(p, "unexpected frame type");
            return;
    }
}

void Broker::send(Conn* c, uint16_t type, const void* fixed, size_t fixedLen, const void* body,
                  size_t bodyLen, std::vector<int>* fds) {
    std::vector<int> none;
    if (fds == nullptr) fds = &none;
    if (c->closed || c->fd < 0 || (c->proc != nullptr && c->proc->dying)) {
        closeAll(fds);
        return;
    }
    FrameHeader h{};
    h.size = static_cast<uint32_t>(fixedLen + bodyLen);
    h.type = type;
    h.fdCount = static_cast<uint16_t>(fds->size());
    iovec parts[3] = {{&h, sizeof(h)},
                      {const_cast<void*>(fixed), fixedLen},
                      {const_cast<void*>(body), bodyLen}};
    const size_t total = sizeof(h) + fixedLen + bodyLen;
    size_t sent = 0;
    if (c->outq.empty()) {
        ssize_t n = sendFrameSome(c->fd, parts, bodyLen > 0 ? 3 : 2, fds->data(), fds->size());
        if (n < 0 && n != -EAGAIN) {
            closeAll(fds);
            if (c->proc != nullptr) drop(c->proc, nullptr);
            return;
        }
        if (n > 0) {
            sent = static_cast<size_t>(n);
            closeAll(fds);  // they went with the first byte
        }
        if (sent == total) return;
    }
    Conn::Chunk chunk;
    chunk.bytes.reserve(total - sent);
    size_t skip = sent;
    for (const iovec& part : parts) {
        const uint8_t* b = static_cast<const uint8_t*>(part.iov_base);
        if (skip >= part.iov_len) {
            skip -= part.iov_len;
            continue;
        }
        chunk.bytes.insert(chunk.bytes.end(), b + skip, b + part.iov_len);
        skip = 0;
    }
    chunk.fds.swap(*fds);
    c->outBytes += chunk.bytes.size();
    c->outq.push_back(std::move(chunk));
    if (c->outBytes > kMaxOutBytes) {
        if (c->proc != nullptr) drop(c->proc, "not reading its connection");
        return;
    }
    c->wantWrite = true;
    updateEpoll(c);
}

void Broker::flush(Conn* c) {
    while (!c->outq.empty()) {
        Conn::Chunk& chunk = c->outq.front();
        iovec iov{chunk.bytes.data() + chunk.off, chunk.bytes.size() - chunk.off};
        ssize_t n = sendFrameSome(c->fd, &iov, 1, chunk.fds.data(), chunk.fds.size());
        if (n == -EAGAIN) return;
        if (n < 0) {
            if (c->proc != nullptr) drop(c->proc, nullptr);
            return;
        }
        closeAll(&chunk.fds);
        chunk.off += static_cast<size_t>(n);
        c->outBytes -= static_cast<size_t>(n);
        if (chunk.off == chunk.bytes.size()) c->outq.pop_front();
    }
    c->wantWrite = false;
    updateEpoll(c);
}

void Broker::closeConn(Conn* c) {
    if (c->closed) return;
    c->closed = true;
    if (c->fd >= 0) {
        if (c->epollEvents != 0) epoll_ctl(mEpollFd, EPOLL_CTL_DEL, c->fd, nullptr);
        close(c->fd);
        c->fd = -1;
    }
    for (auto& chunk : c->outq) closeAll(&chunk.fds);
    c->outq.clear();
    if (c->proc != nullptr) {
        Proc* p = c->proc;
        p->conns.erase(c);
        if (c->hasHead) {
            auto it = p->waiting.find(c->head.header.seq);
            if (it != p->waiting.end() && it->second == c) p->waiting.erase(it);
        }
        if (p->control == c) p->control = nullptr;
    }
    mConns.erase(c);
    mClosing.push_back(c);
}

void Broker::drop(Proc* p, const char* why) {
    if (p == nullptr || p->dying) return;
    if (why != nullptr) ALOGW("dropping pid %d: %s", p->pid, why);
    p->dying = true;
    mDying.push_back(p);
}

void Broker::reapDying() {
    while (!mDying.empty()) {
        Proc* p = mDying.back();
        mDying.pop_back();
        killProc(p);
    }
}

// A thread's connection ended: the calls it was serving fail, the calls it was waiting for
// lose their caller.
void Broker::threadGone(Conn* c) {
    Txn* t = c->stack;
    c->stack = nullptr;
    while (t != nullptr) {
        if (t->to == c) {
            Txn* next = t->toParent;
            t->to = nullptr;
            t->toParent = nullptr;
            failTxn(t, DEAD_OBJECT);
            t = next;
        } else if (t->from == c) {
            Txn* next = t->fromParent;
            t->from = nullptr;
            t->fromParent = nullptr;
            if (t->deadReplied) endTxn(t);
            t = next;
        } else {
            break;
        }
    }
    Proc* p = c->proc;
    // A one-way call it was handling is over: the next one to that object may go.
    if (c->busyBuffer != 0 && p != nullptr && !p->dying) releaseBuffer(p, c->busyBuffer);
    c->busyBuffer = 0;
    closeConn(c);
    if (p != nullptr && !p->dying) dispatch(p);
}

void Broker::killProc(Proc* p) {
    auto pit = mProcs.find(p->pid);
    if (pit != mProcs.end() && pit->second == p) mProcs.erase(pit);

    std::vector<Conn*> conns(p->conns.begin(), p->conns.end());
    for (Conn* c : conns) threadGone(c);

    std::deque<Work> todo;
    todo.swap(p->todo);
    for (Work& w : todo) {
        if (w.txn == nullptr) continue;
        if (w.txn->oneway) {
            endTxn(w.txn);
        } else {
            failTxn(w.txn, DEAD_OBJECT);
        }
    }

    // Its objects die: holders that asked are told, the service manager forgets them. The
    // nodes stay (as orphans) while other processes refer to them.
    std::vector<Node*> released;
    std::vector<Txn*> pending;
    for (auto& [binder, node] : p->nodes) {
        Node* n = node.get();
        n->dead = true;
        pending.insert(pending.end(), n->asyncTodo.begin(), n->asyncTodo.end());
        n->asyncTodo.clear();
        for (Proc* holder : n->holders) {
            if (holder->dying) continue;
            auto h = holder->handleOf.find(n);
            if (h == holder->handleOf.end()) continue;
            Ref& ref = holder->refs[h->second];
            if (ref.deathRequested) {
                Work w{Work::kDeadBinder};
                w.handle = ref.handle;
                holder->todo.push_back(w);
            }
        }
    }
    for (auto it = mServices.begin(); it != mServices.end();) {
        if (it->second.node->owner == p) {
            released.push_back(it->second.node);
            it = mServices.erase(it);
        } else {
            ++it;
        }
    }
    for (auto& [binder, node] : p->nodes) {
        node->owner = nullptr;
        Node* raw = node.get();
        mOrphans[raw] = std::move(node);
    }
    p->nodes.clear();
    for (Txn* t : pending) endTxn(t);

    std::unordered_map<uint64_t, Buffer> buffers;
    buffers.swap(p->buffers);
    for (auto& [id, b] : buffers) {
        for (Node* n : b.held) releaseNode(n);
        if (b.asyncNode != nullptr) {
            b.asyncNode->asyncBusy = false;
            releaseNode(b.asyncNode);
        }
    }
    std::map<int32_t, Ref> refs;
    refs.swap(p->refs);
    p->handleOf.clear();
    for (auto& [h, ref] : refs) {
        ref.node->holders.erase(p);
        releaseNode(ref.node, ref.count);
    }
    for (Node* n : released) releaseNode(n);

    // Death notices go out now, to processes that are still here.
    std::vector<Proc*> notify;
    for (auto& [pid, q] : mProcs) {
        if (!q->dying && !q->todo.empty()) notify.push_back(q);
    }
    delete p;
    for (Proc* q : notify) dispatch(q);
}

// ---------------------------------------------------------------------------------------------
// Objects and references

Broker::Node* Broker::acceptObject(Proc* sender, const flat_binder_object& obj, bool* ok) {
    *ok = true;
    if (obj.hdr.type == BINDER_TYPE_BINDER) {
        if (obj.binder == 0 && obj.cookie == 0) return nullptr;
        if (obj.binder == 0 || obj.cookie == 0) {
            *ok = false;
            return nullptr;
        }
        auto it = sender->nodes.find(obj.binder);
        Node* n;
        if (it != sender->nodes.end()) {
            n = it->second.get();
            if (n->cookie != obj.cookie) {
                *ok = false;
                return nullptr;
            }
        } else {
            if (sender->nodes.size() >= kMaxNodesPerProc) {
                *ok = false;
                return nullptr;
            }
            auto node = std::make_unique<Node>();
            node->owner = sender;
            node->binder = obj.binder;
            node->cookie = obj.cookie;
            n = node.get();
            sender->nodes[obj.binder] = std::move(node);
        }
        n->sent++;
        return n;
    }
    // BINDER_TYPE_HANDLE
    const int32_t handle = static_cast<int32_t>(obj.handle);
    if (handle == kServiceManagerHandle) return &mServiceManager;
    auto it = sender->refs.find(handle);
    if (it == sender->refs.end()) {
        *ok = false;
        return nullptr;
    }
    return it->second.node;
}

Broker::Ref* Broker::refFor(Proc* p, Node* n) {
    auto h = p->handleOf.find(n);
    if (h != p->handleOf.end()) return &p->refs[h->second];
    if (p->refs.size() >= kMaxRefsPerProc || p->nextHandle == INT32_MAX) return nullptr;
    const int32_t handle = p->nextHandle++;
    p->refs[handle] = Ref{handle, n, 0, false};
    p->handleOf[n] = handle;
    n->holders.insert(p);
    return &p->refs[handle];
}

void Broker::deliverNode(Node* n, Proc* target, flat_binder_object* obj,
                         std::vector<Node*>* held) {
    const uint32_t flags = obj->flags;
    memset(obj, 0, sizeof(*obj));
    obj->flags = flags;
    if (n == &mServiceManager) {
        obj->hdr.type = BINDER_TYPE_HANDLE;
        obj->handle = kServiceManagerHandle;
        return;
    }
    if (n->owner == target && n->owner != nullptr) {
        obj->hdr.type = BINDER_TYPE_BINDER;
        obj->binder = n->binder;
        obj->cookie = n->cookie;
        acquireNode(n);
        held->push_back(n);
        return;
    }
    Ref* r = refFor(target, n);
    if (r == nullptr) {
        // Out of handles: the receiver gets a null object.
        obj->hdr.type = BINDER_TYPE_BINDER;
        drop(target, "too many references");
        return;
    }
    r->count++;
    acquireNode(n);
    obj->hdr.type = BINDER_TYPE_HANDLE;
    obj->handle = static_cast<uint32_t>(r->handle);
}

// Resolves every binder object of a body sent by `sender` to its node (held in `held`) and
// rewrites it in the broker's own form (binder = the Node). False: the body is hostile.
bool Broker::translate(Proc* sender, Proc* /*target*/, uint8_t* body, uint32_t objectsCount,
                       uint32_t dataSize, std::vector<Node*>* held) {
    const uint64_t* offsets = reinterpret_cast<const uint64_t*>(body);
    uint8_t* data = body + size_t(objectsCount) * 8;
    for (uint32_t i = 0; i < objectsCount; i++) {
        flat_binder_object obj = readObjectAt(data, offsets[i]);
        if (obj.hdr.type == BINDER_TYPE_FD) {
            obj.handle = static_cast<uint32_t>(-1);
            obj.cookie = 0;
            writeObjectAt(data, offsets[i], obj);
            continue;
        }
        bool ok = true;
        Node* n = acceptObject(sender, obj, &ok);
        if (!ok) return false;
        if (n != nullptr) {
            acquireNode(n);
            held->push_back(n);
        }
        const uint32_t flags = obj.flags;
        memset(&obj, 0, sizeof(obj));
        obj.hdr.type = BINDER_TYPE_BINDER;
        obj.flags = flags;
        obj.binder = reinterpret_cast<uint64_t>(n);
        writeObjectAt(data, offsets[i], obj);
    }
    (void)dataSize;
    return true;
}

void Broker::releaseNode(Node* n, uint64_t count) {
    if (count > n->refs) {
        ALOGE("node reference count underflow");
        count = n->refs;
    }
    n->refs -= count;
    if (n->refs > 0 || n->builtin != Builtin::kNone) return;
    if (n->owner != nullptr) {
        Proc* owner = n->owner;
        Work w{Work::kReleaseNode};
        w.binder = n->binder;
        w.cookie = n->cookie;
        w.count = n->sent;
        std::deque<Txn*> pending;
        pending.swap(n->asyncTodo);
        owner->nodes.erase(n->binder);  // destroys n
        for (Txn* t : pending) endTxn(t);
        if (!owner->dying) enqueueWork(owner, w);
    } else {
        auto it = mOrphans.find(n);
        if (it != mOrphans.end()) {
            std::deque<Txn*> pending;
            pending.swap(n->asyncTodo);
            mOrphans.erase(it);
            for (Txn* t : pending) endTxn(t);
        }
    }
}

bool Broker::releaseHandle(Proc* p, int32_t handle, uint64_t count) {
    auto it = p->refs.find(handle);
    if (it == p->refs.end() || count == 0 || count > it->second.count) return false;
    it->second.count -= count;
    Node* n = it->second.node;
    if (it->second.count == 0) {
        p->handleOf.erase(n);
        n->holders.erase(p);
        p->refs.erase(it);
    }
    releaseNode(n, count);
    return true;
}

void Broker::releaseBuffer(Proc* p, uint64_t id) {
    auto it = p->buffers.find(id);
    if (it == p->buffers.end()) return;
    Buffer b = std::move(it->second);
    p->buffers.erase(it);
    if (b.asyncNode != nullptr) {
        Node* n = b.asyncNode;
        n->asyncBusy = false;
        if (!n->asyncTodo.empty() && n->owner != nullptr && !n->owner->dying) {
            Txn* next = n->asyncTodo.front();
            n->asyncTodo.pop_front();
            n->asyncBusy = true;
            Work w{Work::kTransaction};
            w.txn = next;
            enqueueWork(n->owner, w);
        }
        releaseNode(n);
    }
    for (Node* n : b.held) releaseNode(n);
}

// ---------------------------------------------------------------------------------------------
// Calls

void Broker::handleTransaction(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    const Transaction t = f.fixed<Transaction>();
    FrameBody body = frameBody(f.header, f.payload);
    const ssize_t fdObjects = validateObjects(body);
    if (fdObjects < 0 || static_cast<size_t>(fdObjects) != f.fds.size()) {
        drop(p, "bad object table");
        return;
    }
    Node* target;
    if (t.handle == kServiceManagerHandle) {
        target = &mServiceManager;
    } else {
        auto it = p->refs.find(t.handle);
        if (it == p->refs.end()) {
            drop(p, "call to an unknown handle");
            return;
        }
        target = it->second.node;
    }
    const bool oneway = (t.flags & IBinder::FLAG_ONEWAY) != 0;
    if (!oneway && (c == p->control || (c->stack != nullptr && c->stack->to != c))) {
        drop(p, "call while already waiting for a reply");
        return;
    }

    Txn* x = new Txn;
    x->oneway = oneway;
    x->code = t.code;
    x->flags = t.flags;
    x->senderPid = c->pid;
    x->senderUid = c->uid;
    x->dataSize = t.dataSize;
    x->objectsCount = t.objectsCount;
    const size_t bodyLen = size_t(t.objectsCount) * 8 + t.dataSize;
    x->body.assign(f.payload + sizeof(Transaction), f.payload + sizeof(Transaction) + bodyLen);
    x->fds.swap(f.fds);
    acquireNode(target);
    x->target = target;
    if (!translate(p, nullptr, x->body.data(), t.objectsCount, t.dataSize, &x->held)) {
        endTxn(x);
        drop(p, "bad binder object");
        return;
    }

    if (target->builtin != Builtin::kNone) {
        serveBuiltin(c, target, x);
        return;
    }
    Proc* dest = target->owner;
    if (dest == nullptr || dest->dying || target->dead) {
        if (!oneway) {
            IncomingReply r{0, DEAD_OBJECT, 0, 0, 0};
            send(c, kFrameIncomingReply, &r, sizeof(r), nullptr, 0, nullptr);
        }
        endTxn(x);
        return;
    }
    if (oneway) {
        if (dest->asyncQueuedBytes + x->body.size() > kMaxAsyncQueuedBytes) {
            ALOGW("pid %d: one-way call to pid %d dropped: its queue is full", p->pid,
                  dest->pid);
            endTxn(x);
            return;
        }
        dest->asyncQueuedBytes += x->body.size();
        if (target->asyncBusy) {
            target->asyncTodo.push_back(x);
        } else {
            target->asyncBusy = true;
            Work w{Work::kTransaction};
            w.txn = x;
            enqueueWork(dest, w);
        }
        return;
    }
    x->from = c;
    x->fromParent = c->stack;
    c->stack = x;
    // A thread of the target process already in this call chain serves the call (it is
    // waiting for a reply further down the chain).
    Conn* chosen = nullptr;
    for (Txn* tmp = x->fromParent; tmp != nullptr; tmp = tmp->fromParent) {
        if (tmp->from != nullptr && tmp->from->proc == dest) {
            chosen = tmp->from;
            break;
        }
    }
    if (chosen != nullptr && !chosen->closed) {
        deliverTransaction(chosen, x);
    } else {
        Work w{Work::kTransaction};
        w.txn = x;
        enqueueWork(dest, w);
    }
}

void Broker::handleReply(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    Txn* x = c->stack;
    if (x == nullptr || x->to != c || x->oneway) {
        drop(p, "reply without a call");
        return;
    }
    const Reply r = f.fixed<Reply>();
    FrameBody body = frameBody(f.header, f.payload);
    const ssize_t fdObjects = validateObjects(body);
    if (fdObjects < 0 || static_cast<size_t>(fdObjects) != f.fds.size()) {
        drop(p, "bad object table");
        return;
    }
    const size_t bodyLen = size_t(r.objectsCount) * 8 + r.dataSize;
    uint8_t* bodyStart = f.payload + sizeof(Reply);
    std::vector<Node*> held;
    if (!translate(p, nullptr, bodyStart, r.objectsCount, r.dataSize, &held)) {
        for (Node* n : held) releaseNode(n);
        drop(p, "bad binder object");
        return;
    }
    c->stack = x->toParent;
    x->to = nullptr;
    x->toParent = nullptr;

    Conn* dest = x->from;
    if (dest != nullptr && !dest->closed && !dest->proc->dying && !x->deadReplied) {
        Buffer buf;
        IncomingReply ir{0, r.status, 0, 0, 0};
        if (r.status == NO_ERROR) {
            const uint64_t* offsets = reinterpret_cast<const uint64_t*>(bodyStart);
            uint8_t* data = bodyStart + size_t(r.objectsCount) * 8;
            for (uint32_t i = 0; i < r.objectsCount; i++) {
                flat_binder_object obj = readObjectAt(data, offsets[i]);
                if (obj.hdr.type == BINDER_TYPE_BINDER && obj.binder != 0) {
                    deliverNode(reinterpret_cast<Node*>(obj.binder), dest->proc, &obj,
                                &buf.held);
                    writeObjectAt(data, offsets[i], obj);
                }
            }
            ir.dataSize = r.dataSize;
            ir.objectsCount = r.objectsCount;
            if (!buf.held.empty()) {
                ir.bufferId = mNextBufferId++;
                dest->proc->buffers[ir.bufferId] = std::move(buf);
            }
        } else {
            closeAll(&f.fds);
        }
        if (dest->stack == x) dest->stack = x->fromParent;
        send(dest, kFrameIncomingReply, &ir, sizeof(ir), bodyStart,
             r.status == NO_ERROR ? bodyLen : 0, &f.fds);
        popDeadReplied(dest);
    } else {
        closeAll(&f.fds);
    }
    for (Node* n : held) releaseNode(n);
    if (!x->deadReplied || x->from == nullptr) {
        endTxn(x);
    } else {
        // Its caller was already failed; it leaves the caller's stack when the caller's
        // current call ends.
        x->to = nullptr;
    }
    popDeadReplied(c);
    if (c->looper && c->stack == nullptr) dispatch(p);
}

void Broker::enqueueWork(Proc* p, Work w) {
    if (p->dying) {
        if (w.txn != nullptr) {
            if (w.txn->oneway) {
                endTxn(w.txn);
            } else {
                failTxn(w.txn, DEAD_OBJECT);
            }
        }
        return;
    }
    p->todo.push_back(w);
    dispatch(p);
}

Broker::Conn* Broker::idleLooper(Proc* p, Conn* except) {
    for (Conn* c : p->conns) {
        if (c != except && c->looper && !c->busy && c->stack == nullptr && !c->closed) return c;
    }
    return nullptr;
}

void Broker::dispatch(Proc* p) {
    while (!p->dying && !p->todo.empty()) {
        Conn* t = idleLooper(p, nullptr);
        if (t == nullptr) return;
        Work w = p->todo.front();
        p->todo.pop_front();
        // The last idle thread takes work: ask the process for one more, one at a time.
        if (p->requestedSpawns == 0 && p->spawnedLoopers < p->maxThreads &&
            idleLooper(p, t) == nullptr) {
            p->requestedSpawns++;
            send(t, kFrameSpawnLooper, nullptr, 0, nullptr, 0, nullptr);
        }
        deliver(t, w);
    }
}

void Broker::deliver(Conn* t, Work& w) {
    switch (w.kind) {
        case Work::kTransaction:
            deliverTransaction(t, w.txn);
            return;
        case Work::kDeadBinder: {
            t->busy = true;
            HandleRef ref{w.handle, 0};
            send(t, kFrameDeadBinder, &ref, sizeof(ref), nullptr, 0, nullptr);
            return;
        }
        case Work::kReleaseNode: {
            t->busy = true;
            ReleaseNode rn{w.binder, w.cookie, w.count};
            send(t, kFrameReleaseNode, &rn, sizeof(rn), nullptr, 0, nullptr);
            return;
        }
    }
}

void Broker::deliverTransaction(Conn* t, Txn* x) {
    Proc* dest = t->proc;
    Node* target = x->target;
    if (x->oneway) {
        t->busy = true;
        dest->asyncQueuedBytes -= std::min(dest->asyncQueuedBytes, x->body.size());
    } else {
        x->to = t;
        x->toParent = t->stack;
        t->stack = x;
    }
    Buffer buf;
    uint64_t* offsets = reinterpret_cast<uint64_t*>(x->body.data());
    uint8_t* data = x->body.data() + size_t(x->objectsCount) * 8;
    for (uint32_t i = 0; i < x->objectsCount; i++) {
        flat_binder_object obj = readObjectAt(data, offsets[i]);
        if (obj.hdr.type == BINDER_TYPE_BINDER && obj.binder != 0) {
            deliverNode(reinterpret_cast<Node*>(obj.binder), dest, &obj, &buf.held);
            writeObjectAt(data, offsets[i], obj);
        }
    }
    std::vector<Node*> held;
    held.swap(x->held);
    IncomingTransaction it{target->binder, target->cookie, 0, x->code, x->flags,
                           x->senderPid, x->senderUid, x->dataSize, x->objectsCount};
    if (x->oneway) {
        buf.asyncNode = target;  // the buffer takes over the call's hold on its target
        x->target = nullptr;
    }
    if (!buf.held.empty() || buf.asyncNode != nullptr) {
        if (dest->buffers.size() >= kMaxBuffersPerProc) drop(dest, "does not free its buffers");
        it.bufferId = mNextBufferId++;
        dest->buffers[it.bufferId] = std::move(buf);
        if (x->oneway) t->busyBuffer = it.bufferId;
    }
    send(t, kFrameIncomingTransaction, &it, sizeof(it), x->body.data(), x->body.size(), &x->fds);
    std::vector<uint8_t>().swap(x->body);
    for (Node* n : held) releaseNode(n);
    if (x->oneway) delete x;
}

// The call cannot complete: its caller gets `status`. The call must no longer be on its
// server's stack.
void Broker::failTxn(Txn* t, int32_t status) {
    t->to = nullptr;
    Conn* f = t->from;
    if (f == nullptr || t->deadReplied) {
        if (f == nullptr) endTxn(t);
        return;
    }
    IncomingReply r{0, status, 0, 0, 0};
    send(f, kFrameIncomingReply, &r, sizeof(r), nullptr, 0, nullptr);
    if (f->stack == t) {
        f->stack = t->fromParent;
        endTxn(t);
        popDeadReplied(f);
    } else {
        t->deadReplied = true;
    }
}

void Broker::popDeadReplied(Conn* c) {
    while (c->stack != nullptr && c->stack->deadReplied && c->stack->from == c &&
           c->stack->to == nullptr) {
        Txn* d = c->stack;
        c->stack = d->fromParent;
        endTxn(d);
    }
}

void Broker::endTxn(Txn* t) {
    closeAll(&t->fds);
    std::vector<Node*> held;
    held.swap(t->held);
    Node* target = t->target;
    t->target = nullptr;
    delete t;
    for (Node* n : held) releaseNode(n);
    if (target != nullptr) releaseNode(target);
}

void Broker::dropOneway(Txn* t) {
    endTxn(t);
}

// ---------------------------------------------------------------------------------------------
// The broker's own services

void Broker::serveBuiltin(Conn* c, Node* target, Txn* x) {
    BrokerParcelWriter reply;
    std::vector<Node*> replyNodes;
    int32_t status;
    if (target == &mServiceManager) {
        status = serveServiceManager(c, x, &reply, &replyNodes);
    } else {
        status = servePermission(x, &reply);
    }
    const bool oneway = x->oneway;
    endTxn(x);
    if (oneway || c->closed || c->proc->dying) {
        for (Node* n : replyNodes) releaseNode(n);
        return;
    }
    Buffer buf;
    IncomingReply ir{0, status, 0, 0, 0};
    std::vector<uint8_t> body;
    if (status == NO_ERROR) {
        for (uint64_t off : reply.offsets) {
            flat_binder_object obj = readObjectAt(reply.data.data(), off);
            if (obj.hdr.type == BINDER_TYPE_BINDER && obj.binder != 0) {
                deliverNode(reinterpret_cast<Node*>(obj.binder), c->proc, &obj, &buf.held);
                writeObjectAt(reply.data.data(), off, obj);
            }
        }
        body.resize(reply.offsets.size() * 8 + reply.data.size());
        if (!reply.offsets.empty()) memcpy(body.data(), reply.offsets.data(), reply.offsets.size() * 8);
        if (!reply.data.empty()) {
            memcpy(body.data() + reply.offsets.size() * 8, reply.data.data(), reply.data.size());
        }
        ir.dataSize = static_cast<uint32_t>(reply.data.size());
        ir.objectsCount = static_cast<uint32_t>(reply.offsets.size());
        if (!buf.held.empty()) {
            ir.bufferId = mNextBufferId++;
            c->proc->buffers[ir.bufferId] = std::move(buf);
        }
    }
    send(c, kFrameIncomingReply, &ir, sizeof(ir), body.data(), body.size(), nullptr);
    for (Node* n : replyNodes) releaseNode(n);
}

int32_t Broker::serveServiceManager(Conn* /*c*/, Txn* x, BrokerParcelWriter* reply,
                                    std::vector<Node*>* replyNodes) {
    const uint64_t* offsets = reinterpret_cast<const uint64_t*>(x->body.data());
    const uint8_t* data = x->body.data() + size_t(x->objectsCount) * 8;
    BrokerParcelReader in(data, x->dataSize);
    switch (x->code) {
        case IBinder::PING_TRANSACTION:
            return NO_ERROR;
        case IBinder::INTERFACE_TRANSACTION:
            reply->writeString16(kServiceManagerDescriptor);
            return NO_ERROR;
        case 1:    // GET_SERVICE_TRANSACTION
        case 2: {  // CHECK_SERVICE_TRANSACTION
            std::u16string name;
            if (!in.enforceInterface(kServiceManagerDescriptor)) return PERMISSION_DENIED;
            if (!in.readString16(&name)) return BAD_VALUE;
            flat_binder_object obj{};
            obj.hdr.type = BINDER_TYPE_BINDER;
            obj.flags = kFlatBinderFlags;
            auto it = mServices.find(name);
            if (it != mServices.end() && !it->second.node->dead) {
                Node* n = it->second.node;
                acquireNode(n);
                replyNodes->push_back(n);
                obj.binder = reinterpret_cast<uint64_t>(n);
            }
            reply->writeObject(obj);
            return NO_ERROR;
        }
        case 3: {  // ADD_SERVICE_TRANSACTION
            std::u16string name;
            if (!in.enforceInterface(kServiceManagerDescriptor)) return PERMISSION_DENIED;
            if (!in.readString16(&name) || name.empty() || name.size() > kMaxServiceName) {
                return BAD_VALUE;
            }
            const uint64_t objectOffset = in.position();
            flat_binder_object obj{};
            if (!in.readObject(&obj)) return BAD_VALUE;
            // Only an object the object table lists is an object.
            Node* n = nullptr;
            for (uint32_t i = 0; i < x->objectsCount; i++) {
                if (offsets[i] == objectOffset && obj.hdr.type == BINDER_TYPE_BINDER) {
                    n = reinterpret_cast<Node*>(obj.binder);
                }
            }
            if (n == nullptr || n->builtin != Builtin::kNone) return BAD_VALUE;
            if (n->dead) return DEAD_OBJECT;
            auto it = mServices.find(name);
            if (it == mServices.end() && mServices.size() >= kMaxServices) return NO_MEMORY;
            if (it != mServices.end() && it->second.node->builtin != Builtin::kNone) {
                return PERMISSION_DENIED;
            }
            acquireNode(n);
            if (it != mServices.end()) {
                Node* old = it->second.node;
                it->second.node = n;
                releaseNode(old);
            } else {
                mServices[name] = ServiceEntry{n};
            }
            reply->writeInt32(0);
            return NO_ERROR;
        }
        case 4: {  // LIST_SERVICES_TRANSACTION
            if (!in.enforceInterface(kServiceManagerDescriptor)) return PERMISSION_DENIED;
            const int32_t index = in.readInt32();
            if (!in.ok() || index < 0 || static_cast<size_t>(index) >= mServices.size()) {
                return UNKNOWN_ERROR;
            }
            auto it = mServices.begin();
            std::advance(it, index);
            reply->writeString16(it->first);
            return NO_ERROR;
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

int32_t Broker::servePermission(Txn* x, BrokerParcelWriter* reply) {
    const uint8_t* data = x->body.data() + size_t(x->objectsCount) * 8;
    BrokerParcelReader in(data, x->dataSize);
    switch (x->code) {
        case IBinder::PING_TRANSACTION:
            return NO_ERROR;
        case IBinder::INTERFACE_TRANSACTION:
            reply->writeString16(kPermissionDescriptor);
            return NO_ERROR;
        case 1: {  // CHECK_PERMISSION_TRANSACTION
            std::u16string permission;
            if (!in.enforceInterface(kPermissionDescriptor)) return PERMISSION_DENIED;
            if (!in.readString16(&permission)) return BAD_VALUE;
            const int32_t pid = in.readInt32();
            const int32_t uid = in.readInt32();
            if (!in.ok()) return BAD_VALUE;
            const String8 perm(String16(permission.data(), permission.size()));
            const bool granted = mPolicy.check(perm.string(), static_cast<uid_t>(uid));
            ALOGV("permission %s for pid %d uid %d: %s", perm.string(), pid, uid,
                  granted ? "granted" : "denied");
            (void)pid;
            reply->writeInt32(0);  // no exception
            reply->writeInt32(granted ? 1 : 0);
            return NO_ERROR;
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

// ---------------------------------------------------------------------------------------------

int runBroker(const BrokerOptions& options) {
    // SIGTERM and SIGINT stop the loop through a signalfd, even when the parent started this
    // process with them ignored (as shells do for background jobs).
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int stopFd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stopFd < 0) {
        fprintf(stderr, "hostbinderd: signalfd: %s\n", strerror(errno));
        return 1;
    }
    int status = 0;
    {
        Broker broker(options);
        int err = broker.listen();
        if (err != 0) {
            fprintf(stderr, "hostbinderd: cannot listen on %s: %s\n", options.socketPath.c_str(),
                    strerror(-err));
            close(stopFd);
            return 1;
        }
        printf("hostbinderd: ready on %s\n", options.socketPath.c_str());
        fflush(stdout);
        broker.run(stopFd);
    }
    close(stopFd);
    return status;
}

}  // namespace hostbinder
}  // namespace android
