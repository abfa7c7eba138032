#include <hostbinder_test/Roles.h>

#include <gtest/gtest.h>

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <thread>

namespace hostbinder_test {

namespace {

std::map<std::string, RoleFunction>& roles() {
    static auto* table = new std::map<std::string, RoleFunction>();
    return *table;
}

std::string gSelf;

}  // namespace

bool registerRole(const char* name, RoleFunction function) {
    roles()[name] = function;
    return true;
}

void ready() {
    printf("ready\n");
    fflush(stdout);
}

const std::string& selfPath() {
    return gSelf;
}

std::unique_ptr<ChildProcess> startRole(const std::string& name, std::vector<std::string> args,
                                        bool waitReady, std::vector<std::string> extraEnv) {
    if (roles().count(name) == 0) {
        ADD_FAILURE() << "no role named " << name << " in this executable";
        return nullptr;
    }
    args.insert(args.begin(), {selfPath(), "--role", name});
    auto child = std::make_unique<ChildProcess>(std::move(args), std::move(extraEnv));
    if (waitReady && !child->waitForOutput("ready\n", kDeadlineMs)) {
        ADD_FAILURE() << "role " << name << " did not get ready:\n" << child->output();
        return nullptr;
    }
    return child;
}

std::string runRole(const std::string& name, std::vector<std::string> args, pid_t* pid,
                    std::vector<std::string> extraEnv) {
    auto child = startRole(name, std::move(args), false, std::move(extraEnv));
    if (!child) return "";
    if (pid != nullptr) *pid = child->pid();
    const int status = child->wait(kDeadlineMs);
    EXPECT_EQ(0, status) << "role " << name << ":\n" << child->output();
    return child->output();
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

ResourceBaseline::ResourceBaseline() : mFds(openFdCount()), mThreads(threadCount()) {}

bool ResourceBaseline::settled(int timeoutMs) const {
    return waitUntil([this] { return openFdCount() == mFds && threadCount() == mThreads; },
                     timeoutMs);
}

std::string ResourceBaseline::describe() const {
    return "fds " + std::to_string(mFds) + " -> " + std::to_string(openFdCount()) + ", threads " +
           std::to_string(mThreads) + " -> " + std::to_string(threadCount());
}

// The test executables' main: `--role NAME ARGS...` runs a role, anything else the tests.
int runMain(int argc, char** argv) {
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    gSelf = n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string(argv[0]);
    if (argc >= 3 && strcmp(argv[1], "--role") == 0) {
        auto it = roles().find(argv[2]);
        if (it == roles().end()) {
            fprintf(stderr, "no role named %s\n", argv[2]);
            return 2;
        }
        const int status = it->second(std::vector<std::string>(argv + 3, argv + argc));
        fflush(stdout);
        fflush(stderr);
        return status;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

}  // namespace hostbinder_test
