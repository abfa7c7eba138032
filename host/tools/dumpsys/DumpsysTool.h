/*
 * The `dumpsys` command: prints the dump of one service, or of every service.
 *
 *   dumpsys                      every service, each between separator lines
 *   dumpsys -l                   the names of the running services
 *   dumpsys SERVICE [ARGS...]    SERVICE's dump alone, ARGS passed to it
 *
 * A dump is asked with DUMP_TRANSACTION: the service writes into the write end of a pipe
 * while this tool copies the read end to its output, for at most the timeout.
 *
 * -h and --help print the usage on the output (status 0); a malformed command line prints what
 * is wrong and the usage on the error stream (status 2). The command line is read before the
 * service manager is asked for, so neither needs a runtime.
 */
#pragma once

#include <binder/IServiceManager.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <set>
#include <string>

namespace android {

class DumpsysTool {
public:
    static constexpr int kExitUsage = 2;
    static constexpr int kExitNotFound = 1;
    static constexpr int kExitNoServiceManager = 20;

    typedef std::function<sp<IServiceManager>()> ServiceManagerSource;

    DumpsysTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err);
    // Asks `source` for the service manager once, after the command line was read.
    DumpsysTool(ServiceManagerSource source, std::ostream& out, std::ostream& err);

    // Runs one command line (argv[0] is the program name); returns the exit status.
    int main(int argc, char* const argv[]);

    static const char kSeparator[];

private:
    enum class DumpResult { kOk, kNotFound, kError, kTimedOut };

    void printUsage(std::ostream& out);
    int usageError();
    // Copies `name`'s dump to the output.
    DumpResult dumpService(const String16& name, const Vector<String16>& args,
                           std::chrono::duration<double>* elapsed);

    ServiceManagerSource mSource;
    sp<IServiceManager> mSm;
    std::ostream& mOut;
    std::ostream& mErr;
    std::chrono::milliseconds mTimeout{10000};
    status_t mLastError = NO_ERROR;  // of the last dump that failed
};

}  // namespace android
