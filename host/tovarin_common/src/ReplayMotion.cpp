#include <tovarin/ReplayMotion.h>

#include <algorithm>
#include <utility>

namespace morvel {
namespace tovarin {

ReplayMotion::ReplayMotion(MotionRecording recording, bool loop)
    : mRecording(std::move(recording)), mLoop(loop) {}

void ReplayMotion::poseAt(int64_t elapsedNs, const HeadTrackingConfiguration& /*config*/,
                          MotionPose* pose) const {
    const std::vector<RecordedSample>& samples = mRecording.samples();
    if (samples.empty()) {
        *pose = MotionPose();
        return;
    }
    const int64_t duration = mRecording.durationNs();
    int64_t offset = std::max<int64_t>(elapsedNs, 0);
    if (mLoop && duration > 0) offset %= duration;
    const int64_t at = samples.front().timestampNs + std::min(offset, duration);

    // The first sample after `at`; the one before it is where the pose comes from.
    auto next = std::upper_bound(
            samples.begin(), samples.end(), at,
            [](int64_t time, const RecordedSample& sample) { return time < sample.timestampNs; });
    const RecordedSample& from = *(next - 1);
    pose->valid = from.valid;
    pose->highConfidence = from.highConfidence;
    pose->text = from.text;
    if (next == samples.end()) {
        pose->yaw = from.yaw;
        pose->pitch = from.pitch;
        pose->roll = from.roll;
        pose->confidence = from.confidence;
        return;
    }
    const RecordedSample& to = *next;
    const double f = static_cast<double>(at - from.timestampNs) /
                     static_cast<double>(to.timestampNs - from.timestampNs);
    pose->yaw = from.yaw + (to.yaw - from.yaw) * f;
    pose->pitch = from.pitch + (to.pitch - from.pitch) * f;
    pose->roll = from.roll + (to.roll - from.roll) * f;
    pose->confidence = from.confidence + (to.confidence - from.confidence) * f;
}

}  // namespace tovarin
}  // namespace morvel
