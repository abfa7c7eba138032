// The client access layer across real processes. Each test starts its own runtime, a client
// role running one scenario and tracking_service roles that it kills and replaces, and checks
// what each process printed. Clients log at debug level; liblog writes their lines on stderr as
// "TAG L date time pid tid TEXT", a line without a tag under the program's name.
#include "ITovarinService.h"
#include "TovarinServiceImpl.h"

#include <binder/IServiceManager.h>

#include <hostbinder_test/Roles.h>

#include <tovarin/TovarinLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

using namespace android;
using namespace morvel::tovarin;
using namespace morvel::tovarin::binder;
using hostbinder_test::ChildProcess;
using hostbinder_test::waitUntil;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

const char kDied[] = "Client's binder connection to Tovarin died!";
const char kImpl[] = "TovarinServiceImpl";

// ---------------------------------------------------------------------------------------------
// The client roles: each prints what it sees.

// Never destroyed: the exit scenario reads it after the static destructors.
TovarinLogCapture* const gLog = new TovarinLogCapture();

// Every fact on a line of its own, as it happens.
[[maybe_unused]] const int gLineBuffered = setvbuf(stdout, nullptr, _IOLBF, 0);

// Roles end with _exit(): binder threads may still be delivering, no static destructor runs.

// Waits until this process has logged `text` under `tag` ("" for none).
bool logged(const std::string& tag, const std::string& text) {
    return waitUntil([&] {
        for (const TovarinLogLine& line : gLog->lines()) {
            if (line.tag == tag && line.text == text) return true;
        }
        return false;
    });
}

class RawListener : public RawDataListener {
    void onEvent(const RawDataEvent&) override {}
};

class StateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent&) override { ++events; }
    std::atomic<int> events{0};
};

// This executable's defaultServiceManager() takes the place of the runtime's (the library calls
// it through the dynamic linker) and hands out this wrapper, which counts lookups, can slow them
// down so that concurrent callers overlap, and can kill the service it finds before answering.
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
            // tracking_service dies on this code; the answer is given once the runtime knows.
            Parcel data, reply;
            found->transact(IBinder::LAST_CALL_TRANSACTION, data, &reply);
            printf("KILLED_AFTER_LOOKUP %d\n",
                   waitUntil([&] { return realServiceManager()->checkService(name) == nullptr; }));
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
    inline static std::atomic<int> queries{0};
    inline static std::atomic<int> delayMs{0};
    inline static std::atomic<bool> killNextFound{false};

protected:
    IBinder* onAsBinder() override { return IInterface::asBinder(realServiceManager()).get(); }
};

// Lookups while the service is absent, two at once when it is there, one more after; then the
// first after the service's death.
TEST_ROLE(lookup) {
    int empty = 0;
    for (int i = 0; i < 3; ++i) empty += ITovarinService::checkService() == nullptr;
    printf("ABSENT empty=%d queries=%d\n", empty, CountingServiceManager::queries.load());
    const String16 name(ITovarinService::SERVICE_NAME);
    if (!waitUntil([&] { return realServiceManager()->checkService(name) != nullptr; })) _exit(3);
    CountingServiceManager::queries = 0;
    CountingServiceManager::delayMs = 200;
    sp<ITovarinService> first, second;
    std::atomic<bool> go{false};
    auto lookup = [&](sp<ITovarinService>* out) {
        while (!go) std::this_thread::yield();
        *out = ITovarinService::checkService();
    };
    std::thread a(lookup, &first), b(lookup, &second);
    go = true;
    a.join();
    b.join();
    CountingServiceManager::delayMs = 0;
    printf("CONCURRENT queries=%d nonnull=%d same=%d\n", CountingServiceManager::queries.load(),
           first != nullptr && second != nullptr, first == second);
    const sp<ITovarinService> third = ITovarinService::checkService();
    printf("CACHED queries=%d same=%d\n", CountingServiceManager::queries.load(), third == first);

    if (!logged("", kDied)) _exit(4);  // the test has put another service in its place
    CountingServiceManager::queries = 0;
    const sp<ITovarinService> fresh = ITovarinService::checkService();
    printf("RECONNECTED queries=%d new=%d enabled=%d\n", CountingServiceManager::queries.load(),
           fresh != nullptr && IInterface::asBinder(fresh) != IInterface::asBinder(first),
           fresh != nullptr && fresh->getEnabled());
    _exit(0);
}

// Forwarding to a service that reports hardware state 7: hidden, other answers passed on. Then
// listeners registered before the service dies come back with a new service; one registered
// while the service is away does not.
TEST_ROLE(restart) {
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    const sp<ITovarinService> service = TovarinServiceImpl::getService();
    if (service == nullptr) _exit(3);
    const HeadTrackingState state = impl->getHeadTrackingState();
    const HeadTrackingState direct = service->getHeadTrackingState();
    printf("FORWARDED hardware=%d/%d state=%d fallback=%d enabled=%d\n", impl->getHardwareState(),
           service->getHardwareState(),
           state.primary == direct.primary && state.secondary == direct.secondary,
           state.primary == 32, impl->getEnabled());
    sp<RawListener> r1 = new RawListener(), r2 = new RawListener(), r3 = new RawListener();
    sp<StateListener> s1 = new StateListener(), s2 = new StateListener();
    sp<StateListener> s3 = new StateListener();
    // s2 twice: it reaches the service twice, and is remembered once.
    printf("REGISTERED %d %d %d %d %d\n", impl->registerRawDataListener(r1),
           impl->registerRawDataListener(r2), impl->registerStateChangeListener(s1),
           impl->registerStateChangeListener(s2), impl->registerStateChangeListener(s2));
    if (!logged(kImpl, kDied)) _exit(4);  // the test killed the service
    printf("LATE %d %d\n", impl->registerRawDataListener(r3),
           impl->registerStateChangeListener(s3));
    // The next service sends an event once two listeners are back.
    if (!waitUntil([&] { return s1->events > 0 && s2->events > 0; })) _exit(5);
    printf("UNREGISTER %d %d\n", r1->getHandle(), s1->getHandle());
    impl->unregisterRawDataListener(r1);
    impl->unregisterStateChangeListener(s1);
    printf("UNREGISTERED\n");
    // The third service sends an event once one listener is back: s2 is all that is left.
    _exit(waitUntil([&] { return s2->events > 1; }) ? 0 : 6);
}

// The service found by the recovery's lookup dies before the client can link to it.
TEST_ROLE(relink) {
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    if (TovarinServiceImpl::getService() == nullptr) _exit(3);
    sp<StateListener> s1 = new StateListener();
    const status_t status = impl->registerStateChangeListener(s1);
    CountingServiceManager::killNextFound = true;
    printf("REGISTERED %d\n", status);
    _exit(waitUntil([&] { return s1->events > 0; }) ? 0 : 5);
}

// exit() while a pool thread is recovering from the service's death: what the recovery uses
// must still be there after the static destructors of everything made since the role began.
StateListener* gExitListener = nullptr;

void finishRecoveryAtExit() {
    printf("EXITING\n");
    const bool recovered = waitUntil([] { return gExitListener->events > 0; });
    printf("RECOVERED_AT_EXIT %d\n", recovered);
    // The test replaces that service too: the singleton is still there to recover again.
    if (!recovered || !waitUntil([] { return gExitListener->events > 1; })) _exit(6);
}

TEST_ROLE(exit) {
    // Registered before anything below makes a process-lifetime object: runs after their
    // static destructors.
    atexit(finishRecoveryAtExit);
    if (TovarinServiceImpl::getService() == nullptr) _exit(3);
    gExitListener = new StateListener();
    gExitListener->incStrong(nullptr);  // kept to the end
    // Only the singleton's own reference keeps it.
    printf("REGISTERED %d\n",
           TovarinServiceImpl::getInstance()->registerStateChangeListener(gExitListener));
    if (!logged(kImpl, kDied)) _exit(4);
    exit(0);
}

// The service stays away past the wait; a later call finds a new one without waiting.
TEST_ROLE(away) {
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    if (TovarinServiceImpl::getService() == nullptr) _exit(3);
    sp<RawListener> r1 = new RawListener();
    sp<StateListener> s1 = new StateListener();
    printf("REGISTERED %d %d\n", impl->registerRawDataListener(r1),
           impl->registerStateChangeListener(s1));
    if (!logged(kImpl, kDied)) _exit(4);
    // Calls keep coming while the service is away; the test starts a new one after the wait.
    if (!waitUntil([&] { return impl->getEnabled(); }, 30000)) _exit(5);
    // Follows whatever that call registered at the service.
    printf("MARKER %d\n", impl->registerStateChangeListener(new StateListener()));
    _exit(0);
}

// Every operation without a service, in order: the answers of getEnabled, getHardwareState,
// getHeadTrackingState, getHeadTrackerHandle, start, stop, standby, setConfiguration, setPid,
// sample (and the event it leaves), the two registrations; then getService(), which gives up.
TEST_ROLE(fallbacks) {
    sp<TovarinServiceImpl> impl = TovarinServiceImpl::getInstance();
    const auto start = std::chrono::steady_clock::now();
    impl->setEnabledState(1);
    const HeadTrackingState state = impl->getHeadTrackingState();
    HeadTrackerHandle handle = impl->getHeadTrackerHandle();
    std::ostringstream facts;
    facts << impl->getEnabled() << ' ' << impl->getHardwareState() << ' ' << state.primary << ' '
          << state.secondary << ' ' << handle.id << ' ' << handle.secondaryId;
    handle.id = handle.secondaryId = 0;
    HeadTrackingEvent event;
    event.timestamp = 4242;
    event.scalar = 1.5f;
    strcpy(event.text, "untouched");
    sp<RawListener> raw = new RawListener();
    sp<StateListener> changes = new StateListener();
    facts << ' ' << impl->start(handle) << ' ' << impl->stop(handle) << ' ' << impl->standby(handle)
          << ' ' << impl->setConfiguration(handle, {}) << ' ' << impl->setPid(handle, getpid())
          << ' ' << impl->sample(handle, event) << ' ' << event.timestamp << ' ' << event.scalar
          << ' ' << event.text << ' ' << impl->registerRawDataListener(raw) << ' '
          << impl->registerStateChangeListener(changes);
    impl->releaseHeadTrackerHandle(handle);
    impl->unregisterRawDataListener(raw);
    impl->unregisterStateChangeListener(changes);
    printf("FALLBACKS %s\n", facts.str().c_str());
    const auto waitStart = std::chrono::steady_clock::now();
    const bool none = TovarinServiceImpl::getService() == nullptr;
    const auto took = std::chrono::steady_clock::now() - waitStart;
    printf("WAITED fallbacks=%d getService=%d null=%d\n", waitStart - start >= 500ms,
           took >= 4900ms && took < 7000ms, none);
    _exit(0);
}

// ---------------------------------------------------------------------------------------------
// The tests.

// Positions of the lines of `output` that start with `head` and end with `tail`.
std::vector<size_t> linesWith(const std::string& output, const std::string& head,
                              const std::string& tail = "") {
    std::vector<size_t> at;
    std::istringstream in(output);
    size_t i = 0;
    for (std::string line; std::getline(in, line); ++i) {
        if (line.rfind(head, 0) == 0 && line.size() >= head.size() + tail.size() &&
            line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
            at.push_back(i);
        }
    }
    return at;
}

class ClientTest : public ::testing::Test {
protected:
    // A tracking service that flips the enabled state once `toggleAfter` listeners are there.
    static std::unique_ptr<ChildProcess> service(int toggleAfter = 0) {
        auto service =
                hostbinder_test::startRole("tracking_service", {std::to_string(toggleAfter)});
        if (!service) throw std::runtime_error("tracking_service did not start");
        return service;
    }

    static std::unique_ptr<ChildProcess> client(const std::string& scenario) {
        return hostbinder_test::startRole(scenario, {}, false, {"TOVARIN_LOG=*:D"});
    }

    static void kill(const std::unique_ptr<ChildProcess>& process) {
        process->kill(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, process->wait());
    }

    hostbinder_test::RuntimeInstance mRuntime;
};

// Concurrent first callers make one service-manager query and share one proxy; the cache
// answers later calls; after the service's death the next call looks it up again.
TEST_F(ClientTest, LookupIsCachedSharedAndClearedByDeath) {
    auto client = this->client("lookup");
    ASSERT_TRUE(client->waitForOutput("ABSENT")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("ABSENT empty=3 queries=3\n"))
            << "an absent service is asked for on every call";

    auto first = service();
    ASSERT_TRUE(client->waitForOutput("CACHED")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("CONCURRENT queries=1 nonnull=1 same=1\n"));
    EXPECT_THAT(client->output(), HasSubstr("CACHED queries=1 same=1\n"));

    auto replacement = service();  // takes the name while the first still runs
    kill(first);
    EXPECT_EQ(0, client->wait()) << client->output();
    EXPECT_EQ(1u, linesWith(client->output(), "client_test E ", kDied).size()) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("RECONNECTED queries=1 new=1 enabled=1\n"));
}

// With a service, getHardwareState() hides the service's answer and other answers pass through.
// The service dies and a new one comes within the wait: every remembered raw data listener,
// then every remembered state change listener, is registered once with the new service, and
// events reach the application's listeners again. A listener registered while the service was
// away got -19 and is not among them.
TEST_F(ClientTest, ListenersReturnToARestartedService) {
    auto first = service();
    auto client = this->client("restart");
    ASSERT_TRUE(client->waitForOutput("REGISTERED")) << client->output();
    EXPECT_THAT(client->output(),
                HasSubstr("FORWARDED hardware=0/7 state=1 fallback=0 enabled=1\n"));
    EXPECT_THAT(client->output(), HasSubstr("REGISTERED 0 0 0 0 0\n"));
    EXPECT_EQ(2u, linesWith(first->output(), "RAW_REGISTER").size()) << first->output();
    EXPECT_EQ(3u, linesWith(first->output(), "STATE_REGISTER").size()) << first->output();

    kill(first);
    ASSERT_TRUE(client->waitForOutput("LATE")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("LATE -19 -19\n"));

    auto second = service(2);
    ASSERT_TRUE(client->waitForOutput("UNREGISTERED\n")) << client->output() << second->output();
    // The client undoes one registration of each kind, under the handles the new service gave;
    // its last line follows every registration.
    ASSERT_TRUE(second->waitForOutput("STATE_UNREGISTER")) << second->output();
    const std::string registered = second->output();
    const std::vector<size_t> raw = linesWith(registered, "RAW_REGISTER");
    const std::vector<size_t> state = linesWith(registered, "STATE_REGISTER");
    ASSERT_EQ(2u, raw.size()) << registered;
    ASSERT_EQ(2u, state.size()) << registered;
    EXPECT_LT(raw.back(), state.front()) << "raw data listeners come back first\n" << registered;
    int rawHandle = -1, stateHandle = -1;
    ASSERT_EQ(2, sscanf(strstr(client->output().c_str(), "UNREGISTER "), "UNREGISTER %d %d",
                        &rawHandle, &stateHandle));
    EXPECT_EQ(1u, linesWith(registered, "RAW_UNREGISTER " + std::to_string(rawHandle)).size());
    EXPECT_EQ(1u, linesWith(registered, "STATE_UNREGISTER " + std::to_string(stateHandle)).size());

    // The lookup's notifier runs before the singleton's recovery, which therefore never sees
    // the dead proxy; no wait was given up; the successful lookups limited the log to info, so
    // the recovery's wait says nothing.
    const std::string output = client->output();
    const std::vector<size_t> lookupDied = linesWith(output, "client_test E ", kDied);
    const std::vector<size_t> implDied = linesWith(output, "TovarinServiceImpl E ", kDied);
    ASSERT_EQ(1u, lookupDied.size()) << output;
    ASSERT_EQ(1u, implDied.size()) << output;
    EXPECT_LT(lookupDied[0], implDied[0]) << output;
    EXPECT_TRUE(linesWith(output, "TovarinServiceImpl W ").empty()) << output;
    EXPECT_TRUE(linesWith(output, "TovarinServiceImpl D ").empty()) << output;

    // Another restart brings back only the listeners still registered.
    auto third = service(1);
    kill(second);
    ASSERT_EQ(0, client->wait()) << client->output() << third->output();
    EXPECT_EQ(1u, linesWith(third->output(), "RAW_REGISTER").size()) << third->output();
    EXPECT_EQ(1u, linesWith(third->output(), "STATE_REGISTER").size()) << third->output();
}

// The service found after a death dies before the client links to it: the client keeps no
// proxy that no death notice would ever replace, looks again, and its listener comes back with
// the next service.
TEST_F(ClientTest, ServiceDyingBeforeTheLinkIsLookedUpAgain) {
    auto first = service();
    auto client = this->client("relink");
    ASSERT_TRUE(client->waitForOutput("REGISTERED")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("REGISTERED 0\n"));

    auto second = service();  // the one the recovery's lookup kills
    kill(first);
    ASSERT_TRUE(client->waitForOutput("KILLED_AFTER_LOOKUP")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("KILLED_AFTER_LOOKUP 1\n"));
    auto third = service(1);
    EXPECT_EQ(0, client->wait()) << client->output() << third->output();
    EXPECT_EQ(1u, linesWith(third->output(), "STATE_REGISTER").size()) << third->output();
}

// The client calls exit() while a pool thread is recovering from the service's death, and the
// recovery goes on after the static destructors have run: it still finds the new service and
// registers the listener; the singleton is still there to recover from a second death; the
// process exits cleanly.
TEST_F(ClientTest, RecoveryOutlivesStaticDestructorsAtExit) {
    auto first = service();
    auto client = this->client("exit");
    ASSERT_TRUE(client->waitForOutput("REGISTERED")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("REGISTERED 0\n"));

    kill(first);
    ASSERT_TRUE(client->waitForOutput("EXITING")) << client->output();
    auto second = service(1);
    ASSERT_TRUE(client->waitForOutput("RECOVERED_AT_EXIT 1")) << client->output();
    EXPECT_EQ(1u, linesWith(second->output(), "STATE_REGISTER").size()) << second->output();

    auto third = service(1);  // takes the name while the second still runs
    kill(second);
    EXPECT_EQ(0, client->wait()) << client->output();
    EXPECT_EQ(1u, linesWith(third->output(), "STATE_REGISTER").size()) << third->output();
}

// The service stays away past the five-second wait: the recovery gives up once, and a later
// call finds a new service at once but registers nothing with it. Meanwhile a client that never
// had a service gets every fallback at once, and getService() gives up after six lookups a
// second apart, saying it waits before each pause.
TEST_F(ClientTest, ServiceAwayLongerThanTheWait) {
    auto first = service();
    auto client = this->client("away");
    ASSERT_TRUE(client->waitForOutput("REGISTERED")) << client->output();
    EXPECT_THAT(client->output(), HasSubstr("REGISTERED 0 0\n"));

    const auto died = std::chrono::steady_clock::now();
    kill(first);
    ASSERT_TRUE(client->waitForOutput(kDied)) << client->output();  // the runtime knows
    auto lonely = this->client("fallbacks");
    ASSERT_EQ(0, lonely->wait()) << lonely->output();
    const std::string fallbacks = lonely->output();
    EXPECT_THAT(fallbacks, HasSubstr("FALLBACKS 0 0 32 0 -1 -1 -19 -19 -19 -19 -19 -19 4242 1.5 "
                                     "untouched -19 -19\n"));
    // Fallbacks never wait; getService() waits five seconds.
    EXPECT_THAT(fallbacks, HasSubstr("WAITED fallbacks=0 getService=1 null=1\n"));
    EXPECT_EQ(
            5u,
            linesWith(fallbacks, "TovarinServiceImpl D ", "Waiting for Tovarin Service...").size())
            << fallbacks;

    ASSERT_TRUE(client->waitForOutput("Unable to find service...", 12000)) << client->output();
    EXPECT_GE(std::chrono::steady_clock::now() - died, 4500ms);
    auto second = service();
    EXPECT_EQ(0, client->wait()) << client->output();
    EXPECT_EQ(1u, linesWith(client->output(), "TovarinServiceImpl W ", "Unable to find service...")
                          .size())
            << client->output();
    ASSERT_TRUE(second->waitForOutput("STATE_REGISTER")) << second->output();
    EXPECT_EQ(1u, linesWith(second->output(), "STATE_REGISTER").size()) << "only the client's own";
    EXPECT_TRUE(linesWith(second->output(), "RAW_REGISTER").empty()) << second->output();
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
