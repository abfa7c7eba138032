/*
 * hostbinder: who is at the other end of a connection, as the kernel says, and the proofs
 * that tie an object's name to the one process the runtime named it to. Shared by hostbinderd
 * and the processes.
 */
#pragma once

#include "WireProtocol.h"

#include <sys/types.h>

#include <cstdint>

namespace android {
namespace hostbinder {

struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = 0;
    // The process's start time (clock ticks after boot): a later process that reuses the pid
    // has another one.
    uint64_t start = 0;
};

// The process at the other end of a Unix socket: pid and uid from SO_PEERCRED, and its start
// time. False when the socket has no peer or the process is gone.
bool peerIdentity(int fd, PeerIdentity* out);

// The start time of `pid` from /proc/PID/stat; 0 when there is no such process. `state`, when
// given, gets the process's state letter ('Z' for a zombie).
uint64_t processStartTime(pid_t pid, char* state = nullptr);

// True while the process `pid` that started at `start` runs (not a zombie, not replaced).
bool processRunning(pid_t pid, uint64_t start);

// The proof that goes with an object's `name` for the process `holder` (started at
// `holderStart`): a keyed hash (SipHash-2-4) under the owner's key. Without the key, knowing
// the proofs of other names or other holders tells nothing about this one.
uint64_t objectProof(const uint8_t key[kObjectKeyBytes], uint64_t name, pid_t holder,
                     uint64_t holderStart);

// The mask that hides an object's address in its name, derived from the owner's key.
uint64_t nameMask(const uint8_t key[kObjectKeyBytes]);

// True when `proof` is the one for `name` and `holder` under `key` (compared in constant time):
// the runtime gave that name to that process.
bool nameGivenTo(const uint8_t key[kObjectKeyBytes], uint64_t name, uint64_t proof,
                 const PeerIdentity& holder);

// Fills `out` with bytes from the system's random source.
void randomBytes(void* out, size_t size);

}  // namespace hostbinder
}  // namespace android
