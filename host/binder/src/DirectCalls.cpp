// hostbinder: calls straight between processes, synchronous and one-way. The runtime
// introduces the processes (with each handle it names the object's process, the object's name
// there and the proof that this process was given it); a calling thread connects to that
// process once, checks that the process listening there is the one introduced, and keeps the
// connection. The callee takes the caller's identity from the connection it accepted
// (SO_PEERCRED) and checks the proof against it. Bodies with binder objects or descriptors are
// parked in the runtime and fetched by the other side, so that the runtime counts every
// reference as for any call. The serving side is IncomingCalls.cpp.
#define LOG_TAG "hostbinder"

#include <binder/IPCThreadState.h>

#include <binder/Binder.h>
#include <log/log.h>

#include "DirectState.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

namespace android {

using hostbinder::ChainLink;
using hostbinder::DirectState;
using hostbinder::DirectTarget;
using hostbinder::InboundFrame;
using hostbinder::PeerIdentity;
using hostbinder::ThreadConnection;

namespace {

// A connection ended before its reply. The call failed; the object is dead only when its
// process is. A process that is dying closes its sockets a moment before the kernel makes it a
// zombie, so a live-looking owner is watched for a short while.
status_t endedBeforeReply(const PeerIdentity& peer) {
    for (int i = 0; i < 100; i++) {
        if (!hostbinder::processRunning(peer.pid, peer.start)) return DEAD_OBJECT;
        usleep(2000);
    }
    return FAILED_TRANSACTION;
}

size_t chainBytes(const std::vector<ChainLink>& chain) {
    return chain.size() * sizeof(ChainLink);
}

}  // namespace

bool IPCThreadState::outgoingTo(const DirectTarget& target, DirectConnection* conn,
                                PeerIdentity* peer) {
    const uint32_t generation = mProcess->generation();
    if (mDirect->generation != generation) {
        mDirect->outgoing.clear();
        mDirect->generation = generation;
    }
    auto it = mDirect->outgoing.find(target.owner);
    if (it != mDirect->outgoing.end()) {
        if (!it->second.conn->broken() && it->second.peer.start == target.ownerStart) {
            *conn = it->second.conn;
            *peer = it->second.peer;
            return true;
        }
        mDirect->outgoing.erase(it);
    }
    constexpr size_t kMaxPeersPerThread = 256;
    if (mDirect->outgoing.size() >= kMaxPeersPerThread) {
        // Forget them all; any may be made again (a call waiting on one keeps its own).
        mDirect->outgoing.clear();
    }
    int fd = hostbinder::connectDirect(
            hostbinder::directAddress(mProcess->socketPath().string(), target.owner));
    if (fd < 0) return false;
    auto made = std::make_shared<ThreadConnection>(fd, false);
    PeerIdentity found;
    // Only the process the runtime introduced may get the call: not one that took its pid
    // after it died, nor anyone else who listens at its address.
    if (!hostbinder::peerIdentity(fd, &found) || found.pid != target.owner ||
        found.start != target.ownerStart) {
        if (found.pid == target.owner) {
            ALOGW("a later process with pid %d listens at its address; not calling it",
                  target.owner);
        }
        return false;
    }
    DirectState::Outgoing& out = mDirect->outgoing[target.owner];
    out = DirectState::Outgoing{made, found, hostbinder::kDirectOnewayBudget};
    *conn = made;
    *peer = found;
    return true;
}

bool IPCThreadState::transactDirect(const DirectTarget& target, uint32_t code, const Parcel& data,
                                    Parcel* reply, uint32_t flags, const int* fds,
                                    size_t fdCount, status_t* result) {
    DirectConnection conn;
    PeerIdentity peer;
    // A call to the process whose call this thread serves goes back on that call's
    // connection, where the thread waiting for our reply reads it.
    for (auto it = mDirect->serving.rbegin(); it != mDirect->serving.rend(); ++it) {
        if (it->peer.pid == target.owner && it->peer.start == target.ownerStart &&
            !it->conn->broken()) {
            conn = it->conn;
            peer = it->peer;
            break;
        }
    }
    // The chain this call continues, and a thread of the owner waiting further up it, which
    // serves the call (as the kernel's transaction stack does).
    std::vector<ChainLink> chain;
    if (!mDirect->serving.empty()) chain = mDirect->serving.back().chain;
    uint64_t serveOn = 0;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        if (it->pid == target.owner) {
            serveOn = it->thread;
            break;
        }
    }
    chain.push_back(ChainLink{mDirect->threadId, getpid(), 0});
    if (chain.size() > hostbinder::kMaxChainLinks) chain.erase(chain.begin());

    const bool fresh = conn == nullptr;
    bool cached = false;
    if (conn == nullptr) {
        cached = mDirect->outgoing.count(target.owner) > 0;
        if (!outgoingTo(target, &conn, &peer)) return false;
    }
    uint64_t parkId = 0;
    if (data.ipcObjectsCount() > 0) {
        status_t err = parkBody(peer.pid, data, fds, fdCount, &parkId);
        if (err != NO_ERROR) {
            *result = err;
            return true;
        }
    }
    hostbinder::DirectCall call{target.name,
                                target.proof,
                                parkId,
                                serveOn,
                                code,
                                flags,
                                parkId != 0 ? 0 : static_cast<uint32_t>(data.ipcDataSize()),
                                static_cast<uint32_t>(chain.size())};
    iovec parts[3] = {{&call, sizeof(call)},
                      {chain.data(), chainBytes(chain)},
                      {reinterpret_cast<void*>(data.ipcData()), call.dataSize}};
    for (int attempt = 0;; attempt++) {
        if (conn->send(hostbinder::kFrameDirectCall, 0, parts, 3) == NO_ERROR) break;
        mDirect->outgoing.erase(peer.pid);
        // A kept connection the peer has since closed: once more on a new one. Otherwise the
        // runtime knows whether the owner is alive.
        if (!fresh || !cached || attempt > 0 || !outgoingTo(target, &conn, &peer)) {
            if (parkId == 0) return false;
            *result = endedBeforeReply(peer);
            return true;
        }
    }
    Parcel discard;
    *result = waitForDirectReply(conn, peer, reply != nullptr ? reply : &discard);
    return true;
}

bool IPCThreadState::sendOnewayDirect(const DirectTarget& target, uint32_t code,
                                      const Parcel& data, uint32_t flags, const int* fds,
                                      size_t fdCount, status_t* result) {
    DirectConnection conn;
    PeerIdentity peer;
    const bool cached = mDirect->outgoing.count(target.owner) > 0;
    if (!outgoingTo(target, &conn, &peer)) return false;
    const bool parked = data.ipcObjectsCount() > 0;
    const size_t dataSize = parked ? 0 : data.ipcDataSize();
    const size_t cost = dataSize + hostbinder::kOnewayCallOverhead;
    if (cost > mDirect->outgoing[peer.pid].onewayCredit && drainCredits(peer.pid) != NO_ERROR) {
        mDirect->outgoing.erase(peer.pid);
        if (!cached || !outgoingTo(target, &conn, &peer)) return false;
    }
    if (cost > mDirect->outgoing[peer.pid].onewayCredit) {
        // The receiver has not run what this thread sent it: as the kernel driver does when a
        // process's async space is full, the call fails now, and nothing is queued.
        *result = FAILED_TRANSACTION;
        return true;
    }
    uint64_t parkId = 0;
    if (parked) {
        status_t err = parkBody(peer.pid, data, fds, fdCount, &parkId);
        if (err != NO_ERROR) {
            *result = err;
            return true;
        }
    }
    hostbinder::DirectCall call{target.name, target.proof, parkId, 0, code, flags,
                                static_cast<uint32_t>(dataSize), 0};
    iovec parts[2] = {{&call, sizeof(call)},
                      {reinterpret_cast<void*>(data.ipcData()), dataSize}};
    if (conn->send(hostbinder::kFrameDirectCall, 0, parts, 2) != NO_ERROR) {
        mDirect->outgoing.erase(peer.pid);
        // Not sent: through the runtime, which knows whether the owner is alive (a parked
        // body stays parked until either process goes).
        return false;
    }
    mDirect->outgoing[peer.pid].onewayCredit -= cost;
    *result = NO_ERROR;
    return true;
}

status_t IPCThreadState::drainCredits(pid_t peer) {
    DirectState::Outgoing& out = mDirect->outgoing[peer];
    if (out.conn == nullptr || out.conn->fillAvailable() != NO_ERROR) return DEAD_OBJECT;
    for (;;) {
        InboundFrame frame;
        const hostbinder::FrameReader::Result r = out.conn->pop(&frame);
        if (r == hostbinder::FrameReader::Result::kNeedMore) return NO_ERROR;
        if (r != hostbinder::FrameReader::Result::kFrame ||
            frame.header.type != hostbinder::kFrameDirectCredit) {
            ALOGW("pid %d broke the direct call protocol", peer);
            out.conn->shutdown();
            return DEAD_OBJECT;
        }
        addCredit(peer, frame);
    }
}

void IPCThreadState::addCredit(pid_t peer, InboundFrame& frame) {
    auto it = mDirect->outgoing.find(peer);
    if (it == mDirect->outgoing.end()) return;
    const uint64_t bytes = frame.fixed<hostbinder::DirectCredit>().bytes;
    it->second.onewayCredit =
            static_cast<size_t>(std::min<uint64_t>(hostbinder::kDirectOnewayBudget,
                                                   it->second.onewayCredit + bytes));
}

bool IPCThreadState::offerChainCall(std::unique_ptr<hostbinder::IncomingCall>* call) {
    std::lock_guard<std::mutex> l(mDirect->mailboxLock);
    if (mDirect->waiting == 0 || mDirect->mailboxFd < 0) return false;
    mDirect->mailbox.push_back(std::move(*call));
    const uint64_t one = 1;
    ssize_t n = write(mDirect->mailboxFd, &one, sizeof(one));
    (void)n;
    return true;
}

bool IPCThreadState::serveMailbox() {
    std::unique_ptr<hostbinder::IncomingCall> call;
    {
        std::lock_guard<std::mutex> l(mDirect->mailboxLock);
        if (mDirect->mailbox.empty()) return false;
        call = std::move(mDirect->mailbox.front());
        mDirect->mailbox.pop_front();
    }
    serveIncoming(std::move(call));
    return true;
}

status_t IPCThreadState::waitForDirectReply(const DirectConnection& conn, const PeerIdentity& peer,
                                            Parcel* reply) {
    {
        std::lock_guard<std::mutex> l(mDirect->mailboxLock);
        mDirect->waiting++;
    }
    status_t result = NO_ERROR;
    for (;;) {
        if (!conn->hasBufferedFrame()) {
            // Calls of this thread's chain that came through another process: they reach its
            // mailbox; this thread reads the process's connections too, so that they arrive
            // when no binder thread is free (or there is none).
            if (serveMailbox()) continue;
            // The connections of the calls this thread serves are read by it alone: a call
            // arriving on one comes from a thread waiting in this chain.
            if (serveNestedOnServing(conn)) continue;
            // The process's connections are read by its binder threads; this thread reads
            // them only while none waits for work.
            hostbinder::IncomingCalls* incoming = mProcess->incoming();
            const bool readIncoming = incoming != nullptr && incoming->idleThreads() == 0;
            std::vector<pollfd>& fds = mDirect->pollSet;  // kept: no allocation per wait
            fds.assign({{conn->fd(), POLLIN, 0},
                        {mDirect->mailboxFd, POLLIN, 0},
                        {readIncoming ? incoming->waitFd() : -1, POLLIN, 0}});
            for (const DirectState::Serving& s : mDirect->serving) {
                if (s.conn != conn && !s.conn->broken()) fds.push_back({s.conn->fd(), POLLIN, 0});
            }
            // Not reading them, it looks again now and then, in case all of them got busy.
            if (poll(fds.data(), fds.size(), readIncoming || incoming == nullptr ? -1 : 50) < 0 &&
                errno != EINTR) {
                result = FAILED_TRANSACTION;
                break;
            }
            if (fds[1].revents & POLLIN) {
                uint64_t count;
                ssize_t n = read(mDirect->mailboxFd, &count, sizeof(count));
                (void)n;
            }
            if (fds[2].revents & POLLIN) incoming->readForChain();
            bool servingReadable = false;
            for (size_t i = 3; i < fds.size(); i++) servingReadable |= fds[i].revents != 0;
            if (servingReadable) {
                for (const DirectState::Serving& s : mDirect->serving) {
                    if (s.conn != conn) s.conn->fillAvailable();
                }
            }
            if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        }
        InboundFrame frame;
        if (conn->read(&frame) != NO_ERROR) {
            mDirect->outgoing.erase(peer.pid);
            result = endedBeforeReply(peer);
            break;
        }
        const uint16_t type = frame.header.type;
        if (type == hostbinder::kFrameDirectReply) {
            const hostbinder::DirectReply r = frame.fixed<hostbinder::DirectReply>();
            if (r.status != NO_ERROR) {
                result = r.status;
            } else if (r.parkId != 0) {
                result = fetchParked(peer.pid, r.parkId, reply);
            } else {
                hostbinder::adoptFrame(frame, 0, reply);
            }
            break;
        }
        if (type == hostbinder::kFrameDirectCredit) {
            auto it = mDirect->outgoing.find(peer.pid);
            if (it != mDirect->outgoing.end() && it->second.conn == conn) {
                addCredit(peer.pid, frame);
                continue;
            }
        } else if (serveNestedCall(conn, peer, frame)) {
            // A nested call back from the process we wait for: served here.
            continue;
        }
        ALOGW("pid %d broke the direct call protocol", peer.pid);
        conn->shutdown();
        mDirect->outgoing.erase(peer.pid);
        result = FAILED_TRANSACTION;
        break;
    }
    std::deque<std::unique_ptr<hostbinder::IncomingCall>> left;
    {
        std::lock_guard<std::mutex> l(mDirect->mailboxLock);
        mDirect->waiting--;
        if (mDirect->waiting == 0) left.swap(mDirect->mailbox);
    }
    // Calls that came for this thread as its wait ended are served before it goes on.
    for (auto& call : left) serveIncoming(std::move(call));
    return result;
}

bool IPCThreadState::serveNestedCall(const DirectConnection& conn, const PeerIdentity& peer,
                                     InboundFrame& frame) {
    if (frame.header.type != hostbinder::kFrameDirectCall) return false;
    const hostbinder::DirectCall call = frame.fixed<hostbinder::DirectCall>();
    if ((call.flags & IBinder::FLAG_ONEWAY) != 0 ||
        !hostbinder::nameGivenTo(mProcess->objectKey(), call.name, call.proof, peer)) {
        return false;
    }
    serveDirectCall(conn, peer, frame, mProcess->localForToken(call.name));
    return true;
}

bool IPCThreadState::serveNestedOnServing(const DirectConnection& waitingOn) {
    for (size_t i = mDirect->serving.size(); i-- > 0;) {
        const DirectConnection servingConn = mDirect->serving[i].conn;
        if (servingConn == waitingOn || !servingConn->hasBufferedFrame()) continue;
        const PeerIdentity peer = mDirect->serving[i].peer;
        InboundFrame frame;
        if (servingConn->pop(&frame) == hostbinder::FrameReader::Result::kFrame &&
            serveNestedCall(servingConn, peer, frame)) {
            return true;
        }
        ALOGW("pid %d broke the direct call protocol", peer.pid);
        servingConn->shutdown();
        return true;
    }
    return false;
}

status_t IPCThreadState::directBody(const PeerIdentity& peer, InboundFrame& frame,
                                    Parcel* buffer) {
    const uint64_t parkId = frame.fixed<hostbinder::DirectCall>().parkId;
    if (parkId != 0) return fetchParked(peer.pid, parkId, buffer);
    hostbinder::adoptFrame(frame, 0, buffer);
    return NO_ERROR;
}

void IPCThreadState::serveDirectCall(const DirectConnection& conn, const PeerIdentity& peer,
                                     InboundFrame& frame, const sp<IBinder>& target) {
    const hostbinder::DirectCall call = frame.fixed<hostbinder::DirectCall>();
    std::vector<ChainLink> chain(call.chainCount);
    if (call.chainCount > 0) {
        memcpy(chain.data(), frame.payload + sizeof(call), chainBytes(chain));
    }
    Parcel reply;
    status_t error;
    {
        Parcel buffer;
        error = directBody(peer, frame, &buffer);
        if (error == NO_ERROR && target == nullptr) error = DEAD_OBJECT;
        if (error == NO_ERROR) {
            mDirect->serving.push_back(DirectState::Serving{conn, peer, std::move(chain)});
            error = transactAsCaller(peer.pid, peer.uid, target, call.code, buffer, &reply,
                                     call.flags);
            mDirect->serving.pop_back();
        }
    }
    std::vector<int> fds;
    if (error == NO_ERROR && !hostbinder::replyFits(reply, &fds)) {
        error = FAILED_TRANSACTION;
        fds.clear();
    }
    hostbinder::DirectReply r{0, error, 0, 0, 0};
    iovec parts[2] = {{&r, sizeof(r)}, {nullptr, 0}};
    if (error == NO_ERROR && reply.ipcObjectsCount() > 0) {
        hostbinder::noteLocalObjects(reply);
        r.status = parkBody(peer.pid, reply, fds.data(), fds.size(), &r.parkId);
    } else if (error == NO_ERROR) {
        r.dataSize = static_cast<uint32_t>(reply.ipcDataSize());
        parts[1] = {reinterpret_cast<void*>(reply.ipcData()), reply.ipcDataSize()};
    }
    conn->send(hostbinder::kFrameDirectReply, 0, parts, 2);
}

void IPCThreadState::serveIncoming(std::unique_ptr<hostbinder::IncomingCall> call) {
    std::shared_ptr<hostbinder::IncomingConnection> from = call->from;
    hostbinder::IncomingCalls* owner = call->owner;
    serveDirectCall(from->conn, from->peer, call->frame, call->target);
    call.reset();
    owner->resume(from);
}

void IPCThreadState::runOneway(hostbinder::IncomingCall& call) {
    const PeerIdentity& peer = call.from->peer;
    const hostbinder::DirectCall dc = call.frame.fixed<hostbinder::DirectCall>();
    Parcel buffer;
    status_t error = directBody(peer, call.frame, &buffer);
    if (error == NO_ERROR) {
        // As on the platform, a one-way call gets a reply parcel too; it is dropped.
        Parcel reply;
        error = transactAsCaller(peer.pid, peer.uid, call.target, dc.code, buffer, &reply,
                                 dc.flags);
    }
    if (error != NO_ERROR) ALOGW("one-way call %u failed: %d", dc.code, error);
}

status_t IPCThreadState::parkBody(pid_t peer, const Parcel& body, const int* fds,
                                  size_t fdCount, uint64_t* parkId) {
    if (ensureConnected() != NO_ERROR) return DEAD_OBJECT;
    hostbinder::Park park{peer, 0, static_cast<uint32_t>(body.ipcDataSize()),
                          static_cast<uint32_t>(body.ipcObjectsCount())};
    iovec parts[3] = {
            {&park, sizeof(park)},
            {reinterpret_cast<void*>(body.ipcObjects()), body.ipcObjectsCount() * sizeof(uint64_t)},
            {reinterpret_cast<void*>(body.ipcData()), body.ipcDataSize()},
    };
    status_t err = mConnection->send(hostbinder::kFramePark, mProcess->nextFrameSeq(), parts, 3,
                                     fds, fdCount);
    if (err != NO_ERROR) return err;
    for (;;) {
        InboundFrame frame;
        err = mConnection->read(&frame);
        if (err != NO_ERROR) return err;
        if (frame.header.type == hostbinder::kFrameParkAck) {
            const hostbinder::ParkAck ack = frame.fixed<hostbinder::ParkAck>();
            *parkId = ack.parkId;
            return ack.status;
        }
        executeCommand(frame);
    }
}

status_t IPCThreadState::fetchParked(pid_t peer, uint64_t parkId, Parcel* out) {
    if (ensureConnected() != NO_ERROR) return DEAD_OBJECT;
    hostbinder::Fetch fetch{peer, 0, parkId};
    iovec part{&fetch, sizeof(fetch)};
    status_t err =
            mConnection->send(hostbinder::kFrameFetch, mProcess->nextFrameSeq(), &part, 1);
    if (err != NO_ERROR) return err;
    return waitForResponse(out, hostbinder::kFrameIncomingReply, nullptr);
}

}  // namespace android
