/*
 * The workstation tools as programs, across real processes: every tool's --help and usage
 * errors, tovarinctl's recording, plotting and JSON status against a tovarind, tovarind's
 * replay, and the simulated tracker's faults set through the debug interface.
 */
#include <hostbinder_test/Runtime.h>

#include <tovarin/MotionRecording.h>

#include <gtest/gtest.h>

#include <ctype.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using morvel::tovarin::MotionRecording;
using morvel::tovarin::RecordedSample;

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
    const std::string outPath = dir.file("out"), errPath = dir.file("err");
    ProgramRun run;
    const pid_t pid = fork();
    if (pid == 0) {
        for (const std::string& entry : env) putenv(const_cast<char*>(entry.c_str()));
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        std::vector<char*> args;
        for (std::string& arg : argv) args.push_back(arg.data());
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    // A generous bound, so that a hung tool fails the test instead of hanging it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << argv[0] << " did not finish";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    return run;
}

ProgramRun ctl(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args.insert(args.begin(), tool("TOVARINCTL"));
    return runProgram(args, env);
}

std::string policy() {
    const std::string uid = std::to_string(getuid());
    return uid + " com.morvel.permission.TOVARIN_CONTROL\n" + uid + " android.permission.DUMP\n";
}

MotionRecording loadRecording(const std::string& path) {
    MotionRecording recording;
    std::string error;
    EXPECT_TRUE(MotionRecording::load(path, &recording, &error)) << path << ": " << error;
    return recording;
}

bool haveGnuplot() {
    return system("command -v gnuplot >/dev/null 2>&1") == 0;
}

// A runtime instance with a tovarind in it, shared by the tests of one fixture.
class WorkstationTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sRuntime = new hostbinder_test::RuntimeInstance(policy());
        sService = new hostbinder_test::ChildProcess({tool("TOVARIND")});
        ASSERT_TRUE(sService->waitForOutput("serving", 10000)) << sService->output();
    }
    static void TearDownTestSuite() {
        delete sService;
        delete sRuntime;
    }

    static hostbinder_test::RuntimeInstance* sRuntime;
    static hostbinder_test::ChildProcess* sService;
    TempDir mDir;
};

hostbinder_test::RuntimeInstance* WorkstationTest::sRuntime = nullptr;
hostbinder_test::ChildProcess* WorkstationTest::sService = nullptr;

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

TEST_F(WorkstationTest, StatusJsonIsOneObject) {
    const ProgramRun run = ctl({"status", "--json"});
    ASSERT_EQ(run.status, 0) << run.err;
    // The object's shape, with numbers as N.
    std::string shape;
    for (size_t i = 0; i < run.out.size(); ++i) {
        if (!isdigit(static_cast<unsigned char>(run.out[i]))) {
            shape += run.out[i];
        } else if (shape.empty() || shape.back() != 'N') {
            shape += 'N';
        }
    }
    EXPECT_EQ(shape,
              "{\"service\":\"morvel.tovarin.service\",\"running\":true,\"enabled\":true,"
              "\"trackingState\":{\"primary\":N,\"secondary\":N},\"hardwareState\":N}\n");
}

TEST_F(WorkstationTest, RecordingWritesAHeaderAndOneFlushedRowPerSample) {
    const std::string path = mDir.file("take.csv");
    const ProgramRun run = ctl({"track", "1", "--rate", "20", "--csv", path});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string text = readFile(path);
    EXPECT_EQ(text.substr(0, text.find('\n')), MotionRecording::kHeader);
    const MotionRecording recording = loadRecording(path);
    ASSERT_GE(recording.samples().size(), 2u);
    EXPECT_EQ(run.out, "recorded " + std::to_string(recording.samples().size()) + " samples to " +
                               path + "\n");
    for (const RecordedSample& sample : recording.samples()) {
        EXPECT_EQ(sample.text, "simulated");
        EXPECT_TRUE(sample.valid);
    }

    // Killed in the middle, a recording keeps every row it wrote, each one whole.
    const std::string cut = mDir.file("cut.csv");
    // At 2 rows a second, unflushed rows would sit in the writer's buffer for half a minute.
    hostbinder_test::ChildProcess recorder(
            {tool("TOVARINCTL"), "track", "600", "--rate", "2", "--csv", cut});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    size_t lines = 0;
    while (lines < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const std::string partial = readFile(cut);
        lines = static_cast<size_t>(std::count(partial.begin(), partial.end(), '\n'));
    }
    recorder.kill(SIGKILL);
    EXPECT_GE(lines, 3u) << "rows reach the file as they are taken";
    EXPECT_GE(loadRecording(cut).samples().size(), 2u);
}

// The three angle series of a gnuplot SVG as [first, last] in the x axis's seconds, read
// from the tick labels and the series' paths.
struct Span {
    double first = 0, last = 0;
};

// The x of each "x,y" point in a path's data.
std::vector<double> pointXs(const std::string& d) {
    std::vector<double> xs;
    for (size_t at = 0; (at = d.find(',', at)) != std::string::npos; ++at) {
        size_t start = at;
        while (start > 0 && (isdigit(static_cast<unsigned char>(d[start - 1])) ||
                             d[start - 1] == '.' || d[start - 1] == '-')) {
            --start;
        }
        xs.push_back(strtod(d.c_str() + start, nullptr));
    }
    return xs;
}

bool seriesSpans(const std::string& svg, std::map<std::string, Span>* spans) {
    // x tick labels are the centred numbers; their positions give the pixels per second.
    std::vector<std::pair<double, double>> ticks;  // (pixel, seconds)
    const std::string translate = "<g transform=\"translate(";
    for (size_t at = 0; (at = svg.find(translate, at)) != std::string::npos; ++at) {
        const size_t tagEnd = svg.find('>', at);
        const size_t text = svg.find("<text><tspan", tagEnd);
        const size_t value = svg.find('>', text + 12);
        const size_t valueEnd = svg.find("</tspan>", value);
        if (tagEnd == std::string::npos || valueEnd == std::string::npos ||
            svg.substr(at, tagEnd - at).find("text-anchor=\"middle\"") == std::string::npos ||
            svg.find_first_not_of(" \t\n", tagEnd + 1) != text) {
            continue;
        }
        const std::string label = svg.substr(value + 1, valueEnd - value - 1);
        char* end = nullptr;
        const double seconds = strtod(label.c_str(), &end);
        if (end == label.c_str() || *end != '\0') continue;
        ticks.emplace_back(strtod(svg.c_str() + at + translate.size(), nullptr), seconds);
    }
    if (ticks.size() < 2) return false;
    const auto [x0, t0] = ticks.front();
    const auto [x1, t1] = ticks.back();
    const double secondsPerPixel = (t1 - t0) / (x1 - x0);
    for (const char* name : {"yaw", "pitch", "roll"}) {
        const size_t group = svg.find(std::string("<title>") + name + "</title>");
        const size_t path = svg.find(" d='M", group);
        const size_t pathEnd = svg.find('\'', path + 5);
        if (group == std::string::npos || pathEnd == std::string::npos) return false;
        // The series itself follows the key's short sample line: the second "M".
        const std::string d = svg.substr(path + 4, pathEnd - path - 4);
        const size_t series = d.find('M', 1);
        if (series == std::string::npos) return false;
        const std::vector<double> xs = pointXs(d.substr(series));
        if (xs.empty()) return false;
        Span span;
        span.first = t0 + (*std::min_element(xs.begin(), xs.end()) - x0) * secondsPerPixel;
        span.last = t0 + (*std::max_element(xs.begin(), xs.end()) - x0) * secondsPerPixel;
        (*spans)[name] = span;
    }
    return svg.find("<title>confidence</title>") != std::string::npos;
}

TEST_F(WorkstationTest, PlotDrawsTheThreeAnglesOverTheRecordingsTimeSpan) {
    if (!haveGnuplot()) {
        GTEST_SKIP() << "gnuplot is not installed (Debian: gnuplot-nox; scripts/deps.sh installs "
                        "it): plotting is not tested";
    }
    // 4.5 s of motion whose timestamps start far from zero.
    std::string csv = std::string(MotionRecording::kHeader) + "\n";
    for (int i = 0; i <= 45; ++i) {
        csv += std::to_string(900000000000LL + i * 100000000LL) + "," + std::to_string(i) + "," +
               std::to_string(-i / 2) + ",1.5,0.9,1,1,hand\n";
    }
    const std::string in = mDir.file("hand.csv"), out = mDir.file("hand.svg");
    writeFile(in, csv);
    const ProgramRun run = ctl({"plot", "--csv", in, "--out", out});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "plotted 46 samples (4.50 s) to " + out + "\n");
    std::map<std::string, Span> spans;
    ASSERT_TRUE(seriesSpans(readFile(out), &spans)) << readFile(out).substr(0, 2000);
    for (const auto& [name, span] : spans) {
        SCOPED_TRACE(name);
        EXPECT_NEAR(span.first, 0.0, 0.05);
        EXPECT_NEAR(span.last, 4.5, 0.05);
    }

    // Recorded live and plotted in one go, as PNG.
    const std::string png = mDir.file("live.png");
    const ProgramRun live = ctl({"plot", "--seconds", "0.5", "--out", png});
    ASSERT_EQ(live.status, 0) << live.err;
    EXPECT_EQ(readFile(png).substr(1, 3), "PNG");

    const ProgramRun bad = ctl({"plot", "--csv", mDir.file("missing.csv"), "--out", out});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("cannot read"), std::string::npos) << bad.err;
}

TEST_F(WorkstationTest, ReplayDrivesTheSamplesAndABadFileRegistersNothing) {
    // A separate runtime instance per tovarind, named through the children's environment.
    hostbinder_test::ChildProcess runtime({tool("HOSTBINDERD"), "--socket", mDir.file("socket")});
    ASSERT_TRUE(runtime.waitForOutput("\n", 10000)) << runtime.output();
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
    hostbinder_test::ChildProcess replaying({tool("TOVARIND"), "--replay", take, "--loop"}, env);
    ASSERT_TRUE(replaying.waitForOutput("serving", 10000)) << replaying.output();
    const std::string got = mDir.file("got.csv");
    const ProgramRun run = ctl({"track", "0.3", "--csv", got}, env);
    ASSERT_EQ(run.status, 0) << run.err;
    const MotionRecording recording = loadRecording(got);
    ASSERT_FALSE(recording.samples().empty());
    for (const RecordedSample& sample : recording.samples()) {
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
    std::unique_ptr<hostbinder_test::ChildProcess> listener;
    auto confidences = [&](bool faulty) {
        const std::string path = mDir.file("c.csv");
        ASSERT_EQ(ctl({"track", "0.3", "--rate", "20", "--csv", path}).status, 0);
        const MotionRecording recording = loadRecording(path);
        EXPECT_FALSE(recording.samples().empty());
        for (const RecordedSample& sample : recording.samples()) {
            EXPECT_EQ(sample.confidence <= 0.25, faulty) << sample.confidence;
            EXPECT_EQ(sample.highConfidence, !faulty && sample.confidence >= 0.85);
        }
    };
    auto trackFails = [&](const std::string& error) {
        const ProgramRun run = ctl({"track", "0.2"});
        EXPECT_EQ(run.status, error.empty() ? 0 : 1);
        EXPECT_EQ(run.err, error);
    };
    const struct {
        const char* key;
        const char* value;
        std::function<void()> faulty;
        std::function<void()> normal;
    } faults[] = {
            {"sim.hardwareState", "0",
             [&] {
                 EXPECT_NE(ctl({"status", "--json"}).out.find("\"hardwareState\":0}"),
                           std::string::npos);
             },
             [&] {
                 EXPECT_NE(ctl({"status", "--json"}).out.find("\"hardwareState\":1}"),
                           std::string::npos);
             }},
            {"sim.refuseStart", "1", [&] { trackFails("tovarinctl: start failed: -38\n"); },
             [&] { trackFails(""); }},
            {"sim.failSamples", "1", [&] { trackFails("tovarinctl: sample failed: -110\n"); },
             [&] { trackFails(""); }},
            {"sim.confidence", "0.25", [&] { confidences(true); }, [&] { confidences(false); }},
            {"sim.stallEventsMs", "600000",
             [&] {
                 listener = std::make_unique<hostbinder_test::ChildProcess>(
                         std::vector<std::string>{tool("TOVARINCTL"), "listen", "60"});
                 ASSERT_TRUE(listener->waitForOutput("listening", 10000));
                 ASSERT_EQ(ctl({"enable", "0"}).out, "enabled: 0\n");
                 std::this_thread::sleep_for(std::chrono::milliseconds(300));
                 EXPECT_EQ(listener->output().find("event"), std::string::npos)
                         << "delivered while stalled";
             },
             [&] {
                 // Clearing the key ends the stall: the held event arrives.
                 EXPECT_TRUE(listener->waitForOutput("event timestamp=", 10000))
                         << listener->output();
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

}  // namespace
