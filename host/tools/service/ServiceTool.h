/*
 * The `service` command: lists, checks and calls the services of the service manager.
 *
 *   service list
 *   service check SERVICE
 *   service call SERVICE CODE [i32 N | i64 N | f N | d N | s16 STR | null] ...
 *
 * A call writes SERVICE's interface token, then the arguments in order, and prints the reply
 * as "Result: Parcel(...)": the data as 32-bit little-endian words with their characters.
 */
#pragma once

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <ostream>
#include <string>

namespace android {

class ServiceTool {
public:
    // Exit statuses, as the platform's tool.
    static constexpr int kExitUsage = 10;
    static constexpr int kExitNoServiceManager = 20;

    ServiceTool(const sp<IServiceManager>& sm, std::ostream& out, std::ostream& err);

    // Runs one command line (argv[0] is the program name); returns the exit status.
    int main(int argc, char* const argv[]);

    // The reply printed by `service call`: "Parcel(<hex dump>)", "Parcel(NULL)" for an empty
    // parcel, "Parcel(Error: 0x... "text")" for a parcel in error.
    static std::string formatParcel(const Parcel& parcel);

private:
    void printUsage();
    int list();
    int check(const char* name);
    int call(int argc, char* const argv[], int first, bool* wantsUsage);

    sp<IServiceManager> mSm;
    std::ostream& mOut;
    std::ostream& mErr;
};

}  // namespace android
