#include "RawSocket.h"

#include "Children.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

namespace hostbinder_bench {

namespace {

constexpr char kPing = 'P';
constexpr char kOneway = 'O';
constexpr char kCount = 'C';

bool writeAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Reads exactly `size` bytes; timeoutMs < 0 waits as long as the peer lives.
bool readAll(int fd, void* data, size_t size, int timeoutMs = -1) {
    const int64_t deadline = nowMs() + timeoutMs;
    char* p = static_cast<char*>(data);
    while (size > 0) {
        if (timeoutMs >= 0) {
            const int64_t left = deadline - nowMs();
            pollfd pfd{fd, POLLIN, 0};
            if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) == 0) return false;
        }
        const ssize_t n = read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool sendMessage(int fd, char kind, int32_t value) {
    char message[kMessageBytes] = {kind};
    memcpy(message + 1, &value, sizeof(value));
    return writeAll(fd, message, sizeof(message));
}

}  // namespace

void serveRawPeer(int fd) {
    char buf[kMessageBytes * 256];
    size_t have = 0;
    int64_t oneway = 0;
    for (;;) {
        const ssize_t n = read(fd, buf + have, sizeof(buf) - have);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        have += static_cast<size_t>(n);
        size_t at = 0;
        for (; have - at >= kMessageBytes; at += kMessageBytes) {
            switch (buf[at]) {
                case kPing:
                    if (!writeAll(fd, buf + at + 1, sizeof(int32_t))) return;
                    break;
                case kOneway:
                    oneway++;
                    break;
                case kCount:
                    if (!writeAll(fd, &oneway, sizeof(oneway))) return;
                    break;
                default:
                    return;
            }
        }
        memmove(buf, buf + at, have - at);
        have -= at;
    }
}

bool rawPing(int fd) {
    constexpr int32_t kValue = 0x5eed;
    int32_t answer = 0;
    return sendMessage(fd, kPing, kValue) && readAll(fd, &answer, sizeof(answer)) &&
           answer == kValue;
}

bool rawOneway(int fd) {
    return sendMessage(fd, kOneway, 0);
}

bool rawCount(int fd, int timeoutMs, int64_t* count) {
    return sendMessage(fd, kCount, 0) && readAll(fd, count, sizeof(*count), timeoutMs);
}

}  // namespace hostbinder_bench
