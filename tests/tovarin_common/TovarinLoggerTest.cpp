// TovarinLogger thresholds (TOVARIN_LOG syntax, the global verbosity limit) and the log writer
// with its capture.

#include <stdio.h>
#include <stdlib.h>

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
        TovarinLogger::getInstance()->reset();
    }
    void TearDown() override {
        unsetenv("TOVARIN_LOG");
        TovarinLogger::getInstance()->reset();
    }
};

TEST_F(TovarinLoggerTest, ThresholdsPerTag) {
    struct Case {
        const char* spec;
        const char* tag;  // may be null
        int level;
        bool logged;
    };
    const Case cases[] = {
            // No configuration: info and above, for every tag and for no tag.
            {"", "Any", 3, false},
            {"", "Any", 4, true},
            {"", nullptr, 4, true},
            {"", nullptr, 3, false},
            // Per-tag entries override "*" for their tag only.
            {"*:I,TovarinPermission:D", "TovarinPermission", 3, true},
            {"*:I,TovarinPermission:D", "TovarinPermission", 2, false},
            {"*:I,TovarinPermission:D", "TovarinServiceImpl", 3, false},
            {"*:I,TovarinPermission:D", "TovarinServiceImpl", 4, true},
            {"*:E,TovarinBnTovarinService:W", "TovarinBnTovarinService", 4, false},
            {"*:E,TovarinBnTovarinService:W", "TovarinBnTovarinService", 5, true},
            {"*:E,TovarinBnTovarinService:W", "Other", 5, false},
            {"*:E,TovarinBnTovarinService:W", nullptr, 6, true},
            // Tags are exact and case-sensitive; the prefix of a tag is another tag.
            {"Tovarin:D", "TovarinPermission", 3, false},
            {"tovarinpermission:D", "TovarinPermission", 3, false},
            // Silence, numbers, a bare level, spaces, the last entry for a tag wins.
            {"*:S", "Any", 7, false},
            {"Loud:V,*:S", "Loud", 2, true},
            {"*:v", "Any", 2, true},
            {"*:f", "Any", 6, false},
            {"*:F", "Any", 7, true},
            {"*:X", "Any", 4, true},   // not a level: the default stays
            {"*:1", "Any", 3, false},  // below verbose: not a level
            {"*:DD", "Any", 3, false},
            {"*:6", "Any", 5, false},
            {"*:6", "Any", 6, true},
            {"W", "Any", 5, true},
            {"W", "Any", 4, false},
            {" A : D , B:E ", "A", 3, true},
            {" A : D , B:E ", "B", 5, false},
            {"A:D,A:E", "A", 5, false},
            // Malformed entries are skipped; the rest still apply.
            {"A:Q,*:W,:D,B:", "A", 5, true},
            {"A:Q,*:W,:D,B:", "A", 4, false},
            {",,,*:D,,", "Any", 3, true},
    };
    TovarinLogger* logger = TovarinLogger::getInstance();
    for (const Case& c : cases) {
        logger->configure(c.spec);
        EXPECT_EQ(logger->shouldLog(c.tag, c.level), c.logged)
                << "spec '" << c.spec << "' tag " << (c.tag ? c.tag : "(null)") << " level "
                << c.level;
    }
}

TEST_F(TovarinLoggerTest, EnvironmentIsReadOnReset) {
    setenv("TOVARIN_LOG", "*:W,Chatty:V", 1);
    TovarinLogger* logger = TovarinLogger::getInstance();
    logger->reset();
    EXPECT_TRUE(logger->shouldLog("Chatty", 2));
    EXPECT_FALSE(logger->shouldLog("Other", 4));
    EXPECT_TRUE(logger->shouldLog("Other", 5));
    // configure() replaces everything the environment said.
    logger->configure("Other:D");
    EXPECT_FALSE(logger->shouldLog("Chatty", 2));
    EXPECT_TRUE(logger->shouldLog("Other", 3));
    EXPECT_EQ(logger->thresholdFor("Chatty"), TovarinLogger::kDefaultThreshold);
}

TEST_F(TovarinLoggerTest, GlobalMaxLevelRefusesMoreVerboseLines) {
    TovarinLogger* logger = TovarinLogger::getInstance();
    logger->configure("*:V,Quiet:E");
    TovarinLogger::setGlobalMaxLevel(4);
    EXPECT_FALSE(logger->shouldLog("Any", 3));
    EXPECT_TRUE(logger->shouldLog("Any", 4));
    EXPECT_TRUE(logger->shouldLog(nullptr, 5));
    // The limit never lets through what a tag's threshold refuses.
    EXPECT_FALSE(logger->shouldLog("Quiet", 5));
    EXPECT_TRUE(logger->shouldLog("Quiet", 6));
    // configure() keeps the limit; a limit of 2 or less removes it; reset() removes it.
    logger->configure("*:V");
    EXPECT_FALSE(logger->shouldLog("Any", 3));
    TovarinLogger::setGlobalMaxLevel(0);
    EXPECT_TRUE(logger->shouldLog("Any", 2));
    TovarinLogger::setGlobalMaxLevel(6);
    EXPECT_FALSE(logger->shouldLog("Any", 5));
    logger->reset();
    logger->configure("*:V");
    EXPECT_TRUE(logger->shouldLog("Any", 2));
}

TEST_F(TovarinLoggerTest, CaptureRecordsLevelTagAndFormattedText) {
    int32_t moduleState = -1;
    {
        TovarinLogCapture capture;
        EXPECT_EQ(rendel_log_write2(4, &moduleState, 2, "TovarinTest", "%s(%d) - %s", "proc", 42,
                                    "started"),
                  18);
        EXPECT_EQ(moduleState, 0);
        rendel_log_write2(6, &moduleState, 2, nullptr, "no tag %u", 7u);
        rendel_log_write2(3, nullptr, 2, "TovarinTest", "percent %% and %.2f", 1.5);
        const std::string longText(3000, 'x');
        rendel_log_write2(5, &moduleState, 2, "Long", "[%s]", longText.c_str());
        // Out-of-range levels are still recorded as given.
        rendel_log_write2(99, &moduleState, 2, "Odd", "odd");

        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(lines[0].level, 4);
        EXPECT_EQ(lines[0].tag, "TovarinTest");
        EXPECT_EQ(lines[0].text, "proc(42) - started");
        EXPECT_EQ(lines[1].level, 6);
        EXPECT_EQ(lines[1].tag, "");
        EXPECT_EQ(lines[1].text, "no tag 7");
        EXPECT_EQ(lines[2].text, "percent % and 1.50");
        EXPECT_EQ(lines[3].text, "[" + longText + "]");
        EXPECT_EQ(lines[4].level, 99);

        capture.clear();
        EXPECT_TRUE(capture.lines().empty());
        // The writer does not filter: callers ask shouldLog() first.
        TovarinLogger::getInstance()->configure("*:S");
        rendel_log_write2(2, &moduleState, 2, "Filtered", "still written");
        ASSERT_EQ(capture.lines().size(), 1u);
        EXPECT_EQ(capture.lines()[0].text, "still written");
    }
    // Nothing is recorded once the capture is gone; a new capture starts empty.
    rendel_log_write2(4, &moduleState, 2, "After", "after");
    TovarinLogCapture fresh;
    EXPECT_TRUE(fresh.lines().empty());
}

TEST_F(TovarinLoggerTest, EveryLiveCaptureSeesEveryLineFromEveryThread) {
    TovarinLogCapture outer;
    constexpr int kThreads = 4;
    constexpr int kLines = 100;
    {
        TovarinLogCapture inner;
        std::vector<std::thread> threads;
        static int32_t sState = -1;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i) {
                    rendel_log_write2(2, &sState, 2, "Threads", "thread %d line %d", t, i);
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(sState, 0);

        const auto lines = inner.lines();
        ASSERT_EQ(lines.size(), size_t(kThreads * kLines));
        // Per thread, lines keep their order.
        std::vector<int> next(kThreads, 0);
        for (const TovarinLogLine& line : lines) {
            int t = -1, i = -1;
            ASSERT_EQ(sscanf(line.text.c_str(), "thread %d line %d", &t, &i), 2) << line.text;
            ASSERT_GE(t, 0);
            ASSERT_LT(t, kThreads);
            EXPECT_EQ(i, next[t]++);
        }
    }
    EXPECT_EQ(outer.lines().size(), size_t(kThreads * kLines));
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
