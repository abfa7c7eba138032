#define LOG_TAG "hostbinder"

#include "ThreadConnection.h"

#include <log/log.h>
#include <utils/Errors.h>

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

namespace android {
namespace hostbinder {

ThreadConnection::~ThreadConnection() {
    if (mFd >= 0) close(mFd);
}

void ThreadConnection::drop() {
    // The descriptor stays open until the connection is destroyed, so that a thread sending
    // on it meanwhile never writes to a descriptor that was reused.
    if (!mBroken.exchange(true) && mFd >= 0) ::shutdown(mFd, SHUT_RDWR);
}

status_t ThreadConnection::read(InboundFrame* out) {
    for (;;) {
        FrameReader::Result r = mReader.pop(out);
        if (r == FrameReader::Result::kFrame) return NO_ERROR;
        if (r == FrameReader::Result::kMalformed) {
            ALOGE("malformed frame on a binder connection");
            drop();
            return DEAD_OBJECT;
        }
        if (mFd < 0 || mBroken) return DEAD_OBJECT;
        ssize_t n = mReader.fill(mFd, 0);
        if (n <= 0) {
            drop();
            return DEAD_OBJECT;
        }
    }
}

status_t ThreadConnection::fillAvailable() {
    if (mFd < 0 || mBroken) return DEAD_OBJECT;
    const ssize_t n = mReader.fill(mFd, MSG_DONTWAIT);
    if (n > 0 || n == -EAGAIN || n == -EINTR) return NO_ERROR;
    return n == -EBADMSG ? BAD_VALUE : DEAD_OBJECT;
}

status_t ThreadConnection::send(uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                                const int* fds, size_t fdCount) {
    std::lock_guard<std::mutex> l(mSendLock);
    if (broken() || mWriteFailed) return DEAD_OBJECT;
    if (sendFrameBlocking(mFd, type, seq, parts, partCount, fds, fdCount) != 0) {
        // Sends fail from now on; what the peer sent before it went stays readable.
        mWriteFailed = true;
        return DEAD_OBJECT;
    }
    return NO_ERROR;
}

}  // namespace hostbinder
}  // namespace android
