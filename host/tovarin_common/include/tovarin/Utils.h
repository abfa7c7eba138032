/*
 * Process helpers of the head-tracking libraries.
 */
#pragma once

#include <stdint.h>

#include <utils/String8.h>

namespace morvel {
namespace tovarin {

class Utils {
public:
    // The process's name: the first argument of its command line (/proc/<pid>/cmdline), or its
    // short name from /proc/<pid>/comm when the command line is empty. A pid that names no
    // process (or that cannot be read) gives kUnknownProcessName.
    static android::String8 getProcessNameFromPID(int pid);

    // Number of getProcessNameFromPID() calls made in this process so far.
    static uint64_t processNameLookupCount();

    static constexpr const char* kUnknownProcessName = "unknown";
};

}  // namespace tovarin
}  // namespace morvel
