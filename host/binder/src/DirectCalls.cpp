// hostbinder: synchronous calls straight between processes. The runtime introduces the
// processes (with each handle it names the object's process and a token for the object); a
// calling thread connects to that process once and keeps the connection; the callee takes the
// caller's identity from the connection (SO_PEERCRED of what it accepted). Bodies with binder
// objects or descriptors are parked in the runtime and fetched by the other side, so that the
// runtime counts every reference as for any call. A call to a process whose call this thread
// is serving goes back on that call's connection, where its waiting thread serves it.
#define LOG_TAG "hostbinder"

#include <binder/IPCThreadState.h>

#include <binder/Binder.h>
#include <log/log.h>

#include "DirectState.h"

#include <string.h>
#include <unistd.h>

namespace android {

using hostbinder::DirectState;
using hostbinder::InboundFrame;
using hostbinder::ThreadConnection;

IPCThreadState::DirectConnection IPCThreadState::directConnection(pid_t pid) {
    for (auto it = mDirect->serving.rbegin(); it != mDirect->serving.rend(); ++it) {
        if (it->conn->peerPid() == pid && !it->conn->broken()) return it->conn;
    }
    const uint32_t generation = mProcess->generation();
    if (mDirect->generation != generation) {
        mDirect->outgoing.clear();
        mDirect->generation = generation;
    }
    auto it = mDirect->outgoing.find(pid);
    if (it != mDirect->outgoing.end()) {
        if (!it->second->broken()) return it->second;
        mDirect->outgoing.erase(it);
    }
    constexpr size_t kMaxPeersPerThread = 256;
    if (mDirect->outgoing.size() >= kMaxPeersPerThread) {
        // Forget the connections that wait for nothing; any may be made again.
        mDirect->outgoing.clear();
    }
    int fd = hostbinder::connectDirect(
            hostbinder::directAddress(mProcess->socketPath().string(), pid));
    if (fd < 0) return nullptr;
    auto conn = std::make_shared<ThreadConnection>(fd);
    // Only the process itself listens at its address: anyone else there is not it.
    if (!conn->readPeer() || conn->peerPid() != pid) return nullptr;
    mDirect->outgoing[pid] = conn;
    return conn;
}

void IPCThreadState::prepareDirectCalls(pid_t owner) {
    if (owner == getpid()) return;
    directConnection(owner);
}

status_t IPCThreadState::transactDirect(const DirectConnection& conn, uint64_t token,
                                        uint32_t code, const Parcel& data, Parcel* reply,
                                        uint32_t flags, const int* fds, size_t fdCount) {
    uint64_t parkId = 0;
    if (data.ipcObjectsCount() > 0) {
        status_t err = parkBody(conn->peerPid(), data, fds, fdCount, &parkId);
        if (err != NO_ERROR) return err;
    }
    hostbinder::DirectCall call{token, parkId, code, flags,
                                parkId != 0 ? 0 : static_cast<uint32_t>(data.ipcDataSize()), 0};
    iovec parts[2] = {{&call, sizeof(call)},
                      {reinterpret_cast<void*>(data.ipcData()), call.dataSize}};
    if (conn->send(hostbinder::kFrameDirectCall, 0, parts, 2) != NO_ERROR) return DEAD_OBJECT;
    if (reply != nullptr) return waitForDirectReply(conn, reply);
    Parcel discard;
    return waitForDirectReply(conn, &discard);
}

status_t IPCThreadState::waitForDirectReply(const DirectConnection& conn, Parcel* reply) {
    for (;;) {
        InboundFrame frame;
        // The peer's end of the connection is gone: it died, also with the call in flight.
        if (conn->read(&frame) != NO_ERROR) return DEAD_OBJECT;
        switch (frame.header.type) {
            case hostbinder::kFrameDirectReply: {
                const hostbinder::DirectReply r = frame.fixed<hostbinder::DirectReply>();
                if (r.status != NO_ERROR) return r.status;
                if (r.parkId != 0) return fetchParked(conn->peerPid(), r.parkId, reply);
                hostbinder::adoptFrame(frame, 0, reply);
                return NO_ERROR;
            }
            case hostbinder::kFrameDirectCall:
                executeDirectCall(conn, frame);
                break;
            default:
                ALOGW("pid %d broke the direct call protocol", conn->peerPid());
                conn->shutdown();
                return DEAD_OBJECT;
        }
    }
}

void IPCThreadState::executeDirectCall(const DirectConnection& conn, InboundFrame& frame) {
    const hostbinder::DirectCall call = frame.fixed<hostbinder::DirectCall>();
    const pid_t peer = conn->peerPid();
    Parcel reply;
    status_t error = NO_ERROR;
    {
        Parcel buffer;
        if (call.parkId != 0) {
            error = fetchParked(peer, call.parkId, &buffer);
        } else {
            hostbinder::adoptFrame(frame, 0, &buffer);
        }
        sp<IBinder> target = error == NO_ERROR ? mProcess->localForToken(call.token) : nullptr;
        if (error == NO_ERROR && target == nullptr) error = DEAD_OBJECT;
        if (error == NO_ERROR) {
            mDirect->serving.push_back(DirectState::Serving{conn});
            error = transactAsCaller(peer, conn->peerUid(), target, call.code, buffer, &reply,
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
        r.status = parkBody(peer, reply, fds.data(), fds.size(), &r.parkId);
    } else if (error == NO_ERROR) {
        r.dataSize = static_cast<uint32_t>(reply.ipcDataSize());
        parts[1] = {reinterpret_cast<void*>(reply.ipcData()), reply.ipcDataSize()};
    }
    conn->send(hostbinder::kFrameDirectReply, 0, parts, 2);
}

void IPCThreadState::serveDirectConnection(int fd) {
    auto conn = std::make_shared<ThreadConnection>(fd);
    if (!conn->readPeer()) return;
    for (;;) {
        InboundFrame frame;
        if (conn->read(&frame) != NO_ERROR) break;
        if (frame.header.type != hostbinder::kFrameDirectCall) {
            ALOGW("pid %d broke the direct call protocol", conn->peerPid());
            break;
        }
        executeDirectCall(conn, frame);
    }
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
