/*
 * dumpsys: prints the dumps of the services of the runtime instance named by
 * HOSTBINDER_SOCKET.
 */
#include "DumpsysTool.h"

#include <signal.h>

#include <iostream>

int main(int argc, char* argv[]) {
    // A service writing into a closed pipe must not kill this tool.
    signal(SIGPIPE, SIG_IGN);
    // The service manager is asked for only once the command line has been read.
    const android::DumpsysTool::ServiceManagerSource serviceManager =
            android::defaultServiceManager;
    android::DumpsysTool tool(serviceManager, std::cout, std::cerr);
    return tool.main(argc, argv);
}
