// hostbinderd [--socket PATH] [--permissions FILE]
//
// Runs one hostbinder runtime instance in the foreground until SIGTERM or SIGINT.
#include "Broker.h"

#include <stdio.h>
#include <string.h>

#include <string>

static void usage(FILE* out) {
    fprintf(out,
            "usage: hostbinderd [--socket PATH] [--permissions FILE]\n"
            "  --socket PATH        the instance's socket (default $HOSTBINDER_SOCKET, now %s)\n"
            "  --permissions FILE   policy lines \"<uid> <permission>\" (* matches any)\n",
            android::hostbinder::instanceSocketPath());
}

int main(int argc, char** argv) {
    android::hostbinder::BrokerOptions options;
    for (int i = 1; i < argc; i++) {
        const char* arg = argv[i];
        if (strcmp(arg, "--socket") == 0 && i + 1 < argc) {
            options.socketPath = argv[++i];
        } else if (strcmp(arg, "--permissions") == 0 && i + 1 < argc) {
            options.permissionsFile = argv[++i];
        } else if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "hostbinderd: unexpected argument: %s\n", arg);
            usage(stderr);
            return 2;
        }
    }
    if (options.socketPath.empty()) options.socketPath = android::hostbinder::instanceSocketPath();
    return android::hostbinder::runBroker(options);
}
