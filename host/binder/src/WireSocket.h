/*
 * hostbinder: framing over a Unix stream socket, shared by processes and by hostbinderd.
 */
#pragma once

#include "WireProtocol.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <deque>
#include <string>
#include <vector>

namespace android {
namespace hostbinder {

// One received frame. Owns its payload (malloc'd, 16-byte aligned) and its descriptors until
// they are taken.
struct InboundFrame {
    FrameHeader header{};
    uint8_t* payload = nullptr;
    std::vector<int> fds;

    InboundFrame() = default;
    InboundFrame(const InboundFrame&) = delete;
    InboundFrame& operator=(const InboundFrame&) = delete;
    ~InboundFrame() { reset(); }

    // Frees the payload and closes descriptors nobody took.
    void reset();
    // Gives up the payload buffer to the caller (who frees it with free()).
    uint8_t* takePayload();

    template <typename T>
    const T& fixed() const {
        return *reinterpret_cast<const T*>(payload);
    }
};

// Reads frames from one socket. Descriptors arrive with the first byte of the frame that
// carries them; they are queued in arrival order and handed to frames by their fdCount.
class FrameReader {
public:
    // `acceptsFds` false: a descriptor arriving at all is a protocol violation (fill() closes
    // it and returns -EBADMSG).
    explicit FrameReader(bool acceptsFds = true);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    // Reads what the socket holds (blocking unless `flags` has MSG_DONTWAIT). Returns the
    // number of bytes read, 0 at end of stream, or -errno; -EBADMSG when the peer sent a
    // descriptor list that did not fit.
    ssize_t fill(int fd, int flags);

    enum class Result { kFrame, kNeedMore, kMalformed };
    // Takes the next complete frame. kMalformed: the peer broke the framing (an unknown type,
    // a size out of bounds, missing descriptors); the connection must be dropped.
    Result pop(InboundFrame* out);

    size_t buffered() const { return mEnd - mStart; }
    // A whole frame is buffered: pop() will not need more.
    bool hasFrame() const;

private:
    uint8_t* mBuf;
    size_t mCap;
    size_t mStart;
    size_t mEnd;
    std::deque<int> mFds;
    bool mAcceptsFds;
};

// Writes a whole frame to a blocking socket: header, then `parts`, with `fds` attached to the
// first byte. Returns 0 or -errno.
int sendFrameBlocking(int fd, uint16_t type, uint32_t seq, const iovec* parts, int partCount,
                      const int* fds, size_t fdCount);

// Sends as much of a frame as the socket takes without blocking. Returns the number of bytes
// sent (descriptors go with the first byte), or -errno (-EAGAIN when nothing fit).
ssize_t sendFrameSome(int fd, const iovec* parts, int partCount, const int* fds, size_t fdCount);

// Validates a frame's payload against its type: the size of the fixed part, and for
// transactions and replies that offsets and data exactly fill the rest within the limits.
bool frameLooksValid(const FrameHeader& header, const uint8_t* payload);

// Body of a transaction-like frame: offsets and data after the fixed part.
struct FrameBody {
    const uint64_t* offsets;
    size_t objectsCount;
    uint8_t* data;
    size_t dataSize;
};
FrameBody frameBody(const FrameHeader& header, uint8_t* payload);

// Checks a body's object table: each offset 4-aligned, inside the data, after the previous
// object; only binder, handle and fd objects. Returns the number of fd objects, or -1.
ssize_t validateObjects(const FrameBody& body);

int connectUnix(const char* path);

// Direct connections between the processes of one instance: each process listens on an
// abstract Unix address named after the instance and its pid.
std::string directAddress(const char* instancePath, pid_t pid);
// Returns a listening descriptor, or -errno.
int listenDirect(const std::string& name);
// Returns a connected descriptor, or -errno.
int connectDirect(const std::string& name);

}  // namespace hostbinder
}  // namespace android
