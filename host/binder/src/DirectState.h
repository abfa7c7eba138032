/*
 * hostbinder: a thread's side of direct calls (DirectCalls.cpp): the connections it opened to
 * other processes, the calls it is serving (innermost last), and the mailbox where calls of its
 * own chain wait for it while it waits for a reply. Also the received-buffer helpers the runtime
 * path and the direct path share (IPCThreadState.cpp).
 *
 * Threading: owned by one thread's IPCThreadState. Only the mailbox (mailboxLock) is touched by
 * other threads, through IPCThreadState::offerChainCall().
 */
#pragma once

#include "IncomingCalls.h"
#include "PeerIdentity.h"
#include "ThreadConnection.h"
#include "WireSocket.h"

#include <binder/Parcel.h>

#include <poll.h>
#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace android {
namespace hostbinder {

// Where a handle's object lives, as the runtime introduced it.
struct DirectTarget {
    pid_t owner = 0;
    uint64_t ownerStart = 0;
    uint64_t name = 0;
    uint64_t proof = 0;
};

struct DirectState {
    // A connection this thread opened to another process.
    struct Outgoing {
        std::shared_ptr<ThreadConnection> conn;
        PeerIdentity peer;
        size_t onewayCredit = kDirectOnewayBudget;  // one-way bytes it may still send
    };
    // A call this thread is serving: calls back to its process go on its connection, and its
    // chain goes on with every call this thread makes meanwhile.
    struct Serving {
        std::shared_ptr<ThreadConnection> conn;
        PeerIdentity peer;
        std::vector<ChainLink> chain;  // the threads waiting further up, outermost first
    };
    uint32_t generation = 0;  // ProcessState::generation() the connections belong to
    std::map<pid_t, Outgoing> outgoing;
    std::vector<Serving> serving;
    uint64_t threadId = 0;  // this thread in call chains (ChainThreads)
    // What a wait for a direct reply polls; rebuilt before each poll, used only until the
    // poll's results are read (a nested wait rebuilds it for itself).
    std::vector<pollfd> pollSet;

    std::mutex mailboxLock;
    std::deque<std::unique_ptr<IncomingCall>> mailbox;
    int mailboxFd = -1;  // eventfd, readable while the mailbox has calls
    int waiting = 0;     // nested waits for direct replies (mailboxLock)
};

// Adopts a received body as `parcel`'s data (descriptors put into the fd objects, handles
// counted); `bufferId` is given back to the runtime when the parcel frees it.
void adoptFrame(InboundFrame& frame, uint64_t bufferId, Parcel* parcel);
// The descriptors of the fd objects in `p`, in object order; false when too many.
bool collectFds(const Parcel& p, std::vector<int>* fds);
// A reply can be sent: no write failed, it is within the transaction limit, and its
// descriptors (collected into `fds`) are not too many.
bool replyFits(const Parcel& reply, std::vector<int>* fds);
// Local objects in `p` are counted as sent before the frame leaves.
void noteLocalObjects(const Parcel& p);

}  // namespace hostbinder
}  // namespace android
