// hostbinderd: connections, reading and writing frames, and handling each frame in the
// order its process numbered it.
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"
#include "PeerIdentity.h"

#include <binder/IBinder.h>
#include <log/log.h>
#include <utils/Errors.h>

#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace android {
namespace hostbinder {

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
        p->startTime = processStartTime(c->pid);
        memcpy(p->objectKey, h.objectKey, sizeof(p->objectKey));
        p->nameMask = nameMask(h.objectKey);
        if (p->startTime == 0) {
            delete p;
            closeConn(c);
            return;
        }
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
            if (it == p->buffers.end()) {
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
            return;
        }
        case kFramePark:
            handlePark(c, f);
            return;
        case kFrameFetch:
            handleFetch(c, f);
            return;
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
    if (type == kFrameIncomingTransaction || type == kFrameIncomingReply) {
        std::vector<Introduce> introductions;
        introductions.swap(mIntroductions);
        Proc* introduced = mIntroductionsFor;
        mIntroductionsFor = nullptr;
        if (introduced != nullptr && introduced == c->proc) {
            for (const Introduce& i : introductions) {
                send(c, kFrameIntroduce, &i, sizeof(i), nullptr, 0, nullptr);
            }
        }
    }
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

}  // namespace hostbinder
}  // namespace android
