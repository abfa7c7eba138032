// The client access layer across real processes. Each test starts its own runtime, a client
// process running one scenario (tovarin_client_scenario) and service processes
// (tovarin_client_test_service) that it kills and replaces; it checks what each process
// printed.
#include <hostbinder_test/Runtime.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;

namespace {

const char kDied[] = "Client's binder connection to Tovarin died!";

std::string path(const char* variable) {
    const char* value = getenv(variable);
    return value != nullptr ? value : "";
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// Lines of `text` that start with `prefix`, and where they are.
std::vector<size_t> find(const std::string& text, const std::string& prefix) {
    std::vector<size_t> at;
    const std::vector<std::string> all = lines(text);
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].rfind(prefix, 0) == 0) at.push_back(i);
    }
    return at;
}

// The first line that starts with `prefix`, or "".
std::string lineOf(const std::string& text, const std::string& prefix) {
    for (const std::string& line : lines(text)) {
        if (line.rfind(prefix, 0) == 0) return line;
    }
    return "";
}

// Log lines of a client are echoed by liblog too; the scenario's own echo starts the line.
std::vector<size_t> logLines(const std::string& text, int level, const std::string& tag,
                             const std::string& message) {
    return find(text, "LOG " + std::to_string(level) + " " + tag + " " + message);
}

class ClientTest : public ::testing::Test {
protected:
    std::unique_ptr<ChildProcess> startService(std::vector<std::string> args = {}) {
        args.insert(args.begin(), path("TOVARIN_CLIENT_SERVICE"));
        auto service = std::make_unique<ChildProcess>(args);
        EXPECT_TRUE(service->waitForOutput("READY", 10000)) << service->output();
        return service;
    }

    std::unique_ptr<ChildProcess> startClient(const std::string& scenario) {
        return std::make_unique<ChildProcess>(
                std::vector<std::string>{path("TOVARIN_CLIENT_SCENARIO"), scenario},
                std::vector<std::string>{"TOVARIN_LOG=*:D"});
    }

    static void killService(std::unique_ptr<ChildProcess>& service) {
        service->kill(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, service->wait(5000));
    }

    RuntimeInstance mRuntime;
};

// Concurrent first callers make one service-manager query and share one proxy; the cache
// answers later calls; after the service's death the next call looks it up again.
TEST_F(ClientTest, LookupIsCachedSharedAndClearedByDeath) {
    auto client = startClient("lookup");
    ASSERT_TRUE(client->waitForOutput("ABSENT", 10000)) << client->output();
    EXPECT_EQ("ABSENT empty=3 queries=3", lineOf(client->output(), "ABSENT"))
            << "an absent service is asked for on every call";

    auto service = startService();
    ASSERT_TRUE(client->waitForOutput("CACHED", 10000)) << client->output();
    EXPECT_EQ("CONCURRENT queries=1 nonnull=1 same=1", lineOf(client->output(), "CONCURRENT"));
    EXPECT_EQ("CACHED queries=1 same=1", lineOf(client->output(), "CACHED"));

    killService(service);
    ASSERT_TRUE(client->waitForOutput("DIED", 10000)) << client->output();
    auto replacement = startService();
    EXPECT_EQ(0, client->wait(10000)) << client->output();
    EXPECT_EQ(1u, logLines(client->output(), 6, "-", kDied).size()) << client->output();
    EXPECT_EQ("RECONNECTED queries=1 new=1 enabled=1", lineOf(client->output(), "RECONNECTED"));
}

// The service dies and a new one comes within the wait: every remembered raw data listener,
// then every remembered state change listener, is registered once with the new service, and
// events reach the application's listeners again. A listener registered while the service was
// away got -19 and is not among them.
TEST_F(ClientTest, ListenersReturnToARestartedService) {
    auto first = startService();
    auto client = startClient("restart");
    ASSERT_TRUE(client->waitForOutput("REGISTERED", 10000)) << client->output();
    EXPECT_EQ("REGISTERED 0 0 0 0", lineOf(client->output(), "REGISTERED"));
    EXPECT_EQ(2u, find(first->output(), "RAW_REGISTER").size()) << first->output();
    EXPECT_EQ(2u, find(first->output(), "STATE_REGISTER").size()) << first->output();

    killService(first);
    ASSERT_TRUE(client->waitForOutput("LATE", 10000)) << client->output();
    EXPECT_EQ("LATE -19 -19", lineOf(client->output(), "LATE"));

    auto second = startService({"--toggle-after", "2"});
    EXPECT_EQ(0, client->wait(20000)) << client->output() << second->output();
    EXPECT_EQ("EVENTS s1=1 s2=1 s3=0", lineOf(client->output(), "EVENTS"));
    usleep(200 * 1000);
    const std::string registered = second->output();
    const std::vector<size_t> raw = find(registered, "RAW_REGISTER");
    const std::vector<size_t> state = find(registered, "STATE_REGISTER");
    ASSERT_EQ(2u, raw.size()) << registered;
    ASSERT_EQ(2u, state.size()) << registered;
    EXPECT_LT(raw.back(), state.front()) << "raw data listeners come back first\n" << registered;
    // The client undid one registration of each kind, under the handles the new service gave.
    std::istringstream handles(
            lineOf(client->output(), "UNREGISTER ").substr(strlen("UNREGISTER")));
    int rawHandle = -1, stateHandle = -1;
    handles >> rawHandle >> stateHandle;
    EXPECT_EQ(1u, find(registered, "RAW_UNREGISTER " + std::to_string(rawHandle)).size());
    EXPECT_EQ(1u, find(registered, "STATE_UNREGISTER " + std::to_string(stateHandle)).size());
    EXPECT_NE(-1, stateHandle);

    // The lookup's notifier runs before the singleton's recovery, which therefore never sees
    // the dead proxy; no wait was given up.
    const std::string output = client->output();
    const std::vector<size_t> lookupDied = logLines(output, 6, "-", kDied);
    const std::vector<size_t> implDied = logLines(output, 6, "TovarinServiceImpl", kDied);
    ASSERT_EQ(1u, lookupDied.size()) << output;
    ASSERT_EQ(1u, implDied.size()) << output;
    EXPECT_LT(lookupDied[0], implDied[0]) << output;
    EXPECT_TRUE(find(output, "LOG 5 TovarinServiceImpl Unable to find service...").empty());
}

// The service found after a death dies before the client links to it: the client keeps no
// proxy that no death notice would ever replace, looks again, and its listener comes back with
// the next service.
TEST_F(ClientTest, ServiceDyingBeforeTheLinkIsLookedUpAgain) {
    auto first = startService();
    auto client = startClient("relink");
    ASSERT_TRUE(client->waitForOutput("REGISTERED", 10000)) << client->output();
    EXPECT_EQ("REGISTERED 0", lineOf(client->output(), "REGISTERED"));

    killService(first);
    auto second = startService();
    ASSERT_TRUE(client->waitForOutput("KILLED_AFTER_LOOKUP", 10000)) << client->output();
    EXPECT_EQ("KILLED_AFTER_LOOKUP 1", lineOf(client->output(), "KILLED_AFTER_LOOKUP"));
    killService(second);  // already dead: reaped
    auto third = startService({"--toggle-after", "1"});
    EXPECT_EQ(0, client->wait(25000)) << client->output() << third->output();
    EXPECT_EQ(1u, find(third->output(), "STATE_REGISTER").size()) << third->output();
}

// The client calls exit() while a pool thread is recovering from the service's death, and the
// recovery goes on after the static destructors have run: it still finds the new service and
// registers the listener; the singleton is still there to recover from a second death; the
// process exits cleanly.
TEST_F(ClientTest, RecoveryOutlivesStaticDestructorsAtExit) {
    auto first = startService();
    auto client = startClient("exit");
    ASSERT_TRUE(client->waitForOutput("REGISTERED", 10000)) << client->output();
    EXPECT_EQ("REGISTERED 0", lineOf(client->output(), "REGISTERED"));

    killService(first);
    ASSERT_TRUE(client->waitForOutput("EXITING", 10000)) << client->output();
    auto second = startService({"--toggle-after", "1"});
    ASSERT_TRUE(client->waitForOutput("RECOVERED_AT_EXIT", 15000)) << client->output();
    EXPECT_EQ("RECOVERED_AT_EXIT 1", lineOf(client->output(), "RECOVERED_AT_EXIT"));
    EXPECT_EQ(1u, find(second->output(), "STATE_REGISTER").size()) << second->output();

    killService(second);
    auto third = startService({"--toggle-after", "1"});
    EXPECT_EQ(0, client->wait(20000)) << client->output();
    EXPECT_EQ("RECOVERED_AGAIN 1", lineOf(client->output(), "RECOVERED_AGAIN"));
    EXPECT_EQ(1u, find(third->output(), "STATE_REGISTER").size()) << third->output();
}

// The service stays away past the five-second wait: one "Unable to find service...", and a
// later call finds a new service at once but registers nothing with it.
TEST_F(ClientTest, ServiceAwayLongerThanTheWait) {
    auto first = startService();
    auto client = startClient("away");
    ASSERT_TRUE(client->waitForOutput("REGISTERED", 10000)) << client->output();
    EXPECT_EQ("REGISTERED 0 0", lineOf(client->output(), "REGISTERED"));

    const auto died = std::chrono::steady_clock::now();
    killService(first);
    ASSERT_TRUE(client->waitForOutput("Unable to find service...", 12000)) << client->output();
    const auto gaveUp = std::chrono::steady_clock::now() - died;
    EXPECT_GE(gaveUp, std::chrono::milliseconds(4500));
    usleep(1500 * 1000);
    EXPECT_EQ(
            1u,
            logLines(client->output(), 5, "TovarinServiceImpl", "Unable to find service...").size())
            << client->output();

    auto second = startService();
    EXPECT_EQ(0, client->wait(10000)) << client->output();
    const std::string connected = lineOf(client->output(), "CONNECTED");
    ASSERT_FALSE(connected.empty()) << client->output();
    EXPECT_LT(std::stoi(connected.substr(strlen("CONNECTED took="))), 900) << "no wait";
    usleep(300 * 1000);
    EXPECT_TRUE(find(second->output(), "RAW_REGISTER").empty()) << second->output();
    EXPECT_TRUE(find(second->output(), "STATE_REGISTER").empty()) << second->output();
}

// Without a service every operation answers its fallback at once; getService() gives up after
// six lookups about five seconds apart, saying it waits before each pause.
TEST_F(ClientTest, FallbacksWithoutService) {
    auto client = startClient("fallbacks");
    ASSERT_EQ(0, client->wait(15000)) << client->output();
    const std::string output = client->output();
    const std::vector<std::string> expected = {
            "ENABLED 0",        "HARDWARE 0",
            "STATE 32 0",       "HANDLE -1 -1",
            "START -19",        "STOP -19",
            "STANDBY -19",      "CONFIGURE -19",
            "SETPID -19",       "SAMPLE -19 4242 1.5 untouched",
            "REGISTER -19 -19",
    };
    for (const std::string& line : expected) {
        const std::string prefix = line.substr(0, line.find(' '));
        EXPECT_EQ(line, lineOf(output, prefix + " ")) << output;
    }
    const std::string elapsed = lineOf(output, "ELAPSED ");
    ASSERT_FALSE(elapsed.empty());
    EXPECT_LT(std::stoi(elapsed.substr(strlen("ELAPSED "))), 500) << "fallbacks never wait";

    const std::string gave = lineOf(output, "GETSERVICE ");
    ASSERT_EQ(0u, gave.rfind("GETSERVICE null=1 took=", 0)) << output;
    const int took = std::stoi(gave.substr(strlen("GETSERVICE null=1 took=")));
    EXPECT_GE(took, 4900);
    EXPECT_LT(took, 7000);
    EXPECT_EQ(5u,
              logLines(output, 3, "TovarinServiceImpl", "Waiting for Tovarin Service...").size())
            << output;
}

// With a service: getHardwareState() hides the service's answer; other answers pass through;
// one listener registered twice reaches the service twice.
TEST_F(ClientTest, ForwardingWithService) {
    auto service = startService();
    auto client = startClient("forwarding");
    ASSERT_EQ(0, client->wait(10000)) << client->output();
    const std::string output = client->output();
    EXPECT_EQ("HARDWARE impl=0 service=7", lineOf(output, "HARDWARE"));
    EXPECT_EQ(0u, lineOf(output, "STATE ").rfind("STATE same=1 primary=", 0)) << output;
    EXPECT_NE("STATE same=1 primary=32", lineOf(output, "STATE ")) << "not the fallback";
    EXPECT_EQ("ENABLED 1", lineOf(output, "ENABLED"));
    EXPECT_EQ("TWICE 0 0", lineOf(output, "TWICE"));
    EXPECT_EQ(2u, find(service->output(), "STATE_REGISTER").size()) << service->output();
}

}  // namespace
