// Records, listener base classes and the service interface of the host common library: field
// defaults, field order and widths, listener bodies and the order of the virtual operations,
// which other binaries built against the same declarations depend on.

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
#include <tovarin/TovarinService.h>

namespace morvel {
namespace tovarin {
namespace {

struct Expectation {
    std::string field;
    double actual;
    double expected;
};

void expectAll(const std::vector<Expectation>& table) {
    for (const Expectation& e : table) {
        EXPECT_EQ(e.actual, e.expected) << e.field;
    }
}

TEST(RecordDefaults, HeadTrackerValueTypes) {
    HeadTrackerHandle handle;
    HeadTrackingConfiguration config;
    HeadTrackingEvent event;
    HeadTrackingState state;
    StateChangeEvent change;
    expectAll({
            {"HeadTrackerHandle.id", double(handle.id), -1},
            {"HeadTrackerHandle.secondaryId", double(handle.secondaryId), -1},
            {"HeadTrackingConfiguration.fidelity", double(config.fidelity), 2},
            {"HeadTrackingConfiguration.filter", double(config.filter), 1},
            {"HeadTrackingConfiguration.debugString.size", double(config.debugString.size()), 0},
            {"HeadTrackingEvent.timestamp", double(event.timestamp), 0},
            {"HeadTrackingEvent.component0", event.component0, 0},
            {"HeadTrackingEvent.component1", event.component1, 0},
            {"HeadTrackingEvent.component2", event.component2, 0},
            {"HeadTrackingEvent.flag0", double(event.flag0), 0},
            {"HeadTrackingEvent.flag1", double(event.flag1), 0},
            {"HeadTrackingEvent.scalar", event.scalar, 0},
            {"HeadTrackingState.primary", double(state.primary), 0},
            {"HeadTrackingState.secondary", double(state.secondary), 0},
            {"StateChangeEvent.timestamp", double(change.timestamp), 0},
            {"StateChangeEvent.flag", double(change.flag), 0},
            {"StateChangeEvent.state.primary", double(change.state.primary), 0},
            {"StateChangeEvent.state.secondary", double(change.state.secondary), 0},
    });
    for (size_t i = 0; i < sizeof(event.text); ++i) {
        ASSERT_EQ(event.text[i], '\0') << "HeadTrackingEvent.text[" << i << "]";
    }
}

TEST(RecordDefaults, HeadLocationAndRawDataEvent) {
    RawDataEvent raw;
    std::vector<Expectation> table = {{"RawDataEvent.timestamp", double(raw.timestamp), 0}};
    int index = 0;
    for (const HeadLocation* location : {&raw.headLocation0, &raw.headLocation1}) {
        const std::string name = "headLocation" + std::to_string(index++) + ".";
        table.push_back({name + "flag0", double(location->flag0), 0});
        table.push_back({name + "flag1", double(location->flag1), 0});
        table.push_back({name + "value", double(location->value), 1});
        table.push_back({name + "localIndex", double(location->localIndex), -1});
        const float identity[4] = {0, 0, 0, 1};
        for (int i = 0; i < 4; ++i) {
            table.push_back({name + "orientation[" + std::to_string(i) + "]",
                             location->orientation[i], identity[i]});
        }
        table.push_back({name + "hasVector8", double(location->hasVector8), 0});
        table.push_back({name + "hasVector27", double(location->hasVector27), 0});
        for (int i = 0; i < 8; ++i) {
            table.push_back({name + "vector8[" + std::to_string(i) + "]", location->vector8[i], 0});
        }
        for (int i = 0; i < 27; ++i) {
            table.push_back(
                    {name + "vector27[" + std::to_string(i) + "]", location->vector27[i], 0});
        }
    }
    table.push_back({"headTrackingEvent0.timestamp", double(raw.headTrackingEvent0.timestamp), 0});
    table.push_back({"headTrackingEvent1.scalar", raw.headTrackingEvent1.scalar, 0});
    expectAll(table);
}

TEST(RecordDefaults, CameraFrameEventAndSettings) {
    const int64_t before = systemTime(SYSTEM_TIME_MONOTONIC);
    CameraFrameEvent frame;
    const int64_t after = systemTime(SYSTEM_TIME_MONOTONIC);
    // The timestamp is the monotonic clock at construction, not zero and not the wall clock.
    EXPECT_GE(frame.timestamp, before);
    EXPECT_LE(frame.timestamp, after);

    std::vector<Expectation> table = {
            {"CameraFrameEvent.tag", double(frame.tag), 0},
            {"CameraFrameEvent.data", double(frame.data == nullptr), 1},
            {"CameraFrameEvent.width", double(frame.width), 0},
            {"CameraFrameEvent.height", double(frame.height), 0},
            {"CameraFrameEvent.sensorData.size", double(frame.sensorData.size()), 0},
            {"CameraSettings.settingsFlag", double(frame.settings.settingsFlag), 0},
    };
    for (int i = 0; i < 7; ++i) {
        table.push_back({"settingsA[" + std::to_string(i) + "]",
                         double(frame.settings.settingsA[i]), 0});
    }
    for (int i = 0; i < 6; ++i) {
        table.push_back({"settingsB[" + std::to_string(i) + "]",
                         double(frame.settings.settingsB[i]), 0});
    }
    SensorData sample;
    table.push_back({"SensorData.timestamp", double(sample.timestamp), 0});
    table.push_back({"SensorData.tag", double(sample.tag), 0});
    table.push_back({"SensorData.code", double(sample.code), 0});
    for (int i = 0; i < 3; ++i) {
        table.push_back({"SensorData.values[" + std::to_string(i) + "]", sample.values[i], 0});
    }
    expectAll(table);

    // The constructor really zeroes: build one in memory full of garbage.
    alignas(CameraSettings) unsigned char storage[sizeof(CameraSettings)];
    memset(storage, 0xa5, sizeof(storage));
    CameraSettings* settings = new (storage) CameraSettings();
    for (int i = 0; i < 7; ++i) EXPECT_EQ(settings->settingsA[i], 0) << "settingsA " << i;
    for (int i = 0; i < 6; ++i) EXPECT_EQ(settings->settingsB[i], 0) << "settingsB " << i;
    EXPECT_FALSE(settings->settingsFlag);
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

// Slot of a virtual member function in its class's primary virtual table (Itanium C++ ABI: a
// pointer to a virtual member encodes the slot's byte offset). -1 when not virtual.
template <typename PMF>
long slotOf(PMF pmf) {
    struct Representation {
        uintptr_t ptr;
        ptrdiff_t adj;
    } rep;
    static_assert(sizeof(PMF) == sizeof(Representation));
    memcpy(&rep, &pmf, sizeof(rep));
#if defined(__arm__) || defined(__aarch64__)
    if ((rep.adj & 1) == 0) return -1;
    return static_cast<long>(rep.ptr / sizeof(void*));
#else
    if ((rep.ptr & 1) == 0) return -1;
    return static_cast<long>((rep.ptr - 1) / sizeof(void*));
#endif
}

struct SlotExpectation {
    const char* name;
    long actual;
    long expected;
};

TEST(VirtualSlots, ListenerOperationsFollowTheTwoDestructorSlots) {
    const SlotExpectation table[] = {
            {"getHandle", slotOf(&TovarinListener::getHandle), 2},
            {"setHandle", slotOf(&TovarinListener::setHandle), 3},
            {"getPid", slotOf(&TovarinListener::getPid), 4},
            {"setPid", slotOf(&TovarinListener::setPid), 5},
            {"getRegistrationTimestamp", slotOf(&TovarinListener::getRegistrationTimestamp), 6},
            {"updateRegistrationTimestamp", slotOf(&TovarinListener::updateRegistrationTimestamp),
             7},
            {"RawDataListener::onEvent", slotOf(&RawDataListener::onEvent), 8},
            {"StateChangeListener::onEvent", slotOf(&StateChangeListener::onEvent), 8},
    };
    for (const SlotExpectation& e : table) EXPECT_EQ(e.actual, e.expected) << e.name;
}

TEST(VirtualSlots, ServiceOperationsInInterfaceOrder) {
    using S = TovarinService;
    const SlotExpectation table[] = {
            {"registerRawDataListener", slotOf(&S::registerRawDataListener), 2},
            {"unregisterRawDataListener", slotOf(&S::unregisterRawDataListener), 3},
            {"setEnabledState", slotOf(&S::setEnabledState), 4},
            {"getEnabled", slotOf(&S::getEnabled), 5},
            {"getHardwareState", slotOf(&S::getHardwareState), 6},
            {"getHeadTrackingState", slotOf(&S::getHeadTrackingState), 7},
            {"registerStateChangeListener", slotOf(&S::registerStateChangeListener), 8},
            {"unregisterStateChangeListener", slotOf(&S::unregisterStateChangeListener), 9},
            {"getHeadTrackerHandle", slotOf(&S::getHeadTrackerHandle), 10},
            {"releaseHeadTrackerHandle", slotOf(&S::releaseHeadTrackerHandle), 11},
            {"start", slotOf(&S::start), 12},
            {"stop", slotOf(&S::stop), 13},
            {"standby", slotOf(&S::standby), 14},
            {"setConfiguration", slotOf(&S::setConfiguration), 15},
            {"sample", slotOf(&S::sample), 16},
            {"setPid", slotOf(&S::setPid), 17},
    };
    for (const SlotExpectation& e : table) EXPECT_EQ(e.actual, e.expected) << e.name;
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
