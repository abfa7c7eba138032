/*
 * The `dumpsys` command.
 */
#include "DumpsysTool.h"

#include <utils/String8.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

namespace android {

namespace {

std::string toUtf8(const String16& text) {
    String8 utf8(text);
    return std::string(utf8.string(), utf8.size());
}

// Splits "a,b,c" into its names.
std::set<std::string> splitNames(const char* list) {
    std::set<std::string> names;
    std::string current;
    for (const char* p = list; *p; ++p) {
        if (*p == ',') {
            if (!current.empty()) names.insert(current);
            current.clear();
        } else {
            current += *p;
        }
    }
    if (!current.empty()) names.insert(current);
    return names;
}

std::string localTimeNow() {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace

const char DumpsysTool::kSeparator[] =
        "-------------------------------------------------------------------------------";

DumpsysTool::DumpsysTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err)
      : mSm(sm), mOut(out), mErr(err) {}

DumpsysTool::DumpsysTool(ServiceManagerSource source, std::ostream& out, std::ostream& err)
      : mSource(std::move(source)), mOut(out), mErr(err) {}

int DumpsysTool::usageError() {
    printUsage(mErr);
    return kExitUsage;
}

void DumpsysTool::printUsage(std::ostream& out) {
    out << "usage: dumpsys\n"
           "         To dump all services.\n"
           "or:\n"
           "       dumpsys [-t TIMEOUT] [--help | -l | --skip SERVICES | SERVICE [ARGS]]\n"
           "         --help: shows this help\n"
           "         -l: only list services, do not dump them\n"
           "         -t TIMEOUT_SEC: TIMEOUT to use in seconds instead of default 10 seconds\n"
           "         -T TIMEOUT_MS: TIMEOUT to use in milliseconds instead of default 10 "
           "seconds\n"
           "         --skip SERVICES: dumps all services but SERVICES (comma-separated list)\n"
           "         SERVICE [ARGS]: dumps only service SERVICE, optionally passing ARGS to it\n";
}

int DumpsysTool::main(int argc, char* const argv[]) {
    bool listOnly = false;
    bool skipMode = false;
    std::set<std::string> skipped;
    int i = 1;
    // Options end at the first word that is not one: that is the service name.
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const char* const option = argv[i];
        if (strcmp(option, "--help") == 0 || strcmp(option, "-h") == 0) {
            printUsage(mOut);
            return 0;
        } else if (strcmp(option, "-l") == 0) {
            listOnly = true;
        } else if (strcmp(option, "--skip") == 0) {
            skipMode = true;
        } else if (strcmp(option, "-t") == 0 || strcmp(option, "-T") == 0) {
            if (i + 1 >= argc) {
                mErr << "Error: missing timeout value" << std::endl;
                return usageError();
            }
            char* end = nullptr;
            const long long value = strtoll(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0' || value <= 0 || value > 24LL * 3600 * 1000) {
                mErr << "Error: invalid timeout number: '" << argv[i] << "'" << std::endl;
                return usageError();
            }
            mTimeout = std::chrono::milliseconds(option[1] == 't' ? value * 1000 : value);
        } else {
            mErr << "Unknown option " << option << std::endl;
            return usageError();
        }
    }

    Vector<String16> services;
    Vector<String16> args;
    if (skipMode) {
        if (i >= argc) {
            mErr << "--skip needs a list of services" << std::endl;
            return usageError();
        }
        skipped = splitNames(argv[i++]);
    }
    if (mSm == nullptr && mSource) mSm = mSource();
    if (mSm == nullptr) {
        mErr << "dumpsys: Unable to get default service manager!" << std::endl;
        return kExitNoServiceManager;
    }
    if (i < argc && !skipMode && !listOnly) {
        services.add(String16(argv[i++]));
        for (; i < argc; ++i) args.add(String16(argv[i]));
    } else {
        services = mSm->listServices();
    }

    const size_t count = services.size();
    if (count > 1 || listOnly) {
        mOut << "Currently running services:" << std::endl;
        for (size_t n = 0; n < count; ++n) {
            if (mSm->checkService(services[n]) == nullptr) continue;
            const std::string name = toUtf8(services[n]);
            mOut << "  " << name << (skipped.count(name) ? " (skipped)" : "") << std::endl;
        }
    }
    if (listOnly) return 0;

    int result = 0;
    for (size_t n = 0; n < count; ++n) {
        const std::string name = toUtf8(services[n]);
        if (skipped.count(name)) continue;
        const bool separated = count > 1;
        if (separated) mOut << kSeparator << "\nDUMP OF SERVICE " << name << ":" << std::endl;
        std::chrono::duration<double> elapsed{0};
        switch (dumpService(services[n], args, &elapsed)) {
            case DumpResult::kOk:
                break;
            case DumpResult::kNotFound:
                mErr << "Can't find service: " << name << std::endl;
                result = kExitNotFound;
                break;
            case DumpResult::kTimedOut:
                mOut << "\n*** SERVICE '" << name << "' DUMP TIMEOUT (" << mTimeout.count()
                     << "ms) EXPIRED ***\n"
                     << std::endl;
                break;
            case DumpResult::kError:
                mErr << "Error dumping service info: (" << strerror(-mLastError) << ") " << name
                     << std::endl;
                break;
        }
        if (separated) {
            char line[64];
            snprintf(line, sizeof(line), "%.3f", elapsed.count());
            mOut << "--------- " << line << "s was the duration of dumpsys " << name
                 << ", ending at: " << localTimeNow() << std::endl;
        }
    }
    return result;
}

DumpsysTool::DumpResult DumpsysTool::dumpService(const String16& name,
                                                 const Vector<String16>& args,
                                                 std::chrono::duration<double>* elapsed) {
    sp<IBinder> service = mSm->checkService(name);
    if (service == nullptr) return DumpResult::kNotFound;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        mLastError = -errno;
        mErr << "Failed to create pipe to dump service info for " << toUtf8(name) << ": "
             << strerror(errno) << std::endl;
        return DumpResult::kError;
    }
    const int readEnd = fds[0];
    const int writeEnd = fds[1];
    const auto start = std::chrono::steady_clock::now();

    // The service fills the pipe while this thread drains it: a dump larger than the pipe
    // cannot block the call. The write end closes when the call returns, ending the read.
    auto dumpStatus = std::make_shared<std::atomic<status_t>>(NO_ERROR);
    std::thread caller([service, writeEnd, args, dumpStatus] {
        dumpStatus->store(service->dump(writeEnd, args));
        close(writeEnd);
    });

    DumpResult result = DumpResult::kOk;
    const auto deadline = start + mTimeout;
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result = DumpResult::kTimedOut;
            break;
        }
        struct pollfd pfd = {readEnd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            mLastError = -errno;
            result = ready == 0 ? DumpResult::kTimedOut : DumpResult::kError;
            break;
        }
        const ssize_t n = read(readEnd, buffer, sizeof(buffer));
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) break;
        mOut.write(buffer, n);
    }
    mOut.flush();
    // Closing the read end makes a service still writing get EPIPE, so the call ends. A
    // service that hangs without writing is left behind: its call ends when it answers.
    close(readEnd);
    if (result == DumpResult::kTimedOut) {
        caller.detach();
    } else {
        caller.join();
    }
    *elapsed = std::chrono::steady_clock::now() - start;
    if (result == DumpResult::kOk && dumpStatus->load() != NO_ERROR) {
        mLastError = dumpStatus->load();
        result = DumpResult::kError;
    }
    return result;
}

}  // namespace android
