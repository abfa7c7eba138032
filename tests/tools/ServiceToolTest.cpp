/*
 * The `service` tool: the reply format, list, check, call and its command-line errors.
 */
#include "ServiceTool.h"
#include "ToolsFixture.h"

#include <gtest/gtest.h>

#include <stdio.h>

using namespace android;
using tools_test::ToolRun;

namespace {

// A failed parcel prints its status as a pointer-wide word: BAD_VALUE is 0xffffffea on a
// 32-bit system.
const std::string kBadValue = sizeof(void*) == 8 ? "Error: 0xffffffffffffffea \"Invalid argument\""
                                                 : "Error: 0xffffffea \"Invalid argument\"";

std::string formatBytes(const std::string& bytes) {
    Parcel parcel;
    parcel.setData(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return ServiceTool::formatParcel(parcel);
}

class ServiceToolTest : public tools_test::ToolsTest {
protected:
    ToolRun service(std::vector<std::string> args) {
        return run<ServiceTool>("service", std::move(args));
    }
};

}  // namespace

TEST(ServiceToolFormatTest, RepliesPrintAsWordsAndCharacters) {
    struct Case {
        const char* what;
        std::string bytes;
        std::string expected;
    };
    const Case cases[] = {
            {"empty", "", "Parcel(NULL)"},
            {"one word", std::string("\x07\0\0\0", 4), "Parcel(00000007    '....')"},
            {"two words", std::string("\0\0\0\0\x01\0\0\0", 8),
             "Parcel(00000000 00000001   '........')"},
            {"a partial word", std::string("AB", 2), "Parcel(4241    'AB')"},
            {"one full line", std::string("abcd\x01\0\0\0\x02\0\0\0\x03\0\0\0", 16),
             "Parcel(64636261 00000001 00000002 00000003 'abcd............')"},
            {"two lines, the last one padded", "ABCDEFGHIJKLMNOPQR",
             "Parcel(\n"
             "  0x00000000: 44434241 48474645 4c4b4a49 504f4e4d 'ABCDEFGHIJKLMNOP'\n"
             "  0x00000010: 5251                                'QR              ')"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(formatBytes(c.bytes), c.expected);
    }
    Parcel failed;
    failed.setError(BAD_VALUE);
    EXPECT_EQ(ServiceTool::formatParcel(failed), "Parcel(" + kBadValue + ")");
}

TEST_F(ServiceToolTest, ListNumbersEveryServiceWithItsDescriptor) {
    ToolRun r = service({"list"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::istringstream lines(r.out);
    std::string header;
    std::getline(lines, header);
    int count = -1, used = 0;
    ASSERT_EQ(sscanf(header.c_str(), "Found %d services:%n", &count, &used), 1) << header;
    ASSERT_EQ(static_cast<size_t>(used), header.size()) << header;
    int index = 0;
    bool sawEcho = false, sawOther = false;
    for (std::string line; std::getline(lines, line); ++index) {
        // "<index>\t<name>: [<descriptor>]"
        const size_t tab = line.find('\t');
        const size_t colon = line.find(": [");
        ASSERT_TRUE(tab != std::string::npos && colon != std::string::npos && colon > tab &&
                    line.back() == ']')
                << line;
        EXPECT_EQ(line.substr(0, tab), std::to_string(index));
        const std::string name = line.substr(tab + 1, colon - tab - 1);
        const std::string descriptor = line.substr(colon + 3, line.size() - colon - 4);
        if (name == "tools.echo") sawEcho = (descriptor == "hostbinder.test.IEcho");
        if (name == "tools.other") sawOther = descriptor.empty();
    }
    EXPECT_EQ(index, count);
    EXPECT_TRUE(sawEcho) << r.out;
    EXPECT_TRUE(sawOther) << r.out;
}

TEST_F(ServiceToolTest, CheckReportsWhetherAServiceIsRegistered) {
    EXPECT_EQ(service({"check", "tools.echo"}).out, "Service tools.echo: found\n");
    EXPECT_EQ(service({"check", "tools.missing"}).out, "Service tools.missing: not found\n");
}

TEST_F(ServiceToolTest, CallSendsTheArgumentsInOrderAndPrintsTheReply) {
    struct Case {
        std::vector<std::string> args;
        std::string expected;
    };
    const Case cases[] = {
            {{"call", "tools.echo", "1"}, "Result: Parcel(NULL)\n"},
            {{"call", "tools.echo", "1", "i32", "7"}, "Result: Parcel(00000007    '....')\n"},
            {{"call", "tools.echo", "1", "i32", "-1", "i64", "4294967298"},
             "Result: Parcel(ffffffff 00000002 00000001  '............')\n"},
            {{"call", "tools.echo", "1", "f", "1.5"}, "Result: Parcel(3fc00000    '...?')\n"},
            {{"call", "tools.echo", "1", "s16", "hi"},
             "Result: Parcel(00000002 00690068 00000000  '....h.i.....')\n"},
            {{"call", "tools.echo", "1", "null"},
             "Result: Parcel(\n"
             "  0x00000000: 73622a85 00000113 00000000 00000000 '.*bs............'\n"
             "  0x00000010: 00000000 00000000                   '........        ')\n"},
            {{"call", "tools.echo", "2", "i32", "1"},
             "Result: Parcel(" + kBadValue + ")\n"},
    };
    for (const Case& c : cases) {
        ToolRun r = service(c.args);
        SCOPED_TRACE(c.args.size() > 3 ? c.args[3] : c.args[2]);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, c.expected);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(ServiceToolTest, BadCommandLinesExplainThemselves) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string error;
        bool usage;
    };
    const Case cases[] = {
            {{}, 2, "service: No command given\n", true},
            {{"bogus"}, 2, "service: Unknown command bogus\n", true},
            {{"-x", "list"}, 2, "service: Unknown option -x\n", true},
            {{"check"}, 2, "service: No service specified for check\n", true},
            {{"call", "tools.echo"}, 2, "service: No code specified for call\n", true},
            {{"call", "tools.echo", "one"}, 2, "service: Bad code one\n", true},
            {{"call", "tools.echo", "1", "i32"}, 2, "service: no integer supplied for 'i32'\n",
             true},
            {{"call", "tools.echo", "1", "x", "1"}, 2, "service: unknown option x\n", true},
            {{"call", "tools.missing", "1"}, 1,
             "service: Service tools.missing does not exist\n", false},
            {{"call", "tools.other", "1"}, 1, "service: Service tools.other does not exist\n",
             false},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const auto& arg : c.args) line += arg + " ";
        SCOPED_TRACE(line);
        ToolRun r = service(c.args);
        EXPECT_EQ(r.status, c.status);
        // The complaint first, then (for a malformed command line) the usage, all on stderr.
        EXPECT_EQ(r.err.rfind(c.error, 0), 0u) << r.err;
        EXPECT_EQ(r.err.find("Usage: service") == c.error.size(), c.usage) << r.err;
        EXPECT_EQ(r.out, "");
    }
    ToolRun help = service({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: service", 0), 0u) << help.out;
    EXPECT_EQ(help.err, "");
}
