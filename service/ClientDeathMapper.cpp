/*
 * BnTovarinService::ClientDeathMapper: per-key records of client binders linked to death.
 */
#include "ITovarinService.h"

#include <tovarin/Utils.h>

namespace morvel {
namespace tovarin {
namespace binder {

using android::IBinder;
using android::sp;
using android::wp;

BnTovarinService::ClientDeathMapper::ClientDeathMapper(const sp<BnTovarinService>& owner,
                                                       Handler handler)
    : mOwner(owner), mHandler(handler) {
    pthread_mutex_init(&mLock, nullptr);
}

BnTovarinService::ClientDeathMapper::~ClientDeathMapper() {
    // Records are dropped without unlinking: their recipient is this object, going away.
    mClients.clear();
    pthread_mutex_destroy(&mLock);
    mOwner.clear();
}

void BnTovarinService::ClientDeathMapper::addClient(int32_t handle, const sp<IBinder>& binder,
                                                    int32_t pid) {
    // A null binder cannot die and cannot be unlinked: there is nothing to track.
    if (binder == nullptr) {
        return;
    }
    ClientDeathData record;
    record.handle = handle;
    record.binder = binder;
    record.pid = pid;
    record.processName = Utils::getProcessNameFromPID(pid);

    pthread_mutex_lock(&mLock);
    binder->linkToDeath(this, nullptr, 0);
    mClients.emplace(handle, record);  // an existing record under `handle` is kept
    pthread_mutex_unlock(&mLock);
}

void BnTovarinService::ClientDeathMapper::removeClient(int32_t handle) {
    pthread_mutex_lock(&mLock);
    auto entry = mClients.find(handle);
    if (entry != mClients.end()) {
        entry->second.binder->unlinkToDeath(this, nullptr, 0, nullptr);
        mClients.erase(entry);
    }
    pthread_mutex_unlock(&mLock);
}

void BnTovarinService::ClientDeathMapper::binderDied(const wp<IBinder>& who) {
    sp<IBinder> binder = who.promote();
    if (binder == nullptr) {
        return;
    }
    pthread_mutex_lock(&mLock);
    for (auto entry = mClients.begin(); entry != mClients.end(); ++entry) {
        if (entry->second.binder == binder) {
            (mOwner.get()->*mHandler)(entry->second);
            mClients.erase(entry);
            break;
        }
    }
    pthread_mutex_unlock(&mLock);
}

size_t BnTovarinService::ClientDeathMapper::clientCount() const {
    pthread_mutex_lock(&mLock);
    const size_t count = mClients.size();
    pthread_mutex_unlock(&mLock);
    return count;
}

bool BnTovarinService::ClientDeathMapper::findClient(int32_t handle, ClientDeathData* out) const {
    pthread_mutex_lock(&mLock);
    auto entry = mClients.find(handle);
    const bool found = entry != mClients.end();
    if (found && out != nullptr) {
        *out = entry->second;
    }
    pthread_mutex_unlock(&mLock);
    return found;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
