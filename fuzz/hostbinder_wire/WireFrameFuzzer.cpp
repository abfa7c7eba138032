// Arbitrary bytes arriving on a runtime connection or a direct connection between processes:
// the reader either yields frames whose fixed part, bodies and object tables are consistent,
// or reports the stream malformed. Never reads out of bounds, never allocates beyond the frame
// limit, and direct frames never carry objects or descriptors.
#include "WireSocket.h"

#include <linux/android/binder.h>

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace android::hostbinder;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    // Small inputs fit the socket buffer; the rest is cut.
    const size_t len = size < 64 * 1024 ? size : 64 * 1024;
    if (len > 0 && write(sv[0], data, len) < 0) {
        close(sv[0]);
        close(sv[1]);
        return 0;
    }
    close(sv[0]);
    FrameReader reader;
    InboundFrame frame;
    for (;;) {
        FrameReader::Result r = reader.pop(&frame);
        if (r == FrameReader::Result::kMalformed) break;
        if (r == FrameReader::Result::kNeedMore) {
            if (reader.fill(sv[1], MSG_DONTWAIT) <= 0) break;
            continue;
        }
        if (hasBody(frame.header.type)) {
            FrameBody body = frameBody(frame.header, frame.payload);
            const bool direct = frame.header.type == kFrameDirectCall ||
                                frame.header.type == kFrameDirectReply;
            if (direct && (body.objectsCount != 0 || !frame.fds.empty())) __builtin_trap();
            if (validateObjects(body) >= 0) {
                // Every listed object lies inside the data.
                for (size_t i = 0; i < body.objectsCount; i++) {
                    flat_binder_object obj;
                    memcpy(&obj, body.data + body.offsets[i], sizeof(obj));
                    (void)obj;
                }
            }
        }
    }
    close(sv[1]);
    return 0;
}
