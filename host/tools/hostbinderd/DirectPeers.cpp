// hostbinderd: bodies with binder objects or descriptors on their way between two processes
// over a direct connection. The sender parks the body here; the runtime resolves its objects
// as for any call and holds them; the receiver fetches it, translated for itself, with the
// handle deliveries counted as usual. The receiver only takes a body the process on the other
// end of its connection parked for it.
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <log/log.h>
#include <utils/Errors.h>

namespace android {
namespace hostbinder {

void Broker::handlePark(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    const Park park = f.fixed<Park>();
    if (!objectsValid(p, f)) return;
    const size_t bodyLen = size_t(park.objectsCount) * 8 + park.dataSize;
    Parked parked;
    parked.creator = p;
    parked.forPid = park.peerPid;
    parked.dataSize = park.dataSize;
    parked.objectsCount = park.objectsCount;
    parked.body.assign(f.payload + sizeof(Park), f.payload + sizeof(Park) + bodyLen);
    parked.fds.swap(f.fds);
    // The objects are taken first, so that the sends the process counted are counted here
    // too, whatever happens to the body.
    if (!translate(p, nullptr, parked.body.data(), park.objectsCount, park.dataSize,
                   &parked.held)) {
        closeAll(&parked.fds);
        for (Node* n : parked.held) releaseNode(n);
        drop(p, "bad binder object");
        return;
    }
    ParkAck ack{0, NO_ERROR, 0};
    auto target = mProcs.find(park.peerPid);
    if (target == mProcs.end() || target->second->dying) {
        ack.status = DEAD_OBJECT;
    } else if (p->parkedCount >= kMaxParkedPerProc ||
               p->parkedBytes + bodyLen > kMaxParkedBytesPerProc) {
        ack.status = FAILED_TRANSACTION;
    }
    if (ack.status != NO_ERROR) {
        closeAll(&parked.fds);
        for (Node* n : parked.held) releaseNode(n);
        send(c, kFrameParkAck, &ack, sizeof(ack), nullptr, 0, nullptr);
        return;
    }
    ack.parkId = mNextParkId++;
    p->parkedCount++;
    p->parkedBytes += bodyLen;
    mParked[ack.parkId] = std::move(parked);
    send(c, kFrameParkAck, &ack, sizeof(ack), nullptr, 0, nullptr);
}

void Broker::handleFetch(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    const Fetch fetch = f.fixed<Fetch>();
    auto it = mParked.find(fetch.parkId);
    if (it == mParked.end() || it->second.forPid != p->pid ||
        it->second.creator->pid != fetch.peerPid) {
        // The peer named a body it did not park for this process: its call fails, nothing else.
        IncomingReply r{0, BAD_VALUE, 0, 0, 0};
        send(c, kFrameIncomingReply, &r, sizeof(r), nullptr, 0, nullptr);
        return;
    }
    Parked parked = std::move(it->second);
    mParked.erase(it);
    parked.creator->parkedCount--;
    parked.creator->parkedBytes -= parked.body.size();
    Buffer buf;
    uint64_t* offsets = reinterpret_cast<uint64_t*>(parked.body.data());
    uint8_t* data = parked.body.data() + size_t(parked.objectsCount) * 8;
    for (uint32_t i = 0; i < parked.objectsCount; i++) {
        flat_binder_object obj = readObjectAt(data, offsets[i]);
        if (obj.hdr.type == BINDER_TYPE_BINDER && obj.binder != 0) {
            deliverNode(reinterpret_cast<Node*>(obj.binder), p, &obj, &buf.held);
            writeObjectAt(data, offsets[i], obj);
        }
    }
    IncomingReply r{0, NO_ERROR, 0, parked.dataSize, parked.objectsCount};
    if (!buf.held.empty()) {
        if (p->buffers.size() >= kMaxBuffersPerProc) drop(p, "does not free its buffers");
        r.bufferId = mNextBufferId++;
        p->buffers[r.bufferId] = std::move(buf);
    }
    send(c, kFrameIncomingReply, &r, sizeof(r), parked.body.data(), parked.body.size(),
         &parked.fds);
    for (Node* n : parked.held) releaseNode(n);
}

void Broker::discardParked(uint64_t id) {
    auto it = mParked.find(id);
    if (it == mParked.end()) return;
    Parked parked = std::move(it->second);
    mParked.erase(it);
    parked.creator->parkedCount--;
    parked.creator->parkedBytes -= parked.body.size();
    closeAll(&parked.fds);
    for (Node* n : parked.held) releaseNode(n);
}

// A process is gone: what it parked, and what was parked for it, goes.
void Broker::discardParkedOf(Proc* p) {
    std::vector<uint64_t> ids;
    for (auto& [id, parked] : mParked) {
        if (parked.creator == p || parked.forPid == p->pid) ids.push_back(id);
    }
    for (uint64_t id : ids) discardParked(id);
}

}  // namespace hostbinder
}  // namespace android
