/*
 * A motion source that plays a MotionRecording back. The recording's first sample is at the
 * moment the tracker started; between samples, angles and confidence are interpolated linearly
 * (angles as written: write 181 rather than -179 to pass 180 the short way), while valid,
 * high_confidence and text are those of the sample at or before the time asked. After the last
 * sample the pose stays at the last sample, or, with `loop`, the recording starts over (the
 * last sample is followed at once by the first).
 */
#pragma once

#include <tovarin/MotionRecording.h>
#include <tovarin/MotionSource.h>

namespace morvel {
namespace tovarin {

class ReplayMotion : public MotionSource {
public:
    ReplayMotion(MotionRecording recording, bool loop);

    void poseAt(int64_t elapsedNs, const HeadTrackingConfiguration& config,
                MotionPose* pose) const override;

    const MotionRecording& recording() const { return mRecording; }
    bool loops() const { return mLoop; }

private:
    const MotionRecording mRecording;
    const bool mLoop;
};

}  // namespace tovarin
}  // namespace morvel
