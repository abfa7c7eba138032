/*
 * The `dumpsys` command: prints the dump of one service, or of every service.
 *
 *   dumpsys                      every service, each between separator lines
 *   dumpsys -l                   the names of the running services
 *   dumpsys SERVICE [ARGS...]    SERVICE's dump alone, ARGS passed to it
 *
 * A dump is asked with DUMP_TRANSACTION: the service writes into the write end of a pipe
 * while this tool copies the read end to its output, for at most the timeout.
 */
#pragma once

#include <binder/IServiceManager.h>

#include <chrono>
#include <ostream>
#include <set>
#include <string>

namespace android {

class DumpsysTool {
public:
    static constexpr int kExitUsage = 1;
    static constexpr int kExitNotFound = 1;
    static constexpr int kExitNoServiceManager = 20;

    DumpsysTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err);

    // Runs one command line (argv[0] is the program name); returns the exit status.
    int main(int argc, char* const argv[]);

    static const char kSeparator[];

private:
    enum class DumpResult { kOk, kNotFound, kError, kTimedOut };

    void printUsage();
    // Copies `name`'s dump to the output.
    DumpResult dumpService(const String16& name, const Vector<String16>& args,
                           std::chrono::duration<double>* elapsed);

    sp<IServiceManager> mSm;
    std::ostream& mOut;
    std::ostream& mErr;
    std::chrono::milliseconds mTimeout{10000};
    status_t mLastError = NO_ERROR;  // of the last dump that failed
};

}  // namespace android
