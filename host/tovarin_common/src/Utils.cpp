#include <tovarin/Utils.h>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace morvel {
namespace tovarin {

namespace {

std::atomic<uint64_t> sLookupCount{0};

// Reads at most maxBytes of a /proc file; false when it cannot be opened.
bool readProcFile(int pid, const char* name, std::string* out, size_t maxBytes) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/%s", pid, name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out->clear();
    char buffer[512];
    while (out->size() < maxBytes) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0) {
            close(fd);
            return false;
        }
        if (n == 0) break;
        out->append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    if (out->size() > maxBytes) out->resize(maxBytes);
    return true;
}

}  // namespace

android::String8 Utils::getProcessNameFromPID(int pid) {
    sLookupCount.fetch_add(1, std::memory_order_relaxed);
    if (pid <= 0) return android::String8(kUnknownProcessName);

    std::string text;
    if (readProcFile(pid, "cmdline", &text, 4096)) {
        std::string first = text.substr(0, text.find('\0'));
        if (!first.empty()) return android::String8(first.c_str());
        // Kernel threads and zombies have an empty command line: use the short name.
        if (readProcFile(pid, "comm", &text, 64)) {
            while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
            if (!text.empty()) return android::String8(text.c_str());
        }
    }
    return android::String8(kUnknownProcessName);
}

uint64_t Utils::processNameLookupCount() {
    return sLookupCount.load(std::memory_order_relaxed);
}

}  // namespace tovarin
}  // namespace morvel
