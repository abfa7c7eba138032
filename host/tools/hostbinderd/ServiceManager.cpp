// hostbinderd: the built-in services' replies, and the service manager (handle 0).
#define LOG_TAG "hostbinderd"

#include "Broker.h"
#include "BrokerInternal.h"

#include <binder/IBinder.h>
#include <utils/Errors.h>

#include <iterator>

namespace android {
namespace hostbinder {

namespace {
const char16_t kServiceManagerDescriptor[] = u"android.os.IServiceManager";
}  // namespace

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

}  // namespace hostbinder
}  // namespace android
