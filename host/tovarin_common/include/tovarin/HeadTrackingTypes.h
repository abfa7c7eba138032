/*
 * Value records of the head-tracking service: tracker handles, configurations, samples, the
 * tracking state and state change events. Plain aggregates; they cross process boundaries only
 * through their parcelers.
 */
#pragma once

#include <stdint.h>

#include <string>

namespace morvel {
namespace tovarin {

// Names one head tracker held by a client. id -1 means that no tracker is held.
// secondaryId is kept by this library only; it never crosses a process boundary.
struct HeadTrackerHandle {
    int32_t id = -1;
    int32_t secondaryId = -1;
};

// Settings applied to one head tracker. TovarinFacade accepts fidelity 0..3 and filter 0..2.
struct HeadTrackingConfiguration {
    int32_t fidelity = 2;
    int32_t filter = 1;
    std::string debugString;  // free text, used for logging only
};

// One tracking sample. timestamp is in nanoseconds of the monotonic clock; text is always
// NUL-terminated.
struct HeadTrackingEvent {
    int64_t timestamp = 0;
    float component0 = 0.0f;
    float component1 = 0.0f;
    float component2 = 0.0f;
    bool flag0 = false;
    bool flag1 = false;
    float scalar = 0.0f;
    char text[256] = {};
};

// The service's tracking state. See TovarinFacade for the codes the simulated tracker reports.
struct HeadTrackingState {
    int32_t primary = 0;
    int32_t secondary = 0;
};

// A change of the enabled or tracking state, as delivered to state change listeners.
struct StateChangeEvent {
    int64_t timestamp = 0;  // nanoseconds, monotonic clock
    bool flag = false;      // enabled state after the change
    HeadTrackingState state;
};

}  // namespace tovarin
}  // namespace morvel
