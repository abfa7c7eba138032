/*
 * tovarind: the head-tracking service process. Publishes the tracking service over the
 * simulated head tracker and serves it on the binder thread pool until killed.
 *
 *   tovarind [--trackers N] [--raw-rate HZ] [--disabled]
 */
#include "ITovarinDebug.h"
#include "ITovarinService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <tovarin/TovarinFacade.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

using android::defaultServiceManager;
using android::IPCThreadState;
using android::OK;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using morvel::tovarin::TovarinFacade;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::BnTovarinService;
using morvel::tovarin::binder::ITovarinDebug;
using morvel::tovarin::binder::ITovarinService;

namespace {

void usage() {
    fprintf(stderr, "usage: tovarind [--trackers N] [--raw-rate HZ] [--disabled]\n");
}

}  // namespace

int main(int argc, char** argv) {
    TovarinFacade::Options options;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--trackers") == 0 && i + 1 < argc) {
            options.trackerCount = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--raw-rate") == 0 && i + 1 < argc) {
            options.rawFrameRateHz = atof(argv[++i]);
        } else if (strcmp(argv[i], "--disabled") == 0) {
            options.enabled = false;
        } else {
            usage();
            return 2;
        }
    }

    sp<TovarinFacade> facade = new TovarinFacade(options);
    // Lives as long as the process: the service object and its death trackers hold each other.
    sp<BnTovarinService> service = new BnTovarinService(facade);
    const status_t status =
            defaultServiceManager()->addService(String16(ITovarinService::SERVICE_NAME), service);
    if (status != OK) {
        fprintf(stderr, "tovarind: cannot register %s: %d\n", ITovarinService::SERVICE_NAME,
                status);
        return 1;
    }

    // The debug interface over this process's overrides and diagnostics stores.
    defaultServiceManager()->addService(String16(ITovarinDebug::SERVICE_NAME),
                                        new BnTovarinDebug());

    ProcessState::self()->startThreadPool();
    printf("tovarind: serving %s\n", ITovarinService::SERVICE_NAME);
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
