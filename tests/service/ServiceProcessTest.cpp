/*
 * The tracking service across real processes: a server process publishes the service over a
 * recording facade; client processes call it, die, misbehave. Each test has its own runtime.
 */
#include <gtest/gtest.h>
#include <hostbinder_test/Runtime.h>
#include <utils/Errors.h>

#include <ctype.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace {

using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;

constexpr int kTimeoutMs = 10000;
constexpr char kControl[] = "com.morvel.permission.TOVARIN_CONTROL";
constexpr char kDump[] = "android.permission.DUMP";

std::string helper() {
    const char* path = getenv("TOVARIN_SERVICE_HELPER");
    return path != nullptr ? path : "";
}

std::string grants(std::initializer_list<const char*> permissions) {
    std::string policy;
    for (const char* permission : permissions) policy += std::string("0 ") + permission + "\n";
    return policy;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void expectLines(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) EXPECT_TRUE(contains(text, part)) << part << "\n" << text;
}

// The digits that follow `key` in `text`; empty when `key` is absent.
std::string numberAfter(const std::string& text, const std::string& key) {
    const size_t start = text.find(key);
    if (start == std::string::npos) return "";
    size_t end = start + key.size();
    while (end < text.size() &&
           (isdigit(static_cast<unsigned char>(text[end])) || text[end] == '-')) {
        ++end;
    }
    return text.substr(start + key.size(), end - start - key.size());
}

class ServiceProcessTest : public ::testing::Test {
protected:
    void startRuntime(const std::string& policy) {
        ASSERT_FALSE(helper().empty()) << "TOVARIN_SERVICE_HELPER is not set";
        mRuntime = std::make_unique<RuntimeInstance>(policy);
        mServer = std::make_unique<ChildProcess>(std::vector<std::string>{helper(), "server"});
        ASSERT_TRUE(mServer->waitForOutput("server ready", kTimeoutMs)) << mServer->output();
    }

    // Runs a client mode to its end and returns what it printed.
    std::string run(std::vector<std::string> args, pid_t* pid = nullptr) {
        args.insert(args.begin(), helper());
        ChildProcess client(args);
        EXPECT_EQ(0, client.wait(kTimeoutMs)) << client.output();
        if (pid != nullptr) *pid = client.pid();
        return client.output();
    }

    std::string probe() { return run({"probe"}); }

    // Probes until `part` shows up.
    std::string probeUntil(const std::string& part) {
        std::string report;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        do {
            report = probe();
            if (contains(report, part)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        } while (std::chrono::steady_clock::now() < deadline);
        return report;
    }

    void TearDown() override {
        if (mServer) {
            // The server must have survived whatever the test did to it.
            EXPECT_TRUE(contains(probe(), "probe done"));
            mServer->kill(SIGKILL);
            mServer->wait(kTimeoutMs);
        }
    }

    std::unique_ptr<RuntimeInstance> mRuntime;
    std::unique_ptr<ChildProcess> mServer;
};

TEST_F(ServiceProcessTest, EveryOperationAcrossProcesses) {
    startRuntime(grants({kControl, kDump}));
    pid_t pid = -1;
    const std::string out = run({"operations"}, &pid);
    expectLines(out, {"enabled=1", "handle=0/-1", "setConfiguration=0", "start=0",
                      "sample=0 text=simulated timestamp>0=1", "standby=0", "stop=0", "setPid=0",
                      "released", "registerRawDataListener=-1 handle=-1",
                      "token alive while held=1", "token destroyed after release=1",
                      "operations done"});
    // The information lines name the calling process.
    const std::string logged = "log: 4|TovarinBnTovarinService|" + helper() + "(" +
                               std::to_string(pid) + "): head tracker (0) - ";
    expectLines(probe(), {"call: setConfiguration 0 3 2 bench",
                          "call: releaseHeadTrackerHandle 0 -1", "records state=0 poller=0",
                          logged + "started",
                          logged + "setConfiguration to debugString=bench; fidelity=3; filter=2"});
}

TEST_F(ServiceProcessTest, KilledClientIsCleanedUp) {
    startRuntime(grants({kControl, kDump}));
    ChildProcess client({helper(), "hold"});
    ASSERT_TRUE(client.waitForOutput("held", kTimeoutMs)) << client.output();
    const std::string held = client.output();
    ASSERT_TRUE(contains(held, "held status=0 ")) << held;
    const std::string listener = numberAfter(held, "listener=");
    const std::string tracker = numberAfter(held, "tracker=");
    ASSERT_FALSE(listener.empty());
    ASSERT_NE("-1", tracker);
    EXPECT_TRUE(contains(probe(), "records state=1 poller=1"));

    const std::string name = helper() + "(" + std::to_string(client.pid()) + ")";
    client.kill(SIGKILL);
    client.wait(kTimeoutMs);

    const std::string logged = "log: 6|TovarinBnTovarinService|" + name + ": ";
    expectLines(probeUntil("records state=0 poller=0"),
                {"records state=0 poller=0", "call: unregisterStateChangeListener " + listener,
                 "call: releaseHeadTrackerHandle " + tracker + " -1",
                 logged + "state change listener client died",
                 logged + "head tracking polling client died"});
    // The tracker is free again for the next client.
    EXPECT_TRUE(contains(run({"operations"}), "handle=" + tracker + "/-1"));
}

// A tracker handed to one client is that client's until it lets go: another client naming it
// is refused before the facade, and told so in the log; a tracker handed to no one still
// reaches the facade from anyone.
TEST_F(ServiceProcessTest, TrackerIsUsableOnlyByTheProcessItWasHandedTo) {
    startRuntime(grants({kControl, kDump}));
    ChildProcess holder({helper(), "hold"});
    ASSERT_TRUE(holder.waitForOutput("held", kTimeoutMs)) << holder.output();
    const std::string held = numberAfter(holder.output(), "tracker=");
    ASSERT_EQ("0", held) << holder.output();

    pid_t intruder = -1;
    const std::string refused = std::to_string(android::INVALID_OPERATION);
    expectLines(run({"intrude", held, "1"}, &intruder),
                {"intruded 0: " + refused + " " + refused + " " + refused + " " + refused + " " +
                 refused});
    const std::string report = probe();
    for (const char* call :
         {"start", "stop", "standby", "setConfiguration", "sample", "releaseHeadTrackerHandle"}) {
        EXPECT_FALSE(contains(report, std::string("call: ") + call + " 0")) << report;
        EXPECT_TRUE(contains(report, std::string("call: ") + call + " 1")) << report;
    }
    const std::string warning = "log: 5|TovarinBnTovarinService|" + helper() + "(" +
                                std::to_string(intruder) +
                                "): head tracker (0) is not held by this process";
    size_t warnings = 0;
    for (size_t at = report.find(warning); at != std::string::npos;
         at = report.find(warning, at + 1)) {
        ++warnings;
    }
    EXPECT_EQ(6u, warnings) << report;
    EXPECT_FALSE(contains(report, "head tracker (1) is not held")) << report;
    EXPECT_TRUE(contains(report, "records state=1 poller=1")) << report;

    // Once its holder is gone, the tracker is free for the next client.
    holder.kill(SIGKILL);
    holder.wait(kTimeoutMs);
    probeUntil("records state=0 poller=0");
    EXPECT_TRUE(contains(run({"operations"}), "handle=0/-1"));
}

TEST_F(ServiceProcessTest, StateChangeEventsArriveInOrder) {
    startRuntime(grants({kControl, kDump}));
    expectLines(run({"events", "12"}),
                {"register=0", "events 010101010101 ordered=1", "unregistered handle=-1"});
    EXPECT_TRUE(contains(probe(), "records state=0 poller=0"));
}

TEST_F(ServiceProcessTest, EnabledStateNeedsTheControlPermission) {
    startRuntime(grants({kDump}));
    ChildProcess client({helper(), "setenabled", "0"});
    ASSERT_EQ(0, client.wait(kTimeoutMs));
    EXPECT_TRUE(contains(client.output(), "enabled=1")) << client.output();
    const std::string report = probe();
    EXPECT_FALSE(contains(report, "call: setEnabledState")) << report;
    expectLines(report, {"log: 6|TovarinPermission|Permission Error: " + helper() + "(" +
                         std::to_string(client.pid()) +
                         ") must have permission \"com.morvel.permission.TOVARIN_CONTROL\" /> "
                         "before calling setEnabled"});

    mRuntime->setPolicy(grants({kControl}));
    EXPECT_TRUE(contains(run({"setenabled", "0"}), "enabled=0"));
}

TEST_F(ServiceProcessTest, MalformedRequestsGetPlatformStatuses) {
    startRuntime(grants({kControl, kDump}));
    expectLines(run({"protocol"}),
                {"wrong token status=" + std::to_string(android::PERMISSION_DENIED) + " reply=0",
                 "code 16 status=" + std::to_string(android::UNKNOWN_TRANSACTION)});
}

TEST_F(ServiceProcessTest, DumpReportNeedsTheDumpPermission) {
    const char* dumpsys = getenv("DUMPSYS");
    ASSERT_NE(nullptr, dumpsys);
    startRuntime(grants({kControl, kDump}));
    {
        ChildProcess tool({dumpsys, "morvel.tovarin.service"});
        ASSERT_EQ(0, tool.wait(kTimeoutMs));
        expectLines(tool.output(), {"Tovarin Debug Diagnostics:\nframes=30",
                                    "\n\nTovarin Overrides:\nfidelity=3"});
        EXPECT_FALSE(contains(tool.output(), "Error Diagnostics")) << tool.output();
    }
    mRuntime->setPolicy(grants({kControl}));
    ChildProcess tool({dumpsys, "morvel.tovarin.service"});
    tool.wait(kTimeoutMs);
    expectLines(tool.output(), {"Permission Denial: can't dump Tovarin from pid=" +
                                std::to_string(tool.pid()) + ", uid=0\n"});
    EXPECT_FALSE(contains(tool.output(), "Tovarin Debug Diagnostics")) << tool.output();
}

TEST_F(ServiceProcessTest, HostileClientCannotBringTheServiceDown) {
    startRuntime(grants({kControl, kDump}));
    for (const char* seed : {"1", "2", "3"}) {
        const std::string out = run({"hostile", seed, "700"});
        EXPECT_TRUE(contains(out, "hostile done alive=1 enabled-answers=1")) << out;
    }
    // Normal service afterwards.
    EXPECT_TRUE(contains(run({"protocol"}), "code 16 status="));
}

// A one-way call gets a reply parcel to write into, as on the platform, so no stub of the
// product can be brought down by a caller that asks for no answer.
TEST_F(ServiceProcessTest, OneWayCallsWithEveryCodeLeaveEveryStubAnswering) {
    startRuntime(grants({kControl, kDump}));
    for (const char* target : {"service", "debug", "state-listener", "raw-listener", "poller"}) {
        SCOPED_TRACE(target);
        EXPECT_TRUE(contains(run({"oneway", target}),
                             std::string("oneway ") + target + " handled=25/25 answers=1"))
                << mServer->output();
        if (mServer->wait(0) != -1) {
            ADD_FAILURE() << "the server died";
            mServer = std::make_unique<ChildProcess>(std::vector<std::string>{helper(), "server"});
            ASSERT_TRUE(mServer->waitForOutput("server ready", kTimeoutMs));
        }
    }
}

TEST_F(ServiceProcessTest, TovarindServesTheSimulatedTracker) {
    const char* tovarind = getenv("TOVARIND");
    ASSERT_NE(nullptr, tovarind);
    mRuntime = std::make_unique<RuntimeInstance>(grants({kControl, kDump}));
    ChildProcess daemon({tovarind});
    ASSERT_TRUE(daemon.waitForOutput("tovarind: serving morvel.tovarin.service", kTimeoutMs))
            << daemon.output();
    expectLines(run({"operations"}),
                {"handle=0/-1", "start=0", "sample=0 text=simulated",
                 "registerRawDataListener=-1 handle=-1", "token destroyed after release=1"});
    EXPECT_TRUE(contains(run({"events", "4"}), "events 0101 ordered=1"));
}

}  // namespace
