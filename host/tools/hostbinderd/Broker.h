/*
 * hostbinderd's broker: plays the kernel driver for the processes of one runtime instance and
 * hosts the service manager (handle 0) and the "permission" service.
 *
 * One thread runs everything (an epoll loop), so the broker's state needs no locks. Objects:
 *
 *   Proc --owns--> Conn (its process connection and one per thread)
 *   Proc --owns--> Node (one per local object it has sent), keyed by the object's binder word
 *   Proc --has---> Ref  (handle -> Node of another process), counted deliveries
 *   Conn --stack-> Txn -> Txn ... (the synchronous calls this thread is in, newest first)
 *
 * A Node lives while anything refers to it (Refs, service entries, buffers being handled,
 * calls in flight); when the count drops to zero its owner is told how many of its sends the
 * node counted, and the node is forgotten.
 *
 * Anything a peer sends that breaks the protocol drops that peer's process as if it died;
 * every size read from a peer is bounded before it is used.
 */
#pragma once

#include "BrokerParcel.h"
#include "PermissionPolicy.h"
#include "WireSocket.h"

#include <linux/android/binder.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace android {
namespace hostbinder {

struct BrokerOptions {
    std::string socketPath;
    std::string permissionsFile;  // empty: no policy file
};

// Serves until SIGTERM or SIGINT; prints one line to stdout once it accepts connections.
// Returns the process exit code.
int runBroker(const BrokerOptions& options);

class Broker {
public:
    explicit Broker(const BrokerOptions& options);
    ~Broker();

    // Binds the socket. Returns 0 or -errno.
    int listen();
    // Serves until `stopFd` (a signalfd or eventfd) becomes readable.
    void run(int stopFd);

private:
    struct Proc;
    struct Conn;
    struct Node;
    struct Txn;

    struct Ref {
        int32_t handle;
        Node* node;
        uint64_t count;  // deliveries the process has not given back
        bool deathRequested;
    };

    enum class Builtin { kNone, kServiceManager, kPermission };

    struct Node {
        Proc* owner = nullptr;  // null for the broker's own services
        Builtin builtin = Builtin::kNone;
        uint64_t binder = 0;
        uint64_t cookie = 0;
        uint64_t sent = 0;  // the owner's sends of this object since the node was made
        uint64_t refs = 0;  // everything that keeps the node
        bool dead = false;
        std::set<Proc*> holders;  // processes with a Ref to it
    };

    struct Txn {
        bool oneway = false;
        Conn* from = nullptr;     // the waiting thread (sync), null once it is gone
        Txn* fromParent = nullptr;
        Conn* to = nullptr;       // the serving thread once delivered
        Txn* toParent = nullptr;
        bool deadReplied = false;  // its caller already got a failure reply
        Node* target = nullptr;    // held (refs) until the call ends
        uint32_t code = 0;
        uint32_t flags = 0;
        pid_t senderPid = 0;
        uid_t senderUid = 0;
        std::vector<uint8_t> body;  // translated offsets then data
        uint32_t dataSize = 0;
        uint32_t objectsCount = 0;
        std::vector<int> fds;
        std::vector<Node*> held;  // node references the receiving buffer holds
    };

    struct Buffer {
        std::vector<Node*> held;
    };

    struct Work {
        enum Kind { kDeadBinder, kReleaseNode } kind;
        int32_t handle = 0;
        uint64_t binder = 0, cookie = 0, count = 0;
    };

    struct Conn {
        int fd = -1;
        Proc* proc = nullptr;
        uint32_t role = 0;
        pid_t pid = 0;
        uid_t uid = 0;
        FrameReader reader;
        InboundFrame head;
        bool hasHead = false;
        bool eof = false;
        bool closed = false;
        // One-way calls taken since the last acknowledgement (see WireProtocol.h).
        uint32_t onewayUnackedCalls = 0;
        size_t onewayUnackedBytes = 0;
        bool onewayMustAck = false;
        Txn* stack = nullptr;
        struct Chunk {
            std::vector<uint8_t> bytes;
            std::vector<int> fds;
            size_t off = 0;
        };
        std::deque<Chunk> outq;
        size_t outBytes = 0;
        bool wantWrite = false;
        uint32_t epollEvents = 0;
    };

    struct Proc {
        pid_t pid = 0;
        uid_t uid = 0;
        uint64_t startTime = 0;  // tells it from a later process with the same pid
        uint8_t objectKey[kObjectKeyBytes] = {};  // keys the proofs of its objects' names
        uint64_t nameMask = 0;  // masks its objects' addresses in their names
        size_t parkedCount = 0;  // bodies it parked that are not fetched yet
        size_t parkedBytes = 0;
        Conn* control = nullptr;
        std::set<Conn*> conns;
        std::unordered_map<uint64_t, std::unique_ptr<Node>> nodes;
        std::map<int32_t, Ref> refs;
        std::unordered_map<Node*, int32_t> handleOf;
        int32_t nextHandle = 1;
        std::deque<Work> todo;
        uint32_t maxThreads = 15;
        std::unordered_map<uint64_t, Buffer> buffers;
        uint32_t expectedSeq = 1;
        std::map<uint32_t, Conn*> waiting;
        bool dying = false;
    };

    // Connections and frames.
    void acceptConnections();
    void onReadable(Conn* c);
    void onWritable(Conn* c);
    void onHangup(Conn* c);
    void pump(Conn* c);
    bool popHead(Conn* c);
    void handleHello(Conn* c, InboundFrame& f);
    void handleFrame(Conn* c, InboundFrame& f);
    void send(Conn* c, uint16_t type, const void* fixed, size_t fixedLen, const void* body,
              size_t bodyLen, std::vector<int>* fds);
    void flush(Conn* c);
    void updateEpoll(Conn* c);
    void closeConn(Conn* c);
    void drop(Proc* p, const char* why);
    // The frame's object table is well formed and names exactly the descriptors that came
    // with it; otherwise its sender is dropped.
    bool objectsValid(Proc* p, const InboundFrame& f);
    void reapDying();
    void killProc(Proc* p);
    void threadGone(Conn* c);

    // Objects and references.
    Node* acceptObject(Proc* sender, const flat_binder_object& obj, bool* ok);
    void deliverNode(Node* node, Proc* target, flat_binder_object* obj, std::vector<Node*>* held);
    bool translate(Proc* sender, Proc* target, uint8_t* offsetsAndData, uint32_t objectsCount,
                   uint32_t dataSize, std::vector<Node*>* held);
    void acquireNode(Node* n) { n->refs++; }
    void releaseNode(Node* n, uint64_t count = 1);
    Ref* refFor(Proc* p, Node* n);
    bool releaseHandle(Proc* p, int32_t handle, uint64_t count);
    void releaseBuffer(Proc* p, uint64_t id);

    // Calls.
    void handleTransaction(Conn* c, InboundFrame& f);
    void handleReply(Conn* c, InboundFrame& f);
    void enqueueWork(Proc* p, Work w);
    void dispatch(Proc* p);
    void deliver(Conn* t, Work& w);
    void failTxn(Txn* t, int32_t status);
    void popDeadReplied(Conn* c);
    void endTxn(Txn* t);
    void ackOneway(Conn* c, int32_t status);

    // Bodies parked for direct peers.
    struct Parked {
        Proc* creator = nullptr;
        pid_t forPid = 0;
        std::vector<uint8_t> body;  // translated offsets then data
        uint32_t dataSize = 0;
        uint32_t objectsCount = 0;
        std::vector<int> fds;
        std::vector<Node*> held;
    };
    void handlePark(Conn* c, InboundFrame& f);
    void handleFetch(Conn* c, InboundFrame& f);
    void discardParked(uint64_t id);
    void discardParkedOf(Proc* p);

    // The broker's own services.
    void serveBuiltin(Conn* c, Node* target, Txn* txn);
    int32_t serveServiceManager(Conn* c, Txn* txn, BrokerParcelWriter* reply,
                                std::vector<Node*>* replyNodes);
    int32_t servePermission(Txn* txn, BrokerParcelWriter* reply);

    BrokerOptions mOptions;
    PermissionPolicy mPolicy;
    int mListenFd = -1;
    int mEpollFd = -1;
    std::set<Conn*> mConns;
    std::unordered_map<pid_t, Proc*> mProcs;
    std::vector<Proc*> mDying;
    std::vector<Conn*> mClosing;
    Node mServiceManager;
    Node mPermission;
    struct ServiceEntry {
        Node* node;
    };
    std::map<std::u16string, ServiceEntry> mServices;
    // Nodes whose process is gone, kept while other processes still refer to them.
    std::unordered_map<Node*, std::unique_ptr<Node>> mOrphans;
    uint64_t mNextBufferId = 1;
    std::unordered_map<uint64_t, Parked> mParked;
    uint64_t mNextParkId = 1;
    // Introductions of the handles delivered to one process, sent right before the frame that
    // carries them (send()).
    std::vector<Introduce> mIntroductions;
    Proc* mIntroductionsFor = nullptr;
};

}  // namespace hostbinder
}  // namespace android
