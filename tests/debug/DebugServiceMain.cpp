// A service process that publishes only the debug interface, for the cross-process tests.
#include "ITovarinDebug.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <stdio.h>

using namespace android;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::ITovarinDebug;

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sp<BnTovarinDebug> debug = new BnTovarinDebug();
    const status_t status =
            defaultServiceManager()->addService(String16(ITovarinDebug::SERVICE_NAME), debug);
    if (status != OK) {
        fprintf(stderr, "addService failed: %d\n", status);
        return 1;
    }
    ProcessState::self()->startThreadPool();
    printf("READY\n");
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
