// hostbinderd: routing calls and replies between threads (transaction stacks, process work
// queues, one-way queues per object).
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <binder/IBinder.h>
#include <log/log.h>
#include <utils/Errors.h>

#include <algorithm>

namespace android {
namespace hostbinder {

void Broker::handleTransaction(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    const Transaction t = f.fixed<Transaction>();
    if (!objectsValid(p, f)) return;
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
    const size_t bodyLen = size_t(t.objectsCount) * 8 + t.dataSize;
    const bool ackWanted = oneway && (t.wireFlags & kTransactionAckWanted) != 0;
    if (oneway && !ackWanted) {
        // Unacknowledged one-way calls are taken whatever the receiver's queue holds, so they
        // are bounded here, per connection, exactly as the sender bounds them.
        if (c->onewayMustAck || !f.fds.empty() || c->onewayUnackedCalls >= kOnewayWindowCalls ||
            c->onewayUnackedBytes + bodyLen > kOnewayWindowBytes) {
            drop(p, "one-way calls beyond its window");
            return;
        }
        c->onewayUnackedCalls++;
        c->onewayUnackedBytes += bodyLen;
    }

    Txn* x = new Txn;
    x->oneway = oneway;
    x->code = t.code;
    x->flags = t.flags;
    x->senderPid = c->pid;
    x->senderUid = c->uid;
    x->dataSize = t.dataSize;
    x->objectsCount = t.objectsCount;
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
        if (ackWanted) ackOneway(c, NO_ERROR);
        return;
    }
    // Calls on a process's objects go straight to it. One that comes here could not reach
    // its owner: it fails, with DEAD_OBJECT once the owner died (while it lives, the object
    // stays alive).
    const Proc* dest = target->owner;
    const int32_t status = dest == nullptr || dest->dying || target->dead ? DEAD_OBJECT
                                                                            : FAILED_TRANSACTION;
    if (!oneway) {
        IncomingReply r{0, status, 0, 0, 0};
        send(c, kFrameIncomingReply, &r, sizeof(r), nullptr, 0, nullptr);
    } else if (ackWanted) {
        ackOneway(c, status);
    }
    endTxn(x);
}

// Answers a one-way call that asked for it; the connection's window starts again.
void Broker::ackOneway(Conn* c, int32_t status) {
    c->onewayUnackedCalls = 0;
    c->onewayUnackedBytes = 0;
    c->onewayMustAck = (status == FAILED_TRANSACTION);
    IncomingReply r{0, status, 0, 0, 0};
    send(c, kFrameIncomingReply, &r, sizeof(r), nullptr, 0, nullptr);
}

void Broker::handleReply(Conn* c, InboundFrame& f) {
    Proc* p = c->proc;
    Txn* x = c->stack;
    if (x == nullptr || x->to != c || x->oneway) {
        drop(p, "reply without a call");
        return;
    }
    const Reply r = f.fixed<Reply>();
    if (!objectsValid(p, f)) return;
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
}

void Broker::enqueueWork(Proc* p, Work w) {
    if (p->dying) return;
    p->todo.push_back(w);
    dispatch(p);
}

// Work for the process (death notices, object releases) goes on its process connection, which
// its binder threads read in turn: the kernel wakes one of them, as it would for the driver's
// process work. The process grows its pool itself.
void Broker::dispatch(Proc* p) {
    while (!p->dying && !p->todo.empty()) {
        Work w = p->todo.front();
        p->todo.pop_front();
        deliver(p->control, w);
    }
}

void Broker::deliver(Conn* t, Work& w) {
    switch (w.kind) {
        case Work::kDeadBinder: {
            HandleRef ref{w.handle, 0};
            send(t, kFrameDeadBinder, &ref, sizeof(ref), nullptr, 0, nullptr);
            return;
        }
        case Work::kReleaseNode: {
            ReleaseNode rn{w.binder, w.cookie, w.count};
            send(t, kFrameReleaseNode, &rn, sizeof(rn), nullptr, 0, nullptr);
            return;
        }
    }
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

bool Broker::objectsValid(Proc* p, const InboundFrame& f) {
    const ssize_t fdObjects = validateObjects(frameBody(f.header, f.payload));
    if (fdObjects < 0 || static_cast<size_t>(fdObjects) != f.fds.size()) {
        drop(p, "bad object table");
        return false;
    }
    return true;
}

}  // namespace hostbinder
}  // namespace android
