// Recordings in their CSV form and their replay: what the parser refuses (naming line and field),
// what a written row reads back as, interpolation, the end of a recording, and a facade that
// samples a replay on its trackers' clocks.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tovarin/MotionRecording.h>
#include <tovarin/ReplayMotion.h>
#include <tovarin/TovarinFacade.h>

namespace morvel {
namespace tovarin {
namespace {

using android::OK;
using android::sp;

constexpr int64_t kSecond = 1000000000;

MotionRecording parsed(const std::string& text) {
    MotionRecording recording;
    std::string error;
    EXPECT_TRUE(MotionRecording::parse(text, &recording, &error)) << error;
    return recording;
}

TEST(MotionRecording, RefusesABadFileWithTheLineAndFieldAtFault) {
    const std::string header = "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence\n";
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
            {"", "line 1: empty file, no header"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg\n1,0,0,0\n", "line 1: no column confidence"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,tilt\n",
             "line 1, field 6: unknown column \"tilt\""},
            {"timestamp_ns,yaw_deg,yaw_deg\n", "line 1, field 3: column yaw_deg appears twice"},
            {header, "line 2: no samples after the header"},
            {header + "1,0,0,0,0.5\n2,1,x,0,0.5\n",
             "line 3, field pitch_deg: \"x\" is not a finite number"},
            {header + "1,0,0,nan,0.5\n", "line 2, field roll_deg: \"nan\" is not a finite number"},
            {header + "5,0,0,0,0.5\n\n5,0,0,0,0.5\n",
             "line 4, field timestamp_ns: 5 is not after the previous 5"},
            {header + "1.5,0,0,0,0.5\n", "line 2, field timestamp_ns: \"1.5\" is not an integer"},
            {header + "-1,0,0,0,0.5\n", "line 2, field timestamp_ns: -1 is negative"},
            {header + "1,0,0,0,1.5\n", "line 2, field confidence: 1.5 is outside 0..1"},
            {header + "1,0,0\n", "line 2, field roll_deg: missing (3 of the header's 5 fields)"},
            {header + "1,0,0,0,0.5,7\n", "line 2, field 6: one too many"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,valid\n1,0,0,0,0.5,yes\n",
             "line 2, field valid: \"yes\" is not 0 or 1"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,text\n1,0,0,0,0.5,\"open\n",
             "line 2, field 6: the quote does not close"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,text\n1,0,0,0,0.5," +
                     std::string(256, 't') + "\n",
             "line 2, field text: longer than 255 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 120));
        MotionRecording recording;
        std::string error;
        EXPECT_FALSE(MotionRecording::parse(c.text, &recording, &error));
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
        EXPECT_TRUE(recording.samples().empty());
    }
    std::string error;
    MotionRecording recording;
    EXPECT_FALSE(MotionRecording::load("/nonexistent/take.csv", &recording, &error));
    EXPECT_EQ(error, "cannot read: No such file or directory");
}

TEST(MotionRecording, WrittenRowsReadBackWithTheirFields) {
    HeadTrackingEvent first;
    first.timestamp = 7 * kSecond;
    first.component0 = -12.5f;
    first.component1 = 3.25f;
    first.component2 = 0.5f;
    first.scalar = 0.875f;
    first.flag0 = true;
    first.flag1 = true;
    snprintf(first.text, sizeof(first.text), "simulated");
    HeadTrackingEvent second = first;
    second.timestamp += kSecond / 10;
    second.flag0 = false;
    second.flag1 = false;
    snprintf(second.text, sizeof(second.text), "a \"quoted\", text");

    const std::string text = std::string(MotionRecording::kHeader) + "\r\n" +
                             MotionRecording::formatRow(first) + MotionRecording::formatRow(second);
    const MotionRecording recording = parsed(text);
    ASSERT_EQ(recording.samples().size(), 2u);
    const RecordedSample& a = recording.samples()[0];
    EXPECT_EQ(a.timestampNs, 7 * kSecond);
    EXPECT_DOUBLE_EQ(a.yaw, -12.5);
    EXPECT_DOUBLE_EQ(a.pitch, 3.25);
    EXPECT_DOUBLE_EQ(a.roll, 0.5);
    EXPECT_DOUBLE_EQ(a.confidence, 0.875);
    EXPECT_TRUE(a.valid);
    EXPECT_TRUE(a.highConfidence);
    EXPECT_EQ(a.text, "simulated");
    const RecordedSample& b = recording.samples()[1];
    EXPECT_FALSE(b.valid);
    EXPECT_FALSE(b.highConfidence);
    EXPECT_EQ(b.text, "a \"quoted\", text");
    EXPECT_EQ(recording.durationNs(), kSecond / 10);

    // Hand-written: columns in another order, the optional ones left out.
    const MotionRecording hand =
            parsed("confidence,roll_deg,pitch_deg,yaw_deg,timestamp_ns\n0.9,3,2,1,100\n");
    ASSERT_EQ(hand.samples().size(), 1u);
    EXPECT_DOUBLE_EQ(hand.samples()[0].yaw, 1.0);
    EXPECT_DOUBLE_EQ(hand.samples()[0].roll, 3.0);
    EXPECT_TRUE(hand.samples()[0].valid);
    EXPECT_TRUE(hand.samples()[0].highConfidence);  // 0.9 >= 0.85
    EXPECT_EQ(hand.samples()[0].text, "replay");
}

TEST(ReplayMotion, InterpolatesBetweenSamplesAndHoldsOrLoopsAtTheEnd) {
    // 0 s: yaw 0, 1 s: yaw 10, 3 s: yaw -10 (timestamps need not start at zero).
    const std::string text =
            "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,valid,text\n"
            "5000000000,0,2,0,0.2,1,a\n"
            "6000000000,10,4,1,0.4,1,b\n"
            "8000000000,-10,0,-1,0.8,0,c\n";
    const HeadTrackingConfiguration config;
    const struct {
        bool loop;
        int64_t elapsedNs;
        double yaw, pitch, confidence;
        bool valid;
        const char* text;
    } cases[] = {
            {false, 0, 0, 2, 0.2, true, "a"},
            {false, kSecond / 2, 5, 3, 0.3, true, "a"},
            {false, kSecond, 10, 4, 0.4, true, "b"},
            {false, 2 * kSecond, 0, 2, 0.6, true, "b"},
            {false, 3 * kSecond, -10, 0, 0.8, false, "c"},
            {false, 60 * kSecond, -10, 0, 0.8, false, "c"},           // holds the last sample
            {true, 3 * kSecond + kSecond / 2, 5, 3, 0.3, true, "a"},  // starts over
            {true, 8 * kSecond, 0, 2, 0.6, true, "b"},
    };
    const ReplayMotion stay(parsed(text), false);
    const ReplayMotion loop(parsed(text), true);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.loop ? "loop " : "") << c.elapsedNs << " ns");
        MotionPose pose;
        (c.loop ? loop : stay).poseAt(c.elapsedNs, config, &pose);
        EXPECT_NEAR(pose.yaw, c.yaw, 1e-9);
        EXPECT_NEAR(pose.pitch, c.pitch, 1e-9);
        EXPECT_NEAR(pose.confidence, c.confidence, 1e-9);
        EXPECT_EQ(pose.valid, c.valid);
        EXPECT_EQ(pose.text, c.text);
    }
}

TEST(ReplayMotion, DrivesTheFacadeFromEachTrackersStart) {
    // Still for a minute, so that a sample taken soon after start() is the first sample exactly.
    TovarinFacade::Options options;
    options.motion = std::make_shared<const ReplayMotion>(
            parsed("timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,text\n"
                   "0,11,-7,3,0.5,take-1\n"
                   "60000000000,11,-7,3,0.5,take-1\n"
                   "61000000000,50,50,50,1,take-1\n"),
            false);
    sp<TovarinFacade> facade = new TovarinFacade(options);
    const HeadTrackerHandle handle = facade->getHeadTrackerHandle();
    ASSERT_EQ(facade->start(handle), OK);
    HeadTrackingEvent event;
    ASSERT_EQ(facade->sample(handle, event), OK);
    EXPECT_EQ(event.component0, 11.0f);
    EXPECT_EQ(event.component1, -7.0f);
    EXPECT_EQ(event.component2, 3.0f);
    EXPECT_EQ(event.scalar, 0.5f);
    EXPECT_FALSE(event.flag1);
    EXPECT_STREQ(event.text, "take-1");
    EXPECT_GT(event.timestamp, 0);  // stamped with the time of sampling, not the file's
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
