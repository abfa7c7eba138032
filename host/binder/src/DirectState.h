/*
 * hostbinder: a thread's direct connections to other processes, and the received-buffer
 * helpers the runtime path and the direct path share (IPCThreadState.cpp).
 */
#pragma once

#include "ThreadConnection.h"
#include "WireSocket.h"

#include <binder/Parcel.h>

#include <sys/types.h>

#include <map>
#include <memory>
#include <vector>

namespace android {
namespace hostbinder {

struct DirectState {
    struct Serving {
        std::shared_ptr<ThreadConnection> conn;  // the call came in on it
    };
    uint32_t generation = 0;  // ProcessState::generation() the connections belong to
    // Connections this thread made, by peer pid.
    std::map<pid_t, std::shared_ptr<ThreadConnection>> outgoing;
    // The direct calls this thread is serving, innermost last: a call to the process at the
    // other end of one of them goes back on its connection, where that process's waiting
    // thread reads it.
    std::vector<Serving> serving;
};

// Adopts a received body as `parcel`'s data (descriptors put into the fd objects, handles
// counted and their processes noted); `bufferId` is given back to the runtime when the parcel
// frees it.
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
