// tovarinctl: see TovarinCtl.h.
#include "TovarinCtl.h"

#include <binder/IServiceManager.h>

#include <signal.h>

namespace {

void onStopSignal(int) {
    morvel::tovarin::binder::TovarinCtl::requestStop();
}

}  // namespace

int main(int argc, char** argv) {
    // SIGINT and SIGTERM end a track or listen early and cleanly (the tracker is released).
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // The service manager is asked for only once the command line has been read.
    const morvel::tovarin::binder::TovarinCtl::ServiceManagerSource serviceManager =
            android::defaultServiceManager;
    morvel::tovarin::binder::TovarinCtl ctl(serviceManager, stdout, stderr);
    return ctl.run(argc, argv);
}
