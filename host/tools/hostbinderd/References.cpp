// hostbinderd: nodes (local objects that left their process), handles, reference counts and
// received buffers.
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"
#include "PeerIdentity.h"

#include <log/log.h>
#include <utils/Errors.h>

#include <string.h>

namespace android {
namespace hostbinder {

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
    // The introduction to the object's process for direct calls goes right before the frame
    // that carries the handle: the owner, a name for the object that only the owner can turn
    // back into it, and the proof that this process was given the name.
    if (n->owner != nullptr && !n->owner->dying && !n->dead) {
        if (mIntroductionsFor != target) {
            mIntroductions.clear();
            mIntroductionsFor = target;
        }
        const uint64_t name = n->cookie ^ n->owner->nameMask;
        mIntroductions.push_back(Introduce{r->handle, n->owner->pid, n->owner->startTime, name,
                                           objectProof(n->owner->objectKey, name, target->pid,
                                                       target->startTime)});
    }
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
        owner->nodes.erase(n->binder);  // destroys n
        if (!owner->dying) enqueueWork(owner, w);
    } else {
        mOrphans.erase(n);
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
    for (Node* n : b.held) releaseNode(n);
}

}  // namespace hostbinder
}  // namespace android
