// A client process for the client tests. Runs one scenario against whatever service the runtime
// has (or has not) and prints what it sees, one fact per line, for the test to check:
//
//   tovarin_client_scenario lookup|restart|away|fallbacks|forwarding|relink|exit
//
// Log lines of this process are echoed as "LOG <level> <tag or -> <text>" in the order they
// were written. Exit status 0 when the scenario ran to its end.
#include "ITovarinService.h"
#include "TovarinServiceImpl.h"

#include <binder/IServiceManager.h>

#include <tovarin/TovarinListener.h>
#include <tovarin/TovarinLogger.h>

#include <binder/Parcel.h>

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

using namespace android;
using morvel::tovarin::HeadTrackerHandle;
using morvel::tovarin::HeadTrackingConfiguration;
using morvel::tovarin::HeadTrackingEvent;
using morvel::tovarin::HeadTrackingState;
using morvel::tovarin::RawDataEvent;
using morvel::tovarin::RawDataListener;
using morvel::tovarin::StateChangeEvent;
using morvel::tovarin::StateChangeListener;
using morvel::tovarin::TovarinLogCapture;
using morvel::tovarin::TovarinLogLine;
using morvel::tovarin::binder::ITovarinService;
using morvel::tovarin::binder::TovarinServiceImpl;

namespace {

const char kDied[] = "Client's binder connection to Tovarin died!";

std::mutex gPrintLock;

void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
void say(const char* format, ...) {
    std::lock_guard<std::mutex> lock(gPrintLock);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    printf("\n");
    fflush(stdout);
}

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

template <typename Predicate>
bool waitUntil(Predicate predicate, int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    while (!predicate()) {
        if (nowMs() > deadline) return false;
        usleep(10 * 1000);
    }
    return true;
}

// Records this process's log lines and echoes them in order.
class LogEcho {
public:
    LogEcho() : mThread([this] { run(); }) {}
    ~LogEcho() {
        mStop = true;
        mThread.join();
        echo();
    }

    bool waitFor(const std::string& tag, const std::string& text, int timeoutMs) {
        return waitUntil(
                [&] {
                    for (const TovarinLogLine& line : mCapture.lines()) {
                        if (line.tag == tag && line.text == text) return true;
                    }
                    return false;
                },
                timeoutMs);
    }

private:
    void run() {
        while (!mStop) {
            echo();
            usleep(5 * 1000);
        }
    }
    void echo() {
        std::lock_guard<std::mutex> lock(mEchoLock);
        const std::vector<TovarinLogLine> lines = mCapture.lines();
        for (; mEchoed < lines.size(); ++mEchoed) {
            const TovarinLogLine& line = lines[mEchoed];
            say("LOG %d %s %s", line.level, line.tag.empty() ? "-" : line.tag.c_str(),
                line.text.c_str());
        }
    }

    TovarinLogCapture mCapture;
    std::mutex mEchoLock;
    size_t mEchoed = 0;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

class TestRawDataListener : public RawDataListener {
public:
    explicit TestRawDataListener(const char* name) : mName(name) {}
    void onEvent(const RawDataEvent&) override { say("RAW_EVENT %s", mName); }

private:
    const char* mName;
};

class TestStateChangeListener : public StateChangeListener {
public:
    explicit TestStateChangeListener(const char* name) : mName(name) {}
    void onEvent(const StateChangeEvent& event) override {
        ++events;
        say("STATE_EVENT %s primary=%d", mName, event.state.primary);
    }
    std::atomic<int> events{0};

private:
    const char* mName;
};

// ---------------------------------------------------------------------------------------------
// A service manager that counts lookups. This executable's defaultServiceManager() takes the
// place of the runtime's (the library calls it through the dynamic linker), and hands out this
// wrapper around the real one. In the lookup scenario each lookup is slowed down so that
// concurrent callers overlap; in the relink scenario the service found by one lookup is killed
// before the lookup answers.

sp<IServiceManager> realServiceManager() {
    using Getter = sp<IServiceManager> (*)();
    static const Getter getter =
            reinterpret_cast<Getter>(dlsym(RTLD_NEXT, "_ZN7android21defaultServiceManagerEv"));
    return getter();
}

class CountingServiceManager : public IServiceManager {
public:
    sp<IBinder> getService(const String16& name) const override {
        return realServiceManager()->getService(name);
    }
    sp<IBinder> checkService(const String16& name) const override {
        ++queries;
        usleep(delayMs * 1000);
        sp<IBinder> found = realServiceManager()->checkService(name);
        if (found != nullptr && killNextFound.exchange(false)) {
            // The test service dies on this code; the answer is given once the runtime knows.
            Parcel data, reply;
            found->transact(IBinder::LAST_CALL_TRANSACTION, data, &reply);
            const bool gone = waitUntil(
                    [&] { return realServiceManager()->checkService(name) == nullptr; }, 5000);
            say("KILLED_AFTER_LOOKUP %d", gone);
        }
        return found;
    }
    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpsysFlags) override {
        return realServiceManager()->addService(name, service, allowIsolated, dumpsysFlags);
    }
    Vector<String16> listServices(int dumpsysFlags) override {
        return realServiceManager()->listServices(dumpsysFlags);
    }
    static std::atomic<int> queries;
    static std::atomic<int> delayMs;
    static std::atomic<bool> killNextFound;

protected:
    IBinder* onAsBinder() override { return IInterface::asBinder(realServiceManager()).get(); }
};

std::atomic<int> CountingServiceManager::queries{0};
std::atomic<int> CountingServiceManager::delayMs{0};
std::atomic<bool> CountingServiceManager::killNextFound{false};

bool serviceRegistered() {
    return realServiceManager()->checkService(String16(ITovarinService::SERVICE_NAME)) != nullptr;
}

// Two threads look the service up at once, with nothing cached, then a third call after.
int lookupScenario() {
    LogEcho log;
    CountingServiceManager::delayMs = 200;
    int empty = 0;
    for (int i = 0; i < 3; ++i) empty += ITovarinService::checkService() == nullptr;
    say("ABSENT empty=%d queries=%d", empty, CountingServiceManager::queries.load());

    if (!waitUntil(serviceRegistered, 10000)) return 3;
    CountingServiceManager::queries = 0;
    sp<ITovarinService> first, second;
    std::mutex startLock;
    std::condition_variable start;
    bool go = false;
    auto lookup = [&](sp<ITovarinService>* out) {
        {
            std::unique_lock<std::mutex> lock(startLock);
            start.wait(lock, [&] { return go; });
        }
        *out = ITovarinService::checkService();
    };
    std::thread a(lookup, &first), b(lookup, &second);
    {
        std::lock_guard<std::mutex> lock(startLock);
        go = true;
    }
    start.notify_all();
    a.join();
    b.join();
    say("CONCURRENT queries=%d nonnull=%d same=%d", CountingServiceManager::queries.load(),
        first != nullptr && second != nullptr, first == second);
    const sp<ITovarinService> third = ITovarinService::checkService();
    say("CACHED queries=%d same=%d", CountingServiceManager::queries.load(), third == first);

    // The test now replaces the service process.
    if (!log.waitFor("", kDied, 10000)) return 4;
    say("DIED");
    if (!waitUntil(serviceRegistered, 10000)) return 5;
    CountingServiceManager::queries = 0;
    const sp<ITovarinService> fresh = ITovarinService::checkService();
    say("RECONNECTED queries=%d new=%d enabled=%d", CountingServiceManager::queries.load(),
        fresh != nullptr && IInterface::asBinder(fresh) != IInterface::asBinder(first),
        fresh != nullptr && fresh->getEnabled());
    return 0;
}

// Listeners registered before the service dies come back with a new service within the wait;
// one registered while the service is away does not.
int restartScenario() {
    LogEcho log;
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    if (TovarinServiceImpl::getService() == nullptr) return 3;
    sp<TestRawDataListener> r1 = new TestRawDataListener("r1"), r2 = new TestRawDataListener("r2");
    sp<TestStateChangeListener> s1 = new TestStateChangeListener("s1");
    sp<TestStateChangeListener> s2 = new TestStateChangeListener("s2");
    const status_t statusR1 = impl->registerRawDataListener(r1);
    const status_t statusR2 = impl->registerRawDataListener(r2);
    const status_t statusS1 = impl->registerStateChangeListener(s1);
    const status_t statusS2 = impl->registerStateChangeListener(s2);
    say("REGISTERED %d %d %d %d", statusR1, statusR2, statusS1, statusS2);

    // The test kills the service process.
    if (!log.waitFor("TovarinServiceImpl", kDied, 10000)) return 4;
    sp<TestRawDataListener> r3 = new TestRawDataListener("r3");
    sp<TestStateChangeListener> s3 = new TestStateChangeListener("s3");
    const status_t statusR3 = impl->registerRawDataListener(r3);
    const status_t statusS3 = impl->registerStateChangeListener(s3);
    s1->events = 0;
    s2->events = 0;
    say("LATE %d %d", statusR3, statusS3);

    // The test starts a new service, which sends an event once two listeners are back.
    const bool events = waitUntil([&] { return s1->events > 0 && s2->events > 0; }, 15000);
    usleep(300 * 1000);
    say("EVENTS s1=%d s2=%d s3=%d", s1->events.load(), s2->events.load(), s3->events.load());
    // The registrations made by the recovery are the ones the application can undo.
    say("UNREGISTER %d %d", r1->getHandle(), s1->getHandle());
    impl->unregisterRawDataListener(r1);
    impl->unregisterStateChangeListener(s1);
    return events ? 0 : 5;
}

// The service stays away past the wait; a later call finds a new one without waiting.
int awayScenario() {
    LogEcho log;
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    if (TovarinServiceImpl::getService() == nullptr) return 3;
    sp<TestRawDataListener> r1 = new TestRawDataListener("r1");
    sp<TestStateChangeListener> s1 = new TestStateChangeListener("s1");
    say("REGISTERED %d %d", impl->registerRawDataListener(r1),
        impl->registerStateChangeListener(s1));

    if (!log.waitFor("TovarinServiceImpl", kDied, 10000)) return 4;
    // Calls keep coming while the service is away; the test starts a new one after the wait.
    const int64_t deadline = nowMs() + 30000;
    while (nowMs() < deadline) {
        const int64_t before = nowMs();
        const bool enabled = impl->getEnabled();
        const int64_t took = nowMs() - before;
        if (enabled) {
            say("CONNECTED took=%d", static_cast<int>(took));
            usleep(500 * 1000);
            return 0;
        }
        usleep(50 * 1000);
    }
    return 5;
}

// Every operation without a service: fallbacks at once; then getService() gives up after its
// six lookups.
int fallbacksScenario() {
    LogEcho log;
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    const int64_t start = nowMs();
    impl->setEnabledState(1);
    say("ENABLED %d", impl->getEnabled());
    say("HARDWARE %d", impl->getHardwareState());
    const HeadTrackingState state = impl->getHeadTrackingState();
    say("STATE %d %d", state.primary, state.secondary);
    HeadTrackerHandle handle = impl->getHeadTrackerHandle();
    say("HANDLE %d %d", handle.id, handle.secondaryId);
    handle.id = 0;
    handle.secondaryId = 0;
    say("START %d", impl->start(handle));
    say("STOP %d", impl->stop(handle));
    say("STANDBY %d", impl->standby(handle));
    say("CONFIGURE %d", impl->setConfiguration(handle, HeadTrackingConfiguration()));
    say("SETPID %d", impl->setPid(handle, getpid()));
    HeadTrackingEvent event;
    event.timestamp = 4242;
    event.scalar = 1.5f;
    strcpy(event.text, "untouched");
    const status_t sampled = impl->sample(handle, event);
    say("SAMPLE %d %lld %.1f %s", sampled, static_cast<long long>(event.timestamp), event.scalar,
        event.text);
    impl->releaseHeadTrackerHandle(handle);
    sp<TestRawDataListener> raw = new TestRawDataListener("r");
    sp<TestStateChangeListener> changes = new TestStateChangeListener("s");
    say("REGISTER %d %d", impl->registerRawDataListener(raw),
        impl->registerStateChangeListener(changes));
    impl->unregisterRawDataListener(raw);
    impl->unregisterStateChangeListener(changes);
    say("ELAPSED %d", static_cast<int>(nowMs() - start));

    const int64_t waitStart = nowMs();
    const sp<ITovarinService> service = TovarinServiceImpl::getService();
    say("GETSERVICE null=%d took=%d", service == nullptr, static_cast<int>(nowMs() - waitStart));
    return 0;
}

// Forwarding with a service that reports hardware state 7.
int forwardingScenario() {
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    const sp<ITovarinService> service = TovarinServiceImpl::getService();
    if (service == nullptr) return 3;
    say("HARDWARE impl=%d service=%d", impl->getHardwareState(), service->getHardwareState());
    const HeadTrackingState state = impl->getHeadTrackingState();
    const HeadTrackingState direct = service->getHeadTrackingState();
    say("STATE same=%d primary=%d",
        state.primary == direct.primary && state.secondary == direct.secondary, state.primary);
    say("ENABLED %d", impl->getEnabled());
    sp<TestStateChangeListener> twice = new TestStateChangeListener("twice");
    say("TWICE %d %d", impl->registerStateChangeListener(twice),
        impl->registerStateChangeListener(twice));
    return 0;
}

// The service found by the recovery's lookup dies before the client can link to it: the client
// drops it, looks again, and brings its listener back to the next service.
int relinkScenario() {
    LogEcho log;
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    if (TovarinServiceImpl::getService() == nullptr) return 3;
    sp<TestStateChangeListener> s1 = new TestStateChangeListener("s1");
    say("REGISTERED %d", impl->registerStateChangeListener(s1));
    CountingServiceManager::killNextFound = true;
    // The test kills the service and starts another, which the recovery's lookup kills; then
    // a third, which sends an event once the listener is back.
    const bool events = waitUntil([&] { return s1->events > 0; }, 20000);
    say("EVENTS s1=%d", s1->events.load());
    return events ? 0 : 5;
}

// exit() while a pool thread is recovering from the service's death: the process-lifetime
// objects that the recovery uses must still be there after the static destructors of
// everything made since main() began have run.
TestStateChangeListener* gExitListener = nullptr;

void finishRecoveryAtExit() {
    say("EXITING");
    // The test now starts a new service; the recovery, still running, registers the listener
    // with it, and the service answers with an event.
    const bool recovered = waitUntil([] { return gExitListener->events > 0; }, 15000);
    say("RECOVERED_AT_EXIT %d", recovered);
    if (!recovered) _exit(6);
    // The test replaces that service too: the singleton is still there to recover again.
    const bool again = waitUntil([] { return gExitListener->events > 1; }, 15000);
    say("RECOVERED_AGAIN %d", again);
    if (!again) _exit(7);
}

int exitScenario() {
    // Registered before anything below makes a process-lifetime object: runs after their
    // static destructors.
    atexit(finishRecoveryAtExit);
    if (TovarinServiceImpl::getService() == nullptr) return 3;
    gExitListener = new TestStateChangeListener("s1");
    gExitListener->incStrong(nullptr);  // kept to the end
    // No reference to the singleton is held here: only the singleton's own keeps it.
    say("REGISTERED %d",
        TovarinServiceImpl::getInstance()->registerStateChangeListener(gExitListener));
    auto* capture = new TovarinLogCapture();  // kept to the end: nothing of it is destroyed
    // The test kills the service: wait until the recovery is under way on a pool thread.
    const bool recovering = waitUntil(
            [&] {
                for (const TovarinLogLine& line : capture->lines()) {
                    if (line.tag == "TovarinServiceImpl" && line.text == kDied) return true;
                }
                return false;
            },
            10000);
    if (!recovering) return 4;
    exit(0);
}

}  // namespace

namespace android {

sp<IServiceManager> defaultServiceManager() {
    // Never destroyed, like the runtime's own: pool threads may look services up at exit.
    static const sp<IServiceManager>& counting =
            *new sp<IServiceManager>(new CountingServiceManager());
    return counting;
}

}  // namespace android

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s lookup|restart|away|fallbacks|forwarding|relink|exit\n",
                argv[0]);
        return 2;
    }
    const std::string scenario = argv[1];
    int result = 2;
    if (scenario == "lookup") result = lookupScenario();
    if (scenario == "restart") result = restartScenario();
    if (scenario == "away") result = awayScenario();
    if (scenario == "fallbacks") result = fallbacksScenario();
    if (scenario == "forwarding") result = forwardingScenario();
    if (scenario == "relink") result = relinkScenario();
    if (scenario == "exit") result = exitScenario();
    say("EXIT %d", result);
    // Binder threads may still be delivering; leave without running static destructors.
    _exit(result);
}
