/*
 * Logging of the head-tracking libraries.
 *
 * Every line is guarded: code first asks TovarinLogger::getInstance()->shouldLog(tag, level) and
 * only then builds the arguments and calls rendel_log_write2(). Levels are the platform's log
 * priorities: 2 verbose, 3 debug, 4 info, 5 warning, 6 error, 7 fatal.
 *
 * Thresholds come from the environment variable TOVARIN_LOG, read when the logger is first used:
 * a comma-separated list of "tag:level" entries, "*" standing for every tag without an entry of
 * its own, e.g. "*:I,TovarinPermission:D". A level is a letter V D I W E F (either case), S
 * (silent: nothing from that tag) or a number 2..8. A bare level ("W") sets "*". Malformed
 * entries are ignored. Without an entry for "*" the default threshold is I (4).
 */
#pragma once

#include <stdint.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace morvel {
namespace tovarin {

class TovarinLogger {
public:
    static constexpr int kDefaultThreshold = 4;  // info
    static constexpr int kSilent = 8;

    static TovarinLogger* getInstance();

    // True when a line of this level and tag is to be written: level >= the tag's threshold
    // (the "*" threshold for an unknown or null tag) and level >= the global verbosity limit.
    bool shouldLog(const char* tag, int level);

    // Sets the most verbose level that any tag may log at, whatever its threshold: afterwards a
    // line whose level is below maxLevel is refused. setGlobalMaxLevel(4) therefore lets info,
    // warning, error and fatal lines through (subject to the thresholds) and refuses debug and
    // verbose ones. A value of 2 or less removes the limit (the initial state).
    static void setGlobalMaxLevel(int maxLevel);

    // Replaces all thresholds with those of spec (TOVARIN_LOG syntax). Leaves the global limit.
    void configure(const std::string& spec);

    // Back to the initial state: thresholds from TOVARIN_LOG as it is now, no global limit.
    void reset();

    // The threshold that applies to tag (for diagnostics and tests).
    int thresholdFor(const char* tag) const;

    // Parses one level ("D", "4", ...); -1 when it is not a level.
    static int parseLevel(const std::string& text);

private:
    TovarinLogger();
    void configureLocked(const std::string& spec);

    mutable std::mutex mLock;
    int mDefaultThreshold = kDefaultThreshold;
    std::map<std::string, int> mThresholds;
};

// One line written by rendel_log_write2, as recorded by a TovarinLogCapture.
struct TovarinLogLine {
    int level = 0;
    std::string tag;  // empty for a null tag
    std::string text;
};

// While at least one capture exists, every line that rendel_log_write2 writes in this process is
// also recorded in each live capture (the lines still go to the log as well). For tests.
class TovarinLogCapture {
public:
    TovarinLogCapture();
    ~TovarinLogCapture();
    TovarinLogCapture(const TovarinLogCapture&) = delete;
    TovarinLogCapture& operator=(const TovarinLogCapture&) = delete;

    std::vector<TovarinLogLine> lines() const;
    void clear();

    // Called by the log writer.
    void record(const TovarinLogLine& line);

private:
    mutable std::mutex mLock;
    std::vector<TovarinLogLine> mLines;
};

}  // namespace tovarin
}  // namespace morvel

// Formats a line printf-style and writes it to the platform log (liblog; on a Linux host a
// logcat-style line on stderr) at the given level under tag, which may be null. It does not
// consult the thresholds: callers ask shouldLog() first. moduleState is the calling module's
// static state word (initially -1, touched only here; may be null); kind is 2 for ordinary
// lines. Returns the number of bytes of the formatted text, or a negative errno.
int rendel_log_write2(int level, int32_t* moduleState, int kind, const char* tag,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));
