// Parcel forms of every wire value: exact bytes, round trips, and hostile input.

#include <CameraFrameEventParceler.h>
#include <HeadTrackerHandleParceler.h>
#include <HeadTrackingEventParceler.h>
#include <HeadTrackingStateParceler.h>
#include <RawDataEventParceler.h>
#include <StateChangeEventParceler.h>

#include "WireBytes.h"

#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace android;

namespace morvel::tovarin::binder {
namespace {

using test::WireBytes;

constexpr int32_t kSentinel = 0x5a5a5a5a;

std::string hex(const uint8_t* data, size_t size) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < size; ++i) {
        snprintf(byte, sizeof(byte), "%02x", data[i]);
        out += byte;
        if (i % 4 == 3 && i + 1 < size) out += ' ';
    }
    return out;
}

void loadBytes(Parcel& parcel, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(OK, parcel.setData(bytes.data(), bytes.size()));
    parcel.setDataPosition(0);
}

// ---------------------------------------------------------------------------------------------
// Sample records and the bytes each must produce.

HeadTrackingEvent sampleEvent() {
    HeadTrackingEvent e;
    e.timestamp = 0x0102030405060708;
    e.component0 = 1.5f;
    e.component1 = -2.0f;
    e.component2 = 0.25f;
    e.flag0 = true;
    e.flag1 = false;
    e.scalar = 3.0f;
    strcpy(e.text, "yaw ok");
    return e;
}

WireBytes eventBytes(const HeadTrackingEvent& e) {
    WireBytes b;
    b.i64(e.timestamp).f32(e.component0).f32(e.component1).f32(e.component2);
    b.i32(e.flag0 ? 1 : 0).i32(e.flag1 ? 1 : 0).f32(e.scalar).cstr(e.text);
    return b;
}

HeadLocation sampleLocation(int32_t value) {
    HeadLocation l;
    l.flag0 = true;
    l.value = value;
    l.localIndex = 7;
    const float orientation[4] = {0.125f, 0.25f, 0.5f, 0.75f};
    memcpy(l.orientation, orientation, sizeof(orientation));
    l.hasVector8 = true;
    for (int i = 0; i < 8; ++i) l.vector8[i] = i + 0.5f;
    for (int i = 0; i < 27; ++i) l.vector27[i] = -1.0f * i;  // carried though hasVector27 is false
    return l;
}

WireBytes locationBytes(const HeadLocation& l) {
    WireBytes b;
    b.i32(l.flag0).i32(l.flag1).i32(l.value);
    for (float v : l.orientation) b.f32(v);
    b.i32(l.hasVector8);
    for (float v : l.vector8) b.f32(v);
    b.i32(l.hasVector27);
    for (float v : l.vector27) b.f32(v);
    return b;
}

CameraSettings sampleSettings() {
    CameraSettings s;
    for (int i = 0; i < 7; ++i) s.settingsA[i] = i + 1;
    s.settingsFlag = true;
    for (int i = 0; i < 6; ++i) s.settingsB[i] = -(i + 1) * 100;
    return s;
}

WireBytes settingsBytes(const CameraSettings& s) {
    WireBytes b;
    for (int32_t v : s.settingsA) b.i32(v);
    b.i32(s.settingsFlag ? 1 : 0);
    for (int32_t v : s.settingsB) b.i32(v);
    return b;
}

SensorData sampleSensor(int64_t timestamp) {
    SensorData d;
    d.timestamp = timestamp;
    d.tag = 0x1122334455667788;
    d.code = 3;
    d.values[0] = 1.0f;
    d.values[1] = -2.5f;
    d.values[2] = 9.75f;
    return d;
}

WireBytes sensorBytes(const SensorData& d) {
    WireBytes b;
    b.i64(d.timestamp).i64(d.tag).i32(d.code);
    for (float v : d.values) b.f32(v);
    return b;
}

CameraFrameEvent sampleFrame() {
    CameraFrameEvent f;
    f.timestamp = 5000;
    f.tag = 77;
    f.width = 640;
    f.height = 480;
    f.settings = sampleSettings();
    f.sensorData = {sampleSensor(10), sampleSensor(20)};
    return f;
}

WireBytes frameBytes(const CameraFrameEvent& f) {
    WireBytes b;
    b.i64(f.timestamp).i64(f.tag).i32(f.width).i32(f.height).i32(0);
    b.append(settingsBytes(f.settings)).i32(static_cast<int32_t>(f.sensorData.size()));
    for (const SensorData& d : f.sensorData) b.append(sensorBytes(d));
    return b;
}

RawDataEvent sampleRawEvent() {
    RawDataEvent r;
    r.timestamp = -42;
    r.cameraFrameEvent = sampleFrame();
    r.headTrackingEvent0 = sampleEvent();
    r.headTrackingEvent1 = sampleEvent();
    r.headTrackingEvent1.flag1 = true;
    strcpy(r.headTrackingEvent1.text, "");
    r.headLocation0 = sampleLocation(1);
    r.headLocation1 = sampleLocation(2);
    return r;
}

WireBytes rawEventBytes(const RawDataEvent& r) {
    WireBytes b;
    b.i64(r.timestamp).append(frameBytes(r.cameraFrameEvent));
    b.append(eventBytes(r.headTrackingEvent0)).append(eventBytes(r.headTrackingEvent1));
    b.append(locationBytes(r.headLocation0)).append(locationBytes(r.headLocation1));
    return b;
}

// ---------------------------------------------------------------------------------------------

struct GoldenForm {
    const char* name;
    std::function<void(Parcel&)> write;
    std::vector<uint8_t> expected;
    size_t expectedSize;  // the documented size of the form (0: not fixed)
};

TEST(ParcelFormsTest, EveryFormWritesItsExactBytes) {
    HeadTrackerHandle handle;
    handle.id = 7;
    handle.secondaryId = 99;
    HeadTrackingConfiguration config;
    config.fidelity = 3;
    config.filter = -4;
    config.debugString = "abc";
    HeadTrackingState state;
    state.primary = 5;
    state.secondary = -1;
    StateChangeEvent change;
    change.timestamp = 0x0a0b0c0d0e0f1011;
    change.flag = true;
    change.state = state;
    const HeadTrackingEvent event = sampleEvent();
    const HeadLocation location = sampleLocation(42);
    const CameraSettings settings = sampleSettings();
    const SensorData sensor = sampleSensor(123);
    const CameraFrameEvent frame = sampleFrame();
    const RawDataEvent raw = sampleRawEvent();

    const std::vector<GoldenForm> forms = {
            {"handle",
             [&](Parcel& p) { EXPECT_EQ(OK, HeadTrackerHandleParceler::parcel(handle, p)); },
             WireBytes().i32(7).bytes(), 4},
            {"configuration",
             [&](Parcel& p) { EXPECT_EQ(OK, HeadTrackerHandleParceler::parcel(config, p)); },
             WireBytes().i32(3).i32(-4).i32(3).cstr("abc").bytes(), 16},
            {"configuration with empty string",
             [&](Parcel& p) {
                 EXPECT_EQ(OK, HeadTrackerHandleParceler::parcel(HeadTrackingConfiguration(), p));
             },
             WireBytes().i32(2).i32(1).i32(0).bytes(), 12},
            {"head tracking event",
             [&](Parcel& p) { EXPECT_EQ(OK, HeadTrackingEventParceler::parcel(event, p)); },
             eventBytes(event).bytes(), 32 + 8},
            {"head tracking state",
             [&](Parcel& p) { EXPECT_EQ(OK, HeadTrackingStateParceler::parcel(state, p)); },
             WireBytes().i32(5).i32(-1).bytes(), 8},
            {"state change event",
             [&](Parcel& p) { EXPECT_EQ(OK, StateChangeEventParceler::parcel(change, p)); },
             WireBytes().i64(0x0a0b0c0d0e0f1011).i32(1).i32(5).i32(-1).bytes(), 20},
            {"head location",
             [&](Parcel& p) { RawDataEventParceler().parcelHeadLocation(location, p); },
             locationBytes(location).bytes(), 176},
            {"camera settings",
             [&](Parcel& p) { CameraFrameEventParceler().parcelCameraSettings(settings, p); },
             settingsBytes(settings).bytes(), 56},
            {"sensor sample",
             [&](Parcel& p) { CameraFrameEventParceler().parcelSensorData(sensor, p); },
             sensorBytes(sensor).bytes(), 32},
            {"camera frame without pixels",
             [&](Parcel& p) { CameraFrameEventParceler().parcel(frame, p); },
             frameBytes(frame).bytes(), 8 + 8 + 4 + 4 + 4 + 56 + 4 + 2 * 32},
            {"raw data event without pixels",
             [&](Parcel& p) { RawDataEventParceler().parcel(raw, p); }, rawEventBytes(raw).bytes(),
             0},
    };
    for (const GoldenForm& form : forms) {
        SCOPED_TRACE(form.name);
        Parcel parcel;
        form.write(parcel);
        EXPECT_EQ(hex(form.expected.data(), form.expected.size()),
                  hex(parcel.data(), parcel.dataSize()));
        EXPECT_EQ(0u, parcel.objectsCount());
        if (form.expectedSize != 0) {
            EXPECT_EQ(form.expectedSize, form.expected.size());
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Round trips and the documented conversions.

TEST(ParcelFormsTest, HandleKeepsIdAndResetsSecondaryId) {
    for (int32_t id : {7, -1, 0, std::numeric_limits<int32_t>::min()}) {
        HeadTrackerHandle handle;
        handle.id = id;
        handle.secondaryId = 99;
        Parcel parcel;
        ASSERT_EQ(OK, HeadTrackerHandleParceler::parcel(handle, parcel));
        parcel.setDataPosition(0);
        const HeadTrackerHandle back = HeadTrackerHandleParceler::unparcel(parcel);
        EXPECT_EQ(id, back.id);
        EXPECT_EQ(-1, back.secondaryId);
    }
}

TEST(ParcelFormsTest, ConfigurationStringIsCutOnlyByTheWriter) {
    struct Case {
        std::string sent;
        std::string expected;
    };
    const std::string s300 = std::string(100, 'a') + std::string(100, 'b') + std::string(100, 'c');
    const std::vector<Case> cases = {
            {s300, s300.substr(0, 256)},
            {std::string(256, 'q'), std::string(256, 'q')},
            {"", ""},
            {std::string("ab\0cd", 5), "ab"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sent.size());
        HeadTrackingConfiguration config;
        config.fidelity = 9;
        config.filter = 8;
        config.debugString = c.sent;
        Parcel parcel;
        ASSERT_EQ(OK, HeadTrackerHandleParceler::parcel(config, parcel));
        parcel.setDataPosition(0);
        HeadTrackingConfiguration back;
        back.debugString = "previous contents";
        HeadTrackerHandleParceler::unparcel(back, parcel);
        EXPECT_EQ(9, back.fidelity);
        EXPECT_EQ(8, back.filter);
        EXPECT_EQ(c.expected, back.debugString);
    }
    // A reader takes a 400-byte string from a peer whole: only writers limit the length.
    Parcel parcel;
    parcel.writeInt32(1);
    parcel.writeInt32(1);
    parcel.writeString8(android::String8(std::string(400, 'z').c_str()));
    parcel.setDataPosition(0);
    HeadTrackingConfiguration back;
    HeadTrackerHandleParceler::unparcel(back, parcel);
    EXPECT_EQ(std::string(400, 'z'), back.debugString);
}

TEST(ParcelFormsTest, EventTextArrivesTerminatedWithAtMost255Characters) {
    struct Case {
        std::string peerText;  // written by a peer with writeCString
        std::string expected;
    };
    const std::vector<Case> cases = {
            {"", ""},
            {std::string(255, 't'), std::string(255, 't')},
            {std::string(256, 'u'), std::string(255, 'u')},
            {std::string(1000, 'v'), std::string(255, 'v')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.peerText.size());
        Parcel parcel;
        WireBytes head;
        head.i64(1).f32(0).f32(0).f32(0).i32(0).i32(0).f32(0).cstr(c.peerText).i32(kSentinel);
        loadBytes(parcel, head.bytes());
        HeadTrackingEvent back;
        memset(back.text, 'X', sizeof(back.text));
        HeadTrackingEventParceler::unparcel(back, parcel);
        EXPECT_EQ(c.expected, std::string(back.text));
        EXPECT_EQ('\0', back.text[255]);
        EXPECT_EQ(kSentinel, parcel.readInt32());
    }
    // A sender whose array holds 256 characters and no NUL sends them without reading past.
    HeadTrackingEvent full = sampleEvent();
    memset(full.text, 'w', sizeof(full.text));
    Parcel parcel;
    ASSERT_EQ(OK, HeadTrackingEventParceler::parcel(full, parcel));
    EXPECT_EQ(32u + 260u, parcel.dataSize());
    parcel.setDataPosition(0);
    HeadTrackingEvent back;
    HeadTrackingEventParceler::unparcel(back, parcel);
    EXPECT_EQ(std::string(255, 'w'), std::string(back.text));
}

// Reads `value`'s form back and writes it again: a field lost or altered on the way changes the
// bytes. Returns what was read.
template <typename T, typename Write, typename Read>
T expectRewrittenAlike(const T& value, Write write, Read read) {
    Parcel first;
    EXPECT_EQ(OK, write(value, first));
    first.setDataPosition(0);
    T back;
    read(back, first);
    EXPECT_EQ(0u, first.dataAvail());
    Parcel second;
    EXPECT_EQ(OK, write(back, second));
    EXPECT_EQ(hex(first.data(), first.dataSize()), hex(second.data(), second.dataSize()));
    return back;
}

TEST(ParcelFormsTest, RecordsReadBackAsWrittenExceptTheLocalIndex) {
    StateChangeEvent change;
    change.timestamp = 99;
    change.flag = true;
    change.state = {-7, 8};
    RawDataEvent raw = sampleRawEvent();
    raw.headLocation1 = HeadLocation();  // defaults: identity orientation
    raw.headLocation1.localIndex = 3;
    RawDataEventParceler writer, reader;
    CameraFrameEventParceler frames;
    {
        SCOPED_TRACE("event");
        expectRewrittenAlike(sampleEvent(), HeadTrackingEventParceler::parcel,
                             HeadTrackingEventParceler::unparcel);
    }
    {
        SCOPED_TRACE("state change");
        expectRewrittenAlike(change, StateChangeEventParceler::parcel,
                             StateChangeEventParceler::unparcel);
    }
    {
        SCOPED_TRACE("settings");
        expectRewrittenAlike(
                sampleSettings(),
                [&](const CameraSettings& v, Parcel& p) { return frames.parcelCameraSettings(v, p); },
                [&](CameraSettings& v, Parcel& p) { frames.unparcelCameraSettings(v, p); });
    }
    {
        SCOPED_TRACE("raw data event");
        const RawDataEvent back = expectRewrittenAlike(
                raw, [&](const RawDataEvent& v, Parcel& p) { return writer.parcel(v, p); },
                [&](RawDataEvent& v, Parcel& p) { EXPECT_EQ(OK, reader.unparcel(v, p)); });
        EXPECT_EQ(-1, back.headLocation0.localIndex);
        EXPECT_EQ(-1, back.headLocation1.localIndex);
        EXPECT_EQ(nullptr, back.cameraFrameEvent.data);
        EXPECT_EQ(0, memcmp(raw.headLocation0.vector27, back.headLocation0.vector27,
                            sizeof(back.headLocation0.vector27)));
    }
}

TEST(ParcelFormsTest, AnyNonZeroFlagFromAPeerReadsTrue) {
    Parcel event;
    loadBytes(event, WireBytes().i64(1).f32(0).f32(0).f32(0).i32(5).i32(-1).f32(0).cstr("").bytes());
    HeadTrackingEvent eventBack;
    HeadTrackingEventParceler::unparcel(eventBack, event);
    EXPECT_TRUE(eventBack.flag0);
    EXPECT_TRUE(eventBack.flag1);

    Parcel change;
    loadBytes(change, WireBytes().i64(99).i32(2).i32(-7).i32(8).bytes());
    StateChangeEvent changeBack;
    StateChangeEventParceler::unparcel(changeBack, change);
    EXPECT_TRUE(changeBack.flag);

    std::vector<uint8_t> location = locationBytes(HeadLocation()).bytes();
    location[4] = 2;  // flag1
    Parcel peer;
    loadBytes(peer, location);
    HeadLocation flagged;
    RawDataEventParceler().unparcelHeadLocation(flagged, peer);
    EXPECT_TRUE(flagged.flag1);
}

// ---------------------------------------------------------------------------------------------
// Pixels through shared memory, within one process.

class FramePixelsTest : public ::testing::Test {
protected:
    // Every frame with pixels this process writes has this size: the frame ring takes its slot
    // size from the first one.
    static constexpr int32_t kWidth = 32;
    static constexpr int32_t kHeight = 24;
    static constexpr size_t kArea = kWidth * kHeight;

    static std::vector<unsigned char> pattern(unsigned seed, size_t size = kArea) {
        std::vector<unsigned char> pixels(size);
        for (size_t i = 0; i < size; ++i) pixels[i] = static_cast<unsigned char>(seed * 31 + i * 7);
        return pixels;
    }

    // A frame form written by hand, as a peer might: has-pixels set and `binder` in the slot.
    static void writeFrameWithBinder(Parcel& parcel, int32_t width, int32_t height,
                                     const sp<IBinder>& binder, int32_t sampleCount = 1) {
        parcel.writeInt64(1234);
        parcel.writeInt64(5678);
        parcel.writeInt32(width);
        parcel.writeInt32(height);
        parcel.writeInt32(1);
        parcel.writeStrongBinder(binder);
        CameraFrameEventParceler writer;
        writer.parcelCameraSettings(sampleSettings(), parcel);
        parcel.writeInt32(sampleCount);
        writer.parcelSensorData(sampleSensor(7), parcel);
        parcel.writeInt32(kSentinel);
        parcel.setDataPosition(0);
    }

    static sp<IMemory> memoryWith(const std::vector<unsigned char>& pixels, size_t size) {
        sp<MemoryDealer> dealer = new MemoryDealer(64 * 1024);
        sp<IMemory> memory = dealer->allocate(size);
        if (memory == nullptr) return nullptr;
        memcpy(memory->pointer(), pixels.data(), std::min(size, pixels.size()));
        return memory;
    }
};

TEST_F(FramePixelsTest, PixelsRoundTripAndTheBufferIsReusedWhileTheSizeHolds) {
    CameraFrameEventParceler reader;
    // Writes `frame` with a writer of its own and reads it with `reader`.
    auto throughParcel = [&reader](const CameraFrameEvent& frame, size_t objects) {
        Parcel parcel;
        CameraFrameEventParceler().parcel(frame, parcel);
        EXPECT_EQ(objects, parcel.objectsCount());
        parcel.setDataPosition(0);
        CameraFrameEvent back;
        reader.unparcel(back, parcel);
        return back;
    };
    std::vector<unsigned char> first = pattern(1);
    CameraFrameEvent frame = sampleFrame();
    frame.width = kWidth;
    frame.height = kHeight;
    frame.data = first.data();
    frame.timestamp = 1;
    const CameraFrameEvent back = throughParcel(frame, 1);
    ASSERT_NE(nullptr, back.data);
    EXPECT_NE(first.data(), back.data);
    EXPECT_EQ(0, memcmp(first.data(), back.data, kArea));
    EXPECT_EQ(2u, back.sensorData.size());
    unsigned char* const buffer = back.data;

    // A frame without pixels neither uses nor touches the buffer.
    EXPECT_EQ(nullptr, throughParcel(sampleFrame(), 0).data);
    EXPECT_EQ(0, memcmp(first.data(), buffer, kArea));

    // The next frame of the same size lands in the same buffer.
    std::vector<unsigned char> second = pattern(2);
    frame.timestamp = 2;
    frame.data = second.data();
    const CameraFrameEvent back2 = throughParcel(frame, 1);
    EXPECT_EQ(buffer, back2.data);
    EXPECT_EQ(0, memcmp(second.data(), back2.data, kArea));

    // A frame of another size gets a new buffer.
    std::vector<unsigned char> small = pattern(3, 16);
    sp<IMemory> memory = memoryWith(small, 16);
    ASSERT_NE(nullptr, memory);
    Parcel parcel3;
    writeFrameWithBinder(parcel3, 4, 4, IInterface::asBinder(memory));
    CameraFrameEvent back3;
    reader.unparcel(back3, parcel3);
    ASSERT_NE(nullptr, back3.data);
    EXPECT_NE(buffer, back3.data);
    EXPECT_EQ(0, memcmp(small.data(), back3.data, 16));
}

TEST_F(FramePixelsTest, UnusablePixelsGiveNoDataAndTheRestIsReadAsUsual) {
    const std::vector<unsigned char> pixels = pattern(9, 16);
    const sp<IMemory> memory16 = memoryWith(pixels, 16);
    ASSERT_NE(nullptr, memory16);
    const sp<IBinder> memoryBinder = IInterface::asBinder(memory16);
    const sp<IBinder> foreign = new BBinder();
    const int32_t kMax = std::numeric_limits<int32_t>::max();
    const int32_t kMin = std::numeric_limits<int32_t>::min();

    struct Case {
        const char* name;
        int32_t width;
        int32_t height;
        sp<IBinder> binder;
    };
    const std::vector<Case> cases = {
            {"zero width", 0, 4, memoryBinder},
            {"zero height", 4, 0, memoryBinder},
            {"negative width", -4, 4, memoryBinder},
            {"both negative", -4, -4, memoryBinder},
            {"minimum int", kMin, kMin, memoryBinder},
            {"product overflows int32", 65536, 65536, memoryBinder},
            {"product overflows to small", kMax, 2, memoryBinder},
            {"largest dimensions", kMax, kMax, memoryBinder},
            {"memory smaller than the frame", 5, 4, memoryBinder},
            {"null binder", 4, 4, nullptr},
            {"binder that is not memory", 4, 4, foreign},
    };

    // The parceler holds a 4x4 frame before every hostile one.
    const std::vector<unsigned char> primed = pattern(5, 16);
    const sp<IMemory> primeMemory = memoryWith(primed, 16);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CameraFrameEventParceler reader;
        Parcel primeParcel;
        writeFrameWithBinder(primeParcel, 4, 4, IInterface::asBinder(primeMemory));
        CameraFrameEvent prime;
        reader.unparcel(prime, primeParcel);
        ASSERT_NE(nullptr, prime.data);

        Parcel parcel;
        writeFrameWithBinder(parcel, c.width, c.height, c.binder);
        CameraFrameEvent back;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(OK, reader.unparcel(back, parcel));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(nullptr, back.data);
        EXPECT_EQ(c.width, back.width);
        EXPECT_EQ(c.height, back.height);
        EXPECT_EQ(1234, back.timestamp);
        EXPECT_TRUE(back.settings.settingsFlag);
        EXPECT_EQ(7, back.settings.settingsA[6]);
        ASSERT_EQ(1u, back.sensorData.size());
        EXPECT_EQ(7, back.sensorData[0].timestamp);
        EXPECT_EQ(kSentinel, parcel.readInt32());
        EXPECT_EQ(0, memcmp(primed.data(), prime.data, 16)) << "buffer touched";
    }
}

// ---------------------------------------------------------------------------------------------
// Hostile parcels.

TEST(ParcelFormsTest, EmptyParcelReadsAsZerosAndEmptyStrings) {
    Parcel empty;
    EXPECT_EQ(0, HeadTrackerHandleParceler::unparcel(empty).id);
    EXPECT_EQ(-1, HeadTrackerHandleParceler::unparcel(empty).secondaryId);

    HeadTrackingConfiguration config;
    config.debugString = "old";
    HeadTrackerHandleParceler::unparcel(config, empty);
    EXPECT_EQ(0, config.fidelity);
    EXPECT_EQ(0, config.filter);
    EXPECT_EQ("", config.debugString);

    HeadTrackingEvent event = sampleEvent();
    HeadTrackingEventParceler::unparcel(event, empty);
    EXPECT_EQ(0, event.timestamp);
    EXPECT_EQ(0.0f, event.component0);
    EXPECT_FALSE(event.flag0);
    EXPECT_STREQ("", event.text);

    StateChangeEvent change;
    change.flag = true;
    change.state.primary = 3;
    StateChangeEventParceler::unparcel(change, empty);
    EXPECT_FALSE(change.flag);
    EXPECT_EQ(0, change.state.primary);
}

TEST(ParcelFormsTest, MalformedStringsReadAsEmpty) {
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;  // after fidelity and filter
    };
    std::vector<uint8_t> noNul = WireBytes().i32(3).cstr("abc").bytes();
    noNul[7] = 'd';  // where the NUL belongs
    const std::vector<Case> cases = {
            {"negative count", WireBytes().i32(-5).cstr("abc").bytes()},
            {"count past the end", WireBytes().i32(100).cstr("abc").bytes()},
            {"huge count", WireBytes().i32(std::numeric_limits<int32_t>::max()).bytes()},
            {"count without bytes", WireBytes().i32(4).bytes()},
            {"no NUL after the bytes", noNul},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> bytes = WireBytes().i32(1).i32(2).bytes();
        bytes.insert(bytes.end(), c.bytes.begin(), c.bytes.end());
        Parcel parcel;
        loadBytes(parcel, bytes);
        HeadTrackingConfiguration config;
        config.debugString = "old";
        HeadTrackerHandleParceler::unparcel(config, parcel);
        EXPECT_EQ(1, config.fidelity);
        EXPECT_EQ(2, config.filter);
        EXPECT_EQ("", config.debugString);
    }

    // Event text running to the end of the data without a NUL.
    std::vector<uint8_t> bytes =
            WireBytes().i64(1).f32(0).f32(0).f32(0).i32(0).i32(0).f32(0).bytes();
    for (int i = 0; i < 8; ++i) bytes.push_back('k');
    Parcel parcel;
    loadBytes(parcel, bytes);
    HeadTrackingEvent event = sampleEvent();
    HeadTrackingEventParceler::unparcel(event, parcel);
    EXPECT_STREQ("", event.text);
    EXPECT_EQ(1, event.timestamp);
}

TEST(ParcelFormsTest, SampleCountIsBoundedByWhatTheParcelHolds) {
    // Two samples follow the count, then 4 bytes: less than a sample.
    const int32_t kMax = std::numeric_limits<int32_t>::max();
    const std::vector<std::pair<int32_t, size_t>> claimedAndRead = {
            {0, 0},    {-1, 0},   {std::numeric_limits<int32_t>::min(), 0}, {1, 1}, {3, 2},
            {1000, 2}, {kMax, 2},
    };
    for (const auto& [claimed, expected] : claimedAndRead) {
        SCOPED_TRACE(claimed);
        WireBytes b;
        b.i64(1).i64(2).i32(0).i32(0).i32(0).append(settingsBytes(sampleSettings())).i32(claimed);
        for (int i = 0; i < 2; ++i) b.append(sensorBytes(sampleSensor(100 + i)));
        b.i32(kSentinel);
        Parcel parcel;
        loadBytes(parcel, b.bytes());
        CameraFrameEvent back;
        const auto start = std::chrono::steady_clock::now();
        CameraFrameEventParceler().unparcel(back, parcel);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        ASSERT_EQ(expected, back.sensorData.size());
        if (expected == 2) {
            EXPECT_EQ(101, back.sensorData[1].timestamp);
        }
        EXPECT_LT(back.sensorData.capacity(), 16u);
    }
}

TEST(ParcelFormsTest, EveryTruncationOfARawDataEventIsReadSafely) {
    RawDataEvent event = sampleRawEvent();
    const std::vector<uint8_t> full = rawEventBytes(event).bytes();
    // The same event claiming pixels, with a null binder in the slot, so that every reader path
    // is walked.
    const size_t hasPixelsOffset = 8 + 8 + 8 + 4 + 4;
    Parcel nullBinder;
    nullBinder.writeStrongBinder(nullptr);
    std::vector<uint8_t> withSlot(full.begin(), full.begin() + hasPixelsOffset);
    const std::vector<uint8_t> one = WireBytes().i32(1).bytes();
    withSlot.insert(withSlot.end(), one.begin(), one.end());
    withSlot.insert(withSlot.end(), nullBinder.data(), nullBinder.data() + nullBinder.dataSize());
    withSlot.insert(withSlot.end(), full.begin() + hasPixelsOffset + 4, full.end());

    const std::vector<const std::vector<uint8_t>*> forms = {&full, &withSlot};
    for (const std::vector<uint8_t>* form : forms) {
        RawDataEventParceler reader;
        for (size_t length = 0; length <= form->size(); ++length) {
            SCOPED_TRACE(length);
            Parcel parcel;
            std::vector<uint8_t> prefix(form->begin(), form->begin() + length);
            loadBytes(parcel, prefix);
            RawDataEvent back;
            EXPECT_EQ(OK, reader.unparcel(back, parcel));
            EXPECT_EQ(nullptr, back.cameraFrameEvent.data);
            EXPECT_EQ(length >= 8 ? event.timestamp : 0, back.timestamp);
            EXPECT_EQ(-1, back.headLocation1.localIndex);
            if (form == &full) {
                EXPECT_LE(back.cameraFrameEvent.sensorData.size(), 2u);
            }
            if (length == form->size()) {
                EXPECT_EQ(2u, back.cameraFrameEvent.sensorData.size());
                EXPECT_STREQ("yaw ok", back.headTrackingEvent0.text);
                EXPECT_EQ(2, back.headLocation1.value);
            }
        }
    }
}

}  // namespace
}  // namespace morvel::tovarin::binder
