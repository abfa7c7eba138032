/*
 * service: the command-line client of the service manager of the runtime instance named by
 * HOSTBINDER_SOCKET.
 */
#include "ServiceTool.h"

#include <iostream>

int main(int argc, char* argv[]) {
    // The service manager is asked for only once the command line has been read.
    const android::ServiceTool::ServiceManagerSource serviceManager =
            android::defaultServiceManager;
    android::ServiceTool tool(serviceManager, std::cout, std::cerr);
    return tool.main(argc, argv);
}
