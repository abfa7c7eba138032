/*
 * The value a raw data listener receives: one camera frame, two tracking results and two head
 * locations.
 */
#pragma once

#include <stdint.h>

#include <tovarin/CameraFrameEvent.h>
#include <tovarin/HeadTrackingTypes.h>

namespace morvel {
namespace tovarin {

struct HeadLocation {
    bool flag0 = false;
    bool flag1 = false;
    int32_t value = 1;
    int32_t localIndex = -1;  // local to a process: never carried to another one
    float orientation[4] = {0.0f, 0.0f, 0.0f, 1.0f};  // unit quaternion x, y, z, w
    bool hasVector8 = false;
    float vector8[8] = {};
    bool hasVector27 = false;
    float vector27[27] = {};
};

struct RawDataEvent {
    int64_t timestamp = 0;
    CameraFrameEvent cameraFrameEvent;
    HeadTrackingEvent headTrackingEvent0;
    HeadTrackingEvent headTrackingEvent1;
    HeadLocation headLocation0;
    HeadLocation headLocation1;
};

}  // namespace tovarin
}  // namespace morvel
