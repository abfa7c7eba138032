#include <tovarin/Utils.h>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <vector>

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

// The interpreter of each binfmt_misc rule (an emulator such as qemu-user that runs programs
// of another architecture), and whether the rule keeps the program's argv[0] (flag P). Such a
// program's command line, seen from another process, starts with the interpreter and the
// program's path; its own argv[0] follows when the rule keeps it.
struct BinfmtRule {
    std::string interpreter;
    bool keepsArgv0;
};

const std::vector<BinfmtRule>& binfmtRules() {
    static const std::vector<BinfmtRule> rules = [] {
        std::vector<BinfmtRule> found;
        const char* const dirPath = "/proc/sys/fs/binfmt_misc";
        DIR* dir = opendir(dirPath);
        if (dir == nullptr) return found;
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name[0] == '.' || name == "register" || name == "status") continue;
            std::ifstream rule(std::string(dirPath) + "/" + name);
            BinfmtRule r{"", false};
            for (std::string line; std::getline(rule, line);) {
                if (line.rfind("interpreter ", 0) == 0) r.interpreter = line.substr(12);
                if (line.rfind("flags: ", 0) == 0) r.keepsArgv0 = line.find('P', 7) != line.npos;
            }
            if (!r.interpreter.empty()) found.push_back(r);
        }
        closedir(dir);
        return found;
    }();
    return rules;
}

// The program's own name from a command line (NUL-separated arguments).
std::string programName(const std::string& cmdline) {
    std::vector<std::string> args;
    for (size_t start = 0; start < cmdline.size() && args.size() < 3;) {
        const size_t end = std::min(cmdline.find('\0', start), cmdline.size());
        args.push_back(cmdline.substr(start, end - start));
        start = end + 1;
    }
    if (args.empty()) return "";
    for (const BinfmtRule& rule : binfmtRules()) {
        if (args[0] != rule.interpreter) continue;
        const size_t own = rule.keepsArgv0 ? 2 : 1;
        if (own < args.size() && !args[own].empty()) return args[own];
    }
    return args[0];
}

}  // namespace

android::String8 Utils::getProcessNameFromPID(int pid) {
    sLookupCount.fetch_add(1, std::memory_order_relaxed);
    if (pid <= 0) return android::String8(kUnknownProcessName);

    std::string text;
    if (readProcFile(pid, "cmdline", &text, 4096)) {
        const std::string first = programName(text);
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
