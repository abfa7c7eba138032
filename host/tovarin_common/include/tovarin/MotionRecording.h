/*
 * A recording of head tracking samples in its CSV form, as `tovarinctl track --csv` writes it
 * and `tovarind --replay` and `tovarinctl plot` read it:
 *
 *   timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,valid,high_confidence,text
 *   81234567890,0.00000,5.75310,5.04883,0.90000,1,1,simulated
 *
 * The first line names the columns. timestamp_ns, yaw_deg, pitch_deg, roll_deg and confidence
 * are required; valid (default 1), high_confidence (default: confidence >= 0.85) and text
 * (default "replay") may be left out; columns may come in any order. Timestamps are integers
 * of nanoseconds, strictly increasing; only their differences matter. Angles are finite degrees,
 * confidence lies in 0..1, valid and high_confidence are 0 or 1, text has at most 255 bytes and
 * is quoted ("...", a quote doubled) when it holds a comma or a quote. Blank lines are skipped.
 *
 * A file that breaks a rule is refused as a whole with one message that names the line and the
 * field: `line 4, field yaw_deg: "abc" is not a number`.
 */
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include <tovarin/HeadTrackingTypes.h>

namespace morvel {
namespace tovarin {

struct RecordedSample {
    int64_t timestampNs = 0;
    double yaw = 0.0;
    double pitch = 0.0;
    double roll = 0.0;
    double confidence = 0.0;
    bool valid = true;
    bool highConfidence = false;
    std::string text;
};

class MotionRecording {
public:
    // The header line that formatRow() rows go under, without its newline.
    static const char kHeader[];
    // Most samples a recording may hold (about an hour at 500 per second).
    static constexpr size_t kMaxSamples = 2000000;

    // One CSV row for `event`, newline included.
    static std::string formatRow(const HeadTrackingEvent& event);

    // Parses a whole file's text. On failure returns false, leaves *out empty and sets *error
    // to "line N, field NAME: reason" (or "line N: reason" where no one field is at fault).
    static bool parse(const std::string& text, MotionRecording* out, std::string* error);
    // Reads and parses the file at path; errors as parse(), or "cannot read: <reason>".
    static bool load(const std::string& path, MotionRecording* out, std::string* error);

    // In timestamp order; never empty after a successful parse.
    const std::vector<RecordedSample>& samples() const { return mSamples; }
    // From the first sample to the last.
    int64_t durationNs() const;

private:
    std::vector<RecordedSample> mSamples;
};

}  // namespace tovarin
}  // namespace morvel
