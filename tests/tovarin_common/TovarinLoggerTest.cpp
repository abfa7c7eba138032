// TovarinLogger thresholds (TOVARIN_LOG syntax, the global verbosity limit) and the log writer
// with its capture.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tovarin/TovarinLogger.h>

namespace morvel {
namespace tovarin {
namespace {

class TovarinLoggerTest : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("TOVARIN_LOG");
        logger->reset();
    }
    void TearDown() override { SetUp(); }
    // The lowest level `tag` logs at: the one below is refused.
    int lowestLogged(const char* tag) {
        for (int level = 1; level <= 9; ++level) {
            if (logger->shouldLog(tag, level)) return level;
        }
        return -1;
    }
    TovarinLogger* const logger = TovarinLogger::getInstance();
};

TEST_F(TovarinLoggerTest, ThresholdsPerTag) {
    // A TOVARIN_LOG setting, then each tag ("-" for none) with the lowest level it logs at.
    const std::pair<const char*, const char*> cases[] = {
            // No configuration: info and above, for every tag and for no tag.
            {"", "Any 4 - 4"},
            // Per-tag entries override "*" for their tag only; tags are exact and case-sensitive.
            {"*:I,TovarinPermission:D", "TovarinPermission 3 TovarinServiceImpl 4"},
            {"*:E,TovarinService:W", "TovarinService 5 - 6"},
            {"Tovarin:D,tovarinpermission:D", "TovarinPermission 4"},
            // Letters in either case, digits 2..8, a bare level, spaces; the last entry wins.
            {"Loud:V,*:S", "Loud 2 Any 8"},
            {"a:v,b:f,c:2,d:8", "a 2 b 7 c 2 d 8"},
            {"W", "Any 5"},
            {" A : D , B:E ", "A 3 B 6"},
            {"A:D,A:E", "A 6"},
            // Entries that are no levels or otherwise malformed are skipped; the rest apply.
            {"a:X,b:1,c:9,d:DD", "a 4 b 4 c 4 d 4"},
            {"A:Q,*:W,:D,B:", "A 5 B 5"},
            {",,,*:D,,", "Any 3"},
    };
    for (const auto& [setting, expected] : cases) {
        logger->configure(setting);
        std::istringstream tags(expected);
        std::string tag;
        for (int lowest; tags >> tag >> lowest;) {
            EXPECT_EQ(lowestLogged(tag == "-" ? nullptr : tag.c_str()), lowest)
                    << "setting '" << setting << "' tag " << tag;
        }
    }
}

TEST_F(TovarinLoggerTest, EnvironmentIsReadOnResetAndGlobalLimitComesOnTop) {
    setenv("TOVARIN_LOG", "*:W,Chatty:V", 1);
    logger->reset();
    EXPECT_EQ(lowestLogged("Chatty"), 2);
    EXPECT_EQ(lowestLogged("Other"), 5);
    // configure() replaces everything the environment said.
    logger->configure("Quiet:E");
    EXPECT_EQ(logger->thresholdFor("Chatty"), TovarinLogger::kDefaultThreshold);
    logger->configure("*:V,Quiet:E");

    // The limit refuses more verbose lines, but never lets through what a tag refuses.
    TovarinLogger::setGlobalMaxLevel(4);
    EXPECT_EQ(lowestLogged("Any"), 4);
    EXPECT_EQ(lowestLogged("Quiet"), 6);
    TovarinLogger::setGlobalMaxLevel(2);  // 2 or less: no limit
    EXPECT_EQ(lowestLogged("Any"), 2);
    TovarinLogger::setGlobalMaxLevel(6);
    logger->reset();  // drops the limit
    EXPECT_EQ(lowestLogged("Chatty"), 2);
}

std::string joined(const TovarinLogCapture& capture) {
    std::string text;
    for (const TovarinLogLine& line : capture.lines()) {
        text += std::to_string(line.level) + " " + line.tag + ": " + line.text + "\n";
    }
    return text;
}

TEST_F(TovarinLoggerTest, CaptureRecordsLevelTagAndFormattedText) {
    int32_t moduleState = -1;
    const std::string longText(3000, 'x');
    {
        TovarinLogCapture capture;
        EXPECT_EQ(rendel_log_write2(4, &moduleState, 2, "Test", "%s(%d) - %s", "p", 42, "up"), 10);
        EXPECT_EQ(moduleState, 0);
        rendel_log_write2(6, &moduleState, 2, nullptr, "no tag %u", 7u);
        rendel_log_write2(3, nullptr, 2, "Test", "percent %% and %.2f", 1.5);
        rendel_log_write2(5, &moduleState, 2, "Long", "[%s]", longText.c_str());
        // The writer does not filter (callers ask shouldLog() first); odd levels are kept.
        logger->configure("*:S");
        rendel_log_write2(99, &moduleState, 2, "Odd", "odd");
        EXPECT_EQ(rendel_log_write2(4, &moduleState, 2, "Null", nullptr), -EINVAL);
        EXPECT_EQ(joined(capture),
                  "4 Test: p(42) - up\n6 : no tag 7\n3 Test: percent % and 1.50\n5 Long: [" +
                          longText + "]\n99 Odd: odd\n");
        capture.clear();
        EXPECT_EQ(joined(capture), "");
    }
}

TEST_F(TovarinLoggerTest, EveryLiveCaptureSeesEveryLineFromEveryThreadInOrder) {
    TovarinLogCapture outer;
    {
        TovarinLogCapture inner;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < 100; ++i) rendel_log_write2(2, nullptr, 2, "T", "%d %d", t, i);
            });
        }
        for (std::thread& thread : threads) thread.join();
        int next[4] = {};
        for (const TovarinLogLine& line : inner.lines()) {
            int t = 0, i = -1;
            sscanf(line.text.c_str(), "%d %d", &t, &i);
            EXPECT_EQ(i, next[t % 4]++) << line.text;
        }
        EXPECT_EQ(next[0] + next[1] + next[2] + next[3], 400);
    }
    // The inner capture went away, the outer one still records.
    rendel_log_write2(2, nullptr, 2, "T", "last");
    EXPECT_EQ(outer.lines().size(), 401u);
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
