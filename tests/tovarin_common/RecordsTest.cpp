// Records of the host common library: the defaults that carry a meaning. The order of the
// listener classes' virtual operations is pinned by the service's ABI test.

#include <string.h>

#include <new>

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <tovarin/CameraFrameEvent.h>
#include <tovarin/RawDataEvent.h>

namespace morvel {
namespace tovarin {
namespace {

TEST(RecordDefaults, IdentityOrientationFrameClockAndZeroedSettings) {
    // A location nobody filled in: the identity quaternion (x, y, z, w), no local index.
    const HeadLocation location;
    EXPECT_EQ(location.value, 1);
    EXPECT_EQ(location.localIndex, -1);
    const float identity[4] = {0, 0, 0, 1};
    EXPECT_EQ(memcmp(location.orientation, identity, sizeof(identity)), 0);

    // The frame is stamped with the monotonic clock when made.
    const int64_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    const CameraFrameEvent frame;
    EXPECT_GE(frame.timestamp, before);
    EXPECT_LE(frame.timestamp, systemTime(SYSTEM_TIME_MONOTONIC));

    // The settings constructor really zeroes: build one in memory full of garbage.
    alignas(CameraSettings) unsigned char storage[sizeof(CameraSettings)];
    memset(storage, 0xa5, sizeof(storage));
    const CameraSettings* settings = new (storage) CameraSettings();
    for (int32_t word : settings->settingsA) EXPECT_EQ(word, 0);
    for (int32_t word : settings->settingsB) EXPECT_EQ(word, 0);
    EXPECT_FALSE(settings->settingsFlag);
    settings->~CameraSettings();
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
