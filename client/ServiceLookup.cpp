/*
 * The client's lookup of the tracking service: one cached proxy per process, emptied by the
 * death notifier when the service process goes away.
 */
#include "ITovarinService.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>

#include <tovarin/TovarinLogger.h>

#include <pthread.h>

using android::defaultServiceManager;
using android::IBinder;
using android::ProcessState;
using android::sp;
using android::String16;
using android::wp;

namespace morvel {
namespace tovarin {
namespace binder {

namespace {

// Log state word of this module, read and written only by the log writer.
int32_t sLogState = -1;

}  // namespace

// Never destroyed: pool threads (death notices, the client singleton's recovery) may use them
// while the process's static destructors run.
pthread_mutex_t ITovarinService::sLock = PTHREAD_MUTEX_INITIALIZER;
sp<ITovarinService>& ITovarinService::sService = *new sp<ITovarinService>();
sp<ITovarinService::DeathNotifier>& ITovarinService::sDeathNotifier =
        *new sp<ITovarinService::DeathNotifier>();

sp<ITovarinService> ITovarinService::checkService() {
    pthread_mutex_lock(&sLock);
    sp<ITovarinService> service = sService;
    if (service == nullptr) {
        // The lock is held across the query, the link and the pool start, so concurrent
        // first callers make exactly one query and share one proxy.
        sp<IBinder> binder = defaultServiceManager()->checkService(String16(SERVICE_NAME));
        if (binder != nullptr) {
            if (sDeathNotifier == nullptr) {
                sDeathNotifier = new DeathNotifier();
            }
            // Every successful lookup, the first and each one after a service death, sets the
            // logger of a client process to its maximum level.
            TovarinLogger::setGlobalMaxLevel(4);
            // Linked before anything else can link to this binder: the platform delivers death
            // notices in link order, so this cache is empty before any other recipient of the
            // same death (TovarinServiceImpl's recovery) looks the service up again.
            const bool linked = binder->linkToDeath(sDeathNotifier, nullptr, 0) == android::OK;
            service = ITovarinService::asInterface(binder);
            // A proxy that could not be linked (the service died since the lookup answered)
            // would never be cleared, as no notice comes for it: it is not kept. This caller
            // gets it (its calls fail with DEAD_OBJECT); the next one looks the service up again.
            if (linked) {
                sService = service;
            }
            // Death notices and listener callbacks arrive on pool threads.
            ProcessState::self()->startThreadPool();
        }
    }
    pthread_mutex_unlock(&sLock);
    return service;
}

void ITovarinService::DeathNotifier::binderDied(const wp<IBinder>& /*who*/) {
    pthread_mutex_lock(&sLock);
    if (TovarinLogger::getInstance()->shouldLog(nullptr, 6)) {
        rendel_log_write2(6, &sLogState, 2, nullptr, "Client's binder connection to Tovarin died!");
    }
    // Whatever binder died, the cache is emptied: the next lookup asks the service manager.
    sService.clear();
    pthread_mutex_unlock(&sLock);
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
