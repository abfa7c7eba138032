/*
 * hostbinder: a connection that carries frames: one thread's connection to the runtime, or a
 * direct connection between two processes.
 *
 * Threading: one thread reads at a time (the owner of a runtime or outgoing connection; for a
 * connection another process opened, the binder thread that IncomingCalls let have it). Sends
 * are serialised by a lock of the connection's own, so any thread may send a whole frame.
 */
#pragma once

#include "WireSocket.h"

#include <utils/Errors.h>

#include <atomic>
#include <mutex>

namespace android {
namespace hostbinder {

class ThreadConnection {
public:
    // `acceptsFds` false: a descriptor arriving on it breaks the protocol (direct connections).
    explicit ThreadConnection(int fd, bool acceptsFds = true) : mFd(fd), mReader(acceptsFds) {}
    ~ThreadConnection();
    ThreadConnection(const ThreadConnection&) = delete;
    ThreadConnection& operator=(const ThreadConnection&) = delete;

    int fd() const { return mFd; }
    // Neither reads nor sends work any more (what arrived before a send failed stays readable).
    bool broken() const { return mFd < 0 || mBroken.load() || mWriteFailed.load(); }

    // Ends the connection; reads and sends fail from now on.
    void shutdown() { drop(); }

    // Blocks for the next frame. DEAD_OBJECT once the runtime is gone or broke the framing.
    status_t read(InboundFrame* out);
    // Reads what the socket holds without waiting. DEAD_OBJECT at its end or on an error;
    // BAD_VALUE when descriptors came that the connection does not take.
    status_t fillAvailable();
    // The next whole frame already read, if any (kNeedMore: none).
    FrameReader::Result pop(InboundFrame* out) { return mReader.pop(out); }
    bool hasBufferedFrame() const { return mReader.hasFrame(); }
    // Sends one frame numbered with `seq`. DEAD_OBJECT once the runtime is gone.
    status_t send(uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                  const int* fds = nullptr, size_t fdCount = 0);

private:
    void drop();

    int mFd;
    FrameReader mReader;
    std::mutex mSendLock;
    std::atomic<bool> mBroken{false};       // nothing more can be read
    std::atomic<bool> mWriteFailed{false};  // nothing more can be sent
};

}  // namespace hostbinder
}  // namespace android
