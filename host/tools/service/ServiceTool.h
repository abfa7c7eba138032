/*
 * The `service` command: lists, checks and calls the services of the service manager.
 *
 *   service list
 *   service check SERVICE
 *   service call SERVICE CODE [i32 N | i64 N | f N | d N | s16 STR | null] ...
 *
 * A call writes SERVICE's interface token, then the arguments in order, and prints the reply
 * as "Result: Parcel(...)": the data as 32-bit little-endian words with their characters.
 *
 * -h, -? and --help print the usage on the output (status 0); a malformed command line prints
 * what is wrong and the usage on the error stream (status 2). The command line is read before
 * the service manager is asked for, so neither needs a runtime.
 */
#pragma once

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <functional>
#include <ostream>
#include <string>

namespace android {

class ServiceTool {
public:
    static constexpr int kExitUsage = 2;
    static constexpr int kExitNotFound = 1;
    static constexpr int kExitNoServiceManager = 20;

    typedef std::function<sp<IServiceManager>()> ServiceManagerSource;

    ServiceTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err);
    // Asks `source` for the service manager once, when a command needs it.
    ServiceTool(ServiceManagerSource source, std::ostream& out, std::ostream& err);

    // Runs one command line (argv[0] is the program name); returns the exit status.
    int main(int argc, char* const argv[]);

    // The reply printed by `service call`: "Parcel(<hex dump>)", "Parcel(NULL)" for an empty
    // parcel, "Parcel(Error: 0x... "text")" for a parcel in error.
    static std::string formatParcel(const Parcel& parcel);

private:
    void printUsage(std::ostream& out);
    int usageError();
    int list();
    int check(const char* name);
    int call(int argc, char* const argv[], int first);

    ServiceManagerSource mSource;
    sp<IServiceManager> mSm;
    std::ostream& mOut;
    std::ostream& mErr;
};

}  // namespace android
