/*
 * The baseline: the same calls as bytes on a Unix socketpair between two processes, the most
 * a transport over Unix sockets can do. Every message is kMessageBytes long; its first byte
 * says what it is.
 */
#pragma once

#include <cstddef>
#include <cstdint>

namespace hostbinder_bench {

constexpr size_t kMessageBytes = 64;  // roughly what a small call carries

// The receiving end, run in a ForkedPeer: answers a ping with its 4-byte value, counts one-way
// messages, and answers a count request with the count so far (int64). Returns at end of
// stream or on a message it does not know.
void serveRawPeer(int fd);

// The calling end. A round trip; one one-way message (one write); and the number of one-way
// messages the peer has read, which arrives after everything sent before it (timeoutMs bounds
// the wait).
bool rawPing(int fd);
bool rawOneway(int fd);
bool rawCount(int fd, int timeoutMs, int64_t* count);

}  // namespace hostbinder_bench
