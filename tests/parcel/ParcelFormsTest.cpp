// Parcel forms of every wire value: exact bytes, round trips, and hostile input.

#include <CameraFrameEventParceler.h>
#include <HeadTrackerHandleParceler.h>
#include <HeadTrackingEventParceler.h>
#include <HeadTrackingStateParceler.h>
#include <RawDataEventParceler.h>
#include <StateChangeEventParceler.h>

#include <binder/Binder.h>
#include <binder/IMemory.h>
#include <binder/MemoryDealer.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <vector>

using namespace android;

namespace morvel::tovarin::binder {
namespace {

constexpr int32_t kSentinel = 0x5a5a5a5a;
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// The bytes a form must consist of, built independently of Parcel: little-endian words, C
// strings padded with zeros to 4 bytes.
class WireBytes {
public:
    WireBytes& i32(int32_t v) { return le(static_cast<uint32_t>(v), 4); }
    WireBytes& i64(int64_t v) { return le(static_cast<uint64_t>(v), 8); }
    WireBytes& f32(float v) {
        uint32_t bits;
        memcpy(&bits, &v, sizeof(bits));
        return le(bits, 4);
    }
    WireBytes& cstr(const std::string& s) {
        bytes.insert(bytes.end(), s.begin(), s.end());
        bytes.push_back(0);
        while (bytes.size() % 4 != 0) bytes.push_back(0);
        return *this;
    }
    WireBytes& append(const WireBytes& other) {
        bytes.insert(bytes.end(), other.bytes.begin(), other.bytes.end());
        return *this;
    }
    std::vector<uint8_t> bytes;

private:
    WireBytes& le(uint64_t v, int n) {
        for (int i = 0; i < n; ++i) bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
        return *this;
    }
};

std::string hex(const uint8_t* data, size_t size) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < size; ++i) {
        snprintf(byte, sizeof(byte), i % 4 == 3 ? "%02x " : "%02x", data[i]);
        out += byte;
    }
    return out;
}

std::string hex(const WireBytes& bytes) {
    return hex(bytes.bytes.data(), bytes.bytes.size());
}

std::string hex(const Parcel& parcel) {
    return hex(parcel.data(), parcel.dataSize());
}

void loadBytes(Parcel& parcel, const WireBytes& bytes) {
    ASSERT_EQ(OK, parcel.setData(bytes.bytes.data(), bytes.bytes.size()));
    parcel.setDataPosition(0);
}

// ---------------------------------------------------------------------------------------------
// Sample records, each with the bytes its form must consist of.

template <typename T>
struct Sample {
    T value;
    WireBytes bytes;
};

Sample<HeadTrackingConfiguration> config(const std::string& text, const std::string& sent) {
    Sample<HeadTrackingConfiguration> s{{3, -4, text}, WireBytes().i32(3).i32(-4)};
    s.bytes.i32(static_cast<int32_t>(sent.size()));
    if (!sent.empty()) s.bytes.cstr(sent);  // an empty string is its count alone
    return s;
}

// `sent`: the text as it must travel; `text` fills the array up to 256 characters.
Sample<HeadTrackingEvent> event(const std::string& text, const std::string& sent) {
    Sample<HeadTrackingEvent> s{{0x0102030405060708, 1.5f, -2.0f, 0.25f, true, false, 3.0f, {}},
                                WireBytes().i64(0x0102030405060708).f32(1.5f).f32(-2.0f)};
    memcpy(s.value.text, text.data(), std::min(text.size(), sizeof(s.value.text)));
    s.bytes.f32(0.25f).i32(1).i32(0).f32(3.0f).cstr(sent);
    return s;
}

Sample<HeadTrackingEvent> event(const std::string& text = "yaw ok") {
    return event(text, text);
}

Sample<HeadLocation> location(int32_t value) {
    Sample<HeadLocation> s;
    HeadLocation& l = s.value;
    l.flag0 = true;
    l.value = value;
    l.localIndex = 7;  // not carried
    l.hasVector8 = true;
    s.bytes.i32(1).i32(0).i32(value);
    for (int i = 0; i < 4; ++i) s.bytes.f32(l.orientation[i] = 0.125f * (i + 1));
    s.bytes.i32(1);
    for (int i = 0; i < 8; ++i) s.bytes.f32(l.vector8[i] = i + 0.5f);
    s.bytes.i32(0);  // hasVector27: the values are carried all the same
    for (int i = 0; i < 27; ++i) s.bytes.f32(l.vector27[i] = -1.0f * i);
    return s;
}

Sample<CameraSettings> settings() {
    Sample<CameraSettings> s;
    for (int i = 0; i < 7; ++i) s.bytes.i32(s.value.settingsA[i] = i + 1);
    s.value.settingsFlag = true;
    s.bytes.i32(1);
    for (int i = 0; i < 6; ++i) s.bytes.i32(s.value.settingsB[i] = -(i + 1) * 100);
    return s;
}

Sample<SensorData> sensor(int64_t timestamp) {
    Sample<SensorData> s{{timestamp, 0x1122334455667788, 3, {1.0f, -2.5f, 9.75f}}, {}};
    s.bytes.i64(timestamp).i64(0x1122334455667788).i32(3).f32(1.0f).f32(-2.5f).f32(9.75f);
    return s;
}

// A 640x480 frame without pixels (`has` 0), or announcing them (`has` 1) with `binder` after.
Sample<CameraFrameEvent> frame(int32_t has = 0, const WireBytes& binder = {}) {
    const Sample<CameraSettings> set = settings();
    const Sample<SensorData> first = sensor(10), second = sensor(20);
    Sample<CameraFrameEvent> s{
            {5000, 77, nullptr, 640, 480, set.value, {first.value, second.value}},
            WireBytes().i64(5000).i64(77).i32(640).i32(480).i32(has)};
    s.bytes.append(binder).append(set.bytes).i32(2).append(first.bytes).append(second.bytes);
    return s;
}

Sample<RawDataEvent> raw(const Sample<CameraFrameEvent>& camera = frame()) {
    const Sample<HeadTrackingEvent> e0 = event(), e1 = event("");
    const Sample<HeadLocation> l0 = location(1), l1 = location(2);
    Sample<RawDataEvent> s{{-42, camera.value, e0.value, e1.value, l0.value, l1.value},
                           WireBytes().i64(-42).append(camera.bytes)};
    s.bytes.append(e0.bytes).append(e1.bytes).append(l0.bytes).append(l1.bytes);
    return s;
}

// ---------------------------------------------------------------------------------------------

struct Form {
    std::string name;
    std::function<status_t(Parcel&)> write;
    // Reads the form from `in` and writes what it read to `out`.
    std::function<status_t(const Parcel& in, Parcel& out)> rewrite;
    WireBytes expected;
    WireBytes rewritten;  // what the value read back writes, when not `expected`
};

template <typename T, typename Write, typename Read>
Form form(const char* name, const Sample<T>& sample, Write write, Read read,
          const WireBytes& rewritten = {}) {
    return {name, [=](Parcel& p) { return write(sample.value, p); },
            [=](const Parcel& in, Parcel& out) {
                T back;
                read(back, in);
                return write(back, out);
            },
            sample.bytes, rewritten};
}

// A form written and read by a parceler's member functions.
template <typename P, typename T>
Form form(const char* name, const Sample<T>& sample, status_t (P::*write)(const T&, Parcel&),
          status_t (P::*read)(T&, const Parcel&)) {
    return form(
            name, sample, [write](const T& v, Parcel& p) { return (P().*write)(v, p); },
            [read](T& v, const Parcel& p) { EXPECT_EQ(OK, (P().*read)(v, p)); });
}

// Each form's exact bytes; read back, a form gives the same bytes again (a field lost or altered
// on the way changes them), and its reader takes exactly its own bytes.
TEST(ParcelFormsTest, EveryFormHasItsExactBytesAndReadsBackAsWritten) {
    auto writeConfig = [](const HeadTrackingConfiguration& v, Parcel& p) {
        return HeadTrackerHandleParceler::parcel(v, p);
    };
    auto readConfig = [](HeadTrackingConfiguration& v, const Parcel& p) {
        HeadTrackerHandleParceler::unparcel(v, p);
    };
    const std::string s300 = std::string(100, 'a') + std::string(100, 'b') + std::string(100, 'c');
    const Sample<StateChangeEvent> change{
            {0x0a0b0c0d0e0f1011, true, {5, -1}},
            WireBytes().i64(0x0a0b0c0d0e0f1011).i32(1).i32(5).i32(-1)};
    const std::vector<Form> forms = {
            form(
                    "handle", Sample<HeadTrackerHandle>{{7, 99}, WireBytes().i32(7)},
                    [](const HeadTrackerHandle& v, Parcel& p) {
                        return HeadTrackerHandleParceler::parcel(v, p);
                    },
                    [](HeadTrackerHandle& v, const Parcel& p) {
                        v = HeadTrackerHandleParceler::unparcel(p);
                    }),
            form("configuration", config("abc", "abc"), writeConfig, readConfig),
            form("configuration with empty string", config("", ""), writeConfig, readConfig),
            form("configuration string cut at 256", config(s300, s300.substr(0, 256)), writeConfig,
                 readConfig),
            form("configuration string ending at a NUL", config(std::string("ab\0cd", 5), "ab"),
                 writeConfig, readConfig),
            form("head tracking event", event(), HeadTrackingEventParceler::parcel,
                 HeadTrackingEventParceler::unparcel),
            // Sent whole without reading past the array; read back with 255 and a NUL.
            form("event text filling the array",
                 event(std::string(256, 'w'), std::string(256, 'w')),
                 HeadTrackingEventParceler::parcel, HeadTrackingEventParceler::unparcel,
                 event(std::string(255, 'w')).bytes),
            form("head tracking state",
                 Sample<HeadTrackingState>{{5, -1}, WireBytes().i32(5).i32(-1)},
                 HeadTrackingStateParceler::parcel, HeadTrackingStateParceler::unparcel),
            form("state change event", change, StateChangeEventParceler::parcel,
                 StateChangeEventParceler::unparcel),
            form("head location", location(42), &RawDataEventParceler::parcelHeadLocation,
                 &RawDataEventParceler::unparcelHeadLocation),
            form("camera settings", settings(), &CameraFrameEventParceler::parcelCameraSettings,
                 &CameraFrameEventParceler::unparcelCameraSettings),
            form("sensor sample", sensor(123), &CameraFrameEventParceler::parcelSensorData,
                 &CameraFrameEventParceler::unparcelSensorData),
            form("camera frame without pixels", frame(), &CameraFrameEventParceler::parcel,
                 &CameraFrameEventParceler::unparcel),
            form("raw data event without pixels", raw(), &RawDataEventParceler::parcel,
                 &RawDataEventParceler::unparcel),
    };
    for (const Form& f : forms) {
        SCOPED_TRACE(f.name);
        Parcel parcel, again;
        EXPECT_EQ(OK, f.write(parcel));
        EXPECT_EQ(hex(f.expected), hex(parcel));
        EXPECT_EQ(0u, parcel.objectsCount());
        parcel.writeInt32(kSentinel);
        parcel.setDataPosition(0);
        EXPECT_EQ(OK, f.rewrite(parcel, again));
        EXPECT_EQ(kSentinel, parcel.readInt32()) << "the reader took more or less than its form";
        EXPECT_EQ(hex(f.rewritten.bytes.empty() ? f.expected : f.rewritten), hex(again));
    }
}

// What readers make of bytes from a peer: texts arrive whole, or terminated after 255
// characters; malformed strings read as empty; any non-zero flag reads as true.
TEST(ParcelFormsTest, ReadersTakePeerBytesAsDocumented) {
    auto readConfig = [](const Parcel& p) {
        HeadTrackingConfiguration c;
        c.debugString = "old";
        HeadTrackerHandleParceler::unparcel(c, p);
        return std::to_string(c.filter) + ":" + c.debugString;
    };
    auto readEvent = [](const Parcel& p) {
        HeadTrackingEvent e;
        memset(e.text, 'X', sizeof(e.text));
        HeadTrackingEventParceler::unparcel(e, p);
        return std::to_string(e.flag0) + std::to_string(e.flag1) + ":" +
               std::string(e.text, strnlen(e.text, sizeof(e.text)));
    };
    auto readChange = [](const Parcel& p) {
        StateChangeEvent c;
        StateChangeEventParceler::unparcel(c, p);
        return std::to_string(c.flag);
    };
    auto readLocation = [](const Parcel& p) {
        HeadLocation l;
        RawDataEventParceler().unparcelHeadLocation(l, p);
        return std::to_string(l.flag1);
    };
    const WireBytes configHead = WireBytes().i32(1).i32(2);
    const WireBytes eventHead = WireBytes().i64(1).f32(0).f32(0).f32(0).i32(0).i32(0).f32(0);
    const std::string t255(255, 't');
    WireBytes flagged = location(1).bytes;
    flagged.bytes[4] = 2;  // flag1
    const struct {
        const char* name;
        WireBytes bytes;
        std::function<std::string(const Parcel&)> read;
        std::string expected;
    } cases[] = {
            {"string of 400 bytes", WireBytes(configHead).i32(400).cstr(std::string(400, 'z')),
             readConfig, "2:" + std::string(400, 'z')},
            {"string count negative", WireBytes(configHead).i32(-5).cstr("abc"), readConfig, "2:"},
            {"string count past the end", WireBytes(configHead).i32(100).cstr("abc"), readConfig,
             "2:"},
            {"string count huge", WireBytes(configHead).i32(kMax), readConfig, "2:"},
            {"string count without bytes", WireBytes(configHead).i32(4), readConfig, "2:"},
            {"string without its NUL", WireBytes(configHead).i32(3).i32(0x64636261), readConfig,
             "2:"},
            {"event text of 255", WireBytes(eventHead).cstr(t255), readEvent, "00:" + t255},
            {"event text of 256", WireBytes(eventHead).cstr(t255 + "t"), readEvent, "00:" + t255},
            {"event text of 1000", WireBytes(eventHead).cstr(std::string(1000, 't')), readEvent,
             "00:" + t255},
            {"event text without NUL", WireBytes(eventHead).i32(0x6b6b6b6b).i32(0x6b6b6b6b),
             readEvent, "00:"},
            {"event flags 5 and -1",
             WireBytes().i64(1).f32(0).f32(0).f32(0).i32(5).i32(-1).f32(0).cstr(""), readEvent,
             "11:"},
            {"state change flag 2", WireBytes().i64(99).i32(2).i32(-7).i32(8), readChange, "1"},
            {"location flag 2", flagged, readLocation, "1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel parcel;
        loadBytes(parcel, c.bytes);
        EXPECT_EQ(c.expected, c.read(parcel));
    }
}

TEST(ParcelFormsTest, SampleCountIsBoundedByWhatTheParcelHolds) {
    // Two samples (timestamps 10 and 20) follow the count, then 4 bytes: less than a sample.
    const std::vector<std::pair<int32_t, size_t>> claimedAndRead = {
            {0, 0}, {-1, 0}, {1, 1}, {3, 2}, {kMax, 2},
    };
    for (const auto& [claimed, expected] : claimedAndRead) {
        SCOPED_TRACE(claimed);
        WireBytes bytes = frame().bytes;
        bytes.i32(kSentinel);
        memcpy(&bytes.bytes[8 + 8 + 4 * 3 + 56], &claimed, 4);
        Parcel parcel;
        loadBytes(parcel, bytes);
        CameraFrameEvent back;
        EXPECT_EQ(OK, CameraFrameEventParceler().unparcel(back, parcel));
        ASSERT_EQ(expected, back.sensorData.size());
        if (expected > 0) {
            EXPECT_EQ(10 * static_cast<int64_t>(expected), back.sensorData.back().timestamp);
        }
        EXPECT_LT(back.sensorData.capacity(), 16u);
    }
}

TEST(ParcelFormsTest, EveryTruncationOfARawDataEventIsReadSafely) {
    // Also the same event claiming pixels, with a null binder, so that every reader path is
    // walked.
    Parcel nullBinder;
    nullBinder.writeStrongBinder(nullptr);
    WireBytes binder;
    binder.bytes.assign(nullBinder.data(), nullBinder.data() + nullBinder.dataSize());
    for (const WireBytes& full : {raw().bytes, raw(frame(1, binder)).bytes}) {
        RawDataEventParceler reader;
        for (size_t length = 0; length <= full.bytes.size(); ++length) {
            SCOPED_TRACE(length);
            Parcel parcel;
            ASSERT_EQ(OK, parcel.setData(full.bytes.data(), length));
            RawDataEvent back;
            EXPECT_EQ(OK, reader.unparcel(back, parcel));
            EXPECT_EQ(nullptr, back.cameraFrameEvent.data);
            EXPECT_EQ(length >= 8 ? -42 : 0, back.timestamp);
            EXPECT_LE(back.cameraFrameEvent.sensorData.size(), 2u);
            EXPECT_EQ(-1, back.headLocation1.localIndex);
            if (length == full.bytes.size()) {
                EXPECT_EQ(2u, back.cameraFrameEvent.sensorData.size());
                EXPECT_STREQ("yaw ok", back.headTrackingEvent0.text);
                EXPECT_EQ(2, back.headLocation1.value);
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Pixels read out of shared memory, within one process.

std::vector<unsigned char> pattern(unsigned seed, size_t size) {
    std::vector<unsigned char> pixels(size);
    for (size_t i = 0; i < size; ++i) pixels[i] = static_cast<unsigned char>(seed * 31 + i * 7);
    return pixels;
}

sp<IBinder> memoryWith(const std::vector<unsigned char>& pixels) {
    sp<MemoryDealer> dealer = new MemoryDealer(64 * 1024);
    sp<IMemory> memory = dealer->allocate(pixels.size());
    if (memory != nullptr) memcpy(memory->pointer(), pixels.data(), pixels.size());
    return IInterface::asBinder(memory);
}

// Reads, through `reader`, a frame form as a peer might write it: pixels announced and `binder`
// in the slot, one sample, then a sentinel that must be next.
CameraFrameEvent readFrame(CameraFrameEventParceler& reader, int32_t width, int32_t height,
                           const sp<IBinder>& binder) {
    Parcel parcel;
    parcel.writeInt64(1234);
    parcel.writeInt64(5678);
    parcel.writeInt32(width);
    parcel.writeInt32(height);
    parcel.writeInt32(1);
    parcel.writeStrongBinder(binder);
    const WireBytes rest =
            WireBytes(settings().bytes).i32(1).append(sensor(7).bytes).i32(kSentinel);
    parcel.write(rest.bytes.data(), rest.bytes.size());
    parcel.setDataPosition(0);
    CameraFrameEvent back;
    EXPECT_EQ(OK, reader.unparcel(back, parcel));
    EXPECT_EQ(kSentinel, parcel.readInt32());
    EXPECT_EQ(1u, back.sensorData.size());
    return back;
}

TEST(FramePixelsTest, ReaderKeepsOneBufferWhileTheFrameSizeHolds) {
    CameraFrameEventParceler reader;
    const std::vector<unsigned char> first = pattern(1, 16), second = pattern(2, 16),
                                     small = pattern(3, 9);
    unsigned char* const buffer = readFrame(reader, 4, 4, memoryWith(first)).data;
    ASSERT_NE(nullptr, buffer);
    EXPECT_EQ(0, memcmp(first.data(), buffer, 16));

    // A frame without pixels neither uses nor touches the buffer.
    Parcel none;
    loadBytes(none, frame().bytes);
    CameraFrameEvent back;
    reader.unparcel(back, none);
    EXPECT_EQ(nullptr, back.data);
    EXPECT_EQ(0, memcmp(first.data(), buffer, 16));

    EXPECT_EQ(buffer, readFrame(reader, 4, 4, memoryWith(second)).data);
    EXPECT_EQ(0, memcmp(second.data(), buffer, 16));
    unsigned char* const other = readFrame(reader, 3, 3, memoryWith(small)).data;
    ASSERT_NE(nullptr, other);
    EXPECT_NE(buffer, other);
    EXPECT_EQ(0, memcmp(small.data(), other, 9));
}

// Unusable pixels give no data and leave the buffer as it was; the rest is read as usual.
TEST(FramePixelsTest, UnusablePixels) {
    const sp<IBinder> memory16 = memoryWith(pattern(9, 16));
    ASSERT_NE(nullptr, memory16);
    const struct {
        const char* name;
        int32_t width;
        int32_t height;
        sp<IBinder> binder;
    } cases[] = {
            {"zero width", 0, 4, memory16},
            {"zero height", 4, 0, memory16},
            {"negative width", -4, 4, memory16},
            {"both negative", -4, -4, memory16},
            {"product overflows int32", 65536, 65536, memory16},
            {"product overflows to small", kMax, 2, memory16},
            {"memory smaller than the frame", 5, 4, memory16},
            {"null binder", 4, 4, nullptr},
            {"binder that is not memory", 4, 4, new BBinder()},
    };
    const std::vector<unsigned char> primed = pattern(5, 16);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CameraFrameEventParceler reader;
        unsigned char* const buffer = readFrame(reader, 4, 4, memoryWith(primed)).data;
        ASSERT_NE(nullptr, buffer);
        const CameraFrameEvent back = readFrame(reader, c.width, c.height, c.binder);
        EXPECT_EQ(nullptr, back.data);
        EXPECT_EQ(c.height, back.height);
        EXPECT_EQ(0, memcmp(primed.data(), buffer, 16)) << "buffer touched";
    }
}

}  // namespace
}  // namespace morvel::tovarin::binder
