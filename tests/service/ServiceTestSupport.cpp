#include "ServiceTestSupport.h"

#include <gtest/gtest.h>
#include <hostbinder_test/Runtime.h>
#include <tovarin/Utils.h>

#include <unistd.h>

namespace morvel {
namespace tovarin {
namespace testing {

using android::sp;

namespace {

hostbinder_test::RuntimeInstance* gRuntime = nullptr;

class RuntimeEnvironment : public ::testing::Environment {
public:
    void SetUp() override { gRuntime = new hostbinder_test::RuntimeInstance(fullPolicy()); }
    void TearDown() override {
        delete gRuntime;
        gRuntime = nullptr;
    }
};

::testing::Environment* const kRuntimeEnvironment =
        ::testing::AddGlobalTestEnvironment(new RuntimeEnvironment());

}  // namespace

void setTestPolicy(const std::string& policy) {
    ASSERT_NE(nullptr, gRuntime);
    gRuntime->setPolicy(policy);
}

const std::string& fullPolicy() {
    static const std::string policy = policyGranting({kControl, kDump});
    return policy;
}

sp<binder::BnTovarinService> makeService(const sp<TovarinFacade>& facade) {
    static auto* keep = new std::vector<sp<binder::BnTovarinService>>();
    sp<binder::BnTovarinService> service = new binder::BnTovarinService(facade);
    keep->push_back(service);
    return service;
}

std::string selfCallerString() {
    return std::string(Utils::getProcessNameFromPID(getpid()).string()) + "(" +
           std::to_string(getpid()) + ")";
}

std::string policyGranting(const std::vector<std::string>& grants) {
    std::string policy;
    for (const std::string& grant : grants) policy += "0 " + grant + "\n";
    return policy;
}

}  // namespace testing
}  // namespace tovarin
}  // namespace morvel
