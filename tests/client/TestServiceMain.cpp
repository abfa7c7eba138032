// A tracking service process for the client tests: the real service object over the simulated
// facade, which in addition accepts raw data listeners (the real service refuses them) and
// reports a hardware state of 7. Every registration it receives is printed on a line of its
// own, so that a test can count them and see their order.
//
//   tovarin_client_test_service [--toggle-after N] [--die-on-code N]
//
// --toggle-after N: once the N-th state change listener is registered, flip the enabled state,
// which sends a state change event to every registered listener.
// --die-on-code N: the process kills itself (SIGKILL) as a transaction with code N arrives.
// kDieCode does the same in every instance.
#include "IRawDataListener.h"
#include "ITovarinService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <tovarin/TovarinFacade.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <thread>

using namespace android;
using morvel::tovarin::HeadTrackingState;
using morvel::tovarin::StateChangeListener;
using morvel::tovarin::TovarinFacade;
using morvel::tovarin::binder::BnTovarinService;
using morvel::tovarin::binder::ITovarinService;

namespace {

std::mutex gPrintLock;

void say(const char* format, int value) {
    std::lock_guard<std::mutex> lock(gPrintLock);
    printf(format, value);
    printf("\n");
    fflush(stdout);
}

class TestFacade : public TovarinFacade {
public:
    explicit TestFacade(int toggleAfter) : mToggleAfter(toggleAfter) {}

    int32_t getHardwareState() const override { return 7; }

    status_t registerStateChangeListener(sp<StateChangeListener> listener) override {
        const status_t status = TovarinFacade::registerStateChangeListener(listener);
        say("STATE_REGISTER %d", listener->getHandle());
        if (status == OK && ++mRegistrations == mToggleAfter) {
            // Off this binder thread: the facade delivers the events from its own thread.
            sp<TestFacade> self = this;
            std::thread([self] { self->setEnabledState(self->getEnabled() ? 0 : 1); }).detach();
        }
        return status;
    }

    void unregisterStateChangeListener(sp<StateChangeListener> listener) override {
        say("STATE_UNREGISTER %d", listener->getHandle());
        TovarinFacade::unregisterStateChangeListener(listener);
    }

private:
    const int mToggleAfter;
    std::atomic<int> mRegistrations{0};
};

// The code of the tests' request to die at once; see ClientScenarioMain.cpp.
constexpr uint32_t kDieCode = IBinder::LAST_CALL_TRANSACTION;

class RawDataAcceptingService : public BnTovarinService {
public:
    RawDataAcceptingService(const sp<TovarinFacade>& facade, uint32_t dieOnCode)
        : BnTovarinService(facade), mDieOnCode(dieOnCode) {}

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == kDieCode || code == mDieOnCode) kill(getpid(), SIGKILL);
        if (code != REGISTER_RAW_DATA_LISTENER && code != UNREGISTER_RAW_DATA_LISTENER) {
            return BnTovarinService::onTransact(code, data, reply, flags);
        }
        if (!data.checkInterface(this)) return PERMISSION_DENIED;
        reply->writeNoException();
        const sp<IBinder> listener = data.readStrongBinder();
        std::lock_guard<std::mutex> lock(mLock);
        if (code == REGISTER_RAW_DATA_LISTENER) {
            const int32_t handle = mNextHandle++;
            mListeners[handle] = listener;
            say("RAW_REGISTER %d", handle);
            reply->writeInt32(handle);
            return reply->writeInt32(OK);
        }
        const int32_t handle = data.readInt32();
        mListeners.erase(handle);
        say("RAW_UNREGISTER %d", handle);
        return OK;
    }

private:
    const uint32_t mDieOnCode;
    std::mutex mLock;
    int32_t mNextHandle = 100;
    std::map<int32_t, sp<IBinder>> mListeners;
};

}  // namespace

int main(int argc, char** argv) {
    int toggleAfter = 0;
    uint32_t dieOnCode = kDieCode;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--toggle-after") == 0 && i + 1 < argc) {
            toggleAfter = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--die-on-code") == 0 && i + 1 < argc) {
            dieOnCode = static_cast<uint32_t>(atoi(argv[++i]));
        } else {
            fprintf(stderr, "usage: %s [--toggle-after N] [--die-on-code N]\n", argv[0]);
            return 2;
        }
    }
    sp<TestFacade> facade = new TestFacade(toggleAfter);
    sp<BnTovarinService> service = new RawDataAcceptingService(facade, dieOnCode);
    const status_t status =
            defaultServiceManager()->addService(String16(ITovarinService::SERVICE_NAME), service);
    if (status != OK) {
        fprintf(stderr, "addService failed: %d\n", status);
        return 1;
    }
    ProcessState::self()->startThreadPool();
    say("READY %d", getpid());
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
