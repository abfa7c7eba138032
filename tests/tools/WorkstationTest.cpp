/*
 * The workstation tools across real processes: every tool's --help and usage errors as
 * programs; tovarinctl's commands through its TovarinCtl class in this process, and its
 * recording, plotting and JSON status as a program, against a tovarind; tovarind's replay; and
 * the simulated tracker's faults set through the debug interface.
 */
#include "TovarinCtl.h"
#include "TovarinServiceImpl.h"

#include <hostbinder_test/Roles.h>

#include <tovarin/MotionRecording.h>

#include <gtest/gtest.h>

#include <fnmatch.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using android::IBinder;
using android::IInterface;
using android::sp;
using hostbinder_test::ChildProcess;
using morvel::tovarin::MotionRecording;
using morvel::tovarin::RecordedSample;
using morvel::tovarin::binder::TovarinCtl;
using morvel::tovarin::binder::TovarinServiceImpl;

namespace {

struct ProgramRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string tool(const char* envName) {
    const char* path = getenv(envName);
    return path != nullptr ? path : std::string("/nonexistent/") + envName;
}

// A scratch directory, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char path[] = "/tmp/workstation-test-XXXXXX";
        mPath = mkdtemp(path) != nullptr ? path : "/tmp";
    }
    ~TempDir() { std::system(("rm -rf '" + mPath + "'").c_str()); }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

// Runs a program to its end with stdout and stderr kept apart; `env` entries are added to (or
// replace) this process's environment.
ProgramRun runProgram(std::vector<std::string> argv, const std::vector<std::string>& env = {}) {
    TempDir dir;
    argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\" 2>" + dir.file("err"), "sh"});
    ChildProcess child(argv, env);
    const int status = child.wait(60000);
    return {status, child.output(), readFile(dir.file("err"))};
}

ProgramRun ctl(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), tool("TOVARINCTL"));
    return runProgram(args, env);
}

MotionRecording loadRecording(const std::string& path) {
    MotionRecording recording;
    std::string error;
    EXPECT_TRUE(MotionRecording::load(path, &recording, &error)) << path << ": " << error;
    return recording;
}

// A runtime instance with a tovarind in it, shared by the tests of one fixture.
class WorkstationTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string uid = std::to_string(getuid());
        sRuntime = new hostbinder_test::RuntimeInstance(uid +
                                                        " com.morvel.permission.TOVARIN_CONTROL\n" +
                                                        uid + " android.permission.DUMP\n");
        sService = new ChildProcess({tool("TOVARIND"), "--trackers", "2"});
        ASSERT_TRUE(sService->waitForOutput("serving")) << sService->output();
    }
    static void TearDownTestSuite() {
        delete sService;
        delete sRuntime;
    }

    static inline hostbinder_test::RuntimeInstance* sRuntime = nullptr;
    static inline ChildProcess* sService = nullptr;
    TempDir mDir;
};

// Runs tovarinctl's command line `line` (words separated by spaces) in this process.
ProgramRun runCtl(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> args{"tovarinctl"};
    for (std::string word; words >> word;) args.push_back(word);
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    ProgramRun run;
    run.status = TovarinCtl(android::defaultServiceManager(), out, err)
                         .run(static_cast<int>(argv.size()), argv.data());
    for (auto [stream, text] : {std::pair(out, &run.out), std::pair(err, &run.err)}) {
        rewind(stream);
        for (int c; (c = fgetc(stream)) != EOF;) *text += static_cast<char>(c);
        fclose(stream);
    }
    return run;
}

// A malformed command line prints the usage on the error stream, with status 2.
TEST_F(WorkstationTest, CtlUsageErrors) {
    for (const char* line :
         {"", "bogus", "status extra", "enable", "enable 2", "track soon", "listen -1", "override",
          "override set key", "override clear", "diag get", "diag get debug", "diag set 0 key"}) {
        SCOPED_TRACE(line);
        const ProgramRun run = runCtl(line);
        EXPECT_EQ(2, run.status);
        EXPECT_EQ(0u, run.err.rfind("usage: tovarinctl", 0)) << run.err;
        EXPECT_EQ("", run.out);
    }
}

// Command lines in order, each with what it prints (a pattern: * for any text).
TEST_F(WorkstationTest, CtlCommandsAndTheirOutputs) {
    const std::pair<const char*, const char*> rows[] = {
            {"enable 0", "enabled: 0\n"},
            {"status", "enabled: 0\ntracking state: * *\nhardware state: *\n"},
            {"enable 1", "enabled: 1\n"},
            {"status --json",
             "{\"service\":\"morvel.tovarin.service\",\"running\":true,\"enabled\":true,"
             "\"trackingState\":{\"primary\":*,\"secondary\":*},\"hardwareState\":*}\n"},
            {"override set ctl.key wert-ä", ""},
            {"override get ctl.key", "wert-ä\n"},
            {"override get", "*ctl.key=wert-ä\n*"},
            {"override clear ctl.key", ""},
            {"override get ctl.key", "\n"},
            {"diag set 1 ctl.diag e", ""},
            {"diag get 1 ctl.diag", "e\n"},
            {"diag get 0 ctl.diag", "\n"},
            {"diag get 1", "*ctl.diag=e\n*"},
    };
    for (const auto& [line, out] : rows) {
        SCOPED_TRACE(line);
        const ProgramRun run = runCtl(line);
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_EQ(0, fnmatch(out, run.out.c_str(), 0)) << run.out;
    }
}

TEST_F(WorkstationTest, CtlTrackPrintsSamplesAndReleasesTheTracker) {
    for (int round = 0; round < 3; ++round) {  // more rounds than trackers: each is released
        const ProgramRun run = runCtl("track 0.02 --rate 1000");
        ASSERT_EQ(0, run.status) << run.err;
        EXPECT_EQ(0u, run.out.rfind("sample timestamp=", 0)) << run.out;
    }
}

TEST(ToolConventions, HelpOnStdoutWithStatus0AndUsageErrorsOnStderrWithStatus2) {
    // No runtime is needed for either: the socket named here does not exist.
    const std::vector<std::string> noRuntime = {"HOSTBINDER_SOCKET=/nonexistent/socket"};
    const struct {
        const char* env;
        const char* usage;
        std::vector<std::string> bad;
    } tools[] = {
            {"HOSTBINDERD", "usage: hostbinderd", {"--socket"}},
            {"TOVARIND", "usage: tovarind", {"--trackers", "many"}},
            {"TOVARINCTL", "usage: tovarinctl", {"plot", "--csv", "a.csv", "--out", "a.gif"}},
            {"SERVICE_TOOL", "Usage: service", {"--bogus"}},
            {"DUMPSYS_TOOL", "usage: dumpsys", {"-t", "soon"}},
    };
    for (const auto& t : tools) {
        SCOPED_TRACE(t.env);
        const ProgramRun help = runProgram({tool(t.env), "--help"}, noRuntime);
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(help.out.rfind(t.usage, 0), 0u) << help.out;
        EXPECT_EQ(help.err, "");

        std::vector<std::string> argv = t.bad;
        argv.insert(argv.begin(), tool(t.env));
        const ProgramRun bad = runProgram(argv, noRuntime);
        EXPECT_EQ(bad.status, 2);
        EXPECT_EQ(bad.out, "");
        EXPECT_NE(bad.err.find(t.usage), std::string::npos) << bad.err;
    }
}

// Killed in the middle, a recording keeps every row it wrote, each one whole: at one row in ten
// seconds, an unflushed row would sit in the writer's buffer.
TEST_F(WorkstationTest, RecordingKilledMidwayKeepsEveryRowItWrote) {
    const std::string cut = mDir.file("cut.csv");
    ChildProcess recorder({tool("TOVARINCTL"), "track", "600", "--rate", "0.1", "--csv", cut});
    EXPECT_TRUE(hostbinder_test::waitUntil([&] {
        const std::string partial = readFile(cut);
        return std::count(partial.begin(), partial.end(), '\n') >= 2;
    })) << "rows reach the file as they are taken";
    recorder.kill(SIGKILL);
    EXPECT_GE(loadRecording(cut).samples().size(), 1u);
}

TEST_F(WorkstationTest, PlotDrawsTheRecordingFromItsFirstSample) {
    // 4.5 s of motion whose timestamps start far from zero, and the data gnuplot is to draw:
    // seconds from the first sample, yaw, pitch, roll and confidence.
    std::string csv = std::string(MotionRecording::kHeader) + "\n", data;
    for (int i = 0; i <= 45; ++i) {
        csv += std::to_string(900000000000LL + i * 100000000LL) + "," + std::to_string(i) + "," +
               std::to_string(-i / 2) + ",1.5,0.9,1,1,hand\n";
        char row[80];
        snprintf(row, sizeof(row), "%.6f %.5f %.5f 1.50000 0.90000\n", i / 10.0, i * 1.0,
                 -i / 2 * 1.0);
        data += row;
    }
    const std::string in = mDir.file("hand.csv"), out = mDir.file("hand.svg");
    writeFile(in, csv);
    // A gnuplot that keeps the script it is given.
    const std::string script = mDir.file("script");
    writeFile(mDir.file("gnuplot"), "#!/bin/sh\ncp \"$1\" " + script + "\n");
    chmod(mDir.file("gnuplot").c_str(), 0755);
    const ProgramRun run = ctl({"plot", "--csv", in, "--out", out},
                               {"PATH=" + mDir.file("") + ":" + getenv("PATH")});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "plotted 46 samples (4.50 s) to " + out + "\n");
    EXPECT_NE(readFile(script).find("<< EOD\n" + data + "EOD\n"), std::string::npos)
            << readFile(script);

    const ProgramRun bad = ctl({"plot", "--csv", mDir.file("missing.csv"), "--out", out});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("cannot read"), std::string::npos) << bad.err;

    if (system("command -v gnuplot >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "gnuplot is not installed (Debian: gnuplot-nox; scripts/deps.sh installs "
                        "it): drawing is not tested";
    }
    // Recorded live and drawn in one go, as PNG.
    const std::string png = mDir.file("live.png");
    const ProgramRun live = ctl({"plot", "--seconds", "0.5", "--out", png});
    ASSERT_EQ(live.status, 0) << live.err;
    EXPECT_EQ(readFile(png).substr(1, 3), "PNG");
}

TEST_F(WorkstationTest, ReplayDrivesTheSamplesAndABadFileRegistersNothing) {
    // A separate runtime instance per tovarind, named through the children's environment.
    ChildProcess runtime({tool("HOSTBINDERD"), "--socket", mDir.file("socket")});
    ASSERT_TRUE(runtime.waitForOutput("\n")) << runtime.output();
    const std::vector<std::string> env = {"HOSTBINDER_SOCKET=" + mDir.file("socket")};

    const std::string bad = mDir.file("bad.csv");
    writeFile(bad, "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence\n1,0,0,0,0.5\n2,0,up,0,1\n");
    const ProgramRun refused = runProgram({tool("TOVARIND"), "--replay", bad}, env);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "tovarind: cannot replay " + bad +
                                   ": line 3, field pitch_deg: \"up\" is not a finite number\n");
    const ProgramRun services = runProgram({tool("SERVICE_TOOL"), "list"}, env);
    EXPECT_EQ(services.status, 0) << services.err;
    EXPECT_EQ(services.out.find("morvel.tovarin"), std::string::npos) << services.out;

    // Still for a minute from the start, so that the first samples are the file's own.
    const std::string take = mDir.file("take.csv");
    writeFile(take,
              "timestamp_ns,yaw_deg,pitch_deg,roll_deg,confidence,text\n"
              "0,21.5,-8.25,4,0.5,take-2\n60000000000,21.5,-8.25,4,0.5,take-2\n"
              "61000000000,0,0,0,1,take-2\n");
    ChildProcess replaying({tool("TOVARIND"), "--replay", take, "--loop"}, env);
    ASSERT_TRUE(replaying.waitForOutput("serving")) << replaying.output();
    const std::string got = mDir.file("got.csv");
    const ProgramRun run = ctl({"track", "0.1", "--rate", "50", "--csv", got}, env);
    ASSERT_EQ(run.status, 0) << run.err;
    const MotionRecording recording = loadRecording(got);
    ASSERT_FALSE(recording.samples().empty());
    EXPECT_EQ(run.out, "recorded " + std::to_string(recording.samples().size()) + " samples to " +
                               got + "\n");
    for (const RecordedSample& sample : recording.samples()) {
        EXPECT_TRUE(sample.valid);
        EXPECT_EQ(sample.yaw, 21.5);
        EXPECT_EQ(sample.pitch, -8.25);
        EXPECT_EQ(sample.roll, 4.0);
        EXPECT_EQ(sample.confidence, 0.5);
        EXPECT_EQ(sample.text, "take-2");
    }
}

// Each fault key, set through tovarinctl (the debug interface), changes what a client sees;
// cleared, the tracker behaves again.
TEST_F(WorkstationTest, EveryFaultKeyShowsFromAClientUntilCleared) {
    std::unique_ptr<ChildProcess> listener;
    auto confidences = [&](bool faulty) {
        const std::string path = mDir.file("c.csv");
        ASSERT_EQ(ctl({"track", "0.1", "--rate", "50", "--csv", path}).status, 0);
        const MotionRecording recording = loadRecording(path);
        EXPECT_FALSE(recording.samples().empty());
        for (const RecordedSample& sample : recording.samples()) {
            EXPECT_EQ(sample.confidence <= 0.25, faulty) << sample.confidence;
            EXPECT_EQ(sample.highConfidence, !faulty && sample.confidence >= 0.85);
        }
    };
    auto trackFails = [&](const std::string& error) {
        const ProgramRun run = ctl({"track", "0.05"});
        EXPECT_EQ(run.status, error.empty() ? 0 : 1);
        EXPECT_EQ(run.err, error);
    };
    auto hardwareState = [&](const std::string& state) {
        EXPECT_NE(ctl({"status", "--json"}).out.find("\"hardwareState\":" + state + "}"),
                  std::string::npos);
    };
    const struct {
        const char* key;
        const char* value;
        std::function<void()> faulty;
        std::function<void()> normal;
    } faults[] = {
            {"sim.hardwareState", "0", [&] { hardwareState("0"); }, [&] { hardwareState("1"); }},
            {"sim.refuseStart", "1", [&] { trackFails("tovarinctl: start failed: -38\n"); },
             [&] { trackFails(""); }},
            {"sim.failSamples", "1", [&] { trackFails("tovarinctl: sample failed: -110\n"); },
             [&] { trackFails(""); }},
            {"sim.confidence", "0.25", [&] { confidences(true); }, [&] { confidences(false); }},
            {"sim.stallEventsMs", "600000",
             [&] {
                 listener = std::make_unique<ChildProcess>(
                         std::vector<std::string>{tool("TOVARINCTL"), "listen", "60"});
                 ASSERT_TRUE(listener->waitForOutput("listening"));
                 ASSERT_EQ(ctl({"enable", "0"}).out, "enabled: 0\n");
                 usleep(300 * 1000);
                 EXPECT_EQ(listener->output().find("event"), std::string::npos)
                         << "delivered while stalled";
             },
             [&] {
                 // Clearing the key ends the stall: the held event arrives.
                 EXPECT_TRUE(listener->waitForOutput("event timestamp=")) << listener->output();
                 EXPECT_EQ(ctl({"enable", "1"}).status, 0);
             }},
    };
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.key);
        const ProgramRun set = ctl({"override", "set", fault.key, fault.value});
        ASSERT_EQ(set.status, 0) << set.err;
        fault.faulty();
        ASSERT_EQ(ctl({"override", "clear", fault.key}).status, 0);
        fault.normal();
    }
}

// The service dies on the head tracker request: the tool says so, not that none is free.
TEST_F(WorkstationTest, CtlTrackSaysWhenTheServiceDiedOnTheHandleRequest) {
    const sp<IBinder> tovarind = IInterface::asBinder(TovarinServiceImpl::checkService());
    delete sService;  // tovarind, killed
    sService =
            hostbinder_test::startRole("tracking_service", {"0", "9"}).release();  // 9: the request
    ASSERT_NE(sService, nullptr);
    // The client has let go of tovarind: its lookup answers with the new service.
    ASSERT_TRUE(hostbinder_test::waitUntil([&] {
        const sp<IBinder> service = IInterface::asBinder(TovarinServiceImpl::checkService());
        return service != nullptr && service != tovarind;
    }));
    const ProgramRun run = runCtl("track 0.25");
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("tovarinctl: morvel.tovarin.service died before handing out a head tracker\n",
              run.err);
}

}  // namespace
