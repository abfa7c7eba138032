/*
 * service: the command-line client of the service manager of the runtime instance named by
 * HOSTBINDER_SOCKET.
 */
#include "ServiceTool.h"

#include <iostream>

int main(int argc, char* argv[]) {
    android::ServiceTool tool(android::defaultServiceManager(), std::cout, std::cerr);
    return tool.main(argc, argv);
}
