/*
 * A runtime instance with tools_test_service running in it, and a way to run a tool's entry
 * point with its output captured.
 */
#pragma once

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <hostbinder_test/Runtime.h>

#include "ToolsTestProtocol.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace tools_test {

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

class ToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* servicePath = getenv("TOOLS_TEST_SERVICE");
        ASSERT_NE(servicePath, nullptr) << "TOOLS_TEST_SERVICE names tools_test_service";
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>();
        mServices = std::make_unique<hostbinder_test::ChildProcess>(
                std::vector<std::string>{servicePath});
        ASSERT_TRUE(mServices->waitForOutput("READY", 10000)) << mServices->output();
        mSm = android::defaultServiceManager();
        ASSERT_NE(mSm, nullptr);
    }

    void TearDown() override {
        if (mSm != nullptr) {
            android::sp<android::IBinder> echo = mSm->checkService(android::String16("tools.echo"));
            if (echo != nullptr) {
                android::Parcel data, reply;
                echo->transact(kExit, data, &reply);
            }
        }
        if (mServices) {
            EXPECT_EQ(mServices->wait(5000), 0) << mServices->output();
        }
    }

    // Runs `Tool` as `program args...` against this instance's service manager.
    template <typename Tool>
    ToolRun run(const char* program, std::vector<std::string> args) {
        std::ostringstream out, err;
        Tool tool(mSm, out, err);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program));
        for (std::string& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        ToolRun result;
        result.status = tool.main(static_cast<int>(args.size() + 1), argv.data());
        result.out = out.str();
        result.err = err.str();
        return result;
    }

    std::unique_ptr<hostbinder_test::RuntimeInstance> mRuntime;
    std::unique_ptr<hostbinder_test::ChildProcess> mServices;
    android::sp<android::IServiceManager> mSm;
};

}  // namespace tools_test
