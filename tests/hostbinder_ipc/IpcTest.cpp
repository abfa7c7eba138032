// Multi-process scenarios of the hostbinder runtime. Each test starts its own runtime
// instance and helper processes (hostbinder_ipc_helper), and checks what they report.
#include <hostbinder_test/Runtime.h>

#include <gtest/gtest.h>
#include <utils/Errors.h>

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>

using hostbinder_test::ChildProcess;
using hostbinder_test::RuntimeInstance;

namespace {

std::string helperPath() {
    const char* p = getenv("HOSTBINDER_IPC_HELPER");
    return p != nullptr ? p : "";
}

std::unique_ptr<ChildProcess> startHelper(std::vector<std::string> args,
                                          const std::string& ready = "") {
    args.insert(args.begin(), helperPath());
    auto child = std::make_unique<ChildProcess>(args);
    if (!ready.empty()) {
        EXPECT_TRUE(child->waitForOutput(ready, 10000)) << args[1] << ": " << child->output();
    }
    return child;
}

// Runs a helper to completion and returns its output.
std::string runHelper(std::vector<std::string> args, int timeoutMs = 30000) {
    args.insert(args.begin(), helperPath());
    ChildProcess child(args);
    const int code = child.wait(timeoutMs);
    EXPECT_EQ(0, code) << child.output();
    return child.output();
}

// The `count` space-separated words after the first `key=` in helper output.
std::vector<std::string> words(const std::string& out, const std::string& key, size_t count) {
    size_t pos = 0;
    for (;;) {
        pos = out.find(key + "=", pos);
        if (pos == std::string::npos) return {};
        if (pos == 0 || out[pos - 1] == ' ' || out[pos - 1] == '\n') break;
        pos++;
    }
    std::vector<std::string> result;
    size_t start = pos + key.size() + 1;
    while (result.size() < count) {
        size_t end = out.find_first_of(" \n", start);
        result.push_back(out.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos || out[end] == '\n') break;
        start = end + 1;
    }
    return result;
}

// The value of `key=` in helper output (up to the next space or end of line).
std::string field(const std::string& out, const std::string& key) {
    std::vector<std::string> w = words(out, key, 1);
    return w.empty() ? "<missing " + key + ">" : w[0];
}

// Every line of `out` that starts with `prefix`.
std::vector<std::string> linesStartingWith(const std::string& out, const std::string& prefix) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        std::string line = out.substr(start, end - start);
        if (line.rfind(prefix, 0) == 0) lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

int64_t monotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

class IpcTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(helperPath().empty()) << "HOSTBINDER_IPC_HELPER is not set";
        mFdsBefore = hostbinder_test::openFdCount();
    }
    void TearDown() override {
        mRuntime.reset();
        EXPECT_EQ(mFdsBefore, hostbinder_test::openFdCount());
    }
    void startRuntime(const std::string& policy = "") {
        mRuntime = std::make_unique<RuntimeInstance>(policy);
    }

    std::unique_ptr<RuntimeInstance> mRuntime;
    int mFdsBefore = 0;
};

TEST_F(IpcTest, ObjectsKeepTheirIdentityAcrossThreeProcesses) {
    startRuntime();
    auto holder = startHelper({"serve", "holder"}, "ready");
    auto owner = startHelper({"owner", "holder"}, "stored");
    EXPECT_EQ("1", field(owner->output(), "back_is_original"));
    const std::string out = runHelper({"third", "holder"});
    EXPECT_EQ("1", field(out, "is_proxy"));
    EXPECT_EQ("1", field(out, "same_proxy"));
    EXPECT_EQ("1", field(out, "same_in_holder"));
    EXPECT_EQ("4242", field(out, "echo"));
    // The call on the passed-on reference reached the owner, from the third process.
    EXPECT_NE(std::to_string(holder->pid()), field(out, "owner_saw"));
}

TEST_F(IpcTest, LocalObjectLivesWhileRemoteHoldersDo) {
    startRuntime();
    auto service = startHelper({"serve", "objects"}, "ready");
    // Released by the holder: destroyed in its own process.
    auto holder = startHelper({"hold", "objects"}, "holding");
    EXPECT_EQ("1", field(holder->output(), "alive"));
    ASSERT_TRUE(holder->waitForOutput("released", 5000));
    EXPECT_EQ("1", field(holder->output(), "still_alive"));
    EXPECT_TRUE(service->waitForOutput("destroyed 0", 3000)) << service->output();
    // Holder killed while holding: destroyed too.
    auto killed = startHelper({"hold", "objects"}, "holding");
    EXPECT_EQ(std::string::npos, service->output().find("destroyed 1"));
    killed->kill(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, killed->wait());
    EXPECT_TRUE(service->waitForOutput("destroyed 1", 3000)) << service->output();
}

TEST_F(IpcTest, OnewayCallsToOneObjectArriveInOrder) {
    startRuntime();
    auto service = startHelper({"serve", "ordered"}, "ready");
    const std::string out = runHelper({"oneway", "ordered", "10", "1000"}, 60000);
    EXPECT_EQ("10000", field(out, "received"));
    EXPECT_EQ("0", field(out, "out_of_order"));
}

TEST_F(IpcTest, OnewayFloodIntoAStalledReceiverIsDeliveredOrRefusedNeverLost) {
    startRuntime();
    auto service = startHelper({"serve", "sink"}, "ready");
    runHelper({"gate", "sink", "1"});
    // Three processes send 64 KB one-way calls while the receiver holds them back: far more
    // than its queue takes. Each sender numbers its calls by those taken so far.
    std::vector<std::unique_ptr<ChildProcess>> senders;
    for (int i = 0; i < 3; i++) {
        senders.push_back(startHelper({"burst", "sink", std::to_string(i), "400", "65536"}));
    }
    int taken = 0, refused = 0;
    for (auto& sender : senders) {
        ASSERT_EQ(0, sender->wait(60000)) << sender->output();
        taken += std::stoi(field(sender->output(), "taken"));
        refused += std::stoi(field(sender->output(), "refused"));
        EXPECT_EQ("0", field(sender->output(), "other")) << sender->output();
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(taken, 0);
    // Once let go, the receiver gets exactly the calls that were taken, each sender's in order.
    const std::string out = runHelper({"gate", "sink", "0", std::to_string(taken)}, 60000);
    EXPECT_EQ(std::to_string(taken), field(out, "received"));
    EXPECT_EQ("0", field(out, "out_of_order"));
}

TEST_F(IpcTest, NestedCallsRunOnTheWaitingThreadWithOnePoolThread) {
    startRuntime();
    auto service = startHelper({"serve", "bouncer", "0"}, "ready");
    const std::string out = runHelper({"nested", "bouncer", "5"});
    EXPECT_EQ(std::to_string(android::NO_ERROR), field(out, "err"));
    EXPECT_EQ("5", field(out, "hops"));
    EXPECT_EQ("6", field(out, "tids"));
    EXPECT_EQ("1", field(out, "a_on_caller"));
    EXPECT_EQ("1", field(out, "b_same_thread"));
}

TEST_F(IpcTest, CalleeSeesTheCallersKernelIdentity) {
    startRuntime();
    auto service = startHelper({"serve", "who"}, "ready");
    std::vector<std::string> uids{std::to_string(getuid())};
    if (getuid() == 0) uids.push_back("4321");
    for (const std::string& uid : uids) {
        std::vector<std::string> args{helperPath(), "whoami", "who"};
        if (uid != std::to_string(getuid())) args.push_back(uid);
        ChildProcess child(args);
        ASSERT_EQ(0, child.wait()) << child.output();
        const std::string out = child.output();
        const std::vector<std::string> self{std::to_string(child.pid()), uid};
        EXPECT_EQ(self, words(out, "seen", 2)) << out;
        EXPECT_EQ(self, words(out, "outside", 2)) << out;
        EXPECT_EQ(self, words(out, "restored", 2)) << out;
    }
}

TEST_F(IpcTest, KilledProcessNotifiesInLinkOrderAndFailsItsCallers) {
    startRuntime();
    auto victim = startHelper({"serve", "victim"}, "ready");
    auto watcher = startHelper({"serve", "watcher"}, "ready");
    auto client = startHelper({"death", "victim", "watcher"}, "linked");
    const int64_t killedAt = monotonicMs();
    victim->kill(SIGKILL);
    ASSERT_EQ(0, client->wait(20000)) << client->output();
    const std::string out = client->output();
    EXPECT_EQ("0,1,3,4,5", field(out, "local_log"));  // recipient 2 was unlinked
    EXPECT_EQ("0,1,2", field(out, "remote_log"));
    EXPECT_EQ("1", field(out, "pending_dead"));
    EXPECT_EQ("1", field(out, "relink_dead"));
    EXPECT_EQ("1", field(out, "call_dead"));
    EXPECT_EQ("1", field(out, "entry_gone"));
    const std::vector<std::string> notices = linesStartingWith(out, "died ");
    EXPECT_EQ(5u, notices.size()) << out;
    for (const std::string& line : notices) {
        EXPECT_LT(std::stoll(field(line, "at")) - killedAt, 100) << out;
    }
}

TEST_F(IpcTest, FileDescriptorsReachTheOtherProcess) {
    startRuntime();
    auto service = startHelper({"serve", "files"}, "ready");
    char path[] = "/tmp/hostbinder-fd-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(8, write(fd, "fd-bytes", 8));
    close(fd);
    const std::string out = runHelper({"fd", "files", path});
    unlink(path);
    EXPECT_EQ("0", field(out, "err"));
    EXPECT_EQ("fd-bytes", field(out, "read"));
}

TEST_F(IpcTest, TransactionsOverOneMegabyteFailWithoutHarm) {
    startRuntime();
    auto service = startHelper({"serve", "limits"}, "ready");
    const std::string out = runHelper({"limits", "limits"});
    EXPECT_EQ("1", field(out, "big_call"));
    EXPECT_EQ("1", field(out, "big_reply"));
    EXPECT_EQ("1", field(out, "half_mb"));
    EXPECT_EQ(std::to_string(512 * 1024), field(out, "size"));
    EXPECT_EQ("7", field(out, "after"));
}

TEST_F(IpcTest, DumpTransactionReachesTheObjectsDump) {
    startRuntime();
    auto service = startHelper({"serve", "dumped"}, "ready");
    const std::string out = runHelper({"dump", "dumped", "-a", "--verbose"});
    EXPECT_EQ("0", field(out, "err"));
    EXPECT_NE(std::string::npos, out.find("out=dump: -a --verbose")) << out;
}

TEST_F(IpcTest, ServiceManagerCodes) {
    startRuntime();
    const std::string out = runHelper({"sm"});
    EXPECT_EQ("1", field(out, "check_missing"));
    EXPECT_LT(std::stoi(field(out, "ms")), 200);
    EXPECT_EQ("1", field(out, "get_waited"));
    EXPECT_EQ("0", field(out, "add"));
    EXPECT_EQ("1", field(out, "add_null"));
    EXPECT_EQ("1", field(out, "check_local"));
    EXPECT_EQ("permission;sm.a;sm.late;", field(out, "list"));
    EXPECT_EQ("1", field(out, "unknown_code"));
    EXPECT_EQ("android.os.IServiceManager", field(out, "descriptor"));
    EXPECT_EQ("1", field(out, "get_missing"));
    const std::vector<std::string> missing = words(out, "get_missing", 2);
    ASSERT_EQ(2u, missing.size()) << out;
    const int waited = std::stoi(missing[1].substr(missing[1].find('=') + 1));
    EXPECT_GE(waited, 4900);
    EXPECT_LT(waited, 7000);
}

TEST_F(IpcTest, PermissionsFollowThePolicyFile) {
    struct Case {
        const char* policy;  // null: no policy file
        const char* uid;
        const char* expected;  // for CAMERA, INTERNET, OTHER
    };
    const Case cases[] = {
            {nullptr, "0", "111"},
            {nullptr, "1000", "000"},
            {"1000 perm.CAMERA\n* perm.INTERNET  # anyone\n", "1000", "110"},
            {"1000 perm.CAMERA\n* perm.INTERNET\n", "0", "010"},
            {"# nothing\n2000 *\n", "2000", "111"},
            {"# nothing\n2000 *\n", "0", "000"},
    };
    for (const Case& c : cases) {
        startRuntime(c.policy ? c.policy : "");
        if (c.policy != nullptr && c.policy[0] == '\0') mRuntime->setPolicy("");
        const std::string out =
                runHelper({"perm", c.uid, "perm.CAMERA", "perm.INTERNET", "perm.OTHER"});
        EXPECT_EQ(c.expected, field(out, "granted"))
                << "policy " << (c.policy ? c.policy : "(none)") << " uid " << c.uid;
        mRuntime.reset();
    }
    // A service checks its caller: the uid is the caller's own, from the kernel.
    if (getuid() == 0) {
        startRuntime("4321 perm.CAMERA\n");
        auto service = startHelper({"serve", "checker"}, "ready");
        std::string out = runHelper({"caller-perm", "checker", "4321", "perm.CAMERA"});
        EXPECT_EQ("1", field(out, "granted")) << out;
        EXPECT_EQ("4321", field(out, "uid"));
        out = runHelper({"caller-perm", "checker", "4322", "perm.CAMERA"});
        EXPECT_EQ("0", field(out, "granted")) << out;
        service.reset();
        mRuntime.reset();
    }
    // The file is read again when it changes.
    startRuntime("1000 perm.CAMERA\n");
    EXPECT_EQ("1", field(runHelper({"perm", "1000", "perm.CAMERA"}), "granted"));
    mRuntime->setPolicy("1001 perm.CAMERA\n");
    EXPECT_EQ("0", field(runHelper({"perm", "1000", "perm.CAMERA"}), "granted"));
    EXPECT_EQ("1", field(runHelper({"perm", "1001", "perm.CAMERA"}), "granted"));
}

}  // namespace
