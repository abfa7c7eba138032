/*
 * tovarinctl: a command-line client of the head-tracking service and its debug interface.
 *
 *   tovarinctl status
 *   tovarinctl enable 0|1
 *   tovarinctl track [SECONDS]           take a head tracker, start it, print samples
 *   tovarinctl listen [SECONDS]          print state change events
 *   tovarinctl override get [KEY] | set KEY VALUE | clear KEY
 *   tovarinctl diag get TYPE [KEY] | set TYPE KEY VALUE
 *
 * Service commands go through the process's TovarinServiceImpl; override and diag use the
 * debug interface and need the control permission (a refused read prints
 * "PERMISSION DENIED"). Exit status: 0 success, 1 service unreachable or refused, 2 usage.
 */
#pragma once

#include <binder/IServiceManager.h>
#include <utils/RefBase.h>

#include <stdio.h>

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

    int run(int argc, const char* const* argv);

private:
    typedef std::vector<std::string> Args;

    int usage();
    android::sp<TovarinServiceImpl> service();
    android::sp<ITovarinDebug> debug();

    int status();
    int enable(const Args& args);
    int track(const Args& args);
    int listen(const Args& args);
    int overrides(const Args& args);
    int diagnostics(const Args& args);

    android::sp<android::IServiceManager> mServiceManager;
    FILE* mOut;
    FILE* mErr;
};

}  // namespace binder
}  // namespace tovarin
}  // namespace morvel
