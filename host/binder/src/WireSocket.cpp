#include "WireSocket.h"

#include <linux/android/binder.h>

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

namespace android {
namespace hostbinder {

namespace {
constexpr size_t kInitialReadBuffer = 64 * 1024;
constexpr size_t kMaxQueuedFds = 4 * kMaxFdsPerFrame;
}  // namespace

const char* instanceSocketPath() {
    const char* env = getenv("HOSTBINDER_SOCKET");
    return (env != nullptr && env[0] != '\0') ? env : kDefaultSocketPath;
}

void InboundFrame::reset() {
    free(payload);
    payload = nullptr;
    for (int fd : fds) {
        if (fd >= 0) close(fd);
    }
    fds.clear();
    header = FrameHeader{};
}

uint8_t* InboundFrame::takePayload() {
    uint8_t* p = payload;
    payload = nullptr;
    return p;
}

FrameReader::FrameReader(bool acceptsFds)
      : mBuf(static_cast<uint8_t*>(malloc(kInitialReadBuffer))),
        mCap(kInitialReadBuffer),
        mStart(0),
        mEnd(0),
        mAcceptsFds(acceptsFds) {}

FrameReader::~FrameReader() {
    free(mBuf);
    for (int fd : mFds) close(fd);
}

ssize_t FrameReader::fill(int fd, int flags) {
    if (mStart == mEnd) mStart = mEnd = 0;
    // Room for the rest of the frame being read, at least a page.
    size_t want = 4096;
    if (mEnd - mStart >= sizeof(FrameHeader)) {
        FrameHeader h;
        memcpy(&h, mBuf + mStart, sizeof(h));
        if (h.size <= kMaxFramePayload) {
            want = std::max(want, sizeof(FrameHeader) + h.size - (mEnd - mStart));
        }
    }
    if (mCap - mEnd < want) {
        if (mStart > 0) {
            memmove(mBuf, mBuf + mStart, mEnd - mStart);
            mEnd -= mStart;
            mStart = 0;
        }
        if (mCap - mEnd < want) {
            size_t cap = std::max(mCap * 2, mEnd + want);
            uint8_t* grown = static_cast<uint8_t*>(realloc(mBuf, cap));
            if (grown == nullptr) return -ENOMEM;
            mBuf = grown;
            mCap = cap;
        }
    }
    iovec iov{mBuf + mEnd, mCap - mEnd};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFdsPerFrame)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(fd, &msg, flags | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -errno;
    bool badControl = (msg.msg_flags & MSG_CTRUNC) != 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
            size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            const uint8_t* p = CMSG_DATA(c);
            for (size_t i = 0; i < count; i++) {
                int received;
                memcpy(&received, p + i * sizeof(int), sizeof(int));
                mFds.push_back(received);
            }
        } else {
            badControl = true;
        }
    }
    if (!mAcceptsFds && !mFds.empty()) {
        for (int received : mFds) close(received);
        mFds.clear();
        return -EBADMSG;
    }
    if (badControl || mFds.size() > kMaxQueuedFds) return -EBADMSG;
    mEnd += static_cast<size_t>(n);
    return n;
}

bool FrameReader::hasFrame() const {
    if (mEnd - mStart < sizeof(FrameHeader)) return false;
    FrameHeader h;
    memcpy(&h, mBuf + mStart, sizeof(h));
    // A malformed header counts too: pop() reports it without reading more.
    return h.size > kMaxFramePayload || mEnd - mStart >= sizeof(FrameHeader) + h.size;
}

FrameReader::Result FrameReader::pop(InboundFrame* out) {
    if (mEnd - mStart < sizeof(FrameHeader)) return Result::kNeedMore;
    FrameHeader h;
    memcpy(&h, mBuf + mStart, sizeof(h));
    const size_t fixed = fixedPayloadSize(h.type);
    if (h.size > kMaxFramePayload || h.fdCount > kMaxFdsPerFrame) return Result::kMalformed;
    if (fixed == 0 && h.type != kFrameSpawnLooper) return Result::kMalformed;
    if (h.size < fixed || (!hasBody(h.type) && h.size != fixed)) return Result::kMalformed;
    if (h.fdCount != 0 && !carriesFds(h.type)) return Result::kMalformed;
    if (mEnd - mStart < sizeof(FrameHeader) + h.size) {
        // The descriptors of a frame arrive with its first byte: a frame that started must
        // already have them.
        return h.fdCount > mFds.size() ? Result::kMalformed : Result::kNeedMore;
    }
    if (h.fdCount > mFds.size()) return Result::kMalformed;
    out->reset();
    out->header = h;
    out->payload = static_cast<uint8_t*>(aligned_alloc(16, (h.size + 15) & ~size_t(15)));
    if (out->payload == nullptr && h.size > 0) return Result::kMalformed;
    if (h.size > 0) memcpy(out->payload, mBuf + mStart + sizeof(FrameHeader), h.size);
    mStart += sizeof(FrameHeader) + h.size;
    for (size_t i = 0; i < h.fdCount; i++) {
        out->fds.push_back(mFds.front());
        mFds.pop_front();
    }
    if (!frameLooksValid(h, out->payload)) return Result::kMalformed;
    return Result::kFrame;
}

static ssize_t sendParts(int fd, const iovec* parts, int partCount, const int* fds,
                         size_t fdCount, int flags) {
    msghdr msg{};
    msg.msg_iov = const_cast<iovec*>(parts);
    msg.msg_iovlen = static_cast<size_t>(partCount);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFdsPerFrame)];
    if (fdCount > 0) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
        memcpy(CMSG_DATA(c), fds, sizeof(int) * fdCount);
    }
    ssize_t n;
    do {
        n = sendmsg(fd, &msg, flags | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -errno : n;
}

ssize_t sendFrameSome(int fd, const iovec* parts, int partCount, const int* fds,
                      size_t fdCount) {
    return sendParts(fd, parts, partCount, fds, fdCount, MSG_DONTWAIT);
}

int sendFrameBlocking(int fd, uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                      const int* fds, size_t fdCount) {
    constexpr int kMaxParts = 8;
    if (partCount > kMaxParts - 1 || fdCount > kMaxFdsPerFrame) return -EINVAL;
    FrameHeader h{};
    size_t total = 0;
    for (int i = 0; i < partCount; i++) total += parts[i].iov_len;
    h.size = static_cast<uint32_t>(total);
    h.type = type;
    h.fdCount = static_cast<uint16_t>(fdCount);
    h.seq = seq;
    iovec iov[kMaxParts];
    iov[0] = {&h, sizeof(h)};
    int n = 1;
    for (int i = 0; i < partCount; i++) {
        if (parts[i].iov_len > 0) iov[n++] = parts[i];
    }
    size_t remaining = sizeof(h) + total;
    bool first = true;
    int start = 0;
    while (remaining > 0) {
        ssize_t sent = sendParts(fd, iov + start, n - start, first ? fds : nullptr,
                                 first ? fdCount : 0, 0);
        if (sent < 0) return static_cast<int>(sent);
        first = false;
        remaining -= static_cast<size_t>(sent);
        size_t s = static_cast<size_t>(sent);
        while (start < n && s >= iov[start].iov_len) {
            s -= iov[start].iov_len;
            start++;
        }
        if (start < n) {
            iov[start].iov_base = static_cast<uint8_t*>(iov[start].iov_base) + s;
            iov[start].iov_len -= s;
        }
    }
    return 0;
}

static bool bodyFits(size_t fixed, uint32_t objectsCount, uint32_t dataSize, uint32_t size) {
    const uint64_t need = uint64_t(fixed) + uint64_t(objectsCount) * 8 + dataSize;
    return need == size && uint64_t(objectsCount) * 8 + dataSize <= kMaxTransactionBytes;
}

bool frameLooksValid(const FrameHeader& header, const uint8_t* payload) {
    switch (header.type) {
        case kFrameTransaction: {
            auto* t = reinterpret_cast<const Transaction*>(payload);
            return bodyFits(sizeof(*t), t->objectsCount, t->dataSize, header.size);
        }
        case kFrameReply: {
            auto* r = reinterpret_cast<const Reply*>(payload);
            return bodyFits(sizeof(*r), r->objectsCount, r->dataSize, header.size);
        }
        case kFrameIncomingTransaction: {
            auto* t = reinterpret_cast<const IncomingTransaction*>(payload);
            return bodyFits(sizeof(*t), t->objectsCount, t->dataSize, header.size);
        }
        case kFrameIncomingReply: {
            auto* r = reinterpret_cast<const IncomingReply*>(payload);
            return bodyFits(sizeof(*r), r->objectsCount, r->dataSize, header.size);
        }
        case kFramePark: {
            auto* r = reinterpret_cast<const Park*>(payload);
            return bodyFits(sizeof(*r), r->objectsCount, r->dataSize, header.size);
        }
        case kFrameDirectCall: {
            auto* r = reinterpret_cast<const DirectCall*>(payload);
            return r->chainCount <= kMaxChainLinks &&
                   bodyFits(sizeof(*r) + size_t(r->chainCount) * sizeof(ChainLink), 0,
                            r->dataSize, header.size);
        }
        case kFrameDirectReply: {
            auto* r = reinterpret_cast<const DirectReply*>(payload);
            return r->objectsCount == 0 &&
                   bodyFits(sizeof(*r), r->objectsCount, r->dataSize, header.size);
        }
        default:
            return true;
    }
}

FrameBody frameBody(const FrameHeader& header, uint8_t* payload) {
    FrameBody b{};
    size_t fixed = fixedPayloadSize(header.type);
    uint32_t objects = 0, data = 0;
    switch (header.type) {
        case kFrameTransaction:
            objects = reinterpret_cast<Transaction*>(payload)->objectsCount;
            data = reinterpret_cast<Transaction*>(payload)->dataSize;
            break;
        case kFrameReply:
            objects = reinterpret_cast<Reply*>(payload)->objectsCount;
            data = reinterpret_cast<Reply*>(payload)->dataSize;
            break;
        case kFrameIncomingTransaction:
            objects = reinterpret_cast<IncomingTransaction*>(payload)->objectsCount;
            data = reinterpret_cast<IncomingTransaction*>(payload)->dataSize;
            break;
        case kFrameIncomingReply:
            objects = reinterpret_cast<IncomingReply*>(payload)->objectsCount;
            data = reinterpret_cast<IncomingReply*>(payload)->dataSize;
            break;
        case kFramePark:
            objects = reinterpret_cast<Park*>(payload)->objectsCount;
            data = reinterpret_cast<Park*>(payload)->dataSize;
            break;
        case kFrameDirectCall:
            data = reinterpret_cast<DirectCall*>(payload)->dataSize;
            fixed += size_t(reinterpret_cast<DirectCall*>(payload)->chainCount) * sizeof(ChainLink);
            break;
        case kFrameDirectReply:
            data = reinterpret_cast<DirectReply*>(payload)->dataSize;
            break;
        default:
            return b;
    }
    b.offsets = reinterpret_cast<const uint64_t*>(payload + fixed);
    b.objectsCount = objects;
    b.data = payload + fixed + size_t(objects) * 8;
    b.dataSize = data;
    return b;
}

ssize_t validateObjects(const FrameBody& body) {
    size_t minOffset = 0;
    ssize_t fdObjects = 0;
    for (size_t i = 0; i < body.objectsCount; i++) {
        const uint64_t off = body.offsets[i];
        if (off < minOffset || off % 4 != 0 || body.dataSize < kFlatObjectSize ||
            off > body.dataSize - kFlatObjectSize) {
            return -1;
        }
        flat_binder_object obj;
        memcpy(&obj, body.data + off, sizeof(obj));
        switch (obj.hdr.type) {
            case BINDER_TYPE_BINDER:
            case BINDER_TYPE_HANDLE:
                break;
            case BINDER_TYPE_FD:
                fdObjects++;
                break;
            default:
                return -1;
        }
        minOffset = off + kFlatObjectSize;
    }
    return fdObjects;
}

std::string directAddress(const char* instancePath, pid_t pid) {
    // FNV-1a of the instance's socket path: one name space per instance.
    uint64_t h = 1469598103934665603ull;
    for (const char* p = instancePath; *p != '\0'; p++) {
        h = (h ^ static_cast<uint8_t>(*p)) * 1099511628211ull;
    }
    char name[64];
    snprintf(name, sizeof(name), "hostbinder.%016llx.%d", static_cast<unsigned long long>(h),
             static_cast<int>(pid));
    return name;
}

static socklen_t abstractAddress(const std::string& name, sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    const size_t len = std::min(name.size(), sizeof(addr->sun_path) - 1);
    memcpy(addr->sun_path + 1, name.data(), len);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + len);
}

int listenDirect(const std::string& name) {
    sockaddr_un addr;
    const socklen_t len = abstractAddress(name, &addr);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, SOMAXCONN) != 0) {
        int e = errno;
        close(fd);
        return -e;
    }
    return fd;
}

// A connected stream socket to `addr`, or -errno.
static int connectAddress(const sockaddr_un& addr, socklen_t len) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    int r;
    do {
        r = connect(fd, reinterpret_cast<const sockaddr*>(&addr), len);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
        int e = errno;
        close(fd);
        return -e;
    }
    return fd;
}

int connectDirect(const std::string& name) {
    sockaddr_un addr;
    const socklen_t len = abstractAddress(name, &addr);
    return connectAddress(addr, len);
}

int connectUnix(const char* path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(addr.sun_path)) return -ENAMETOOLONG;
    strcpy(addr.sun_path, path);
    return connectAddress(addr, sizeof(addr));
}

}  // namespace hostbinder
}  // namespace android
