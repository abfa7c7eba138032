/*
 * Where the simulated head tracker's poses come from. TovarinFacade asks its motion source for
 * the pose of a tracker at a time measured from when that tracker started (raw data frames use
 * the time since the facade was created). Two sources exist: SyntheticMotion (a smooth endless
 * head motion, the default) and ReplayMotion (a recorded or hand-written CSV file).
 *
 * Threads: poseAt() is const and called from any thread, concurrently; sources keep no state
 * that changes after construction.
 */
#pragma once

#include <stdint.h>

#include <string>

#include <tovarin/HeadTrackingTypes.h>

namespace morvel {
namespace tovarin {

// One head pose, as a sample reports it.
struct MotionPose {
    double yaw = 0.0;  // degrees
    double pitch = 0.0;
    double roll = 0.0;
    double confidence = 0.0;      // 0..1
    bool valid = true;            // HeadTrackingEvent::flag0
    bool highConfidence = false;  // HeadTrackingEvent::flag1
    std::string text;             // at most 255 bytes reach the sample
};

class MotionSource {
public:
    virtual ~MotionSource() = default;

    // The pose elapsedNs (>= 0) after the clock of the asking tracker started, for a tracker
    // configured with `config`.
    virtual void poseAt(int64_t elapsedNs, const HeadTrackingConfiguration& config,
                        MotionPose* pose) const = 0;
};

}  // namespace tovarin
}  // namespace morvel
