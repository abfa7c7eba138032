// Records and listener base classes of the host common library: field defaults, field order and
// widths (which other binaries built against the same declarations depend on), listener bodies.
// The order of the virtual operations is pinned by the service's ABI test.

#include <stddef.h>
#include <string.h>

#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <tovarin/CameraFrameEvent.h>
#include <tovarin/HeadTrackingTypes.h>
#include <tovarin/RawDataEvent.h>
#include <tovarin/TovarinListener.h>

namespace morvel {
namespace tovarin {
namespace {

// Every element of `values` equals `expected`.
template <typename T, size_t N>
void expectEach(const T (&values)[N], T expected, const std::string& name) {
    for (size_t i = 0; i < N; ++i) EXPECT_EQ(values[i], expected) << name << "[" << i << "]";
}

TEST(RecordDefaults, HeadTrackerValueTypes) {
    HeadTrackerHandle handle;
    EXPECT_EQ(handle.id, -1);
    EXPECT_EQ(handle.secondaryId, -1);
    HeadTrackingConfiguration config;
    EXPECT_EQ(config.fidelity, 2);
    EXPECT_EQ(config.filter, 1);
    EXPECT_EQ(config.debugString, "");
    HeadTrackingEvent event;
    EXPECT_EQ(event.timestamp, 0);
    EXPECT_EQ(event.component0, 0.0f);
    EXPECT_EQ(event.component1, 0.0f);
    EXPECT_EQ(event.component2, 0.0f);
    EXPECT_FALSE(event.flag0);
    EXPECT_FALSE(event.flag1);
    EXPECT_EQ(event.scalar, 0.0f);
    expectEach(event.text, '\0', "HeadTrackingEvent.text");
    StateChangeEvent change;
    EXPECT_EQ(change.timestamp, 0);
    EXPECT_FALSE(change.flag);
    for (const HeadTrackingState& state : {HeadTrackingState(), change.state}) {
        EXPECT_EQ(state.primary, 0);
        EXPECT_EQ(state.secondary, 0);
    }
}

TEST(RecordDefaults, HeadLocationAndRawDataEvent) {
    RawDataEvent raw;
    EXPECT_EQ(raw.timestamp, 0);
    EXPECT_EQ(raw.headTrackingEvent0.timestamp, 0);
    EXPECT_EQ(raw.headTrackingEvent1.scalar, 0.0f);
    for (const HeadLocation* location : {&raw.headLocation0, &raw.headLocation1}) {
        SCOPED_TRACE(location == &raw.headLocation0 ? "headLocation0" : "headLocation1");
        EXPECT_FALSE(location->flag0);
        EXPECT_FALSE(location->flag1);
        EXPECT_EQ(location->value, 1);
        EXPECT_EQ(location->localIndex, -1);
        const float identity[4] = {0, 0, 0, 1};
        for (int i = 0; i < 4; ++i) EXPECT_EQ(location->orientation[i], identity[i]) << i;
        EXPECT_FALSE(location->hasVector8);
        EXPECT_FALSE(location->hasVector27);
        expectEach(location->vector8, 0.0f, "vector8");
        expectEach(location->vector27, 0.0f, "vector27");
    }
}

TEST(RecordDefaults, CameraFrameEventAndSettings) {
    const int64_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    CameraFrameEvent frame;
    const int64_t after = systemTime(SYSTEM_TIME_MONOTONIC);
    // The timestamp is the monotonic clock at construction, not zero and not the wall clock.
    EXPECT_GE(frame.timestamp, before);
    EXPECT_LE(frame.timestamp, after);
    EXPECT_EQ(frame.tag, 0);
    EXPECT_EQ(frame.data, nullptr);
    EXPECT_EQ(frame.width, 0);
    EXPECT_EQ(frame.height, 0);
    EXPECT_TRUE(frame.sensorData.empty());
    SensorData sample;
    EXPECT_EQ(sample.timestamp, 0);
    EXPECT_EQ(sample.tag, 0);
    EXPECT_EQ(sample.code, 0);
    expectEach(sample.values, 0.0f, "SensorData.values");

    // The settings constructor really zeroes: build one in memory full of garbage.
    alignas(CameraSettings) unsigned char storage[sizeof(CameraSettings)];
    memset(storage, 0xa5, sizeof(storage));
    CameraSettings* settings = new (storage) CameraSettings();
    for (const CameraSettings* s : {&frame.settings, settings}) {
        expectEach(s->settingsA, int32_t(0), "settingsA");
        expectEach(s->settingsB, int32_t(0), "settingsB");
        EXPECT_FALSE(s->settingsFlag);
    }
    settings->~CameraSettings();
}

// Field order and widths: offsets must grow in declaration order, with the documented widths.
struct FieldInfo {
    const char* name;
    size_t offset;
    size_t size;
    size_t expectedSize;
};

template <typename R, typename F>
FieldInfo field(const R& record, const F& member, const char* name, size_t expectedSize) {
    const auto offset = static_cast<size_t>(reinterpret_cast<const char*>(&member) -
                                            reinterpret_cast<const char*>(&record));
    return {name, offset, sizeof(F), expectedSize};
}

void expectLayout(const char* record, const std::vector<FieldInfo>& fields) {
    for (size_t i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(fields[i].size, fields[i].expectedSize) << record << "." << fields[i].name;
        if (i > 0) {
            EXPECT_GT(fields[i].offset, fields[i - 1].offset)
                    << record << "." << fields[i].name << " is not after " << fields[i - 1].name;
        }
    }
}

#define FIELD(record, name, size) field(record, record.name, #name, size)

TEST(RecordLayout, FieldsInDeclaredOrderWithDeclaredWidths) {
    HeadTrackerHandle h;
    expectLayout("HeadTrackerHandle", {FIELD(h, id, 4), FIELD(h, secondaryId, 4)});
    EXPECT_EQ(sizeof(HeadTrackerHandle), 8u);

    HeadTrackingConfiguration c;
    expectLayout("HeadTrackingConfiguration",
                 {FIELD(c, fidelity, 4), FIELD(c, filter, 4),
                  FIELD(c, debugString, sizeof(std::string))});

    HeadTrackingEvent e;
    expectLayout("HeadTrackingEvent",
                 {FIELD(e, timestamp, 8), FIELD(e, component0, 4), FIELD(e, component1, 4),
                  FIELD(e, component2, 4), FIELD(e, flag0, 1), FIELD(e, flag1, 1),
                  FIELD(e, scalar, 4), FIELD(e, text, 256)});

    StateChangeEvent s;
    expectLayout("StateChangeEvent",
                 {FIELD(s, timestamp, 8), FIELD(s, flag, 1), FIELD(s, state, 8)});
    expectLayout("HeadTrackingState", {FIELD(s.state, primary, 4), FIELD(s.state, secondary, 4)});

    HeadLocation l;
    expectLayout("HeadLocation",
                 {FIELD(l, flag0, 1), FIELD(l, flag1, 1), FIELD(l, value, 4),
                  FIELD(l, localIndex, 4), FIELD(l, orientation, 16), FIELD(l, hasVector8, 1),
                  FIELD(l, vector8, 32), FIELD(l, hasVector27, 1), FIELD(l, vector27, 108)});

    RawDataEvent r;
    expectLayout("RawDataEvent",
                 {FIELD(r, timestamp, 8), FIELD(r, cameraFrameEvent, sizeof(CameraFrameEvent)),
                  FIELD(r, headTrackingEvent0, sizeof(HeadTrackingEvent)),
                  FIELD(r, headTrackingEvent1, sizeof(HeadTrackingEvent)),
                  FIELD(r, headLocation0, sizeof(HeadLocation)),
                  FIELD(r, headLocation1, sizeof(HeadLocation))});

    CameraFrameEvent f;
    expectLayout("CameraFrameEvent",
                 {FIELD(f, timestamp, 8), FIELD(f, tag, 8), FIELD(f, data, sizeof(void*)),
                  FIELD(f, width, 4), FIELD(f, height, 4),
                  FIELD(f, settings, sizeof(CameraSettings)),
                  FIELD(f, sensorData, sizeof(std::vector<SensorData>))});
    expectLayout("CameraSettings",
                 {FIELD(f.settings, settingsA, 28), FIELD(f.settings, settingsFlag, 1),
                  FIELD(f.settings, settingsB, 24)});

    SensorData d;
    expectLayout("SensorData", {FIELD(d, timestamp, 8), FIELD(d, tag, 8), FIELD(d, code, 4),
                                FIELD(d, values, 12)});
}

static_assert(std::is_signed_v<decltype(HeadTrackingEvent::timestamp)>);
static_assert(std::is_same_v<decltype(HeadLocation::orientation), float[4]>);
static_assert(std::is_same_v<decltype(CameraFrameEvent::data), unsigned char*>);

// ---------------------------------------------------------------------------------------------
// Listener classes
// ---------------------------------------------------------------------------------------------

class CountingStateListener : public StateChangeListener {
public:
    void onEvent(const StateChangeEvent&) override { ++events; }
    int events = 0;
};

class CountingRawListener : public RawDataListener {
public:
    void onEvent(const RawDataEvent&) override { ++events; }
    int events = 0;
};

TEST(ListenerBodies, AccessorsActOnTheirOwnFieldsThroughTheBase) {
    android::sp<CountingStateListener> state = new CountingStateListener();
    android::sp<CountingRawListener> raw = new CountingRawListener();
    for (TovarinListener* listener : {static_cast<TovarinListener*>(state.get()),
                                      static_cast<TovarinListener*>(raw.get())}) {
        SCOPED_TRACE(listener == state.get() ? "StateChangeListener" : "RawDataListener");
        EXPECT_EQ(listener->getHandle(), -1);
        EXPECT_EQ(listener->getPid(), -1);
        EXPECT_EQ(listener->getRegistrationTimestamp(), 0);

        listener->setHandle(7);
        EXPECT_EQ(listener->getHandle(), 7);
        EXPECT_EQ(listener->getPid(), -1) << "setHandle must not touch the pid";
        listener->setPid(4242);
        EXPECT_EQ(listener->getPid(), 4242);
        EXPECT_EQ(listener->getHandle(), 7) << "setPid must not touch the handle";
        EXPECT_EQ(listener->getRegistrationTimestamp(), 0);

        // Wall-clock milliseconds: bracketed by the realtime clock read around the call.
        const int64_t before = systemTime(SYSTEM_TIME_REALTIME) / 1000000;
        listener->updateRegistrationTimestamp();
        const int64_t after = systemTime(SYSTEM_TIME_REALTIME) / 1000000;
        EXPECT_GE(listener->getRegistrationTimestamp(), before);
        EXPECT_LE(listener->getRegistrationTimestamp(), after);
        EXPECT_EQ(listener->getHandle(), 7);
        EXPECT_EQ(listener->getPid(), 4242);
    }
    state->onEvent(StateChangeEvent());
    raw->onEvent(RawDataEvent());
    EXPECT_EQ(state->events, 1);
    EXPECT_EQ(raw->events, 1);
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
