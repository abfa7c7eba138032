/*
 * Child processes for multi-process tests, written next to the tests that use them.
 *
 * A role is a function that runs in a process of its own: the test executable starts itself
 * again as `EXE --role NAME ARGS...`, and the harness's main() runs the role instead of the
 * tests. A role talks to its test through what it prints (captured by ChildProcess) and its
 * exit status.
 *
 *   TEST_ROLE(server) {             // args: the ARGS after the role's name
 *       ...publish a service...
 *       hostbinder_test::ready();   // prints "ready"; startRole() waits for it
 *       IPCThreadState::self()->joinThreadPool();
 *       return 0;
 *   }
 *   auto server = hostbinder_test::startRole("server");
 */
#pragma once

#include <hostbinder_test/Runtime.h>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace hostbinder_test {

constexpr int kDeadlineMs = 10000;

using RoleFunction = int (*)(const std::vector<std::string>& args);
bool registerRole(const char* name, RoleFunction function);

// Prints the line startRole() waits for, and flushes.
void ready();

// Starts role `name` of this executable with `args`; unless `waitReady` is false, waits
// (up to kDeadlineMs) for its "ready" line and returns null if it does not come, with the
// child's output added to the current test's failure.
std::unique_ptr<ChildProcess> startRole(const std::string& name, std::vector<std::string> args = {},
                                        bool waitReady = true,
                                        std::vector<std::string> extraEnv = {});

// Runs role `name` to its end and returns what it printed; a status other than 0 (or no end
// within kDeadlineMs) fails the current test. `pid`, if given, receives the child's pid.
std::string runRole(const std::string& name, std::vector<std::string> args = {},
                    pid_t* pid = nullptr, std::vector<std::string> extraEnv = {});

// Polls `condition` until it holds or `timeoutMs` passes; returns its last value.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = kDeadlineMs);

// Open fds and threads of this process when it was made; settled() waits until both are back
// to those counts (connections and threads of finished calls wind down asynchronously).
class ResourceBaseline {
public:
    ResourceBaseline();
    bool settled(int timeoutMs = 5000) const;
    std::string describe() const;  // "fds A -> B, threads C -> D"

private:
    int mFds;
    int mThreads;
};

// Path of this executable, to start it again in another role.
const std::string& selfPath();

}  // namespace hostbinder_test

#define TEST_ROLE(name)                                                                   \
    static int tovarinRole_##name(const std::vector<std::string>& args);                 \
    [[maybe_unused]] static const bool tovarinRoleRegistered_##name =                     \
            ::hostbinder_test::registerRole(#name, tovarinRole_##name);                   \
    static int tovarinRole_##name([[maybe_unused]] const std::vector<std::string>& args)
