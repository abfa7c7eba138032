#include "TovarinCtl.h"

#include "ITovarinDebug.h"
#include "TovarinServiceImpl.h"

#include <utils/String16.h>
#include <utils/String8.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/TovarinListener.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <thread>

using android::IServiceManager;
using android::OK;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;

namespace morvel {
namespace tovarin {
namespace binder {

namespace {

// Parses a non-negative number of seconds; false for anything else.
bool parseSeconds(const std::string& text, double* out) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0) || value > 24 * 3600) return false;
    *out = value;
    return true;
}

bool parseInt(const std::string& text, int* out) {
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return false;
    *out = static_cast<int>(value);
    return true;
}

// Prints every state change event it receives, from the client's binder threads.
class PrintingListener : public StateChangeListener {
public:
    explicit PrintingListener(FILE* out) : mOut(out) {}
    void onEvent(const StateChangeEvent& event) override {
        fprintf(mOut, "event timestamp=%lld flag=%d primary=%d secondary=%d\n",
                static_cast<long long>(event.timestamp), event.flag ? 1 : 0, event.state.primary,
                event.state.secondary);
        fflush(mOut);
    }

private:
    FILE* mOut;
};

}  // namespace

TovarinCtl::TovarinCtl(const sp<IServiceManager>& serviceManager, FILE* out, FILE* err)
    : mServiceManager(serviceManager), mOut(out), mErr(err) {}

int TovarinCtl::usage() {
    fprintf(mErr,
            "usage: tovarinctl status\n"
            "       tovarinctl enable 0|1\n"
            "       tovarinctl track [SECONDS]\n"
            "       tovarinctl listen [SECONDS]\n"
            "       tovarinctl override get [KEY] | set KEY VALUE | clear KEY\n"
            "       tovarinctl diag get TYPE [KEY] | set TYPE KEY VALUE\n");
    return 2;
}

int TovarinCtl::run(int argc, const char* const* argv) {
    if (argc < 2) return usage();
    const std::string command = argv[1];
    const Args args(argv + 2, argv + argc);
    if (command == "status" && args.empty()) return status();
    if (command == "enable") return enable(args);
    if (command == "track") return track(args);
    if (command == "listen") return listen(args);
    if (command == "override") return overrides(args);
    if (command == "diag") return diagnostics(args);
    return usage();
}

// The client singleton once the service is reachable (waiting up to five seconds for it).
sp<TovarinServiceImpl> TovarinCtl::service() {
    if (TovarinServiceImpl::getService() == nullptr) {
        fprintf(mErr, "tovarinctl: %s is not running\n", ITovarinService::SERVICE_NAME);
        return nullptr;
    }
    return TovarinServiceImpl::getInstance();
}

sp<ITovarinDebug> TovarinCtl::debug() {
    sp<ITovarinDebug> debug;
    if (mServiceManager != nullptr) {
        debug = ITovarinDebug::asInterface(
                mServiceManager->getService(String16(ITovarinDebug::SERVICE_NAME)));
    }
    if (debug == nullptr) {
        fprintf(mErr, "tovarinctl: %s is not running\n", ITovarinDebug::SERVICE_NAME);
    }
    return debug;
}

int TovarinCtl::status() {
    const sp<TovarinServiceImpl> impl = service();
    if (impl == nullptr) return 1;
    const HeadTrackingState state = impl->getHeadTrackingState();
    fprintf(mOut, "enabled: %d\ntracking state: %d %d\n", impl->getEnabled() ? 1 : 0, state.primary,
            state.secondary);
    return 0;
}

int TovarinCtl::enable(const Args& args) {
    int enabled = 0;
    if (args.size() != 1 || !parseInt(args[0], &enabled) || (enabled != 0 && enabled != 1)) {
        return usage();
    }
    const sp<TovarinServiceImpl> impl = service();
    if (impl == nullptr) return 1;
    impl->setEnabledState(enabled);
    // A caller without the control permission is refused silently: report what took effect.
    const bool now = impl->getEnabled();
    fprintf(mOut, "enabled: %d\n", now ? 1 : 0);
    return now == (enabled == 1) ? 0 : 1;
}

int TovarinCtl::track(const Args& args) {
    double seconds = 3;
    if (args.size() > 1 || (args.size() == 1 && !parseSeconds(args[0], &seconds))) {
        return usage();
    }
    const sp<TovarinServiceImpl> impl = service();
    if (impl == nullptr) return 1;
    // The proxy the request goes through: a handle of -1 also answers a request that failed.
    const sp<ITovarinService> proxy = TovarinServiceImpl::checkService();
    const HeadTrackerHandle handle = impl->getHeadTrackerHandle();
    if (handle.id == -1) {
        if (proxy == nullptr || !android::IInterface::asBinder(proxy)->isBinderAlive()) {
            fprintf(mErr, "tovarinctl: %s died before handing out a head tracker\n",
                    ITovarinService::SERVICE_NAME);
        } else {
            fprintf(mErr, "tovarinctl: no head tracker is free\n");
        }
        return 1;
    }
    int result = 0;
    status_t status = impl->start(handle);
    if (status != OK) {
        fprintf(mErr, "tovarinctl: start failed: %d\n", status);
        result = 1;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (result == 0 && std::chrono::steady_clock::now() < end) {
        HeadTrackingEvent event;
        status = impl->sample(handle, event);
        if (status != OK) {
            fprintf(mErr, "tovarinctl: sample failed: %d\n", status);
            result = 1;
            break;
        }
        fprintf(mOut, "sample timestamp=%lld yaw=%.2f pitch=%.2f roll=%.2f confidence=%.2f %s\n",
                static_cast<long long>(event.timestamp), event.component0, event.component1,
                event.component2, event.scalar, event.text);
        fflush(mOut);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    impl->stop(handle);
    impl->releaseHeadTrackerHandle(handle);
    return result;
}

int TovarinCtl::listen(const Args& args) {
    double seconds = 10;
    if (args.size() > 1 || (args.size() == 1 && !parseSeconds(args[0], &seconds))) {
        return usage();
    }
    const sp<TovarinServiceImpl> impl = service();
    if (impl == nullptr) return 1;
    sp<StateChangeListener> listener = new PrintingListener(mOut);
    const status_t status = impl->registerStateChangeListener(listener);
    if (status != OK) {
        fprintf(mErr, "tovarinctl: registration failed: %d\n", status);
        return 1;
    }
    fprintf(mOut, "listening\n");
    fflush(mOut);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    impl->unregisterStateChangeListener(listener);
    return 0;
}

int TovarinCtl::overrides(const Args& args) {
    const std::string verb = args.empty() ? "" : args[0];
    const bool valid = (verb == "get" && args.size() <= 2) || (verb == "set" && args.size() == 3) ||
                       (verb == "clear" && args.size() == 2);
    if (!valid) return usage();
    const sp<ITovarinDebug> debug = this->debug();
    if (debug == nullptr) return 1;
    if (verb == "get") {
        const String8 text =
                args.size() == 2 ? debug->getOverride(args[1].c_str()) : debug->getAllOverrides();
        fprintf(mOut, "%s%s", text.string(),
                text.isEmpty() || text.string()[text.length() - 1] != '\n' ? "\n" : "");
        return 0;
    }
    if (verb == "set") {
        const int result = debug->setOverride(args[1].c_str(), args[2].c_str());
        if (result != 0) {
            fprintf(mErr, "tovarinctl: refused (%d)\n", result);
            return 1;
        }
        return 0;
    }
    debug->clearOverride(args[1].c_str());
    return 0;
}

int TovarinCtl::diagnostics(const Args& args) {
    const std::string verb = args.empty() ? "" : args[0];
    int type = 0;
    const bool valid = ((verb == "get" && (args.size() == 2 || args.size() == 3)) ||
                        (verb == "set" && args.size() == 4)) &&
                       parseInt(args[1], &type);
    if (!valid) return usage();
    const sp<ITovarinDebug> debug = this->debug();
    if (debug == nullptr) return 1;
    if (verb == "get") {
        const String8 text = args.size() == 3 ? debug->getDiagnostic(type, args[2].c_str())
                                              : debug->getAllDiagnostics(type);
        fprintf(mOut, "%s%s", text.string(),
                text.isEmpty() || text.string()[text.length() - 1] != '\n' ? "\n" : "");
        return 0;
    }
    debug->setDiagnostic(type, args[2].c_str(), args[3].c_str());
    return 0;
}

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
