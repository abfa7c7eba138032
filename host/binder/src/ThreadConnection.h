/*
 * hostbinder: one thread's connection to the runtime. Owned by the thread's IPCThreadState;
 * only that thread reads or writes it. Also a direct connection to another process.
 */
#pragma once

#include "WireSocket.h"

#include <utils/Errors.h>

namespace android {
namespace hostbinder {

class ThreadConnection {
public:
    explicit ThreadConnection(int fd) : mFd(fd) {}
    ~ThreadConnection();
    ThreadConnection(const ThreadConnection&) = delete;
    ThreadConnection& operator=(const ThreadConnection&) = delete;

    int fd() const { return mFd; }
    bool broken() const { return mFd < 0; }

    // The process at the other end, as the kernel reports it (direct connections). False when
    // it cannot be read.
    bool readPeer();
    pid_t peerPid() const { return mPeerPid; }
    uid_t peerUid() const { return mPeerUid; }
    // Ends the connection; reads and sends fail from now on.
    void shutdown() { drop(); }

    // Blocks for the next frame. DEAD_OBJECT once the runtime is gone or broke the framing.
    status_t read(InboundFrame* out);
    // Sends one frame numbered with `seq`. DEAD_OBJECT once the runtime is gone.
    status_t send(uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                  const int* fds = nullptr, size_t fdCount = 0);

private:
    void drop();

    int mFd;
    FrameReader mReader;
    pid_t mPeerPid = 0;
    uid_t mPeerUid = 0;
};

}  // namespace hostbinder
}  // namespace android
