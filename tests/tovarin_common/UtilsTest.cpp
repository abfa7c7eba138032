// Utils::getProcessNameFromPID against real processes.

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <hostbinder_test/Roles.h>

#include <tovarin/Utils.h>

namespace morvel {
namespace tovarin {
namespace {

std::string nameOf(int pid) {
    return Utils::getProcessNameFromPID(pid).string();
}

TEST(ProcessName, OfThisProcessOfAChildAfterExecAsAZombieAndOfNoProcess) {
    const uint64_t before = Utils::processNameLookupCount();
    // program_invocation_name is argv[0] as this process was started.
    EXPECT_EQ(nameOf(getpid()), program_invocation_name);
    for (int pid : {0, -1, INT32_MAX, 4194305 /* above the largest pid_max */}) {
        EXPECT_EQ(nameOf(pid), "unknown") << pid;
    }
    EXPECT_EQ(Utils::processNameLookupCount(), before + 5);

    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl("/bin/sleep", "/bin/sleep", "30", "31", static_cast<char*>(nullptr));
        _exit(127);
    }
    // Before the exec the child still carries our command line; only the first argument counts.
    EXPECT_TRUE(hostbinder_test::waitUntil([&] { return nameOf(child) == "/bin/sleep"; }))
            << nameOf(child);
    kill(child, SIGKILL);
    // A zombie has an empty command line: its short name stands in.
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, child, &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(nameOf(child), "sleep");
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    // Reaped: the pid names no process any more (unless reused at once, which is unlikely).
    EXPECT_EQ(nameOf(child), Utils::kUnknownProcessName);
}

}  // namespace
}  // namespace tovarin
}  // namespace morvel
