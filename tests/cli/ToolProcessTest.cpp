// The oltb program against the simulator, both as processes: an acquisition's CSV holds exactly what the C
// interface returns for the same job, its VCD parses and agrees with it, a capture ends at its limit or on
// Ctrl-C with complete rows, and bad arguments, an unreachable host and an unwritable file give their exit codes
// and texts. Each test uses its own loopback address (127.0.0.60 .. 127.0.0.69).
#include "api/oltb.h"
#include "tests/support/LastError.h"
#include "tests/cli/ChildProcess.h"
#include "tests/cli/VcdParser.h"
#include "tests/integration/SimulatorProcess.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <thread>

namespace {

using namespace std::chrono_literals;
using oltb::testing::ChildProcess;
using oltb::testing::readFile;
using oltb::testing::SimulatorProcess;
using oltb::testing::VcdDump;

const std::string DemoSignals = "Head0TxX,Head0TxY,Gate,LaserPower16";

class ToolProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/oltb-cli-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        _directory = pattern;
    }
    void TearDown() override {
        _simulator.reset();
        std::error_code ignored;
        std::filesystem::remove_all(_directory, ignored);
    }

    std::string path(const std::string& name) const { return _directory + "/" + name; }

    // Starts the simulator on `address` and waits (bounded) for its readiness line.
    void startSimulator(const std::string& address, const std::vector<std::string>& options = {}) {
        _simulator = std::make_unique<SimulatorProcess>(address, options);
        ASSERT_TRUE(_simulator->ready()) << _simulator->failure();
    }

    struct ProgramResult {
        int exitCode;
        std::string out;
        std::string err;
    };

    // Runs the tool to its end, at most 30 s.
    ProgramResult runTool(const std::vector<std::string>& arguments) {
        ChildProcess tool(OLTB_TOOL_PATH, arguments, path("tool" + std::to_string(_runs++)));
        const int exitCode = tool.waitForExit(30s);
        return {exitCode, tool.standardOutput(), tool.standardError()};
    }

    std::unique_ptr<SimulatorProcess> _simulator;
    std::string _directory;
    int _runs = 0;
};

std::vector<std::vector<std::string>> csvRows(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> fields;
        std::istringstream cells(line);
        std::string cell;
        while (std::getline(cells, cell, ',')) {
            fields.push_back(cell);
        }
        rows.push_back(fields);
    }
    return rows;
}

std::string timeText(double timeUs) {
    char text[40];
    std::snprintf(text, sizeof(text), "%.6f", timeUs);
    return text;
}

using oltb::testing::takeLastError;

// The demo's acquisition through the C interface alone, positions converted.
std::vector<oltbTraceEvent> acquireThroughCInterface(const char* address) {
    const int handle = oltbConnect(address);
    EXPECT_GT(handle, 0) << takeLastError();
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Head0TxX = config.Head0TxY = config.Gate = config.LaserPower16 = config.Label = true;
    std::uint32_t count = 0;
    std::vector<oltbTraceEvent> events;
    if (oltbSetConfig(handle, &config) == 0 && oltbSetReadTimeout(handle, 10000) == 0 && oltbStart(handle) == 0 &&
        oltbAcquire(handle, 1, 2, &count) == 0) {
        events.resize(count);
        std::uint32_t handedOut = 0;
        EXPECT_EQ(oltbGetAcquiredElements(handle, events.data(), 0, count, &handedOut), 0) << takeLastError();
        EXPECT_EQ(handedOut, count);
        EXPECT_EQ(oltbToSignedPosition(events.data(), count), 0);
    } else {
        ADD_FAILURE() << takeLastError();
    }
    oltbStop(handle);
    oltbDisconnect(handle);
    return events;
}

TEST_F(ToolProcessTest, AcquireWritesTheEventsTheCInterfaceReturnsForTheSameJob) {
    startSimulator("127.0.0.60");
    const ProgramResult tool = runTool({"acquire", "127.0.0.60", "--start", "1", "--end", "2", "--signals",
                                        DemoSignals, "-o", path("job.csv"), "-o", path("job.vcd"), "--quiet"});
    ASSERT_EQ(tool.exitCode, 0) << tool.err;
    EXPECT_NE(tool.out.find("events written to " + path("job.csv") + ", " + path("job.vcd")), std::string::npos)
        << tool.out;

    const std::vector<oltbTraceEvent> expected = acquireThroughCInterface("127.0.0.60");
    ASSERT_GT(expected.size(), 1000U);
    const auto rows = csvRows(readFile(path("job.csv")));
    ASSERT_EQ(rows.size(), expected.size() + 1);
    EXPECT_EQ(rows[0], (std::vector<std::string>{"timestamp_ticks", "time_us", "signal", "type", "value", "overflow"}));
    std::size_t mismatches = 0;
    for (std::size_t index = 0; index < expected.size(); ++index) {
        const std::vector<std::string>& row = rows[index + 1];
        ASSERT_EQ(row.size(), 6U) << "row " << index + 1;
        const oltbTraceEvent& event = expected[index];
        if (row[1] != timeText(event.Time) || row[3] != std::to_string(event.Type) ||
            row[4] != std::to_string(event.Value) || row[5] != (event.Overflow ? "1" : "0")) {
            if (++mismatches <= 5) {
                ADD_FAILURE() << "row " << index + 1 << ": " << row[1] << ',' << row[3] << ',' << row[4]
                              << " expected " << timeText(event.Time) << ',' << event.Type << ',' << event.Value;
            }
        }
    }
    EXPECT_EQ(mismatches, 0U);

    VcdDump dump;
    std::string error;
    ASSERT_TRUE(oltb::testing::parseVcd(readFile(path("job.vcd")), dump, error)) << error;
    EXPECT_EQ(dump.timescale, "1 ps");
    const std::pair<const char*, unsigned> widths[] = {
        {"Head0TxX", 32}, {"Head0TxY", 32}, {"Gate", 1}, {"LaserPower16", 16}, {"Label", 16}};
    for (const auto& [name, bits] : widths) {
        ASSERT_NE(dump.variableNamed(name), nullptr) << name;
        EXPECT_EQ(dump.variableNamed(name)->size, bits) << name;
    }
    // The gate's changes in the dump are the CSV's gate events at the same times (time 0 = start label).
    std::vector<std::pair<std::uint64_t, std::string>> gateOfCsv;
    for (std::size_t index = 1; index < rows.size(); ++index) {
        if (rows[index][2] == "Gate" && (gateOfCsv.empty() || gateOfCsv.back().second != rows[index][4])) {
            const auto ticks = static_cast<std::uint64_t>(std::llround(std::stod(rows[index][1]) * 64.0));
            gateOfCsv.emplace_back(ticks * 15625U, rows[index][4]);
        }
    }
    std::vector<std::pair<std::uint64_t, std::string>> gateOfVcd;
    for (const auto& change : dump.changesOf("Gate")) {
        if (change.value != "x") {
            gateOfVcd.emplace_back(change.time, change.value);
        }
    }
    EXPECT_EQ(gateOfVcd, gateOfCsv);
    EXPECT_FALSE(gateOfCsv.empty());
}

TEST_F(ToolProcessTest, CaptureStopsAfterTheRequestedEventsWithCsvOnStandardOutput) {
    startSimulator("127.0.0.61");
    const ProgramResult tool = runTool({"capture", "127.0.0.61", "--events", "1000", "--signals", DemoSignals});
    ASSERT_EQ(tool.exitCode, 0) << tool.err;
    const auto rows = csvRows(tool.out);
    ASSERT_EQ(rows.size(), 1001U);
    std::uint64_t previous = 0;
    for (std::size_t index = 1; index < rows.size(); ++index) {
        ASSERT_EQ(rows[index].size(), 6U);
        const std::uint64_t ticks = std::stoull(rows[index][0]);
        EXPECT_GE(ticks, previous) << "row " << index;
        previous = ticks;
    }
    // With CSV on standard output, the summary goes to standard error.
    EXPECT_NE(tool.err.find("1000 events written to standard output"), std::string::npos) << tool.err;
}

TEST_F(ToolProcessTest, CaptureEndsCleanlyOnInterruptKeepingCompleteRows) {
    startSimulator("127.0.0.62");
    ChildProcess capture(OLTB_TOOL_PATH, {"capture", "127.0.0.62", "--signals", DemoSignals, "-o", path("c.csv"),
                                          "-o", path("c.vcd")},
                         path("capture"));
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (readFile(path("c.csv")).size() < 20000 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
    }
    capture.sendSignal(SIGINT);
    ASSERT_EQ(capture.waitForExit(10s), 0) << capture.standardError();
    EXPECT_NE(capture.standardError().find("capture ended by interrupt"), std::string::npos);
    const std::string csv = readFile(path("c.csv"));
    ASSERT_FALSE(csv.empty());
    EXPECT_EQ(csv.back(), '\n');
    const auto rows = csvRows(csv);
    ASSERT_GT(rows.size(), 100U);
    for (const auto& row : rows) {
        ASSERT_EQ(row.size(), 6U);
    }
    EXPECT_NE(capture.standardOutput().find(std::to_string(rows.size() - 1) + " events written to"),
              std::string::npos)
        << capture.standardOutput();
    VcdDump dump;
    std::string error;
    EXPECT_TRUE(oltb::testing::parseVcd(readFile(path("c.vcd")), dump, error)) << error;
    // The tool has disconnected: the simulator, which serves one client at a time, accepts the next one.
    const int handle = oltbConnect("127.0.0.62");
    EXPECT_GT(handle, 0) << takeLastError();
    oltbDisconnect(handle);
}

TEST_F(ToolProcessTest, CaptureKeepsWhatWasReadWhenTheServerClosesTheConnection) {
    startSimulator("127.0.0.66", {"--close-after-words", "3000"});
    const ProgramResult tool = runTool({"capture", "127.0.0.66", "--signals", DemoSignals, "-o", path("lost.csv")});
    EXPECT_EQ(tool.exitCode, 3);
    EXPECT_NE(tool.err.find("oltb: reading (127.0.0.66): No connection to trace buffer server established."),
              std::string::npos)
        << tool.err;
    const auto rows = csvRows(readFile(path("lost.csv")));
    ASSERT_GT(rows.size(), 1000U);
    EXPECT_NE(tool.out.find(std::to_string(rows.size() - 1) + " events written to"), std::string::npos) << tool.out;
}

TEST_F(ToolProcessTest, InterruptedAcquisitionStopsTheTraceAndWritesNothing) {
    // The simulator's log shows the commands; labels 3 and 4 never come, so only the interrupt ends the wait.
    ChildProcess simulator(OLTB_SIM_PATH, {"-a", "127.0.0.67", "--verbose"}, path("simulator"));
    ASSERT_TRUE(simulator.waitForText("oltb-sim listening on 127.0.0.67:9495", 10s)) << simulator.standardError();
    ChildProcess acquire(OLTB_TOOL_PATH,
                         {"acquire", "127.0.0.67", "--start", "3", "--end", "4", "--timeout", "1", "-o", path("i.csv")},
                         path("acquire"));
    ASSERT_TRUE(simulator.waitForText("command Start (0x11)", 10s, true)) << simulator.standardError();
    acquire.sendSignal(SIGINT);
    EXPECT_EQ(acquire.waitForExit(10s), 130);
    EXPECT_NE(acquire.standardError().find("acquisition interrupted before the end label; nothing written"),
              std::string::npos)
        << acquire.standardError();
    EXPECT_FALSE(std::filesystem::exists(path("i.csv")));
    ASSERT_TRUE(simulator.waitForText("disconnected", 5s, true));
    const std::string log = simulator.standardError();
    EXPECT_NE(log.find("command Stop (0x10)", log.find("command Start (0x11)")), std::string::npos) << log;
}

TEST_F(ToolProcessTest, ConfigSetReplacesTheServersChoice) {
    startSimulator("127.0.0.64");
    const ProgramResult tool = runTool({"config", "127.0.0.64", "--set", "gate,Label"});
    ASSERT_EQ(tool.exitCode, 0) << tool.err;
    EXPECT_NE(tool.out.find("configuration version 6, 2 of 63 signals traced"), std::string::npos) << tool.out;
    EXPECT_NE(tool.out.find("\nGate                 Conf0    22    1  yes\n"), std::string::npos);
    EXPECT_NE(tool.out.find("\nHead0TxX             Conf1    32   32  -\n"), std::string::npos);
}

// Exit codes: 0 help, 2 usage, 3 server or library failure, 4 output failure. Signals, formats and files are checked
// before any connection is tried, so no server is needed for those; a failed run leaves no file behind.
TEST_F(ToolProcessTest, FailuresEndWithTheirExitCodeAndText) {
    startSimulator("127.0.0.63");
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        std::string errorText;  // contained in standard error
    };
    const Case cases[] = {
        {{"acquire", "127.0.0.63", "--start", "2", "--end", "1", "-q", "-o", path("x.csv")}, 3,
         "Expected start label but got end label!"},
        {{"capture", "127.0.0.69", "--events", "5"}, 3,
         "oltb: Could not connect to the tracebuffer server on address 127.0.0.69. "},
        {{"acquire", "127.0.0.69", "--start", "1", "--end", "2", "-s", "Nope"}, 2,
         "oltb: unknown signal 'Nope' (see: oltb signals)\n"},
        {{"capture", "127.0.0.69", "-o", path("trace.txt")}, 2, "unknown format"},
        {{"capture", "127.0.0.69", "-o", path("missing/dir/trace.csv")}, 4,
         "oltb: cannot create " + path("missing/dir/trace.csv")},
        {{}, 2, ""},
        {{"frobnicate"}, 2, ""},
        {{"capture"}, 2, ""},
        {{"capture", "127.0.0.69", "--bogus"}, 2, ""},
        {{"capture", "127.0.0.69", "--duration", "1", "--events", "5"}, 2, ""},
        {{"capture", "127.0.0.69", "--duration", "-1"}, 2, ""},
        {{"acquire", "127.0.0.69", "--start", "1"}, 2, ""},
        {{"acquire", "127.0.0.69", "--start", "65536", "--end", "2"}, 2, ""},
        {{"config", "127.0.0.69", "--all", "--none"}, 2, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.arguments));
        const ProgramResult tool = runTool(c.arguments);
        EXPECT_EQ(tool.exitCode, c.exitCode) << tool.err;
        EXPECT_NE(tool.err.find(c.errorText), std::string::npos) << tool.err;
        EXPECT_FALSE(tool.err.empty());
        if (c.exitCode != 2) {
            EXPECT_EQ(tool.out, "");  // failures after the arguments were taken print no rows
        }
    }
    EXPECT_FALSE(std::filesystem::exists(path("x.csv")));
    const ProgramResult help = runTool({"acquire", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("Exit codes:"), std::string::npos);
}

}  // namespace
