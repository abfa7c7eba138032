#include "Scaling.h"

#include "Children.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>

#include <memory>

namespace hostbinder_bench {

namespace {

constexpr int kStartSignal = SIGUSR1;
constexpr int kReadyMs = 30000;   // a helper connects and warms up (the machine may be busy)
constexpr int kFinishMs = 30000;  // beyond the run's duration
constexpr int kWarmupCalls = 100;
constexpr int kCallsPerClockRead = 16;

}  // namespace

void blockStartSignal() {
    sigset_t start;
    sigemptyset(&start);
    sigaddset(&start, kStartSignal);
    sigprocmask(SIG_BLOCK, &start, nullptr);
}

int runTimedClient(const std::function<bool()>& call, int durationMs) {
    for (int i = 0; i < kWarmupCalls; i++) {
        if (!call()) {
            say("failed: warm-up call %d", i);
            return 1;
        }
    }
    say("ready");
    sigset_t start;
    sigemptyset(&start);
    sigaddset(&start, kStartSignal);
    const timespec wait{kReadyMs / 1000, 0};
    int sig;
    while ((sig = sigtimedwait(&start, nullptr, &wait)) < 0 && errno == EINTR) {
    }
    if (sig != kStartSignal) {
        say("failed: no start signal within %d s", kReadyMs / 1000);
        return 1;
    }
    const int64_t begin = nowNs();
    const int64_t end = begin + int64_t(durationMs) * 1000000;
    long long calls = 0;
    int64_t now;
    do {
        for (int i = 0; i < kCallsPerClockRead; i++) {
            if (!call()) {
                say("failed: call %lld", calls + i);
                return 1;
            }
        }
        calls += kCallsPerClockRead;
        now = nowNs();
    } while (now < end);
    say("done %lld %lld", calls, static_cast<long long>(now - begin));
    return 0;
}

double runClients(int count, int durationMs,
                  const std::function<std::vector<std::string>(int)>& clientArgs,
                  std::string* why) {
    std::vector<std::unique_ptr<Helper>> clients;
    for (int i = 0; i < count; i++) clients.push_back(Helper::self(clientArgs(i)));
    const auto failed = [&](int i, const char* what) {
        *why = "client " + std::to_string(i) + " " + what + "; it printed: " + clients[i]->output();
        return -1.0;
    };

    const int64_t readyBy = nowMs() + kReadyMs;
    for (int i = 0; i < count; i++) {
        if (!clients[i]->waitForLine("ready", msUntil(readyBy))) {
            return failed(i, "did not become ready");
        }
    }
    for (const auto& client : clients) kill(client->pid(), kStartSignal);

    const int64_t doneBy = nowMs() + durationMs + kFinishMs;
    double total = 0;
    for (int i = 0; i < count; i++) {
        std::string line;
        long long calls = 0, ns = 0;
        if (!clients[i]->waitForLine("done ", msUntil(doneBy), &line)) {
            return failed(i, "did not finish its calls in time");
        }
        if (sscanf(line.c_str(), "done %lld %lld", &calls, &ns) != 2 || ns <= 0) {
            return failed(i, "reported nonsense");
        }
        total += double(calls) * 1e9 / double(ns);
    }
    return total;
}

}  // namespace hostbinder_bench
