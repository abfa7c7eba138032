// hostbinderd [--socket PATH] [--permissions FILE]
//
// Runs one hostbinder runtime instance in the foreground until SIGTERM or SIGINT.
#include "Broker.h"

#include <stdio.h>
#include <string.h>

#include <string>

static void usage() {
    fprintf(stderr, "usage: hostbinderd [--socket PATH] [--permissions FILE]\n");
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
            usage();
            return 0;
        } else {
            usage();
            return 2;
        }
    }
    if (options.socketPath.empty()) options.socketPath = android::hostbinder::instanceSocketPath();
    return android::hostbinder::runBroker(options);
}
