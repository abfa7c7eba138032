/*
 * The `dumpsys` tool: one service's dump with its arguments, every service between
 * separators, the list, large and hanging dumps, and its command-line errors.
 */
#include "DumpsysTool.h"
#include "ToolsFixture.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

using namespace android;
using tools_test::ToolRun;

namespace {

class DumpsysToolTest : public tools_test::ToolsTest {
protected:
    void SetUp() override {
        // A dump cut short must not kill the process writing it.
        signal(SIGPIPE, SIG_IGN);
        ToolsTest::SetUp();
    }

    ToolRun dumpsys(std::vector<std::string> args) {
        return run<DumpsysTool>("dumpsys", std::move(args));
    }
};

// The block `dumpsys` prints for one service among several.
std::string blockHead(const std::string& name) {
    return std::string(DumpsysTool::kSeparator) + "\nDUMP OF SERVICE " + name + ":\n";
}

}  // namespace

TEST_F(DumpsysToolTest, OneServicePrintsItsDumpAloneWithItsArguments) {
    struct Case {
        std::vector<std::string> args;
        std::string out;
    };
    const Case cases[] = {
            {{"tools.echo"}, "echo dump:\n"},
            {{"tools.echo", "a", "b c", "-l"}, "echo dump: a b c -l\n"},
            {{"tools.other"}, ""},
    };
    for (const Case& c : cases) {
        ToolRun r = dumpsys(c.args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(DumpsysToolTest, UnknownServiceIsReportedOnStderr) {
    ToolRun r = dumpsys({"tools.missing", "arg"});
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Can't find service: tools.missing\n");
}

TEST_F(DumpsysToolTest, FailedDumpIsReportedOnStderr) {
    ToolRun r = dumpsys({"tools.echo", "fail"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Error dumping service info: (Invalid argument) tools.echo\n");
}

TEST_F(DumpsysToolTest, WithoutArgumentsEveryServiceIsDumpedBetweenSeparators) {
    ToolRun r = dumpsys({});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Currently running services:\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n  tools.echo\n"), std::string::npos);

    const size_t echo = r.out.find(blockHead("tools.echo") + "echo dump:\n--------- ");
    const size_t other = r.out.find(blockHead("tools.other") + "--------- ");
    ASSERT_NE(echo, std::string::npos) << r.out;
    ASSERT_NE(other, std::string::npos) << r.out;
    EXPECT_LT(echo, other);  // in the order the service manager lists them
    EXPECT_NE(r.out.find("s was the duration of dumpsys tools.other, ending at: "),
              std::string::npos);
}

TEST_F(DumpsysToolTest, ListAndSkip) {
    ToolRun list = dumpsys({"-l"});
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(list.out.rfind("Currently running services:\n", 0), 0u);
    EXPECT_NE(list.out.find("\n  tools.echo\n"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("\n  tools.other\n"), std::string::npos) << list.out;
    EXPECT_EQ(list.out.find("DUMP OF SERVICE"), std::string::npos);

    ToolRun skip = dumpsys({"--skip", "tools.echo,nothing"});
    EXPECT_EQ(skip.status, 0);
    EXPECT_NE(skip.out.find("\n  tools.echo (skipped)\n"), std::string::npos) << skip.out;
    EXPECT_EQ(skip.out.find(blockHead("tools.echo")), std::string::npos);
    EXPECT_NE(skip.out.find(blockHead("tools.other")), std::string::npos);
}

TEST_F(DumpsysToolTest, DumpLargerThanAPipeArrivesWhole) {
    ToolRun r = dumpsys({"tools.echo", "big"});
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.out.size(), tools_test::kBigDumpBytes);
    EXPECT_EQ(r.out.find_first_not_of("x\n"), std::string::npos);
}

TEST_F(DumpsysToolTest, HangingDumpTimesOut) {
    const auto start = std::chrono::steady_clock::now();
    ToolRun r = dumpsys({"-T", "300", "tools.echo", "hang"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::milliseconds(1500));
    EXPECT_NE(r.out.find("*** SERVICE 'tools.echo' DUMP TIMEOUT (300ms) EXPIRED ***"),
              std::string::npos)
            << r.out;
    // Let the abandoned call finish before the service process is told to leave.
    std::this_thread::sleep_for(std::chrono::seconds(2));
}

TEST_F(DumpsysToolTest, BadCommandLinesExplainThemselves) {
    struct Case {
        std::vector<std::string> args;
        std::string error;
    };
    const Case cases[] = {
            {{"-t"}, "Error: missing timeout value\n"},
            {{"-t", "soon"}, "Error: invalid timeout number: 'soon'\n"},
            {{"--bogus"}, "Unknown option --bogus\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        ToolRun r = dumpsys(c.args);
        EXPECT_EQ(r.status, DumpsysTool::kExitUsage);
        EXPECT_EQ(r.err.rfind(c.error, 0), 0u) << r.err;
        EXPECT_EQ(r.err.find("usage: dumpsys"), c.error.size()) << r.err;
        EXPECT_EQ(r.out, "");
    }
    ToolRun help = dumpsys({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: dumpsys", 0), 0u);
    EXPECT_EQ(help.err, "");
}
