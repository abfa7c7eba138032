#include "Children.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

namespace hostbinder_bench {

namespace {

constexpr int kReapMs = 5000;

// Every live child and the temp dirs, for the watchdog. Never destroyed: the watchdog thread
// may still use it while the process exits.
struct Registry {
    std::mutex lock;
    std::set<pid_t> pids;
    std::vector<std::string> dirs;
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
}

void registerChild(pid_t pid) {
    std::lock_guard<std::mutex> l(registry().lock);
    registry().pids.insert(pid);
}

void forgetChild(pid_t pid) {
    std::lock_guard<std::mutex> l(registry().lock);
    registry().pids.erase(pid);
}

void killAllChildrenAndRemoveDirs() {
    std::lock_guard<std::mutex> l(registry().lock);
    for (pid_t pid : registry().pids) kill(pid, SIGKILL);
    for (const std::string& dir : registry().dirs) {
        if (DIR* d = opendir(dir.c_str())) {
            while (dirent* e = readdir(d)) unlinkat(dirfd(d), e->d_name, 0);
            closedir(d);
        }
        rmdir(dir.c_str());
    }
}

// Reaps `pid` within `timeoutMs`; false if it is still there.
bool reapWithin(pid_t pid, int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    for (;;) {
        const pid_t r = waitpid(pid, nullptr, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR)) return true;
        if (nowMs() >= deadline) return false;
        usleep(1000);
    }
}

struct WatchdogState {
    std::mutex lock;
    std::condition_variable changed;
    std::string phase;
    int seconds = 0;
    int64_t deadlineMs = 0;  // 0: disarmed
    bool running = false;
};

WatchdogState& watchdog() {
    static WatchdogState* w = new WatchdogState;
    return *w;
}

[[noreturn]] void watchdogLoop() {
    WatchdogState& w = watchdog();
    std::unique_lock<std::mutex> l(w.lock);
    for (;;) {
        if (w.deadlineMs == 0) {
            w.changed.wait(l);
            continue;
        }
        const int64_t left = w.deadlineMs - nowMs();
        if (left > 0) {
            w.changed.wait_for(l, std::chrono::milliseconds(left));
            continue;
        }
        fprintf(stderr,
                "\nhostbinder_bench: FAILED: %s did not finish within %d s; the run is stuck "
                "and stops here\n",
                w.phase.c_str(), w.seconds);
        killAllChildrenAndRemoveDirs();
        _exit(2);
    }
}

const std::string& selfPath() {
    static const std::string path = [] {
        char buf[4096] = {};
        const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    }();
    return path;
}

}  // namespace

int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t nowMs() {
    return nowNs() / 1000000;
}

int msUntil(int64_t deadlineMs) {
    return static_cast<int>(std::max<int64_t>(0, deadlineMs - nowMs()));
}

std::string strprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    char buf[512];
    vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

// ---------------------------------------------------------------------------------------------

void Watchdog::arm(const std::string& phase, int seconds) {
    WatchdogState& w = watchdog();
    std::lock_guard<std::mutex> l(w.lock);
    if (!w.running) {
        std::thread(watchdogLoop).detach();
        w.running = true;
    }
    w.phase = phase;
    w.seconds = seconds;
    w.deadlineMs = nowMs() + int64_t(seconds) * 1000;
    w.changed.notify_all();
}

void Watchdog::removeOnFire(const std::string& dir) {
    std::lock_guard<std::mutex> l(registry().lock);
    registry().dirs.push_back(dir);
}

void Watchdog::disarm() {
    WatchdogState& w = watchdog();
    std::lock_guard<std::mutex> l(w.lock);
    w.deadlineMs = 0;
    w.changed.notify_all();
}

// ---------------------------------------------------------------------------------------------

Helper::Helper(std::vector<std::string> argv) : mProcess(std::move(argv)), mPid(mProcess.pid()) {
    registerChild(mPid);
}

std::unique_ptr<Helper> Helper::self(std::vector<std::string> args) {
    args.insert(args.begin(), selfPath());
    return std::make_unique<Helper>(std::move(args));
}

Helper::~Helper() {
    // ChildProcess kills and reaps it (bounded); from here on the watchdog leaves it alone.
    forgetChild(mPid);
}

std::string Helper::output() const {
    std::string out = mProcess.output();
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out.empty() ? "(nothing)" : out;
}

bool Helper::waitForLine(const std::string& prefix, int timeoutMs, std::string* line) {
    const int64_t deadline = nowMs() + timeoutMs;
    bool ended = false;
    for (;;) {
        const std::string out = mProcess.output();
        for (size_t start = 0, end; (end = out.find('\n', start)) != std::string::npos;
             start = end + 1) {
            if (end - start >= prefix.size() && out.compare(start, prefix.size(), prefix) == 0) {
                if (line != nullptr) *line = out.substr(start, end - start);
                return true;
            }
        }
        if (ended || nowMs() >= deadline) return false;
        // wait(0) reaps it if it has ended, and then collects the rest of its output.
        ended = mProcess.wait(0) != -1;
        if (!ended) usleep(2000);
    }
}

// ---------------------------------------------------------------------------------------------

ForkedPeer::ForkedPeer(void (*body)(int fd)) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        // Our end on descriptor 3, nothing else beyond stdio: the parent's connections stay
        // the parent's.
        if (dup2(sv[1], 3) < 0) _exit(1);
        close_range(4, ~0U, 0);
        body(3);
        _exit(0);
    }
    close(sv[1]);
    if (pid < 0) {
        close(sv[0]);
        return;
    }
    mFd = sv[0];
    mPid = pid;
    registerChild(pid);
}

ForkedPeer::~ForkedPeer() {
    if (mFd >= 0) close(mFd);
    if (mPid > 0) {
        forgetChild(mPid);
        kill(mPid, SIGKILL);
        reapWithin(mPid, kReapMs);
    }
}

}  // namespace hostbinder_bench
