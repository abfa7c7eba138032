/*
 * One camera frame with its settings and sensor samples. The pixels are not owned by the event:
 * data points into a buffer that belongs to whoever produced the event (a parceler, the
 * simulated tracker's frame buffer) and is valid only as long as that owner says.
 */
#pragma once

#include <stdint.h>

#include <vector>

#include <utils/Timers.h>

#include <tovarin/CameraSettings.h>

namespace morvel {
namespace tovarin {

struct SensorData {
    int64_t timestamp = 0;
    int64_t tag = 0;
    int32_t code = 0;
    float values[3] = {};
};

struct CameraFrameEvent {
    int64_t timestamp = systemTime(SYSTEM_TIME_MONOTONIC);  // construction time, nanoseconds
    int64_t tag = 0;
    unsigned char* data = nullptr;  // width * height bytes, one per pixel; null = no pixels
    int32_t width = 0;
    int32_t height = 0;
    CameraSettings settings;
    std::vector<SensorData> sensorData;
};

}  // namespace tovarin
}  // namespace morvel
