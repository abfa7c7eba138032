/*
 * The `service` and `dumpsys` tools, through their entry points and as programs, against one
 * runtime instance with the tools_services role running in it:
 *   "tools.echo" (descriptor "hostbinder.test.IEcho"): code 1 answers with the call's data after
 *       the interface token, byte for byte; code 2 fails with BAD_VALUE. Its dump writes
 *       "echo dump:" and the arguments, space-separated, on one line; "big" as first argument
 *       writes kBigDump bytes instead, "hang" writes nothing until code 3 comes (or
 *       kDeadlineMs passes), "fail" writes nothing and fails with BAD_VALUE.
 *   "tools.other": a plain binder with no descriptor and an empty dump.
 */
#include "DumpsysTool.h"
#include "ServiceTool.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <hostbinder_test/Roles.h>

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using namespace android;

namespace {

constexpr size_t kBigDump = 256 * 1024;  // several times a pipe's buffer
const String16 kEchoDescriptor("hostbinder.test.IEcho");

class EchoService : public BBinder {
public:
    const String16& getInterfaceDescriptor() const override { return kEchoDescriptor; }

    status_t dump(int fd, const Vector<String16>& args) override {
        const std::string first = args.isEmpty() ? "" : String8(args[0]).string();
        if (first == "fail") return BAD_VALUE;
        if (first == "hang") {
            std::unique_lock<std::mutex> lock(mLock);
            mReleased.wait_for(lock, std::chrono::milliseconds(hostbinder_test::kDeadlineMs),
                               [this] { return mReleasedFlag; });
            return NO_ERROR;
        }
        std::string text = "echo dump:";
        for (const String16& arg : args) text += " " + std::string(String8(arg).string());
        text = first == "big" ? std::string(kBigDump, 'x') : text + "\n";
        // A blocking write to a pipe writes everything.
        return write(fd, text.data(), text.size()) == ssize_t(text.size()) ? NO_ERROR
                                                                           : UNKNOWN_ERROR;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == IBinder::FIRST_CALL_TRANSACTION) {
            if (!data.enforceInterface(kEchoDescriptor)) return PERMISSION_DENIED;
            const size_t start = data.dataPosition();
            return reply->appendFrom(&data, start, data.dataSize() - start);
        }
        if (code == IBinder::FIRST_CALL_TRANSACTION + 1) return BAD_VALUE;
        if (code == IBinder::FIRST_CALL_TRANSACTION + 2) {
            std::lock_guard<std::mutex> lock(mLock);
            mReleasedFlag = true;
            mReleased.notify_all();
        }
        return BBinder::onTransact(code, data, reply, flags);
    }

private:
    std::mutex mLock;
    std::condition_variable mReleased;
    bool mReleasedFlag = false;
};

TEST_ROLE(tools_services) {
    sp<IServiceManager> sm = defaultServiceManager();
    if (sm->addService(String16("tools.echo"), new EchoService()) != NO_ERROR ||
        sm->addService(String16("tools.other"), new BBinder()) != NO_ERROR) {
        return 1;
    }
    ProcessState::self()->startThreadPool();
    hostbinder_test::ready();
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

// One runtime with the services for every test; gtest deletes it when the program ends.
class ToolsEnvironment : public ::testing::Environment {
    void SetUp() override {
        mRuntime = std::make_unique<hostbinder_test::RuntimeInstance>();
        mServices = hostbinder_test::startRole("tools_services");
        ASSERT_NE(mServices, nullptr);
    }
    std::unique_ptr<hostbinder_test::RuntimeInstance> mRuntime;
    std::unique_ptr<hostbinder_test::ChildProcess> mServices;
};

::testing::Environment* const gEnvironment =
        ::testing::AddGlobalTestEnvironment(new ToolsEnvironment());

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs `Tool` on the command line `line` (words separated by spaces) against the runtime.
template <typename Tool>
ToolRun run(const char* program, const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> args{program};
    for (std::string word; words >> word;) args.push_back(word);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::ostringstream out, err;
    const int status = Tool(defaultServiceManager(), out, err).main(args.size(), argv.data());
    return {status, out.str(), err.str()};
}

// A command line of a tool, what it prints on each stream and its exit status.
struct Row {
    const char* line;
    int status;
    std::string out;
    std::string err;
};

// A malformed command line of a tool and its complaint, which the usage follows.
struct UsageRow {
    const char* line;
    std::string complaint;
};

// dumpsys ends each dump among several with how long it took and when: "END <service>" here.
std::string withoutDurations(std::string text) {
    for (size_t at; (at = text.find("--------- ")) != std::string::npos;) {
        const size_t name = text.find("dumpsys ", at) + 8;
        text.replace(at, text.find('\n', at) - at,
                     "END " + text.substr(name, text.find(',', name) - name));
    }
    return text;
}

// The rows of `Tool`, its help first: status 0, the usage on the output.
template <typename Tool>
void checkRows(const char* program, const char* usageStart, const std::vector<Row>& rows,
               const std::vector<UsageRow>& usageRows) {
    const ToolRun help = run<Tool>(program, "--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind(usageStart, 0), 0u) << help.out;
    EXPECT_EQ(help.err, "");
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(program) + " " + row.line);
        const auto start = std::chrono::steady_clock::now();
        const ToolRun r = run<Tool>(program, row.line);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "no wait";
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(withoutDurations(r.out), row.out);
        EXPECT_EQ(r.err, row.err);
    }
    for (const UsageRow& row : usageRows) {
        SCOPED_TRACE(std::string(program) + " " + row.line);
        const ToolRun r = run<Tool>(program, row.line);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, row.complaint + help.out);
    }
}

// A failed parcel prints its status as a pointer-wide word.
const std::string kBadValue = sizeof(void*) == 8 ? "Error: 0xffffffffffffffea \"Invalid argument\""
                                                 : "Error: 0xffffffea \"Invalid argument\"";

TEST(ServiceToolTest, CommandLines) {
    checkRows<ServiceTool>(
            "service", "Usage: service",
            {
                    {"list", 0,
                     "Found 3 services:\n0\tpermission: [android.os.IPermissionController]\n"
                     "1\ttools.echo: [hostbinder.test.IEcho]\n2\ttools.other: []\n",
                     ""},
                    {"check tools.echo", 0, "Service tools.echo: found\n", ""},
                    {"check tools.missing", 0, "Service tools.missing: not found\n", ""},
                    {"call tools.echo 1", 0, "Result: Parcel(NULL)\n", ""},
                    {"call tools.echo 1 i32 7", 0, "Result: Parcel(00000007    '....')\n", ""},
                    {"call tools.echo 1 i32 -1 i64 4294967298", 0,
                     "Result: Parcel(ffffffff 00000002 00000001  '............')\n", ""},
                    {"call tools.echo 1 f 1.5", 0, "Result: Parcel(3fc00000    '...?')\n", ""},
                    {"call tools.echo 1 s16 hi", 0,
                     "Result: Parcel(00000002 00690068 00000000  '....h.i.....')\n", ""},
                    {"call tools.echo 1 null", 0,
                     "Result: Parcel(\n"
                     "  0x00000000: 73622a85 00000113 00000000 00000000 '.*bs............'\n"
                     "  0x00000010: 00000000 00000000                   '........        ')\n",
                     ""},
                    {"call tools.echo 1 i64 1 i64 2 i64 3 i64 4", 0,
                     "Result: Parcel(\n"
                     "  0x00000000: 00000001 00000000 00000002 00000000 '................'\n"
                     "  0x00000010: 00000003 00000000 00000004 00000000 '................')\n",
                     ""},
                    {"call tools.echo 2 i32 1", 0, "Result: Parcel(" + kBadValue + ")\n", ""},
                    {"call tools.missing 1", 1, "",
                     "service: Service tools.missing does not exist\n"},
                    {"call tools.other 1", 1, "", "service: Service tools.other does not exist\n"},
            },
            {
                    {"", "service: No command given\n"},
                    {"bogus", "service: Unknown command bogus\n"},
                    {"-x list", "service: Unknown option -x\n"},
                    {"check", "service: No service specified for check\n"},
                    {"call tools.echo", "service: No code specified for call\n"},
                    {"call tools.echo one", "service: Bad code one\n"},
                    {"call tools.echo 1 i32", "service: no integer supplied for 'i32'\n"},
                    {"call tools.echo 1 x 1", "service: unknown option x\n"},
            });
}

// Replies that no call above makes: a partial word; one full line, which is not padded.
TEST(ServiceToolTest, RepliesPrintAsWordsAndCharacters) {
    Parcel parcel;
    parcel.setData(reinterpret_cast<const uint8_t*>("AB"), 2);
    EXPECT_EQ(ServiceTool::formatParcel(parcel), "Parcel(4241    'AB')");
    parcel.setData(reinterpret_cast<const uint8_t*>("abcd\x01\0\0\0\x02\0\0\0\x03\0\0\0"), 16);
    EXPECT_EQ(ServiceTool::formatParcel(parcel),
              "Parcel(64636261 00000001 00000002 00000003 'abcd............')");
}

TEST(DumpsysToolTest, CommandLines) {
    const std::string separator = std::string(DumpsysTool::kSeparator) + "\nDUMP OF SERVICE ";
    // The runtime's own permission service is listed first; it has no dump.
    const std::string noDump = "Error dumping service info: (Bad message) permission\n";
    const std::string list =
            "Currently running services:\n  permission\n  tools.echo\n  tools.other\n";
    checkRows<DumpsysTool>(
            "dumpsys", "usage: dumpsys",
            {
                    {"tools.echo", 0, "echo dump:\n", ""},
                    {"tools.echo a b -l", 0, "echo dump: a b -l\n", ""},
                    {"tools.other", 0, "", ""},
                    {"tools.missing arg", 1, "", "Can't find service: tools.missing\n"},
                    {"tools.echo fail", 0, "",
                     "Error dumping service info: (Invalid argument) tools.echo\n"},
                    {"tools.echo big", 0, std::string(kBigDump, 'x'), ""},
                    {"-l", 0, list, ""},
                    {"", 0,
                     list + separator + "permission:\nEND permission\n" + separator +
                             "tools.echo:\necho dump:\nEND tools.echo\n" + separator +
                             "tools.other:\nEND tools.other\n",
                     noDump},
                    {"--skip tools.echo,nothing", 0,
                     "Currently running services:\n  permission\n  tools.echo (skipped)\n"
                     "  tools.other\n" +
                             separator + "permission:\nEND permission\n" + separator +
                             "tools.other:\nEND tools.other\n",
                     noDump},
                    // Last: the dump hangs until released below.
                    {"-T 300 tools.echo hang", 0,
                     "\n*** SERVICE 'tools.echo' DUMP TIMEOUT (300ms) EXPIRED ***\n\n", ""},
            },
            {
                    {"-t", "Error: missing timeout value\n"},
                    {"-t soon", "Error: invalid timeout number: 'soon'\n"},
                    {"--bogus", "Unknown option --bogus\n"},
            });
    run<ServiceTool>("service", "call tools.echo 3");  // the hanging dump ends
}

// The programs reach the runtime instance named by HOSTBINDER_SOCKET.
TEST(ToolProgramsTest, TalkToTheRuntimeOfTheirEnvironment) {
    hostbinder_test::ChildProcess service(
            {getenv("SERVICE_TOOL"), "call", "tools.echo", "1", "i32", "5"});
    hostbinder_test::ChildProcess dumpsys({getenv("DUMPSYS_TOOL"), "tools.echo", "from", "shell"});
    EXPECT_EQ(service.wait(), 0);
    EXPECT_EQ(dumpsys.wait(), 0);
    EXPECT_EQ(service.output(), "Result: Parcel(00000005    '....')\n");
    EXPECT_EQ(dumpsys.output(), "echo dump: from shell\n");
}

}  // namespace
