/*
 * Multi-process test harness: a private runtime instance per test, helper processes with
 * captured output, and counters for leak checks.
 */
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hostbinder_test {

// Starts a private hostbinderd (binary from env HOSTBINDERD) on a fresh socket in a fresh
// temp dir, waits until ready, and sets HOSTBINDER_SOCKET in this process's environment so
// that this process and its children join it. Destructor stops it (SIGTERM, then SIGKILL)
// and removes the temp dir. An empty policy means no policy file.
class RuntimeInstance {
public:
    explicit RuntimeInstance(const std::string& permissionPolicy = "");
    ~RuntimeInstance();
    RuntimeInstance(const RuntimeInstance&) = delete;
    RuntimeInstance& operator=(const RuntimeInstance&) = delete;

    const std::string& socketPath() const;
    void setPolicy(const std::string& contents);  // rewrites the policy file
    pid_t pid() const;

private:
    std::string mDir;
    std::string mSocketPath;
    std::string mPolicyPath;
    pid_t mPid = -1;
};

// fork+exec of a helper executable with PR_SET_PDEATHSIG(SIGKILL); stdout+stderr captured.
class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv = {});
    ~ChildProcess();  // SIGKILL if still running, reap
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const;
    void kill(int sig = SIGKILL);
    // Exit code if it exited, 128+signal if killed, -1 on timeout.
    int wait(int timeoutMs = 10000);
    std::string output() const;  // captured output so far
    bool waitForOutput(const std::string& text, int timeoutMs = 5000);

private:
    void readerLoop();

    pid_t mPid = -1;
    int mOutFd = -1;
    int mStatus = -1;
    bool mReaped = false;
    bool mEof = false;
    mutable std::mutex mLock;
    std::string mOutput;
    std::thread mReader;
};

// Counts this process's open fds and threads (for leak checks in teardown).
int openFdCount();
// Entries of a directory, without "." and ".." (fds or tasks of a process in /proc); -1 when
// it cannot be read.
int countEntries(const std::string& dir);
// Open descriptors of files and memory (not sockets, epoll sets or event counters, which
// binder threads open for their connections).
int openFileFdCount();
int threadCount();

}  // namespace hostbinder_test
