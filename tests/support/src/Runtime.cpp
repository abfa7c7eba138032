#include <hostbinder_test/Runtime.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

namespace hostbinder_test {

namespace {

int64_t nowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void writeFileAtomically(const std::string& path, const std::string& contents) {
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << contents;
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    }
}

// Reaps `pid` within `timeoutMs`; returns the wait status or -1.
int waitPidFor(pid_t pid, int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
        if (nowMs() >= deadline) return -1;
        usleep(2000);
    }
}

int statusToCode(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// exec with PR_SET_PDEATHSIG so a crashed test never leaves children behind.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
            int outFd) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    if (outFd >= 0) {
        dup2(outFd, STDOUT_FILENO);
        dup2(outFd, STDERR_FILENO);
    }
    for (const std::string& e : extraEnv) putenv(const_cast<char*>(e.c_str()));
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(args[0], args.data());
    fprintf(stderr, "cannot exec %s: %s\n", args[0], strerror(errno));
    _exit(127);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

RuntimeInstance::RuntimeInstance(const std::string& permissionPolicy) {
    const char* daemon = getenv("HOSTBINDERD");
    if (daemon == nullptr || daemon[0] == '\0') {
        throw std::runtime_error("HOSTBINDERD is not set: cannot start a runtime instance");
    }
    char dirTemplate[] = "/tmp/hostbinder-test-XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) throw std::runtime_error("mkdtemp failed");
    mDir = dirTemplate;
    chmod(mDir.c_str(), 0755);  // helpers that change uid still reach the socket
    mSocketPath = mDir + "/socket";
    mPolicyPath = mDir + "/policy";

    std::vector<std::string> argv{daemon, "--socket", mSocketPath};
    if (!permissionPolicy.empty()) {
        writeFileAtomically(mPolicyPath, permissionPolicy);
        argv.push_back("--permissions");
        argv.push_back(mPolicyPath);
    }
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    // The daemon's stdout goes to the pipe (for the ready line), its stderr to ours.
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(pipeFds[1], STDOUT_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(pipeFds[1]);
    std::string line;
    const int64_t deadline = nowMs() + 10000;
    bool ready = false;
    while (!ready && nowMs() < deadline) {
        pollfd p{pipeFds[0], POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        char c;
        ssize_t n = read(pipeFds[0], &c, 1);
        if (n <= 0) break;
        if (c == '\n') {
            ready = true;
        } else {
            line.push_back(c);
        }
    }
    close(pipeFds[0]);
    if (!ready) {
        kill(mPid, SIGKILL);
        waitPidFor(mPid, 5000);
        throw std::runtime_error("hostbinderd did not become ready: " + line);
    }
    setenv("HOSTBINDER_SOCKET", mSocketPath.c_str(), 1);
}

RuntimeInstance::~RuntimeInstance() {
    if (mPid > 0) {
        ::kill(mPid, SIGTERM);
        if (waitPidFor(mPid, 5000) == -1) {
            ::kill(mPid, SIGKILL);
            waitPidFor(mPid, 5000);
        }
    }
    unlink(mSocketPath.c_str());
    unlink(mPolicyPath.c_str());
    unlink((mPolicyPath + ".tmp").c_str());
    rmdir(mDir.c_str());
}

const std::string& RuntimeInstance::socketPath() const {
    return mSocketPath;
}

void RuntimeInstance::setPolicy(const std::string& contents) {
    // The daemon notices a change by the file's modification time; make sure it moves even
    // within the filesystem's timestamp granularity.
    struct stat before {};
    const bool existed = stat(mPolicyPath.c_str(), &before) == 0;
    writeFileAtomically(mPolicyPath, contents);
    if (existed) {
        struct stat after {};
        if (stat(mPolicyPath.c_str(), &after) == 0 && after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
            after.st_mtim.tv_nsec == before.st_mtim.tv_nsec) {
            timespec times[2] = {after.st_atim, after.st_mtim};
            times[1].tv_nsec += 1000;
            if (times[1].tv_nsec >= 1000000000) {
                times[1].tv_sec++;
                times[1].tv_nsec -= 1000000000;
            }
            utimensat(AT_FDCWD, mPolicyPath.c_str(), times, 0);
        }
    }
}

pid_t RuntimeInstance::pid() const {
    return mPid;
}

// ---------------------------------------------------------------------------------------------

ChildProcess::ChildProcess(std::vector<std::string> argv, std::vector<std::string> extraEnv) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    mPid = spawn(argv, extraEnv, pipeFds[1]);
    close(pipeFds[1]);
    mOutFd = pipeFds[0];
    if (mPid < 0) {
        close(mOutFd);
        mOutFd = -1;
        throw std::runtime_error("fork failed");
    }
    mReader = std::thread([this] { readerLoop(); });
}

ChildProcess::~ChildProcess() {
    if (!mReaped && mPid > 0) {
        ::kill(mPid, SIGKILL);
        wait(5000);
    }
    if (mReader.joinable()) mReader.join();
    if (mOutFd >= 0) close(mOutFd);
}

void ChildProcess::readerLoop() {
    char buf[4096];
    for (;;) {
        ssize_t n = read(mOutFd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::lock_guard<std::mutex> l(mLock);
        mOutput.append(buf, static_cast<size_t>(n));
    }
    std::lock_guard<std::mutex> l(mLock);
    mEof = true;
}

pid_t ChildProcess::pid() const {
    return mPid;
}

void ChildProcess::kill(int sig) {
    if (!mReaped && mPid > 0) ::kill(mPid, sig);
}

int ChildProcess::wait(int timeoutMs) {
    if (!mReaped) {
        int status = waitPidFor(mPid, timeoutMs);
        if (status == -1) return -1;
        mStatus = status;
        mReaped = true;
        // Everything the child wrote is in the pipe: collect it (a grandchild may keep the
        // pipe open, so this wait is bounded).
        const int64_t deadline = nowMs() + 1000;
        for (;;) {
            {
                std::lock_guard<std::mutex> l(mLock);
                if (mEof) break;
            }
            if (nowMs() >= deadline) break;
            usleep(1000);
        }
    }
    return statusToCode(mStatus);
}

std::string ChildProcess::output() const {
    std::lock_guard<std::mutex> l(mLock);
    return mOutput;
}

bool ChildProcess::waitForOutput(const std::string& text, int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    for (;;) {
        if (output().find(text) != std::string::npos) return true;
        if (nowMs() >= deadline) return false;
        usleep(2000);
    }
}

// ---------------------------------------------------------------------------------------------

int openFdCount() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int n = 0;
    while (readdir(d) != nullptr) n++;
    closedir(d);
    return n - 3;  // ".", ".." and the directory's own descriptor
}

int countEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

int openFileFdCount() {
    DIR* d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        char link[256];
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t len = readlink(path.c_str(), link, sizeof(link) - 1);
        if (len <= 0) continue;
        link[len] = '\0';
        if (strncmp(link, "socket:", 7) != 0 && strncmp(link, "anon_inode:", 11) != 0) n++;
    }
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

int threadCount() {
    DIR* d = opendir("/proc/self/task");
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') n++;
    }
    closedir(d);
    return n;
}

}  // namespace hostbinder_test
