/*
 * tovarind: the head-tracking service process. Publishes the tracking service over the
 * simulated head tracker and serves it on the binder thread pool until killed.
 *
 *   tovarind [--trackers N] [--raw-rate HZ] [--disabled] [--replay FILE [--loop]]
 *
 * With --replay the trackers play FILE back (see MotionRecording.h) instead of their synthetic
 * motion; a file that cannot be used ends the process with status 1 before anything is
 * registered. Exit status 2 and the usage on stderr for a malformed command line.
 */
#include "ITovarinDebug.h"
#include "ITovarinService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <tovarin/MotionRecording.h>
#include <tovarin/ReplayMotion.h>
#include <tovarin/TovarinFacade.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <utility>

using android::defaultServiceManager;
using android::IPCThreadState;
using android::OK;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using morvel::tovarin::MotionRecording;
using morvel::tovarin::ReplayMotion;
using morvel::tovarin::TovarinFacade;
using morvel::tovarin::binder::BnTovarinDebug;
using morvel::tovarin::binder::BnTovarinService;
using morvel::tovarin::binder::ITovarinDebug;
using morvel::tovarin::binder::ITovarinService;

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: tovarind [--trackers N] [--raw-rate HZ] [--disabled] [--replay FILE [--loop]]\n"
            "  --trackers N     number of head trackers (1..16, default 4)\n"
            "  --raw-rate HZ    raw data frames per second (0.1..240, default 30)\n"
            "  --disabled       start with tracking disabled\n"
            "  --replay FILE    play the samples of FILE (CSV, as tovarinctl track --csv writes)\n"
            "  --loop           start the replay over when it ends\n");
}

// A finite number of moderate size (the facade clamps it to its own range).
bool parseNumber(const char* text, double* out) {
    char* end = nullptr;
    *out = strtod(text, &end);
    return end != text && *end == '\0' && *out >= -1e6 && *out <= 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    TovarinFacade::Options options;
    const char* replayPath = nullptr;
    bool loop = false;
    for (int i = 1; i < argc; ++i) {
        const char* const option = argv[i];
        const char* const value = i + 1 < argc ? argv[i + 1] : nullptr;
        const bool takesNumber =
                strcmp(option, "--trackers") == 0 || strcmp(option, "--raw-rate") == 0;
        double number = 0;
        if (strcmp(option, "--help") == 0 || strcmp(option, "-h") == 0) {
            usage(stdout);
            return 0;
        } else if (takesNumber && (value == nullptr || !parseNumber(value, &number))) {
            fprintf(stderr, "tovarind: %s needs a number\n", option);
            usage(stderr);
            return 2;
        } else if (strcmp(option, "--trackers") == 0) {
            options.trackerCount = static_cast<int32_t>(number);
            ++i;
        } else if (strcmp(option, "--raw-rate") == 0) {
            options.rawFrameRateHz = number;
            ++i;
        } else if (strcmp(option, "--disabled") == 0) {
            options.enabled = false;
        } else if (strcmp(option, "--replay") == 0 && value != nullptr) {
            replayPath = value;
            ++i;
        } else if (strcmp(option, "--loop") == 0) {
            loop = true;
        } else {
            fprintf(stderr, "tovarind: unexpected argument: %s\n", option);
            usage(stderr);
            return 2;
        }
    }
    if (loop && replayPath == nullptr) {
        fprintf(stderr, "tovarind: --loop needs --replay FILE\n");
        usage(stderr);
        return 2;
    }
    if (replayPath != nullptr) {
        MotionRecording recording;
        std::string error;
        if (!MotionRecording::load(replayPath, &recording, &error)) {
            fprintf(stderr, "tovarind: cannot replay %s: %s\n", replayPath, error.c_str());
            return 1;
        }
        printf("tovarind: replaying %zu samples (%.3f s) from %s%s\n", recording.samples().size(),
               static_cast<double>(recording.durationNs()) / 1e9, replayPath,
               loop ? ", looping" : "");
        options.motion = std::make_shared<const ReplayMotion>(std::move(recording), loop);
    }

    sp<TovarinFacade> facade = new TovarinFacade(options);
    // Lives as long as the process: the service object and its death trackers hold each other.
    sp<BnTovarinService> service = new BnTovarinService(facade);
    const status_t status =
            defaultServiceManager()->addService(String16(ITovarinService::SERVICE_NAME), service);
    if (status != OK) {
        fprintf(stderr, "tovarind: cannot register %s: %d\n", ITovarinService::SERVICE_NAME,
                status);
        return 1;
    }

    // The debug interface over this process's overrides and diagnostics stores.
    defaultServiceManager()->addService(String16(ITovarinDebug::SERVICE_NAME),
                                        new BnTovarinDebug());

    ProcessState::self()->startThreadPool();
    printf("tovarind: serving %s\n", ITovarinService::SERVICE_NAME);
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}
