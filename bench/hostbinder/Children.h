/*
 * The benchmark's child processes and the deadlines that keep a run bounded.
 *
 * Every child dies with the benchmark (PR_SET_PDEATHSIG) and is killed and reaped when the
 * object that owns it goes; every wait for a child has a deadline; and a phase that does not
 * finish in time ends the whole run (Watchdog): a message naming the phase, every child
 * killed, exit status 2. Children are started from the main thread only (the parent-death
 * signal follows the thread that forked).
 */
#pragma once

#include <hostbinder_test/Runtime.h>

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace hostbinder_bench {

int64_t nowMs();
int64_t nowNs();
// Milliseconds left until `deadlineMs` (on the nowMs() clock), at least 0.
int msUntil(int64_t deadlineMs);

std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Prints a line on stdout and flushes it (helpers report to the benchmark through their
// captured output).
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Ends the run when the armed phase is still running at its deadline. Armed and disarmed from
// the main thread; the countdown runs on a thread of its own.
class Watchdog {
public:
    static void arm(const std::string& phase, int seconds);
    static void disarm();
    // A temp dir (flat: files only) that the run removes itself when it ends normally, to be
    // removed when the watchdog ends it.
    static void removeOnFire(const std::string& dir);
};

// A helper program with captured output: this benchmark re-executed in one of its modes
// (`self`) or another program (dbus-daemon). Helpers report with whole lines on stdout.
class Helper {
public:
    explicit Helper(std::vector<std::string> argv);
    static std::unique_ptr<Helper> self(std::vector<std::string> args);
    ~Helper();  // SIGKILL unless it has ended, reaped within a deadline
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    pid_t pid() const { return mPid; }
    // Waits up to timeoutMs for an output line that starts with `prefix` and returns it in
    // `line`. Gives up early when the helper has ended without printing it.
    bool waitForLine(const std::string& prefix, int timeoutMs, std::string* line = nullptr);
    // What it printed so far, for failure messages.
    std::string output() const;

private:
    hostbinder_test::ChildProcess mProcess;
    pid_t mPid;
};

// A forked copy of this process that runs `body` on its end of a socketpair and exits when
// `body` returns. The child keeps no other descriptor than its end and stdio. `body` runs in
// a child of a possibly multi-threaded process: it may only make async-signal-safe calls
// (read, write, poll...).
class ForkedPeer {
public:
    explicit ForkedPeer(void (*body)(int fd));
    ~ForkedPeer();  // closes our end, SIGKILL, reaped within a deadline
    ForkedPeer(const ForkedPeer&) = delete;
    ForkedPeer& operator=(const ForkedPeer&) = delete;

    bool ok() const { return mPid > 0; }
    int fd() const { return mFd; }

private:
    int mFd = -1;
    pid_t mPid = -1;
};

}  // namespace hostbinder_bench
