/*
 * hostbinderd's broker: plays the kernel driver for the processes of one runtime instance
 * (nodes, handles, reference counts, transaction stacks, death notices) and hosts the service
 * manager (handle 0) and the "permission" service.
 */
#pragma once

#include "WireProtocol.h"

#include <string>

namespace android {
namespace hostbinder {

struct BrokerOptions {
    std::string socketPath;
    std::string permissionsFile;  // empty: no policy file
};

// Serves until SIGTERM or SIGINT; prints one line to stdout once it accepts connections.
// Returns the process exit code.
int runBroker(const BrokerOptions& options);

}  // namespace hostbinder
}  // namespace android
