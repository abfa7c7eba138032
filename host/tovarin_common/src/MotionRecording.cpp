#include <tovarin/MotionRecording.h>

#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>

namespace morvel {
namespace tovarin {

namespace {

enum Column { kTimestamp, kYaw, kPitch, kRoll, kConfidence, kValid, kHighConfidence, kText };
constexpr const char* kColumnNames[] = {"timestamp_ns", "yaw_deg", "pitch_deg",       "roll_deg",
                                        "confidence",   "valid",   "high_confidence", "text"};
constexpr size_t kColumnCount = sizeof(kColumnNames) / sizeof(kColumnNames[0]);
constexpr size_t kRequiredColumns = kConfidence + 1;  // the first five
constexpr size_t kMaxTextBytes = 255;
constexpr size_t kMaxFileBytes = 512u * 1024 * 1024;

// Splits one line into fields: commas separate, a field in double quotes may hold commas and
// doubled quotes. False (with *error) for a quote that does not close or junk after one.
bool splitFields(const std::string& line, std::vector<std::string>* fields, std::string* error) {
    fields->clear();
    size_t at = 0;
    for (;;) {
        std::string field;
        if (at < line.size() && line[at] == '"') {
            ++at;
            for (;;) {
                if (at >= line.size()) {
                    *error = "field " + std::to_string(fields->size() + 1) +
                             ": the quote does not close";
                    return false;
                }
                if (line[at] == '"') {
                    if (at + 1 < line.size() && line[at + 1] == '"') {
                        field += '"';
                        at += 2;
                        continue;
                    }
                    ++at;
                    break;
                }
                field += line[at++];
            }
            if (at < line.size() && line[at] != ',') {
                *error = "field " + std::to_string(fields->size() + 1) +
                         ": text after the closing quote";
                return false;
            }
        } else {
            const size_t comma = line.find(',', at);
            const size_t end = comma == std::string::npos ? line.size() : comma;
            field = line.substr(at, end - at);
            at = end;
        }
        fields->push_back(std::move(field));
        if (at >= line.size()) return true;
        ++at;  // the comma
    }
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

bool parseInteger(const std::string& text, int64_t* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *out = value;
    return true;
}

bool parseNumber(const std::string& text, double* out) {
    if (text.empty() || isspace(static_cast<unsigned char>(text[0]))) return false;
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (*end != '\0' || !isfinite(value)) return false;
    *out = value;
    return true;
}

bool parseFlag(const std::string& text, bool* out) {
    if (text != "0" && text != "1") return false;
    *out = text == "1";
    return true;
}

}  // namespace

const char MotionRecording::kHeader[] =
        "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,valid,high_confidence,text";

std::string MotionRecording::formatRow(const HeadTrackingEvent& event) {
    char numbers[192];
    snprintf(numbers, sizeof(numbers), "%lld,%.5f,%.5f,%.5f,%.5f,%d,%d,",
             static_cast<long long>(event.timestamp), event.component0, event.component1,
             event.component2, event.scalar, event.flag0 ? 1 : 0, event.flag1 ? 1 : 0);
    const std::string text(event.text, strnlen(event.text, sizeof(event.text)));
    std::string row = numbers;
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        row += text;
    } else {
        // Line breaks cannot be represented in one row: they become spaces.
        row += '"';
        for (char c : text) {
            if (c == '"')
                row += "\"\"";
            else
                row += (c == '\r' || c == '\n') ? ' ' : c;
        }
        row += '"';
    }
    row += '\n';
    return row;
}

bool MotionRecording::parse(const std::string& text, MotionRecording* out, std::string* error) {
    out->mSamples.clear();
    std::vector<RecordedSample> samples;
    int columnOf[kColumnCount];
    for (int& c : columnOf) c = -1;
    size_t headerFields = 0;
    bool haveHeader = false;

    std::vector<std::string> fields;
    size_t lineNumber = 0;
    size_t at = 0;
    while (at < text.size()) {
        const size_t newline = text.find('\n', at);
        const size_t end = newline == std::string::npos ? text.size() : newline;
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++lineNumber;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const std::string where = "line " + std::to_string(lineNumber);
        if (line.find('\0') != std::string::npos) {
            *error = where + ": holds a NUL byte";
            return false;
        }
        std::string splitError;
        if (!haveHeader) {
            if (!splitFields(line, &fields, &splitError)) {
                *error = where + ", " + splitError;
                return false;
            }
            for (size_t i = 0; i < fields.size(); ++i) {
                size_t column = 0;
                while (column < kColumnCount && fields[i] != kColumnNames[column]) ++column;
                if (column == kColumnCount) {
                    *error = where + ", field " + std::to_string(i + 1) + ": unknown column " +
                             quoted(fields[i]) + " (the header is " + kHeader + ")";
                    return false;
                }
                if (columnOf[column] >= 0) {
                    *error = where + ", field " + std::to_string(i + 1) + ": column " + fields[i] +
                             " appears twice";
                    return false;
                }
                columnOf[column] = static_cast<int>(i);
            }
            for (size_t column = 0; column < kRequiredColumns; ++column) {
                if (columnOf[column] < 0) {
                    *error = where + ": no column " + kColumnNames[column] + " (the header is " +
                             kHeader + ")";
                    return false;
                }
            }
            headerFields = fields.size();
            haveHeader = true;
            continue;
        }
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        if (!splitFields(line, &fields, &splitError)) {
            *error = where + ", " + splitError;
            return false;
        }
        if (fields.size() != headerFields) {
            // Names the first field that is missing, or the first one too many.
            std::string name = std::to_string(headerFields + 1);
            for (size_t column = 0; column < kColumnCount; ++column) {
                if (columnOf[column] == static_cast<int>(fields.size()))
                    name = kColumnNames[column];
            }
            *error = where + ", field " + name + ": " +
                     (fields.size() < headerFields ? "missing" : "one too many") + " (" +
                     std::to_string(fields.size()) + " of the header's " +
                     std::to_string(headerFields) + " fields)";
            return false;
        }
        if (samples.size() >= kMaxSamples) {
            *error = where + ": more than " + std::to_string(kMaxSamples) + " samples";
            return false;
        }
        auto fieldError = [&](Column column, const std::string& reason) {
            *error = where + ", field " + kColumnNames[column] + ": " + reason;
            return false;
        };
        auto field = [&](Column column) -> const std::string& {
            return fields[static_cast<size_t>(columnOf[column])];
        };

        RecordedSample sample;
        if (!parseInteger(field(kTimestamp), &sample.timestampNs)) {
            return fieldError(kTimestamp, quoted(field(kTimestamp)) + " is not an integer");
        }
        if (sample.timestampNs < 0) {
            return fieldError(kTimestamp, field(kTimestamp) + " is negative");
        }
        if (!samples.empty() && sample.timestampNs <= samples.back().timestampNs) {
            return fieldError(kTimestamp, field(kTimestamp) + " is not after the previous " +
                                                  std::to_string(samples.back().timestampNs));
        }
        double* const angles[] = {&sample.yaw, &sample.pitch, &sample.roll, &sample.confidence};
        for (Column column : {kYaw, kPitch, kRoll, kConfidence}) {
            if (!parseNumber(field(column), angles[column - kYaw])) {
                return fieldError(column, quoted(field(column)) + " is not a finite number");
            }
        }
        if (!(sample.confidence >= 0.0 && sample.confidence <= 1.0)) {
            return fieldError(kConfidence, field(kConfidence) + " is outside 0..1");
        }
        sample.valid = true;
        if (columnOf[kValid] >= 0 && !parseFlag(field(kValid), &sample.valid)) {
            return fieldError(kValid, quoted(field(kValid)) + " is not 0 or 1");
        }
        sample.highConfidence = sample.confidence >= 0.85;
        if (columnOf[kHighConfidence] >= 0 &&
            !parseFlag(field(kHighConfidence), &sample.highConfidence)) {
            return fieldError(kHighConfidence, quoted(field(kHighConfidence)) + " is not 0 or 1");
        }
        sample.text = "replay";
        if (columnOf[kText] >= 0) {
            sample.text = field(kText);
            if (sample.text.size() > kMaxTextBytes) {
                return fieldError(kText, "longer than " + std::to_string(kMaxTextBytes) + " bytes");
            }
        }
        samples.push_back(std::move(sample));
    }
    if (!haveHeader) {
        *error = "line 1: empty file, no header";
        return false;
    }
    if (samples.empty()) {
        *error = "line " + std::to_string(lineNumber + 1) + ": no samples after the header";
        return false;
    }
    out->mSamples = std::move(samples);
    return true;
}

bool MotionRecording::load(const std::string& path, MotionRecording* out, std::string* error) {
    out->mSamples.clear();
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = std::string("cannot read: ") + strerror(errno);
        return false;
    }
    std::string text;
    char buffer[65536];
    while (file.read(buffer, sizeof(buffer)) || file.gcount() > 0) {
        text.append(buffer, static_cast<size_t>(file.gcount()));
        if (text.size() > kMaxFileBytes) {
            *error = "cannot read: larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB";
            return false;
        }
    }
    if (file.bad()) {
        *error = std::string("cannot read: ") + strerror(errno);
        return false;
    }
    return parse(text, out, error);
}

int64_t MotionRecording::durationNs() const {
    return mSamples.empty() ? 0 : mSamples.back().timestampNs - mSamples.front().timestampNs;
}

}  // namespace tovarin
}  // namespace morvel
