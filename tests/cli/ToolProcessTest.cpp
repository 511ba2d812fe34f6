// The oltb program against the simulator, both as processes: an acquisition's CSV holds exactly what the C interface
// returns for the same job and its VCD agrees with it, a capture ends at its limit, on Ctrl-C or when the server
// goes with complete rows (and HDF5 files that convert back to them), and bad arguments, an unreachable host, an
// unwritable file and files that are no captures give their exit codes and texts; a capture replayed by the simulator
// is captured again with the same events. Each test uses its own loopback addresses (127.0.0.60 .. 127.0.0.69, the
// replay 127.0.0.78 and 127.0.0.79, 127.0.11.10 .. 127.0.11.13, a duration 127.0.19.2).
#include "tests/support/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <tuple>

namespace {

using namespace oltb::testing;

const std::string DemoSignals = "Head0TxX,Head0TxY,Gate,LaserPower16";
const std::string CsvHeader = "timestamp_ticks,time_us,signal,type,value,overflow";

std::string path(const std::string& name) { return scratchDirectory() + "/" + name; }

struct ToolResult {
    int exitCode;
    std::string out;
    std::string err;
};

ToolResult runTool(const std::vector<std::string>& arguments) {
    ChildProcess tool(OLTB_TOOL_PATH, arguments);
    const int exitCode = tool.waitForExit(30s);
    return {exitCode, tool.standardOutput(), tool.standardError()};
}

std::vector<std::vector<std::string>> csvRows(const std::string& text) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        rows.emplace_back();
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');) rows.back().push_back(cell);
    }
    return rows;
}

// The demo's acquisition through the C interface alone, positions converted.
std::vector<oltbTraceEvent> acquireThroughCInterface(const char* address) {
    const int handle = oltbConnect(address);
    oltbTraceBufferConfig_Struct config;
    oltbInitConfig(&config);
    config.Head0TxX = config.Head0TxY = config.Gate = config.LaserPower16 = config.Label = true;
    std::uint32_t count = 0;
    std::vector<oltbTraceEvent> events;
    if (oltbSetConfig(handle, &config) == 0 && oltbStart(handle) == 0 && oltbAcquire(handle, 1, 2, &count) == 0) {
        events.resize(count);
        EXPECT_EQ(oltbGetAcquiredElements(handle, events.data(), 0, count, &count), 0) << takeLastError();
        EXPECT_EQ(oltbToSignedPosition(events.data(), count), 0);
    } else {
        ADD_FAILURE() << takeLastError();
    }
    oltbDisconnect(handle);
    return events;
}

TEST(ToolProcess, AcquireWritesTheEventsTheCInterfaceReturnsForTheSameJob) {
    Simulator simulator("127.0.0.60");
    ASSERT_TRUE(simulator.ready());
    const ToolResult tool = runTool({"acquire", "127.0.0.60", "--start", "1", "--end", "2", "--signals", DemoSignals,
                                     "-o", path("job.csv"), "-o", path("job.vcd"), "--quiet"});
    ASSERT_EQ(tool.exitCode, 0) << tool.err;
    EXPECT_NE(tool.out.find("events written to " + path("job.csv") + ", " + path("job.vcd")), std::string::npos)
        << tool.out;
    const std::vector<oltbTraceEvent> expected = acquireThroughCInterface("127.0.0.60");
    ASSERT_GT(expected.size(), 1000U);
    const auto rows = csvRows(readFile(path("job.csv")));
    ASSERT_EQ(rows.size(), expected.size() + 1);
    EXPECT_EQ(rows[0], (std::vector<std::string>{"timestamp_ticks", "time_us", "signal", "type", "value", "overflow"}));
    std::vector<std::string> gateChanges;  // "<ps>:<value>", as the VCD must hold them
    for (std::size_t i = 0; i < expected.size(); ++i) {
        char time[40];
        std::snprintf(time, sizeof time, "%.6f", expected[i].Time);
        const std::vector<std::string> row = {rows[i + 1][1], rows[i + 1][3], rows[i + 1][4], rows[i + 1][5]};
        ASSERT_EQ(row, (std::vector<std::string>{time, std::to_string(expected[i].Type),
                                                 std::to_string(expected[i].Value), expected[i].Overflow ? "1" : "0"}))
            << "row " << i + 1;
        if (expected[i].Type == oltbEventGate &&
            (gateChanges.empty() || gateChanges.back().back() != static_cast<char>('0' + expected[i].Value))) {
            gateChanges.push_back(std::to_string(std::llround(expected[i].Time * 64) * 15625) + ":" +
                                  std::to_string(expected[i].Value));
        }
    }
    const std::string vcdText = readFile(path("job.vcd"));
    const std::size_t gateVariable = vcdText.find(" Gate $end");
    ASSERT_NE(gateVariable, std::string::npos);
    const std::size_t idStart = vcdText.rfind(' ', gateVariable - 1) + 1;
    const std::string gateId = vcdText.substr(idStart, gateVariable - idStart);
    std::istringstream vcd(vcdText);
    std::string time;
    std::vector<std::string> vcdGateChanges;
    for (std::string line; std::getline(vcd, line);) {
        if (line[0] == '#') time = line.substr(1);
        if (line == "0" + gateId || line == "1" + gateId) vcdGateChanges.push_back(time + ":" + line[0]);
    }
    EXPECT_EQ(gateChanges.size(), 8U);
    gateChanges.insert(gateChanges.begin(), "0:0");  // off before the start label: the dump starts from that
    EXPECT_EQ(vcdGateChanges, gateChanges);

    // Time 0 of an acquisition is its start label, also where the first event comes later.
    const ToolResult line = runTool({"acquire", "127.0.0.60", "--start", "10", "--end", "11", "--signals", "Gate", "-o",
                                     path("line.vcd"), "--quiet"});
    ASSERT_EQ(line.exitCode, 0) << line.err;
    EXPECT_NE(readFile(path("line.vcd")).find("\n#200000000\n"), std::string::npos)
        << "the gate comes 200 us after label 10";
}

TEST(ToolProcess, CaptureEndsAtItsLimitOnInterruptOrWhenTheServerGoesKeepingCompleteRows) {
    Simulator simulator("127.0.0.61");
    ASSERT_TRUE(simulator.ready());
    const ToolResult limited = runTool({"capture", "127.0.0.61", "--events", "1000", "--signals", DemoSignals});
    ASSERT_EQ(limited.exitCode, 0) << limited.err;
    EXPECT_EQ(csvRows(limited.out).size(), 1001U);
    EXPECT_EQ(csvRows(limited.out).at(1).at(1), "0.000000") << "time 0 is the first event, as in the VCD";
    EXPECT_NE(limited.err.find("1000 events written to standard output"), std::string::npos) << limited.err;

    ChildProcess capture(OLTB_TOOL_PATH,
                         {"capture", "127.0.0.61", "--signals", DemoSignals, "-o", path("c.csv"), "-o", path("c.vcd")});
    waitUntil([] { return readFile(path("c.csv")).size() > 20000; }, 10s);
    capture.sendSignal(SIGINT);
    ASSERT_EQ(capture.waitForExit(10s), 0) << capture.standardError();
    EXPECT_NE(capture.standardError().find("capture ended by interrupt"), std::string::npos);
    const std::string csv = readFile(path("c.csv"));
    const auto rows = csvRows(csv);
    ASSERT_GT(rows.size(), 100U);
    EXPECT_EQ(csv.back(), '\n');
    for (const auto& row : rows) ASSERT_EQ(row.size(), 6U);
    EXPECT_NE(capture.standardOutput().find(std::to_string(rows.size() - 1) + " events written to"), std::string::npos);
    const std::string vcd = readFile(path("c.vcd"));
    EXPECT_EQ(vcd.substr(vcd.rfind('\n', vcd.size() - 2) + 1, 1), "#") << "a finished dump ends with a time";
    const int handle = oltbConnect("127.0.0.61");  // the tool has disconnected: the simulator takes the next client
    EXPECT_GT(handle, 0) << takeLastError();
    oltbDisconnect(handle);

    // Standard output closes early: the file beside it is finished with every row read.
    ChildProcess piped("/bin/bash", {"-c", std::string(OLTB_TOOL_PATH) + " capture 127.0.0.61 --events 50000 -o - -o " +
                                               path("beside.csv") + " | head -c 100 >/dev/null"});
    EXPECT_EQ(piped.waitForExit(30s), 0);
    const std::string beside = readFile(path("beside.csv"));
    EXPECT_GT(csvRows(beside).size(), 100U);
    EXPECT_EQ(beside.back(), '\n');

    // A duration is counted in the trace's time: a simulator faster than real time gives exactly its first 0.3 s.
    Simulator fast("127.0.19.2", {"--max-rate"});
    const ToolResult timed = runTool({"capture", "127.0.19.2", "--signals", "Head0TxX", "--duration", "0.3", "-q"});
    ASSERT_EQ(timed.exitCode, 0) << timed.err;
    const auto timedRows = csvRows(timed.out);
    EXPECT_EQ(timedRows.size(), 30001U) << "a position every 10 us";
    EXPECT_EQ(timedRows.back().at(1), "299990.000000");

    Simulator closing("127.0.0.66", {"--close-after-words", "200000"});  // about 0.3 s of the job
    const ToolResult lost = runTool({"capture", "127.0.0.66", "--signals", DemoSignals, "-o", path("lost.csv")});
    EXPECT_EQ(lost.exitCode, 3);
    EXPECT_NE(lost.err.find("oltb: reading (127.0.0.66): No connection to trace buffer server established."),
              std::string::npos)
        << lost.err;
    const std::size_t kept = csvRows(readFile(path("lost.csv"))).size() - 1;
    EXPECT_GT(kept, 1000U);
    EXPECT_NE(lost.out.find(std::to_string(kept) + " events written to"), std::string::npos) << lost.out;
}

#ifdef OLTB_WITH_HDF5
// An HDF5 file holds the series of the CSV beside it, also when Ctrl-C or a vanished server ended the capture: convert
// gives back the CSV byte for byte, from the HDF5 file and from one made of the CSV. A damaged file cannot be read.
TEST(ToolProcess, H5CapturesEndedByInterruptOrLostServerConvertBackToTheirCsv) {
    Simulator simulator("127.0.0.62");
    Simulator closing("127.0.0.63", {"--close-after-words", "200000"});
    ASSERT_TRUE(simulator.ready() && closing.ready());
    ChildProcess interrupted(OLTB_TOOL_PATH, {"capture", "127.0.0.62", "--signals", DemoSignals + ",Label", "-o",
                                              path("i.h5"), "-o", path("i.csv")});
    waitUntil([] { return readFile(path("i.csv")).size() > 20000; }, 10s);
    interrupted.sendSignal(SIGINT);
    ASSERT_EQ(interrupted.waitForExit(10s), 0) << interrupted.standardError();
    EXPECT_EQ(
        runTool({"capture", "127.0.0.63", "--signals", DemoSignals, "-o", path("l.h5"), "-o", path("l.csv")}).exitCode,
        3);
    for (const std::string name : {"i", "l"}) {
        const std::string csv = readFile(path(name + ".csv"));
        EXPECT_GT(csvRows(csv).size(), 100U) << name;
        const std::pair<std::string, std::string> steps[] = {
            {name + ".h5", name + "-h5.csv"}, {name + ".csv", name + "-csv.h5"}, {name + "-csv.h5", name + "-csv.csv"}};
        for (const auto& [from, to] : steps) {
            const ToolResult converted = runTool({"convert", path(from), path(to)});
            ASSERT_EQ(converted.exitCode, 0) << converted.err;
        }
        EXPECT_EQ(readFile(path(name + "-h5.csv")), csv) << name;
        EXPECT_EQ(readFile(path(name + "-csv.csv")), csv) << name;
    }
    std::ofstream(path("damaged.h5")) << "\x89HDF\r\n\x1a\n" << std::string(600, '\x07');
    const ToolResult damaged = runTool({"convert", path("damaged.h5"), path("d.csv")});
    EXPECT_EQ(damaged.exitCode, 4);
    EXPECT_NE(damaged.err.find("oltb: cannot read " + path("damaged.h5") + ": opening the file: "), std::string::npos)
        << damaged.err;
    EXPECT_FALSE(std::filesystem::exists(path("d.csv")));
}
// Per signal, the ticks from the file's first event, the values and the overflow flags of a CSV capture.
std::map<std::string, std::vector<std::string>> eventsBySignal(const std::string& csv) {
    const auto rows = csvRows(csv);
    std::map<std::string, std::vector<std::string>> events;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        events[rows[i][2]].push_back(std::to_string(std::stoull(rows[i][0]) - std::stoull(rows[1][0])) + " " +
                                     rows[i][4] + " " + rows[i][5]);
    }
    return events;
}

// A capture (with overflows) replayed by the simulator, from its .h5 file and from its CSV, and captured again gives
// the same events, shifted in time; a signal the capture lacks stays silent. Other files keep the server from starting.
TEST(ToolProcess, ReplayedCaptureIsCapturedAgainWithTheSameEvents) {
    const std::string signals = "Gate,LaserPower16,PortA,Head0TxX,Label";
    {
        Simulator simulator("127.0.0.78", {"--max-rate", "--overflow-every", "4000", "--overflow-lost", "3"});
        ASSERT_TRUE(simulator.ready());
        const ToolResult first = runTool({"capture", "127.0.0.78", "--signals", signals, "--events", "20000", "-q",
                                          "-o", path("a.h5"), "-o", path("a.csv")});
        ASSERT_EQ(first.exitCode, 0) << first.err;
    }
    const auto captured = eventsBySignal(readFile(path("a.csv")));
    ASSERT_EQ(captured.size(), 5U);
    EXPECT_GE(captured.at("Gate").size(), 3U);
    // A sample that repeats the one before and an overflow are seen only at the start of a word.
    std::ofstream(path("edges.csv")) << CsvHeader << "\n1000,0.000000,Gate,22,1,0\n1002,0.031250,Gate,22,1,0\n"
                                     << "1004,0.062500,Gate,22,0,1\n1010,0.156250,Label,126,7,0\n";
    const std::tuple<std::string, std::string, std::string> replays[] = {
        {"a.h5", "a.csv", "20000"}, {"a.csv", "a.csv", "20000"}, {"edges.csv", "edges.csv", "4"}};
    for (const auto& [file, expectedFile, count] : replays) {
        Simulator replay("127.0.0.79", {"--replay", path(file), "--speed", "2"});
        ASSERT_TRUE(replay.ready()) << replay.standardError();
        const ToolResult again = runTool({"capture", "127.0.0.79", "--signals", signals + ",Head0TxY", "--events",
                                          count, "-q", "-o", path("b.csv")});
        ASSERT_EQ(again.exitCode, 0) << again.err;
        EXPECT_EQ(eventsBySignal(readFile(path("b.csv"))), eventsBySignal(readFile(path(expectedFile)))) << file;
    }
    std::ofstream(path("damaged.h5")) << "\x89HDF\r\n\x1a\n" << std::string(600, '\x07');
    std::ofstream(path("foreign.csv")) << "time,value\n1,2\n";
    std::ofstream(path("wide.csv")) << CsvHeader << "\n1000,0.000000,Gate,22,1,0\n1064,1.000000,Gate,22,2,0\n";
    const std::pair<std::string, std::string> refused[] = {
        {"damaged.h5", "cannot read " + path("damaged.h5") + ": opening the file: "},
        {"foreign.csv", path("foreign.csv") + ": line 1: not a capture written by oltb"},
        {"wide.csv",
         path("wide.csv") + ": line 3: not a row of an oltb capture: value 2 does not fit the 1 bit of Gate"}};
    for (const auto& [file, text] : refused) {
        ChildProcess simulator(OLTB_SIM_PATH, {"--address", "127.0.0.79", "--replay", path(file)});
        EXPECT_EQ(simulator.waitForExit(10s), 1) << file;
        EXPECT_NE(simulator.standardError().find("oltb-sim: --replay: " + text), std::string::npos)
            << simulator.standardError();
        EXPECT_EQ(simulator.standardOutput(), "") << "it never listened";
    }
}
#endif

TEST(ToolProcess, InterruptedAcquisitionStopsTheTraceAndWritesNothing) {
    ChildProcess simulator(OLTB_SIM_PATH, {"-a", "127.0.0.67", "--verbose"});  // its log shows the commands
    ASSERT_TRUE(simulator.waitForText("oltb-sim listening on 127.0.0.67:9495", 10s));
    ChildProcess acquire(
        OLTB_TOOL_PATH, {"acquire", "127.0.0.67", "--start", "3", "--end", "4", "--timeout", "1", "-o", path("i.csv")});
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

TEST(ToolProcess, ConfigSetsTheSignalsAndListsThemWithTheirWidths) {
    Simulator simulator("127.0.0.64");
    ASSERT_TRUE(simulator.ready());
    const ToolResult config = runTool({"config", "127.0.0.64", "--set", "gate,Label", "--all-rows"});
    ASSERT_EQ(config.exitCode, 0) << config.err;
    EXPECT_NE(config.out.find("configuration version 6, 2 of 63 signals traced"), std::string::npos) << config.out;
    EXPECT_NE(config.out.find("\nGate                 Conf0    22    1  yes\n"), std::string::npos);
    EXPECT_NE(config.out.find("\nHead0TxX             Conf1    32   32  -\n"), std::string::npos);
}

// Exit codes: 0 help, 2 usage, 3 server or library failure, 4 output failure. Signals, formats and files are checked
// before any connection is tried; a failed run leaves no file behind.
TEST(ToolProcess, FailuresEndWithTheirExitCodeAndText) {
    Simulator simulator("127.0.0.64");
    ASSERT_TRUE(simulator.ready());
    const std::pair<std::vector<std::string>, std::pair<int, std::string>> cases[] = {
        {{"acquire", "127.0.0.64", "--start", "2", "--end", "1", "-q", "-o", path("x.csv")},
         {3, "oltb: end label 1 came before start label 2 (Expected start label but got end label!)\n"}},
        {{"capture", "127.0.0.69", "--events", "5"},
         {3, "oltb: Could not connect to the tracebuffer server on address 127.0.0.69. "}},
        {{"acquire", "127.0.0.69", "--start", "1", "--end", "2", "-s", "Nope"},
         {2, "oltb: unknown signal 'Nope' (see: oltb signals)\n"}},
        {{"capture", "127.0.0.69", "-o", path("trace.txt")}, {2, "unknown format"}},
        {{"capture", "127.0.0.69", "-o", path("missing/dir/trace.csv")},
         {4, "oltb: cannot create " + path("missing/dir/trace.csv")}},
        {{}, {2, "oltb: A subcommand is required\noltb: see oltb --help\n"}},
        {{"frob", "127.0.0.69"}, {2, "oltb: unknown command 'frob'\noltb: see oltb --help\n"}},
        {{"capture", "127.0.0.69", "--duration", "1", "--events", "5"}, {2, "\noltb: see oltb capture --help\n"}},
        {{"capture", "127.0.0.69", "--duration", "nan"}, {2, "--duration: must be a positive number of seconds"}},
        {{"acquire", "127.0.0.69", "--start", "1", "--end", "2", "--timeout", "nan"},
         {2, "--timeout: must be a positive"}},
        {{"acquire", "127.0.0.69", "--start", "65536", "--end", "2"}, {2, ""}},
        {{"config", "127.0.0.69", "--all", "--none"}, {2, ""}},
        {{"convert", path("foreign.csv"), path("f.vcd")},
         {2, path("foreign.csv") + ": line 1: not a capture written by oltb"}},
        {{"convert", path("row.csv"), path("f.csv")},
         {2, path("row.csv") + ": line 3: not a row of an oltb capture: value is"}},
        {{"convert", path("row.csv"), path("row.csv")}, {2, "output '" + path("row.csv") + "' is the capture to read"}},
        {{"convert", path("f.vcd"), path("f.csv")}, {2, "cannot be read back"}},
        {{"convert", path("missing.csv"), path("f.csv")},
         {4, "oltb: cannot read " + path("missing.csv") + ": No such file"}},
        {{"report", path("foreign.csv"), "-o", path("f.html")}, {2, "line 1: not a capture written by oltb"}},
        {{"report", path("row.csv"), "-o", path("row.csv")}, {2, "the report would replace its own capture"}},
        {{"report", path("row.csv"), "-o", scratchDirectory() + "/./row.csv"}, {2, "would replace its own capture"}},
        {{"report", path("row.csv"), "-o", path("row-link.csv")}, {2, "would replace its own capture"}},
        {{"capture", "127.0.0.69", "-o", path("c.h5"), "-o",
          scratchDirectory() + "/../" + std::filesystem::path(scratchDirectory()).filename().string() + "/c.h5"},
         {2, "are one file"}},
        {{"convert", path("unsorted.csv"), path("f.csv")},
         {2, "unsorted.csv: line 3: not a row of an oltb capture: time_us 0.500000 is earlier than the 1.000000"}},
        {{"convert", path("inf.csv"), path("f.csv")},
         {2, "inf.csv: line 2: not a row of an oltb capture: time_us is not a finite"}},
        {{"convert", path("long.csv"), path("f.csv")},
         {2, "long.csv: line 2: not a row of an oltb capture: time_us 1"}},
        {{"convert", path("label.csv"), path("f.csv")},
         {2, "label.csv: line 2: not a row of an oltb capture: value 70000 does not fit the 16 bits of Label"}},
        {{"convert", path("negative.csv"), path("f.csv")},
         {2, "negative.csv: line 2: not a row of an oltb capture: value -1 does not fit"}},
        {{"convert", path("dos.csv"), path("f.vcd")},
         {2, "dos.csv: line 1: not a capture written by oltb: it begins with 'time,value\\xEF'"}},
        {{"analyze", path("zero.csv")}, {4, "cannot read " + path("zero.csv") + ": not a regular file"}},
        {{"report", path("missing.csv"), "-o", path("f.html")}, {4, "oltb: cannot read " + path("missing.csv")}},
    };
    std::ofstream(path("foreign.csv")) << "time,value\n1,2\n";
    const std::pair<std::string, std::string> edited[] = {{"unsorted", "1,1.0,Gate,22,1,0\n2,0.5,Gate,22,0,0"},
                                                          {"inf", "1,inf,Gate,22,1,0"},
                                                          {"long", "1," + std::string(300, '1') + ",Gate,22,1,0"},
                                                          {"label", "1,0,Label,126,70000,0"},
                                                          {"negative", "1,0,Label,126,-1,0"},
                                                          {"dos", ""}};
    for (const auto& [name, rows] : edited) {
        std::ofstream(path(name + ".csv")) << (name == "dos" ? "time,value\xEF\r\n" : CsvHeader + "\n" + rows + "\n");
    }
    std::ofstream(path("crlf.csv")) << "\xEF\xBB\xBF" << CsvHeader << "\r\n1,0.015625,Gate,22,1,0\r\n";
    const ToolResult crlf = runTool({"convert", path("crlf.csv"), "-"});
    EXPECT_EQ(crlf.out, CsvHeader + "\n1,0.015625,Gate,22,1,0\n") << crlf.err;
    const std::string badRow = CsvHeader + "\n1,0.015625,Gate,22,1,0\n2,0.031250,Gate,22,1x,0\n";
    std::ofstream(path("row.csv")) << badRow;
    std::filesystem::create_hard_link(path("row.csv"), path("row-link.csv"));
    std::filesystem::create_symlink("/dev/zero", path("zero.csv"));
    for (const auto& [arguments, expected] : cases) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const ToolResult tool = runTool(arguments);
        EXPECT_EQ(tool.exitCode, expected.first) << tool.err;
        EXPECT_NE(tool.err.find(expected.second), std::string::npos) << tool.err;
        EXPECT_FALSE(tool.err.empty());
        if (expected.first != 2) {
            EXPECT_EQ(tool.out, "") << "failures after the arguments were taken print no rows";
        }
    }
    EXPECT_FALSE(std::filesystem::exists(path("x.csv")));
    EXPECT_FALSE(std::filesystem::exists(path("f.csv")) || std::filesystem::exists(path("f.vcd")) ||
                 std::filesystem::exists(path("f.html")) || std::filesystem::exists(path("c.h5")));
    for (const std::string command : {"signals > /dev/full", "convert row.csv - >> row.csv"}) {
        ChildProcess shell("/bin/bash", {"-c", "cd " + scratchDirectory() + " && " + OLTB_TOOL_PATH + " " + command});
        EXPECT_EQ(shell.waitForExit(10s), command[0] == 's' ? 4 : 2) << command << ": " << shell.standardError();
    }
    EXPECT_EQ(readFile(path("row.csv")), badRow) << "the input is left as it was";
    EXPECT_EQ(runTool({"acquire", "--help"}).exitCode, 0);
}

// An acquisition gives up at its longest wait, naming the label that did not come, and on a server silent for
// --timeout.
TEST(ToolProcess, AcquireGivesUpAtItsLongestWaitAndOnASilentServer) {
    Simulator simulator("127.0.0.64");
    ASSERT_TRUE(simulator.ready());
    const auto start = Clock::now();  // the longest wait bounds the wall time and names the missing label
    const ToolResult waited = runTool({"acquire", "127.0.0.64", "--start", "99", "--end", "100", "--max-wait", "1"});
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_EQ(waited.exitCode, 3);
    EXPECT_NE(waited.err.find("oltb: no start label 99 within 1 s (--max-wait)"), std::string::npos) << waited.err;

    std::ofstream(path("quiet.job")) << "wait 3000000\n";  // 3 s without a label
    Simulator quiet("127.0.0.71", {"--job", path("quiet.job")});
    ASSERT_TRUE(quiet.ready()) << quiet.standardError();
    const ToolResult silence = runTool({"acquire", "127.0.0.71", "--start", "1", "--end", "2", "--signals", "Spi3Rx",
                                        "--timeout", "1", "--max-wait", "4"});
    EXPECT_EQ(silence.exitCode, 3);
    EXPECT_NE(silence.err.find("no start label 1: the server sent nothing for 1 s (--timeout)"), std::string::npos)
        << silence.err;
}

#ifdef OLTB_WITH_HDF5
// A file that reaches the process's file size limit (a full disk): the summary names only the file written
// completely, the CSV keeps its whole rows, and an HDF5 file that could not be finished is removed, without a crash.
TEST(ToolProcess, FilesThatCannotBeWrittenAreNotReportedAsWritten) {
    Simulator simulator("127.0.11.12", {"--max-rate"});
    ASSERT_TRUE(simulator.ready());
    const auto limited = [](int kilobytes, const std::string& outputs) {
        ChildProcess tool("/bin/bash", {"-c", "ulimit -f " + std::to_string(kilobytes) + "; exec " + OLTB_TOOL_PATH +
                                                  " capture 127.0.11.12 --events 20000 -q " + outputs});
        const int exitCode = tool.waitForExit(30s);
        return ToolResult{exitCode, tool.standardOutput(), tool.standardError()};
    };
    const ToolResult csv = limited(300, "-o " + path("big.csv") + " -o " + path("small.h5"));
    EXPECT_EQ(csv.exitCode, 4);
    EXPECT_NE(csv.err.find("cannot write " + path("big.csv") + ": File too large; it keeps what was written"),
              std::string::npos)
        << csv.err;
    EXPECT_NE(csv.out.find("20000 events written to " + path("small.h5") + "\n"), std::string::npos) << csv.out;
    const std::string rows = readFile(path("big.csv"));
    ASSERT_FALSE(rows.empty());
    EXPECT_EQ(rows.back(), '\n');
    for (const auto& row : csvRows(rows)) ASSERT_EQ(row.size(), 6U);
    const ToolResult h5 = limited(12, "-o " + path("tiny.h5"));
    EXPECT_EQ(h5.exitCode, 4) << h5.err;
    EXPECT_NE(h5.err.find("File too large; the incomplete file is removed"), std::string::npos) << h5.err;
    EXPECT_EQ(h5.out, "");
    EXPECT_FALSE(std::filesystem::exists(path("tiny.h5")));
}
#endif

// Ctrl-C while the tool waits for the server's first answers ends it at once, leaving no file.
TEST(ToolProcess, InterruptWhileConnectingEndsPromptly) {
    Simulator simulator("127.0.11.13", {"--ignore-command", "getconfig", "--verbose"});
    ASSERT_TRUE(simulator.ready());
    ChildProcess capture(OLTB_TOOL_PATH, {"capture", "127.0.11.13", "-o", path("never.csv")});
    ASSERT_TRUE(simulator.waitForText("command GetConfig", 10s, true));
    const auto start = Clock::now();
    capture.sendSignal(SIGINT);
    EXPECT_EQ(capture.waitForExit(10s), 130) << capture.standardError();
    EXPECT_LT(secondsSince(start), 1.5);
    EXPECT_FALSE(std::filesystem::exists(path("never.csv")));
}

// A client that sends commands and reads no answer: the simulator stops reading from it once the answers pile up,
// so the client cannot hand it more than the sockets' buffers take, and the next client is served.
TEST(ToolProcess, SimulatorQueuesBoundedAnswersForAClientThatDoesNotRead) {
    Simulator simulator("127.0.11.10");
    ASSERT_TRUE(simulator.ready());
    sockaddr_in address{AF_INET, htons(9495), {}, {}};
    ::inet_pton(AF_INET, "127.0.11.10", &address.sin_addr);
    const int client = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    std::vector<std::uint8_t> frames(19 * 4096, 0);
    for (std::size_t i = 0; i < frames.size(); i += 19) frames[i] = 0x4D, frames[i + 1] = 0x82;
    std::size_t sent = 0;  // until the simulator takes nothing for a second
    for (pollfd out{client, POLLOUT, 0}; sent < (64U << 20) && ::poll(&out, 1, 1000) == 1;) {
        const std::size_t at = sent % frames.size();
        const ssize_t taken = ::send(client, frames.data() + at, frames.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (taken <= 0) break;
        sent += static_cast<std::size_t>(taken);
    }
    EXPECT_LT(sent, 32U << 20);
    ::close(client);
    const int handle = oltbConnect("127.0.11.10");
    oltbTraceBufferConfig_Struct config;
    EXPECT_EQ(handle > 0 ? oltbGetConfig(handle, &config) : -1, 0) << takeLastError();
    oltbDisconnect(handle);
}

// The simulator refuses options outside their range and job files it cannot read, with a short printable line.
TEST(ToolProcess, SimulatorRefusesOptionsAndJobFilesItCannotRun) {
    std::filesystem::create_symlink("/dev/zero", path("zero.job"));
    std::ofstream(path("word.job")) << "mark " << std::string(3 << 20, '7') << "\x01\xFF 0\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--speed", "nan"}, "--speed: must be a number from 0.001 to 1000, not 'nan'"},
        {{"--speed", "1e308"}, "--speed: must be a number from 0.001 to 1000"},
        {{"--overflow-every", "5", "--overflow-lost", "18446744073709551615"}, "--overflow-lost: "},
        {{"--job", path("zero.job")}, "zero.job: not a regular file"},
        {{"--job", path("word.job")}, "word.job:1: X is not a number: '777"},
    };
    for (const auto& [arguments, text] : cases) {
        std::vector<std::string> all{"--address", "127.0.11.11"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        ChildProcess simulator(OLTB_SIM_PATH, all);
        EXPECT_EQ(simulator.waitForExit(10s), 1) << text;
        EXPECT_NE(simulator.standardError().find(text), std::string::npos) << simulator.standardError();
        EXPECT_LT(simulator.standardError().size(), 300U);
        EXPECT_EQ(simulator.standardOutput(), "");
    }
}

}  // namespace
