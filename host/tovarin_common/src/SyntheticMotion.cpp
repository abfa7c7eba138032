#include <tovarin/SyntheticMotion.h>

#include <math.h>

#include <algorithm>

namespace morvel {
namespace tovarin {

namespace {
constexpr double kPi = 3.14159265358979323846;
}  // namespace

void SyntheticMotion::poseAt(int64_t elapsedNs, const HeadTrackingConfiguration& config,
                             MotionPose* pose) const {
    const double t = static_cast<double>(elapsedNs) / 1e9;
    const double jitterAmplitude = config.filter == 0 ? 0.5 : (config.filter == 1 ? 0.1 : 0.0);
    const double jitter = jitterAmplitude * sin(2.0 * kPi * 7.3 * t);
    pose->yaw = 30.0 * sin(2.0 * kPi * t / 8.0) + jitter;
    pose->pitch = 12.0 * sin(2.0 * kPi * t / 5.0 + 0.5) + jitter;
    pose->roll = 6.0 * sin(2.0 * kPi * t / 11.0 + 1.0);
    pose->confidence =
            std::min(1.0, 0.80 + 0.05 * config.fidelity + 0.04 * sin(2.0 * kPi * t / 3.0));
    pose->valid = true;
    pose->highConfidence = pose->confidence >= 0.85;
    pose->text = "simulated";
}

}  // namespace tovarin
}  // namespace morvel
