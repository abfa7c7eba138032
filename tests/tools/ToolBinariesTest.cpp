/*
 * The installed `service` and `dumpsys` programs reach the runtime instance named by
 * HOSTBINDER_SOCKET and report through their exit status.
 */
#include "ToolsFixture.h"

#include <gtest/gtest.h>

#include <stdlib.h>

namespace {

class ToolBinariesTest : public tools_test::ToolsTest {
protected:
    // Runs a program to its end; returns its exit status and leaves its output in *output.
    int runProgram(const char* envName, std::vector<std::string> args, std::string* output) {
        const char* path = getenv(envName);
        if (path == nullptr) {
            ADD_FAILURE() << envName << " is not set";
            return -1;
        }
        args.insert(args.begin(), path);
        hostbinder_test::ChildProcess child(args);
        const int status = child.wait(10000);
        *output = child.output();
        return status;
    }
};

}  // namespace

TEST_F(ToolBinariesTest, ProgramsTalkToTheInstanceOfTheirEnvironment) {
    std::string output;
    EXPECT_EQ(runProgram("SERVICE_TOOL", {"check", "tools.echo"}, &output), 0);
    EXPECT_NE(output.find("Service tools.echo: found"), std::string::npos) << output;

    EXPECT_EQ(runProgram("SERVICE_TOOL", {"call", "tools.echo", "1", "i32", "5"}, &output), 0);
    EXPECT_NE(output.find("Result: Parcel(00000005    '....')"), std::string::npos) << output;

    EXPECT_EQ(runProgram("SERVICE_TOOL", {"call"}, &output), 2);

    EXPECT_EQ(runProgram("DUMPSYS_TOOL", {"tools.echo", "from", "shell"}, &output), 0);
    EXPECT_NE(output.find("echo dump: from shell"), std::string::npos) << output;

    EXPECT_NE(runProgram("DUMPSYS_TOOL", {"tools.missing"}, &output), 0);
}
