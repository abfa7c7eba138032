/*
 * Helpers shared by the shared-memory tests.
 */
#pragma once

#include <binder/IBinder.h>
#include <stdio.h>

#include <fstream>
#include <string>

namespace hostbinder_memory_test {

// What memory_peer serves (see MemoryPeer.cpp).
enum : uint32_t {
    kGetMemories = android::IBinder::FIRST_CALL_TRANSACTION,
    kFirstHolds,
    kReadAndMark,
    kExit,
};

// How many mappings of memfd `name` this process holds (lines of /proc/self/maps).
inline int countMappings(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    const std::string needle = "/memfd:" + name + " ";
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        if ((line + " ").find(needle) != std::string::npos) ++count;
    }
    return count;
}

// The permission column ("rw-s", "r--s", ...) of the mapping that contains `address`.
inline std::string mappingPermissions(const void* address) {
    std::ifstream maps("/proc/self/maps");
    const auto at = reinterpret_cast<unsigned long>(address);
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        char perms[8] = {};
        if (sscanf(line.c_str(), "%lx-%lx %7s", &start, &end, perms) == 3 && start <= at &&
            at < end) {
            return perms;
        }
    }
    return "";
}

}  // namespace hostbinder_memory_test
