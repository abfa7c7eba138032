// A process follows HOSTBINDER_SOCKET: when it names another instance (or the joined one is
// gone), the next call joins the instance named now and proxies of the old one are dead. This is
// what lets one test process talk to a fresh instance in every test.
#include <hostbinder_test/Runtime.h>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include <stdlib.h>

using namespace android;
using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;

namespace {

std::unique_ptr<ChildProcess> serve(const char* name) {
    auto child = std::make_unique<ChildProcess>(
            std::vector<std::string>{getenv("HOSTBINDER_IPC_HELPER"), "serve", name});
    EXPECT_TRUE(child->waitForOutput("ready", 10000)) << child->output();
    return child;
}

TEST(InstanceTest, ProcessJoinsTheInstanceItIsPointedAt) {
    ASSERT_NE(nullptr, getenv("HOSTBINDER_IPC_HELPER"));
    sp<IBinder> first;
    {
        RuntimeInstance runtime;
        auto service = serve("first");
        first = defaultServiceManager()->checkService(String16("first"));
        ASSERT_NE(nullptr, first);
        EXPECT_EQ(NO_ERROR, first->pingBinder());
        // Outside a call, the calling identity is this process's own.
        EXPECT_EQ(getpid(), IPCThreadState::self()->getCallingPid());
        EXPECT_EQ(getuid(), IPCThreadState::self()->getCallingUid());
    }
    RuntimeInstance runtime;
    auto service = serve("second");
    sp<IServiceManager> sm = defaultServiceManager();
    EXPECT_NE(nullptr, sm->checkService(String16("second")));
    EXPECT_EQ(nullptr, sm->checkService(String16("first")));
    EXPECT_FALSE(first->isBinderAlive());
    EXPECT_EQ(DEAD_OBJECT, first->pingBinder());
}

}  // namespace
