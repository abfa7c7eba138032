/*
 * tovarinctl: a command-line client of the head-tracking service and its debug interface.
 *
 *   tovarinctl status [--json]           enabled, tracking and hardware state
 *   tovarinctl enable 0|1
 *   tovarinctl track [SECONDS] [--rate HZ] [--csv FILE]
 *                                        take a head tracker, start it, print samples (or
 *                                        record them as CSV, one flushed row per sample)
 *   tovarinctl plot (--seconds S | --csv FILE) --out FILE.svg|FILE.png
 *                                        draw yaw, pitch, roll and confidence with gnuplot
 *   tovarinctl listen [SECONDS]          print state change events
 *   tovarinctl override get [KEY] | set KEY VALUE | clear KEY
 *   tovarinctl diag get TYPE [KEY] | set TYPE KEY VALUE
 *   tovarinctl --help
 *
 * Service commands go through the process's TovarinServiceImpl; override and diag use the
 * debug interface and need the control permission (a refused read prints
 * "PERMISSION DENIED"). Exit status: 0 success, 1 service unreachable, refused or failed,
 * 2 usage (printed on the error stream; --help prints it on the output).
 */
#pragma once

#include <binder/IServiceManager.h>
#include <utils/RefBase.h>

#include <tovarin/HeadTrackingTypes.h>

#include <stdio.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace morvel {
namespace tovarin {
namespace binder {

class ITovarinDebug;
class TovarinServiceImpl;

class TovarinCtl {
public:
    // The debug interface is looked up through `serviceManager`; output goes to `out`,
    // diagnostics and usage to `err`.
    TovarinCtl(const android::sp<android::IServiceManager>& serviceManager, FILE* out, FILE* err);
    // Asks `source` for the service manager when a command first needs it.
    typedef std::function<android::sp<android::IServiceManager>()> ServiceManagerSource;
    TovarinCtl(ServiceManagerSource source, FILE* out, FILE* err);

    int run(int argc, const char* const* argv);

    // Makes a running track or listen end early, as if its time were up (the tracker is still
    // stopped and released). Async-signal-safe: main() calls it from SIGINT and SIGTERM.
    static void requestStop();

private:
    typedef std::vector<std::string> Args;

    // The usage on the output when asked for (status 0), else on the error stream (status 2).
    int usage(bool asked = false);
    android::sp<TovarinServiceImpl> service();
    android::sp<ITovarinDebug> debug();

    int status(const Args& args);
    int enable(const Args& args);
    int track(const Args& args);
    // Takes a head tracker, starts it and hands one sample to onSample every 1/rateHz seconds
    // for `seconds` (or until requestStop()); stops and releases the tracker.
    int trackInto(double seconds, double rateHz,
                  const std::function<void(const HeadTrackingEvent&)>& onSample);
    int plot(const Args& args);
    int listen(const Args& args);
    int overrides(const Args& args);
    int diagnostics(const Args& args);

    ServiceManagerSource mServiceManagerSource;
    android::sp<android::IServiceManager> mServiceManager;
    FILE* mOut;
    FILE* mErr;
    bool mQuietRecording = false;  // track --csv prints no summary (plot records through it)

    static std::atomic<bool> sStopRequested;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
