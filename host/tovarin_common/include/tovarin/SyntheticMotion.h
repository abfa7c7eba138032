/*
 * The simulated tracker's own head motion: slow, smooth and endless (periods of several seconds,
 * at most about 24 degrees per second of yaw). The tracker's filter setting decides how much fast
 * jitter is left on top (0: about half a degree, 1: a tenth, 2: none); fidelity raises the
 * confidence (0.80 + 0.05 per step, with a slow wobble of 0.04).
 */
#pragma once

#include <tovarin/MotionSource.h>

namespace morvel {
namespace tovarin {

class SyntheticMotion : public MotionSource {
public:
    void poseAt(int64_t elapsedNs, const HeadTrackingConfiguration& config,
                MotionPose* pose) const override;
};

}  // namespace tovarin
}  // namespace morvel
