// tovarinctl through its TovarinCtl class, against a tovarind process, with captured output.
#include "TovarinCtl.h"

#include <binder/IServiceManager.h>

#include <hostbinder_test/Runtime.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

using morvel::tovarin::binder::TovarinCtl;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

hostbinder_test::RuntimeInstance* gRuntime = nullptr;
hostbinder_test::ChildProcess* gService = nullptr;

class TovarindEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        gRuntime = new hostbinder_test::RuntimeInstance();
        gService = new hostbinder_test::ChildProcess({getenv("TOVARIND")});
        ASSERT_TRUE(gService->waitForOutput("serving", 10000)) << gService->output();
    }
    void TearDown() override {
        delete gService;
        delete gRuntime;
    }
};

::testing::Environment* const gEnvironment =
        ::testing::AddGlobalTestEnvironment(new TovarindEnvironment());

struct Result {
    int status;
    std::string out;
    std::string err;
};

Result runCtl(const std::vector<std::string>& args) {
    char* outText = nullptr;
    char* errText = nullptr;
    size_t outSize = 0, errSize = 0;
    FILE* out = open_memstream(&outText, &outSize);
    FILE* err = open_memstream(&errText, &errSize);
    std::vector<const char*> argv = {"tovarinctl"};
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    TovarinCtl ctl(android::defaultServiceManager(), out, err);
    Result result;
    result.status = ctl.run(static_cast<int>(argv.size()), argv.data());
    fclose(out);
    fclose(err);
    result.out.assign(outText, outSize);
    result.err.assign(errText, errSize);
    free(outText);
    free(errText);
    return result;
}

TEST(TovarinCtl, UsageErrors) {
    const std::vector<std::vector<std::string>> cases = {
            {},
            {"bogus"},
            {"status", "extra"},
            {"enable"},
            {"enable", "2"},
            {"track", "soon"},
            {"listen", "-1"},
            {"override"},
            {"override", "set", "key"},
            {"override", "clear"},
            {"diag", "get"},
            {"diag", "get", "debug"},
            {"diag", "set", "0", "key"},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const Result result = runCtl(args);
        EXPECT_EQ(2, result.status);
        EXPECT_THAT(result.err, StartsWith("usage: tovarinctl"));
        EXPECT_EQ("", result.out);
    }
}

TEST(TovarinCtl, StatusAndEnable) {
    EXPECT_EQ(0, runCtl({"enable", "0"}).status);
    Result status = runCtl({"status"});
    EXPECT_EQ(0, status.status);
    EXPECT_THAT(status.out, StartsWith("enabled: 0\ntracking state: "));
    const Result enabled = runCtl({"enable", "1"});
    EXPECT_EQ(0, enabled.status);
    EXPECT_EQ("enabled: 1\n", enabled.out);
    EXPECT_THAT(runCtl({"status"}).out, StartsWith("enabled: 1\n"));
}

TEST(TovarinCtl, OverridesAndDiagnostics) {
    EXPECT_EQ(0, runCtl({"override", "set", "ctl.key", "wert-ä"}).status);
    EXPECT_EQ("wert-ä\n", runCtl({"override", "get", "ctl.key"}).out);
    EXPECT_THAT(runCtl({"override", "get"}).out, HasSubstr("ctl.key=wert-ä"));
    EXPECT_EQ(0, runCtl({"override", "clear", "ctl.key"}).status);
    EXPECT_EQ("\n", runCtl({"override", "get", "ctl.key"}).out);

    EXPECT_EQ(0, runCtl({"diag", "set", "1", "ctl.diag", "e"}).status);
    EXPECT_EQ("e\n", runCtl({"diag", "get", "1", "ctl.diag"}).out);
    EXPECT_EQ("\n", runCtl({"diag", "get", "0", "ctl.diag"}).out);
    EXPECT_THAT(runCtl({"diag", "get", "1"}).out, HasSubstr("ctl.diag=e"));
}

TEST(TovarinCtl, TrackPrintsSamplesAndReleasesTheTracker) {
    for (int round = 0; round < 6; ++round) {  // more rounds than trackers: each is released
        const Result result = runCtl({"track", "0.25"});
        ASSERT_EQ(0, result.status) << result.err;
        EXPECT_THAT(result.out, StartsWith("sample timestamp="));
    }
}

// The service dies on the head tracker request: the tool says so, not that none is free.
TEST(TovarinCtl, TrackSaysWhenTheServiceDiedOnTheHandleRequest) {
    delete gService;  // tovarind, killed
    gService = new hostbinder_test::ChildProcess(
            {getenv("TOVARIN_CLIENT_SERVICE"), "--die-on-code", "9"});  // 9: the request
    ASSERT_TRUE(gService->waitForOutput("READY", 10000)) << gService->output();
    const Result result = runCtl({"track", "0.25"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("tovarinctl: morvel.tovarin.service died before handing out a head tracker\n",
              result.err);

    delete gService;
    gService = new hostbinder_test::ChildProcess({getenv("TOVARIND")});
    ASSERT_TRUE(gService->waitForOutput("serving", 10000)) << gService->output();
}

TEST(TovarinCtl, ListenPrintsStateChanges) {
    Result listened;
    std::thread listener([&] { listened = runCtl({"listen", "1.5"}); });
    usleep(500 * 1000);
    runCtl({"enable", "0"});
    runCtl({"enable", "1"});
    listener.join();
    EXPECT_EQ(0, listened.status) << listened.err;
    EXPECT_THAT(listened.out, StartsWith("listening\n"));
    EXPECT_THAT(listened.out, HasSubstr("event timestamp="));
}

}  // namespace
