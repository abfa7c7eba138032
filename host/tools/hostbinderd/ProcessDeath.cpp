// hostbinderd: the end of a thread's connection and of a whole process.
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <log/log.h>
#include <utils/Errors.h>

namespace android {
namespace hostbinder {

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
    closeConn(c);
    if (p != nullptr && !p->dying) dispatch(p);
}

void Broker::killProc(Proc* p) {
    if (mIntroductionsFor == p) {
        mIntroductions.clear();
        mIntroductionsFor = nullptr;
    }
    auto pit = mProcs.find(p->pid);
    if (pit != mProcs.end() && pit->second == p) mProcs.erase(pit);

    std::vector<Conn*> conns(p->conns.begin(), p->conns.end());
    for (Conn* c : conns) threadGone(c);

    p->todo.clear();  // notices and releases for it go with it

    // Its objects die: holders that asked are told, the service manager forgets them. The
    // nodes stay (as orphans) while other processes refer to them.
    std::vector<Node*> released;
    for (auto& [binder, node] : p->nodes) {
        Node* n = node.get();
        n->dead = true;
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

    discardParkedOf(p);
    std::unordered_map<uint64_t, Buffer> buffers;
    buffers.swap(p->buffers);
    for (auto& [id, b] : buffers) {
        for (Node* n : b.held) releaseNode(n);
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

}  // namespace hostbinder
}  // namespace android
