// Records of the host common library: field order and widths (binaries built against the
// maker's own declarations depend on them), and the defaults that carry a meaning. The order
// of the listener classes' virtual operations is pinned by the service's ABI test.

#include <string.h>

#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <tovarin/CameraFrameEvent.h>
#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/RawDataEvent.h>

namespace morvel {
namespace tovarin {
namespace {

struct Field {
    std::string name;
    ptrdiff_t offset;
    size_t size, expectedSize;
};

template <typename R, typename M>
Field field(const R& record, const M& member, const char* name, size_t expectedSize) {
    return {name, reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&record),
            sizeof(M), expectedSize};
}
#define FIELD(record, member, size) field(record, record.member, #record "." #member, size)

TEST(RecordLayout, FieldsInDeclaredOrderWithDeclaredWidths) {
    const HeadTrackerHandle h;
    const HeadTrackingConfiguration c;
    const HeadTrackingEvent e;
    const StateChangeEvent s;
    const HeadLocation l;
    const RawDataEvent r;
    const CameraFrameEvent f;
    const SensorData d;
    const std::vector<std::vector<Field>> records = {
            {FIELD(h, id, 4), FIELD(h, secondaryId, 4)},
            {FIELD(c, fidelity, 4), FIELD(c, filter, 4), FIELD(c, debugString, sizeof(std::string))},
            {FIELD(e, timestamp, 8), FIELD(e, component0, 4), FIELD(e, component1, 4),
             FIELD(e, component2, 4), FIELD(e, flag0, 1), FIELD(e, flag1, 1), FIELD(e, scalar, 4),
             FIELD(e, text, 256)},
            {FIELD(s, timestamp, 8), FIELD(s, flag, 1), FIELD(s, state, 8)},
            {FIELD(s.state, primary, 4), FIELD(s.state, secondary, 4)},
            {FIELD(l, flag0, 1), FIELD(l, flag1, 1), FIELD(l, value, 4), FIELD(l, localIndex, 4),
             FIELD(l, orientation, 16), FIELD(l, hasVector8, 1), FIELD(l, vector8, 32),
             FIELD(l, hasVector27, 1), FIELD(l, vector27, 108)},
            {FIELD(r, timestamp, 8), FIELD(r, cameraFrameEvent, sizeof(CameraFrameEvent)),
             FIELD(r, headTrackingEvent0, sizeof(HeadTrackingEvent)),
             FIELD(r, headTrackingEvent1, sizeof(HeadTrackingEvent)),
             FIELD(r, headLocation0, sizeof(HeadLocation)),
             FIELD(r, headLocation1, sizeof(HeadLocation))},
            {FIELD(f, timestamp, 8), FIELD(f, tag, 8), FIELD(f, data, sizeof(void*)),
             FIELD(f, width, 4), FIELD(f, height, 4), FIELD(f, settings, sizeof(CameraSettings)),
             FIELD(f, sensorData, sizeof(std::vector<SensorData>))},
            {FIELD(f.settings, settingsA, 28), FIELD(f.settings, settingsFlag, 1),
             FIELD(f.settings, settingsB, 24)},
            {FIELD(d, timestamp, 8), FIELD(d, tag, 8), FIELD(d, code, 4), FIELD(d, values, 12)},
    };
    for (const std::vector<Field>& fields : records) {
        for (size_t i = 0; i < fields.size(); ++i) {
            EXPECT_EQ(fields[i].expectedSize, fields[i].size) << fields[i].name;
            if (i > 0) {
                EXPECT_GT(fields[i].offset, fields[i - 1].offset) << fields[i].name;
            }
        }
    }
    EXPECT_EQ(sizeof(HeadTrackerHandle), 8u);
}

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
