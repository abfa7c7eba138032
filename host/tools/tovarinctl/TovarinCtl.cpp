#include "TovarinCtl.h"

#include "ITovarinDebug.h"
#include "TovarinServiceImpl.h"

#include <utils/String16.h>
#include <utils/String8.h>

#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/MotionRecording.h>
#include <tovarin/TovarinListener.h>

#include <errno.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <utility>

extern char** environ;

using android::IServiceManager;
using android::OK;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using morvel::tovarin::MotionRecording;
using morvel::tovarin::RecordedSample;

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

bool parseRate(const std::string& text, double* out) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0.1 && value <= 1000)) return false;
    *out = value;
    return true;
}

bool endsWith(const std::string& text, const char* suffix) {
    const size_t n = strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

// A text as a gnuplot string in single quotes (where only a quote is special: it doubles).
std::string gnuplotQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

// The gnuplot script that draws `samples` into `outPath` (SVG or PNG by its name): yaw, pitch
// and roll in degrees against seconds from the first sample, confidence on the right axis.
std::string plotScript(const std::vector<RecordedSample>& samples, const std::string& outPath,
                       const std::string& title) {
    std::string script;
    if (endsWith(outPath, ".png")) {
        script += "set terminal pngcairo size 1000,520 font 'sans,10'\n";
    } else {
        script += "set terminal svg size 1000,520 font 'sans,11' background rgb 'white'\n";
    }
    script += "set output " + gnuplotQuoted(outPath) + "\n";
    script += "set title " + gnuplotQuoted(title) + " noenhanced\n";
    script += "set xlabel 'time (s)'\n"
              "set ylabel 'angle (degrees)'\n"
              "set y2label 'confidence'\n"
              "set autoscale xfix\n"
              "set ytics nomirror\n"
              "set y2range [0:1.05]\n"
              "set y2tics 0,0.2,1\n"
              "set grid xtics ytics\n"
              "set key outside bottom center horizontal\n"
              "$motion << EOD\n";
    const int64_t first = samples.front().timestampNs;
    char row[160];
    for (const RecordedSample& sample : samples) {
        snprintf(row, sizeof(row), "%.6f %.5f %.5f %.5f %.5f\n",
                 static_cast<double>(sample.timestampNs - first) / 1e9, sample.yaw, sample.pitch,
                 sample.roll, sample.confidence);
        script += row;
    }
    script += "EOD\n"
              "plot $motion using 1:2 with lines lw 2 title 'yaw', \\\n"
              "     $motion using 1:3 with lines lw 2 title 'pitch', \\\n"
              "     $motion using 1:4 with lines lw 2 title 'roll', \\\n"
              "     $motion using 1:5 axes x1y2 with lines dt 2 lw 1.5 title 'confidence'\n"
              "unset output\n";
    return script;
}

// Runs gnuplot (from PATH) on the script; false with *error when it cannot be run or fails.
bool runGnuplot(const std::string& script, std::string* error) {
    char scriptPath[] = "/tmp/tovarinctl-plot-XXXXXX";
    const int fd = mkstemp(scriptPath);
    if (fd < 0) {
        *error = std::string("cannot create a temporary file: ") + strerror(errno);
        return false;
    }
    size_t written = 0;
    while (written < script.size()) {
        const ssize_t n = write(fd, script.data() + written, script.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = std::string("cannot write the script: ") + strerror(errno);
            close(fd);
            unlink(scriptPath);
            return false;
        }
        written += static_cast<size_t>(n);
    }
    close(fd);
    char program[] = "gnuplot";
    char* const argv[] = {program, scriptPath, nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, program, nullptr, nullptr, argv, environ);
    int status = 0;
    if (spawned == 0) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    unlink(scriptPath);
    if (spawned != 0) {
        *error = spawned == ENOENT ? std::string("gnuplot not found (Debian: apt-get install "
                                                 "gnuplot-nox)")
                                   : std::string("cannot run gnuplot: ") + strerror(spawned);
        return false;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        *error = "gnuplot failed (status " + std::to_string(status) + ")";
        return false;
    }
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

std::atomic<bool> TovarinCtl::sStopRequested{false};

TovarinCtl::TovarinCtl(const sp<IServiceManager>& serviceManager, FILE* out, FILE* err)
    : mServiceManager(serviceManager), mOut(out), mErr(err) {}

TovarinCtl::TovarinCtl(ServiceManagerSource source, FILE* out, FILE* err)
    : mServiceManagerSource(std::move(source)), mOut(out), mErr(err) {}

void TovarinCtl::requestStop() {
    sStopRequested.store(true);
}

int TovarinCtl::usage(bool asked) {
    fprintf(asked ? mOut : mErr,
            "usage: tovarinctl status [--json]\n"
            "       tovarinctl enable 0|1\n"
            "       tovarinctl track [SECONDS] [--rate HZ] [--csv FILE]\n"
            "       tovarinctl plot (--seconds S | --csv FILE) --out FILE.svg|FILE.png\n"
            "       tovarinctl listen [SECONDS]\n"
            "       tovarinctl override get [KEY] | set KEY VALUE | clear KEY\n"
            "       tovarinctl diag get TYPE [KEY] | set TYPE KEY VALUE\n"
            "       tovarinctl --help\n"
            "Faults of the simulated tracker are overrides under sim. (docs/simulator.md).\n");
    return asked ? 0 : 2;
}

int TovarinCtl::run(int argc, const char* const* argv) {
    if (argc < 2) return usage();
    const std::string command = argv[1];
    const Args args(argv + 2, argv + argc);
    if ((command == "--help" || command == "-h" || command == "help") && args.empty()) {
        return usage(true);
    }
    if (command == "status") return status(args);
    if (command == "enable") return enable(args);
    if (command == "track") return track(args);
    if (command == "plot") return plot(args);
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
    if (mServiceManager == nullptr && mServiceManagerSource) {
        mServiceManager = mServiceManagerSource();
    }
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

int TovarinCtl::status(const Args& args) {
    const bool json = args.size() == 1 && args[0] == "--json";
    if (!args.empty() && !json) return usage();
    const sp<TovarinServiceImpl> impl = service();
    if (impl == nullptr) {
        if (json) fprintf(mOut, "{\"service\":\"%s\",\"running\":false}\n",
                          ITovarinService::SERVICE_NAME);
        return 1;
    }
    const bool enabled = impl->getEnabled();
    const HeadTrackingState state = impl->getHeadTrackingState();
    // The client singleton does not pass the hardware state on: ask the service itself.
    const sp<ITovarinService> proxy = TovarinServiceImpl::checkService();
    const int32_t hardware = proxy != nullptr ? proxy->getHardwareState() : -1;
    if (json) {
        fprintf(mOut,
                "{\"service\":\"%s\",\"running\":true,\"enabled\":%s,"
                "\"trackingState\":{\"primary\":%d,\"secondary\":%d},\"hardwareState\":%d}\n",
                ITovarinService::SERVICE_NAME, enabled ? "true" : "false", state.primary,
                state.secondary, hardware);
        return 0;
    }
    fprintf(mOut, "enabled: %d\ntracking state: %d %d\nhardware state: %d\n", enabled ? 1 : 0,
            state.primary, state.secondary, hardware);
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
    double rateHz = 10;
    std::string csvPath;
    bool haveSeconds = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--csv" && hasValue && !args[i + 1].empty()) {
            csvPath = args[++i];
        } else if (args[i] == "--rate" && hasValue && parseRate(args[i + 1], &rateHz)) {
            ++i;
        } else if (!haveSeconds && parseSeconds(args[i], &seconds)) {
            haveSeconds = true;
        } else {
            return usage();
        }
    }
    FILE* csv = nullptr;
    if (!csvPath.empty()) {
        csv = fopen(csvPath.c_str(), "w");
        if (csv == nullptr) {
            fprintf(mErr, "tovarinctl: cannot write %s: %s\n", csvPath.c_str(), strerror(errno));
            return 1;
        }
        fprintf(csv, "%s\n", MotionRecording::kHeader);
        fflush(csv);
    }
    size_t recorded = 0;
    const int result = trackInto(seconds, rateHz, [&](const HeadTrackingEvent& event) {
        if (csv == nullptr) {
            fprintf(mOut,
                    "sample timestamp=%lld yaw=%.2f pitch=%.2f roll=%.2f confidence=%.2f %s\n",
                    static_cast<long long>(event.timestamp), event.component0, event.component1,
                    event.component2, event.scalar, event.text);
            fflush(mOut);
            return;
        }
        // One flushed row per sample: an interrupted recording keeps what it got.
        fputs(MotionRecording::formatRow(event).c_str(), csv);
        fflush(csv);
        ++recorded;
    });
    if (csv != nullptr) {
        const bool written = ferror(csv) == 0;
        if (fclose(csv) != 0 || !written) {
            fprintf(mErr, "tovarinctl: cannot write %s\n", csvPath.c_str());
            return 1;
        }
        if (!mQuietRecording) {
            fprintf(mOut, "recorded %zu samples to %s\n", recorded, csvPath.c_str());
        }
    }
    return result;
}

int TovarinCtl::trackInto(double seconds, double rateHz,
                          const std::function<void(const HeadTrackingEvent&)>& onSample) {
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
    const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1.0 / rateHz));
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    auto next = std::chrono::steady_clock::now();
    while (result == 0 && std::chrono::steady_clock::now() < end && !sStopRequested.load()) {
        HeadTrackingEvent event;
        status = impl->sample(handle, event);
        if (status != OK) {
            fprintf(mErr, "tovarinctl: sample failed: %d\n", status);
            result = 1;
            break;
        }
        onSample(event);
        // Keeps the rate without catching up in a burst after a slow sample.
        next = std::max(next + period, std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
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
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(seconds));
    // In short steps, so that requestStop() is heard.
    for (Clock::time_point now = Clock::now(); now < end && !sStopRequested.load();
         now = Clock::now()) {
        std::this_thread::sleep_until(std::min(end, now + std::chrono::milliseconds(100)));
    }
    impl->unregisterStateChangeListener(listener);
    return 0;
}

int TovarinCtl::plot(const Args& args) {
    double seconds = -1;
    std::string csvPath, outPath;
    for (size_t i = 0; i + 1 < args.size(); i += 2) {
        if (args[i] == "--seconds" && seconds < 0 && parseSeconds(args[i + 1], &seconds) &&
            seconds > 0) {
            continue;
        }
        if (args[i] == "--csv" && csvPath.empty() && !args[i + 1].empty()) {
            csvPath = args[i + 1];
            continue;
        }
        if (args[i] == "--out" && outPath.empty() && !args[i + 1].empty()) {
            outPath = args[i + 1];
            continue;
        }
        return usage();
    }
    if (args.size() % 2 != 0 || (seconds > 0) == !csvPath.empty() ||
        !(endsWith(outPath, ".svg") || endsWith(outPath, ".png"))) {
        return usage();
    }

    std::string recordedPath;
    if (seconds > 0) {
        // Record into a temporary file through track, then plot that.
        char path[] = "/tmp/tovarinctl-record-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) {
            fprintf(mErr, "tovarinctl: cannot create a temporary file: %s\n", strerror(errno));
            return 1;
        }
        close(fd);
        recordedPath = csvPath = path;
        char secondsText[32];
        snprintf(secondsText, sizeof(secondsText), "%g", seconds);
        mQuietRecording = true;
        const int recorded = track({secondsText, "--rate", "20", "--csv", csvPath});
        mQuietRecording = false;
        if (recorded != 0) {
            unlink(recordedPath.c_str());
            return recorded;
        }
    }
    MotionRecording recording;
    std::string error;
    const bool loaded = MotionRecording::load(csvPath, &recording, &error);
    if (!recordedPath.empty()) unlink(recordedPath.c_str());
    if (!loaded) {
        fprintf(mErr, "tovarinctl: cannot plot %s: %s\n", csvPath.c_str(), error.c_str());
        return 1;
    }
    char title[160];
    const double span = static_cast<double>(recording.durationNs()) / 1e9;
    snprintf(title, sizeof(title), "Head pose: %zu samples over %.2f s",
             recording.samples().size(), span);
    if (!runGnuplot(plotScript(recording.samples(), outPath, title), &error)) {
        fprintf(mErr, "tovarinctl: cannot plot: %s\n", error.c_str());
        return 1;
    }
    fprintf(mOut, "plotted %zu samples (%.2f s) to %s\n", recording.samples().size(), span,
            outPath.c_str());
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
