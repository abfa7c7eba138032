// The tracking service of the client tests, as a role: the real service object over the
// simulated facade, which in addition accepts raw data listeners (the real service refuses them)
// and reports a hardware state of 7. Every registration it receives is printed on a line of its
// own, so that a test can count them and see their order.
//
//   tracking_service [TOGGLE_AFTER [DIE_ON_CODE]]
//
// Once the TOGGLE_AFTER-th state change listener is registered it flips the enabled state, which
// sends a state change event to every registered listener. It kills itself (SIGKILL) as a
// transaction with code DIE_ON_CODE, or LAST_CALL_TRANSACTION, arrives.
#include "ITovarinService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Roles.h>

#include <tovarin/TovarinFacade.h>

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <thread>

using namespace android;
using namespace morvel::tovarin;
using namespace morvel::tovarin::binder;

namespace {

class TestFacade : public TovarinFacade {
public:
    explicit TestFacade(int toggleAfter) : mToggleAfter(toggleAfter) {}

    int32_t getHardwareState() const override { return 7; }

    status_t registerStateChangeListener(sp<StateChangeListener> listener) override {
        const status_t status = TovarinFacade::registerStateChangeListener(listener);
        printf("STATE_REGISTER %d\n", listener->getHandle());
        if (status == OK && ++mRegistrations == mToggleAfter) {
            // Off this binder thread: the facade delivers the events from its own thread.
            sp<TestFacade> self = this;
            std::thread([self] { self->setEnabledState(self->getEnabled() ? 0 : 1); }).detach();
        }
        return status;
    }

    void unregisterStateChangeListener(sp<StateChangeListener> listener) override {
        printf("STATE_UNREGISTER %d\n", listener->getHandle());
        TovarinFacade::unregisterStateChangeListener(listener);
    }

private:
    const int mToggleAfter;
    std::atomic<int> mRegistrations{0};
};

class TestService : public BnTovarinService {
public:
    TestService(const sp<TovarinFacade>& facade, uint32_t dieOnCode)
        : BnTovarinService(facade), mDieOnCode(dieOnCode) {}

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == IBinder::LAST_CALL_TRANSACTION || code == mDieOnCode) kill(getpid(), SIGKILL);
        if (code != REGISTER_RAW_DATA_LISTENER && code != UNREGISTER_RAW_DATA_LISTENER) {
            return BnTovarinService::onTransact(code, data, reply, flags);
        }
        if (!data.checkInterface(this)) return PERMISSION_DENIED;
        reply->writeNoException();
        data.readStrongBinder();
        if (code == UNREGISTER_RAW_DATA_LISTENER) {
            printf("RAW_UNREGISTER %d\n", data.readInt32());
            return OK;
        }
        const int32_t handle = mNextHandle++;
        printf("RAW_REGISTER %d\n", handle);
        reply->writeInt32(handle);
        return reply->writeInt32(OK);
    }

private:
    const uint32_t mDieOnCode;
    std::atomic<int32_t> mNextHandle{100};
};

}  // namespace

TEST_ROLE(tracking_service) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // a line as each registration arrives
    sp<TestFacade> facade = new TestFacade(args.empty() ? 0 : std::stoi(args[0]));
    const uint32_t dieOnCode = args.size() > 1 ? std::stoi(args[1]) : 0;
    if (defaultServiceManager()->addService(String16(ITovarinService::SERVICE_NAME),
                                            new TestService(facade, dieOnCode)) != OK) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
