#include "PeerIdentity.h"

#include <sodium.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

namespace android {
namespace hostbinder {

bool peerIdentity(int fd, PeerIdentity* out) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (fd < 0 || getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.pid <= 0) {
        return false;
    }
    out->pid = cred.pid;
    out->uid = cred.uid;
    out->start = processStartTime(cred.pid);
    return out->start != 0;
}

uint64_t processStartTime(pid_t pid, char* state) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    FILE* f = fopen(path, "re");
    if (f == nullptr) return 0;
    char line[1024];
    const size_t n = fread(line, 1, sizeof(line) - 1, f);
    fclose(f);
    line[n] = '\0';
    // "pid (comm) state ppid ...": the name may hold spaces and parentheses, so count the
    // fields after the last ')'. The start time is field 22; the state is field 3.
    const char* p = strrchr(line, ')');
    if (p == nullptr || p[1] != ' ' || p[2] == '\0') return 0;
    p++;
    if (state != nullptr) *state = p[1];
    for (int field = 3; field < 22; field++) {
        p = strchr(p + 1, ' ');
        if (p == nullptr) return 0;
    }
    char* end = nullptr;
    const unsigned long long start = strtoull(p + 1, &end, 10);
    return end != p + 1 ? static_cast<uint64_t>(start) + 1 : 0;  // + 1: never 0
}

bool processRunning(pid_t pid, uint64_t start) {
    char state = 0;
    return processStartTime(pid, &state) == start && state != 'Z' && state != 'X';
}

uint64_t objectProof(const uint8_t key[kObjectKeyBytes], uint64_t name, pid_t holder,
                     uint64_t holderStart) {
    static_assert(kObjectKeyBytes == crypto_shorthash_KEYBYTES);
    uint8_t message[24];
    const uint64_t pid = static_cast<uint32_t>(holder);
    memcpy(message, &name, 8);
    memcpy(message + 8, &pid, 8);
    memcpy(message + 16, &holderStart, 8);
    uint8_t hash[crypto_shorthash_BYTES];
    crypto_shorthash(hash, message, sizeof(message), key);
    uint64_t proof;
    memcpy(&proof, hash, sizeof(proof));
    return proof;
}

uint64_t nameMask(const uint8_t key[kObjectKeyBytes]) {
    // A hash of a message no proof is made of (those are 24 bytes long).
    static const uint8_t kMessage[] = "object names";
    uint8_t hash[crypto_shorthash_BYTES];
    crypto_shorthash(hash, kMessage, sizeof(kMessage), key);
    uint64_t mask;
    memcpy(&mask, hash, sizeof(mask));
    return mask;
}

bool nameGivenTo(const uint8_t key[kObjectKeyBytes], uint64_t name, uint64_t proof,
                 const PeerIdentity& holder) {
    const uint64_t expected = objectProof(key, name, holder.pid, holder.start);
    return sodium_memcmp(&proof, &expected, sizeof(proof)) == 0;
}

void randomBytes(void* out, size_t size) {
    if (sodium_init() < 0) abort();
    randombytes_buf(out, size);
}

}  // namespace hostbinder
}  // namespace android
