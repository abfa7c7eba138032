// Recordings in their CSV form and their replay: what the parser refuses (naming line and field),
// what a written row reads back as, interpolation and the end of a recording. The facade's use of
// a replay is in TovarinFacadeTest.

#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include <tovarin/MotionRecording.h>
#include <tovarin/ReplayMotion.h>

namespace morvel {
namespace tovarin {
namespace {

constexpr int64_t kSecond = 1000000000;
const std::string kColumns = "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence";

MotionRecording parsed(const std::string& text) {
    MotionRecording recording;
    std::string error;
    EXPECT_TRUE(MotionRecording::parse(text, &recording, &error)) << error;
    return recording;
}

// "yaw pitch roll confidence valid highConfidence text" of a sample or a pose.
template <typename T>
std::string describe(const T& s) {
    std::ostringstream text;
    text << s.yaw << " " << s.pitch << " " << s.roll << " " << s.confidence << " " << s.valid
         << s.highConfidence << " " << s.text;
    return text.str();
}

TEST(MotionRecording, RefusesABadFileWithTheLineAndFieldAtFault) {
    const std::string header = kColumns + "\n";
    const std::pair<std::string, std::string> cases[] = {
            {"", "line 1: empty file, no header"},
            {"timestamp_ns,yaw_deg,pitch_deg,roll_deg\n1,0,0,0\n", "line 1: no column confidence"},
            {kColumns + ",tilt\n", "line 1, field 6: unknown column \"tilt\""},
            {"timestamp_ns,yaw_deg,yaw_deg\n", "line 1, field 3: column yaw_deg appears twice"},
            {header, "line 2: no samples after the header"},
            {header + "1,0,0,0,0.5\n2,1,x,0,0.5\n",
             "line 3, field pitch_deg: \"x\" is not a finite"},
            {header + "1,0,0,nan,0.5\n", "line 2, field roll_deg: \"nan\" is not a finite number"},
            {header + "5,0,0,0,0.5\n\n5,0,0,0,0.5\n", "line 4, field timestamp_ns: 5 is not after"},
            {header + "1.5,0,0,0,0.5\n", "line 2, field timestamp_ns: \"1.5\" is not an integer"},
            {header + "-1,0,0,0,0.5\n", "line 2, field timestamp_ns: -1 is negative"},
            {header + "1,0,0,0,1.5\n", "line 2, field confidence: 1.5 is outside 0..1"},
            {header + "1,0,0\n", "line 2, field roll_deg: missing (3 of the header's 5 fields)"},
            {header + "1,0,0,0,0.5,7\n", "line 2, field 6: one too many"},
            {kColumns + ",valid\n1,0,0,0,0.5,yes\n", "line 2, field valid: \"yes\" is not 0 or 1"},
            {kColumns + ",text\n1,0,0,0,0.5,\"open\n", "line 2, field 6: the quote does not close"},
            {kColumns + ",text\n1,0,0,0,0.5," + std::string(256, 't') + "\n",
             "line 2, field text: longer than 255 bytes"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text.substr(0, 120));
        MotionRecording recording;
        std::string error;
        EXPECT_FALSE(MotionRecording::parse(text, &recording, &error));
        EXPECT_EQ(error.rfind(expected, 0), 0u) << error;
        EXPECT_TRUE(recording.samples().empty());
    }
    std::string error;
    MotionRecording recording;
    EXPECT_FALSE(MotionRecording::load("/nonexistent/take.csv", &recording, &error));
    EXPECT_EQ(error, "cannot read: No such file or directory");
    const std::string path = testing::TempDir() + "take" + std::to_string(getpid()) + ".csv";
    std::ofstream(path) << kColumns << "\n1,2,3,4,0.5\n";
    EXPECT_TRUE(MotionRecording::load(path, &recording, &error)) << error;
    EXPECT_EQ(describe(recording.samples().at(0)), "2 3 4 0.5 10 replay");
    unlink(path.c_str());
}

TEST(MotionRecording, WrittenRowsReadBackWithTheirFields) {
    HeadTrackingEvent first;
    first.timestamp = 7 * kSecond;
    first.component0 = -12.5f;
    first.component1 = 3.25f;
    first.component2 = 0.5f;
    first.scalar = 0.875f;
    first.flag0 = true;
    memset(first.text, 't', sizeof(first.text) - 1);  // the longest text there is
    HeadTrackingEvent second = first;
    second.timestamp += kSecond / 10;
    second.flag0 = false;
    second.flag1 = true;
    snprintf(second.text, sizeof(second.text), "a \"quoted\", text\non two lines");

    const MotionRecording recording =
            parsed(std::string(MotionRecording::kHeader) + "\r\n" +
                   MotionRecording::formatRow(first) + MotionRecording::formatRow(second));
    ASSERT_EQ(recording.samples().size(), 2u);
    EXPECT_EQ(recording.samples()[0].timestampNs, 7 * kSecond);
    EXPECT_EQ(recording.durationNs(), kSecond / 10);
    // The flags as written, though 0.875 would make a high confidence by itself.
    EXPECT_EQ(describe(recording.samples()[0]), "-12.5 3.25 0.5 0.875 10 " + std::string(255, 't'));
    EXPECT_EQ(describe(recording.samples()[1]),
              "-12.5 3.25 0.5 0.875 01 a \"quoted\", text on two lines");

    // Hand-written: columns in another order, the optional ones left out.
    const MotionRecording hand =
            parsed("confidence,roll_deg,pitch_deg,yaw_deg,timestamp_ns\n0.85,3,2,1,100\n");
    EXPECT_EQ(describe(hand.samples()[0]), "1 2 3 0.85 11 replay");
}

TEST(ReplayMotion, InterpolatesBetweenSamplesAndHoldsOrLoopsAtTheEnd) {
    // 0 s: yaw 0, 1 s: yaw 10, 3 s: yaw -10 (timestamps need not start at zero).
    const MotionRecording recording = parsed(kColumns + ",valid,text\n" +
                                             "5000000000,0,2,0,0.2,1,a\n"
                                             "6000000000,10,4,1,0.4,1,b\n"
                                             "8000000000,-10,0,-1,0.8,0,c\n");
    const ReplayMotion stay(recording, false);
    const ReplayMotion loop(recording, true);
    const std::tuple<const ReplayMotion*, int64_t, const char*> cases[] = {
            {&stay, 0, "0 2 0 0.2 10 a"},
            {&stay, kSecond / 2, "5 3 0.5 0.3 10 a"},
            {&stay, kSecond, "10 4 1 0.4 10 b"},
            {&stay, 2 * kSecond, "0 2 0 0.6 10 b"},
            {&stay, 60 * kSecond, "-10 0 -1 0.8 00 c"},              // holds the last sample
            {&loop, 3 * kSecond + kSecond / 2, "5 3 0.5 0.3 10 a"},  // starts over
            {&loop, 8 * kSecond, "0 2 0 0.6 10 b"},
    };
    for (const auto& [motion, elapsedNs, expected] : cases) {
        MotionPose pose;
        motion->poseAt(elapsedNs, HeadTrackingConfiguration(), &pose);
        EXPECT_EQ(describe(pose), expected) << (motion == &loop ? "loop " : "") << elapsedNs;
    }
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
