/*
 * hostbinderd: limits and small helpers shared by the broker's source files.
 */
#pragma once

#include <linux/android/binder.h>
#include <string.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace android {
namespace hostbinder {

constexpr size_t kMaxConnections = 4096;
constexpr size_t kMaxOutBytes = 64 * 1024 * 1024;
constexpr size_t kMaxNodesPerProc = 1 << 17;
constexpr size_t kMaxRefsPerProc = 1 << 17;
constexpr size_t kMaxBuffersPerProc = 1 << 17;
// Bodies a process parked for direct peers and that are not fetched yet.
constexpr size_t kMaxParkedPerProc = 256;
constexpr size_t kMaxParkedBytesPerProc = 64 * 1024 * 1024;
constexpr size_t kMaxServices = 4096;
constexpr size_t kMaxServiceName = 1024;
constexpr uint32_t kMaxThreadsLimit = 1024;
constexpr uint32_t kFlatBinderFlags = 0x113;

inline flat_binder_object readObjectAt(const uint8_t* data, uint64_t off) {
    flat_binder_object obj;
    memcpy(&obj, data + off, sizeof(obj));
    return obj;
}

inline void writeObjectAt(uint8_t* data, uint64_t off, const flat_binder_object& obj) {
    memcpy(data + off, &obj, sizeof(obj));
}

inline void closeAll(std::vector<int>* fds) {
    for (int fd : *fds) {
        if (fd >= 0) close(fd);
    }
    fds->clear();
}

}  // namespace hostbinder
}  // namespace android
