// The tool's subcommands. Each file registers its own command with its options (addXCommand); running it returns
// the process's exit code or throws UsageError, ServerError, InputError or OutputError, which main turns into a
// message and an exit code (Errors.h).
#pragma once

#include "tools/oltb/VcdWriter.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace oltb::cli {

struct ConfigOptions {
    std::string host;
    std::string setSignals;  // empty: leave the configuration as it is
    bool all = false;
    bool none = false;
    bool allRows = false;  // list the signals that are not traced as well
};

struct CaptureOptions {
    std::string host;
    std::string signals;           // empty: trace what the server is configured for
    double durationSeconds = 0.0;  // 0: no limit
    std::uint64_t maxEvents = 0;   // 0: no limit
    std::vector<std::string> outputs;
    bool raw = false;
    bool quiet = false;
    VcdFormat vcd;
};

struct AcquireOptions {
    std::string host;
    unsigned startLabel = 0;  // 0 .. 65535
    unsigned endLabel = 0;
    std::string signals;            // empty: the server's configuration; Label is added in any case
    double timeoutSeconds = 10.0;   // the longest silence of the server while waiting
    double maxWaitSeconds = 120.0;  // the longest wait for both labels
    std::vector<std::string> outputs;
    bool raw = false;
    bool quiet = false;
    VcdFormat vcd;
};

struct AnalyzeOptions {
    std::string input;  // a capture file, or with the labels a server address
    int head = 0;       // 0 or 1
    double settleBandUnits = 100.0;
    double maxEdgeDose = 2.0;  // the most dose a mark's ends may take, in times the dose of its body
    bool json = false;
    std::vector<unsigned> each;  // START END: every run between these labels, and the spread over the runs
    std::string settingsOut;     // the suggested settings as JSON, to take to the card
    std::string jumpTableOut;    // the jump delay by length as a table a card loads
    double unitsPerMm = 0.0;     // 0: head units
    AcquireOptions live;         // with startLabel/endLabel given: acquire from the server named by input first
    bool startGiven = false;
    bool endGiven = false;
};

struct ReportOptions {
    AnalyzeOptions analysis;  // the trace and the analysis settings, as for analyze (json is not used)
    std::string output;       // the page to write
};

struct CompareOptions {
    AnalyzeOptions analysis;  // the analysis settings (input unused)
    std::string before;
    std::string after;                                // empty: the same capture as before, in other label windows
    std::vector<unsigned> beforeLabels, afterLabels;  // START END of the window to take, or empty: all of it
    bool json = false;
    std::string output;  // the comparison page to write, or empty: none
};

struct ConvertOptions {
    std::string input;
    std::string output;
    VcdFormat vcd;
};

// oltb monitor (tools/oltb/monitor/): one machine watched job after job, for a browser and for Prometheus.
struct MonitorOptions {
    std::string host;
    unsigned startLabel = 0, endLabel = 0;
    std::string name;                       // in the page and the metrics; default: the host
    std::string listen = "127.0.0.1:9496";  // ADDRESS:PORT of the page and the metrics
    std::string saveDir;                    // empty: no capture is kept
    double saveLimitMb = 1024;
    std::size_t history = 1000;   // jobs whose figures are kept
    std::string signals;          // empty: the head's positions, Gate, LaserPower16 and Label
    double maxWaitSeconds = 120;  // labels not seen this long are said on the page
    AnalyzeOptions analysis;      // head, settle band and dose limit (input unused)
};
// Runs the monitor (monitor/MonitorCommand.cpp, or MonitorAbsent.cpp where oltb is built without it).
int runMonitor(const MonitorOptions& options);

// A subcommand as its file registers it on the tool's parser: its parser, and what runs it once parsed.
struct Command {
    CLI::App* parser;
    std::function<int()> run;
};

Command addSignalsCommand(CLI::App& app);
Command addConfigCommand(CLI::App& app);
Command addCaptureCommand(CLI::App& app);
Command addAcquireCommand(CLI::App& app);
Command addAnalyzeCommand(CLI::App& app);
Command addReportCommand(CLI::App& app);
Command addCompareCommand(CLI::App& app);
Command addConvertCommand(CLI::App& app);
Command addMonitorCommand(CLI::App& app);

}  // namespace oltb::cli
