#define LOG_TAG "hostbinder"

#include "ThreadConnection.h"

#include <log/log.h>
#include <utils/Errors.h>

#include <sys/socket.h>
#include <unistd.h>

namespace android {
namespace hostbinder {

ThreadConnection::~ThreadConnection() {
    drop();
}

void ThreadConnection::drop() {
    if (mFd >= 0) close(mFd);
    mFd = -1;
}

bool ThreadConnection::readPeer() {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (mFd < 0 || getsockopt(mFd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
    mPeerPid = cred.pid;
    mPeerUid = cred.uid;
    return true;
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
        if (mFd < 0) return DEAD_OBJECT;
        ssize_t n = mReader.fill(mFd, 0);
        if (n <= 0) {
            drop();
            return DEAD_OBJECT;
        }
    }
}

status_t ThreadConnection::send(uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                                const int* fds, size_t fdCount) {
    if (mFd < 0) return DEAD_OBJECT;
    if (sendFrameBlocking(mFd, type, seq, parts, partCount, fds, fdCount) != 0) {
        drop();
        return DEAD_OBJECT;
    }
    return NO_ERROR;
}

}  // namespace hostbinder
}  // namespace android
