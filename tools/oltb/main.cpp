// oltb: the trace buffer of a laser scan controller card from the command line, through the library's C
// interface only. Parses the arguments, runs one subcommand and turns its failures into exit codes.
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/Interrupt.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <map>
#include <string>

#ifndef OLTB_TOOL_VERSION
#define OLTB_TOOL_VERSION "unknown"
#endif

using namespace oltb::cli;

namespace {

constexpr const char* ServerExitCodes =
    R"(Exit codes: 0 success, 2 usage error, 3 server error (connection failed or lost, a command or a
read failed, a timeout), 1 unexpected failure of the tool itself.)";

constexpr const char* TraceFooter =
    R"(Output by extension: .csv (timestamp_ticks,time_us,signal,type,value,overflow), .vcd (value change
dump for GTKWave, Surfer or sigrok; NAME.vcd comes with NAME.gtkw, which gtkwave opens ready to read), .h5 (HDF5:
one group per signal with the datasets timestamp_ticks, time_us, value, overflow, sequence; for h5py, MATLAB,
Octave, HDFView); without -o, CSV goes to standard output. -o may be repeated: one series, every file. Ctrl-C
ends a capture with complete files, HDF5 included.
--signals replaces the server's configuration, also for the clients that come after.
Exit codes: 0 success, 2 usage error, 3 server error (connection failed or lost, a command or a read failed, a
timeout, a label that did not come), 4 output error (a file could not be written; a closed standard output, as
after | head, ends quietly with 4), 130 Ctrl-C before the trace flowed (nothing written), 1 unexpected failure
of the tool itself.)";

// A positive, finite number of `unit`, at most `most` ("nan", "inf", "0" and "abc" are refused).
CLI::Validator positiveNumberOf(const std::string& unit, double most = 1e12) {
    return CLI::Validator(
        [unit, most](std::string& input) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(input.c_str(), &end);
            if (end == input.c_str() || *end != '\0' || !std::isfinite(value) || value <= 0.0 || value > most) {
                return "must be a positive number of " + unit +
                       (most < 1e12 ? " up to " + CLI::detail::to_string(most) : "") + ", not '" + input + "'";
            }
            return {};
        },
        "POSITIVE");
}

const CLI::Validator NotEmpty(
    [](std::string& input) { return input.empty() ? std::string("must name at least one signal") : std::string(); },
    "LIST");

// How a .vcd output is laid out: its time unit, and a dump for sigrok.
void addVcdOptions(CLI::App& command, VcdFormat& format) {
    const CLI::Validator unit(
        [](std::string& input) -> std::string {
            const std::map<std::string, std::string> picoseconds{
                {"1ps", "1"}, {"1ns", "1000"}, {"10ns", "10000"}, {"100ns", "100000"}, {"1us", "1000000"}};
            std::string name;
            for (const char c : input) name.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
            const auto found = picoseconds.find(name);
            if (found == picoseconds.end()) {
                return "must be 1ps, 1ns, 10ns, 100ns or 1us, not '" + input + "'";
            }
            input = found->second;
            return {};
        },
        "UNIT");
    command
        .add_option("--vcd-timescale", format.timescalePs,
                    "time unit of a .vcd file: 1ps (default: each tick exact), 1ns, 10ns, 100ns or 1us (times "
                    "rounded to it; viewers that take a sample per unit read a coarse one faster)")
        ->transform(unit)
        ->option_text("UNIT");
    command.add_flag("--vcd-sigrok", format.sigrok,
                     "a .vcd file that sigrok-cli and PulseView read as it is: the 1-bit signals only (sigrok's "
                     "import reads no wider ones), at 1us unless --vcd-timescale says otherwise");
}

void addTraceOptions(CLI::App& command, std::string& host, std::string& signals, std::vector<std::string>& outputs,
                     bool& raw, bool& quiet) {
    command.add_option("host", host, "server address (name or number; the port is always 9495)")->required();
    command
        .add_option("-s,--signals", signals,
                    "signals to trace: comma list of names (see oltb signals), groups Conf0..Conf3, or all; "
                    "sets the server's configuration (default: trace what it is configured for)")
        ->check(NotEmpty);
    command.add_option("-o,--output", outputs, "file to write (.csv, .vcd or .h5; - for CSV on standard output)")
        ->allow_extra_args(false);
    command.add_flag("--raw", raw, "keep head positions as raw 20-bit values");
    command.add_flag("-q,--quiet", quiet, "no progress display on standard error");
    command.footer(TraceFooter);
}

// The input and the analysis settings shared by analyze and report; the label options, to see whether they were
// given.
struct LabelOptions {
    CLI::Option* start;
    CLI::Option* end;
};

LabelOptions addAnalysisOptions(CLI::App& command, AnalyzeOptions& analyze) {
    const CLI::Range labelRange(0, 65535);
    command
        .add_option("input", analyze.input,
                    "capture file written by oltb (.csv or .h5, positions not --raw), or with --start and --end "
                    "a server address")
        ->required();
    command.add_option("--head", analyze.head, "scan head to analyze")->capture_default_str()->check(CLI::Range(0, 1));
    command
        .add_option("--settle-band", analyze.settleBandUnits,
                    "a jump has settled once the mirror stays this close to its target (head units)")
        ->capture_default_str()
        ->check(positiveNumberOf("units"));
    command
        .add_option("--max-edge-dose", analyze.maxEdgeDose,
                    "the most dose a mark's start or end may take, in times the dose of its body (dose ~ 1 / the "
                    "mirror's speed): the suggested laser delays switch the gate where the mirror moves at 1/D of "
                    "the mark speed")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 100.0));
    command
        .add_option("--units-per-mm", analyze.unitsPerMm,
                    "head units per mm: lengths in mm, errors in um, speeds in mm/s (JSON stays in head units)")
        ->check(positiveNumberOf("units"));
    LabelOptions labels;
    labels.start =
        command.add_option("--start", analyze.live.startLabel, "acquire from the server first: start label number")
            ->check(labelRange);
    labels.end = command.add_option("--end", analyze.live.endLabel, "end label number")->check(labelRange);
    command
        .add_option("-s,--signals", analyze.live.signals,
                    "with --start/--end: signals to trace (sets the server's configuration), e.g. "
                    "Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate")
        ->check(NotEmpty);
    command
        .add_option("--timeout", analyze.live.timeoutSeconds,
                    "with --start/--end: give up when the server sends nothing this long")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds", 3600.0));
    command
        .add_option("--max-wait", analyze.live.maxWaitSeconds,
                    "with --start/--end: give up when both labels have not come within this many seconds")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds"));
    command.add_flag("-q,--quiet", analyze.live.quiet, "no progress display on standard error");
    return labels;
}

// What the parser refused, and where to look: the help of the command given, or the list of commands.
std::string usageMistake(const CLI::App& app, int argc, char** argv, std::string what) {
    const CLI::App* command = nullptr;
    for (int index = 1; index < argc && command == nullptr; ++index) {
        for (const CLI::App* candidate : app.get_subcommands({})) {
            if (candidate->check_name(argv[index])) {
                command = candidate;
            }
        }
    }
    if (command == nullptr && argc > 1 && argv[1][0] != '-') {
        what = std::string("unknown command '") + argv[1] + "'";
    }
    return what + "\nsee " +
           (command != nullptr ? "oltb " + command->get_name() + " --help" : std::string("oltb --help"));
}

// Every write to standard output counts: when one failed (a full disk, a closed pipe behind it), a command that
// otherwise succeeded ends with the output error code, quietly for a closed pipe.
int checkStandardOutput(int code) {
    std::cout.flush();
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (code != ExitSuccess || (flushed && std::cout && !std::ferror(stdout))) {
        return code;
    }
    if (error != EPIPE) {
        printError(std::string("cannot write to standard output") +
                   (error != 0 ? ": " + std::string(std::strerror(error)) : ""));
    }
    return ExitOutput;
}

int run(int argc, char** argv) {
    CLI::App app{"oltb: trace signals of a laser scan controller card through its trace buffer server (port 9495)",
                 "oltb"};
    app.set_version_flag("--version", std::string("oltb ") + OLTB_TOOL_VERSION);
    app.require_subcommand(1);
    app.footer("Run oltb COMMAND --help for the options of a command.");

    app.add_subcommand("signals", "list every traceable signal: group, event type, bits per sample")
        ->footer("The table is the tool's own: no server is asked.");

    ConfigOptions config;
    CLI::App* configCommand = app.add_subcommand("config",
                                                 "show the signals the server traces; replace them first "
                                                 "with --set, --all or --none");
    configCommand->add_option("host", config.host, "server address (name or number)")->required();
    auto* setOption = configCommand->add_option("--set", config.setSignals, "trace exactly these signals (comma list)")
                          ->check(NotEmpty);
    auto* allOption = configCommand->add_flag("--all", config.all, "trace every signal");
    auto* noneOption = configCommand->add_flag("--none", config.none, "trace no signal");
    configCommand->add_flag("--all-rows", config.allRows, "list the signals that are not traced as well");
    setOption->excludes(allOption)->excludes(noneOption);
    allOption->excludes(noneOption);
    configCommand->footer(std::string("The configuration stays on the server for the clients that come after.\n") +
                          ServerExitCodes);

    CaptureOptions capture;
    CLI::App* captureCommand =
        app.add_subcommand("capture", "trace until the duration, the number of events or Ctrl-C, then stop");
    addTraceOptions(*captureCommand, capture.host, capture.signals, capture.outputs, capture.raw, capture.quiet);
    addVcdOptions(*captureCommand, capture.vcd);
    auto* durationOption = captureCommand
                               ->add_option("-d,--duration", capture.durationSeconds,
                                            "seconds to trace: the first S seconds of the trace, ending S "
                                            "seconds after the start at the latest")
                               ->check(positiveNumberOf("seconds"));
    auto* eventsOption = captureCommand->add_option("-n,--events", capture.maxEvents, "events to read")
                             ->check(positiveNumberOf("events"));
    durationOption->excludes(eventsOption);

    const CLI::Range labelRange(0, 65535);
    AcquireOptions acquire;
    CLI::App* acquireCommand =
        app.add_subcommand("acquire", "the events between a start label and an end label (labels excluded)");
    addTraceOptions(*acquireCommand, acquire.host, acquire.signals, acquire.outputs, acquire.raw, acquire.quiet);
    addVcdOptions(*acquireCommand, acquire.vcd);
    acquireCommand->add_option("--start", acquire.startLabel, "start label number")->required()->check(labelRange);
    acquireCommand->add_option("--end", acquire.endLabel, "end label number (Label is added to the traced signals)")
        ->required()
        ->check(labelRange);
    acquireCommand->add_option("--timeout", acquire.timeoutSeconds, "give up when the server sends nothing this long")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds", 3600.0));
    acquireCommand
        ->add_option("--max-wait", acquire.maxWaitSeconds,
                     "give up when both labels have not come within this many seconds")
        ->capture_default_str()
        ->check(positiveNumberOf("seconds"));

    AnalyzeOptions analyze;
    CLI::App* analyzeCommand = app.add_subcommand(
        "analyze", "measure tracking error, following error, laser timing and jump settling in a trace");
    LabelOptions analyzeLabels = addAnalysisOptions(*analyzeCommand, analyze);
    analyzeCommand->add_flag("--json", analyze.json, "one JSON object instead of the summary");
    analyzeCommand
        ->add_option("--each", analyze.each,
                     "every run between labels START and END of the trace, and how much each figure "
                     "moves from run to run")
        ->expected(2)
        ->check(labelRange);
    analyzeCommand->add_option("--settings-out", analyze.settingsOut,
                               "write the suggested settings as JSON (oltb-sim --settings reads it)");
    analyzeCommand->add_option("--jump-table-out", analyze.jumpTableOut,
                               "write the jump delay by length as a table of LENGTH DELAY_US lines (oltb-sim "
                               "--jump-table reads it)");
    analyzeCommand->footer(
        "Positions are in head units unless --units-per-mm is given; times in us of the capture's time_us.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture (the message names the line),\n"
        "3 server error, 4 a file that cannot be read, 1 unexpected failure of the tool itself.");

    ReportOptions report;
    CLI::App* reportCommand = app.add_subcommand(
        "report", "one HTML page of a trace to open in a browser: the figures of analyze, the XY path, time plots");
    LabelOptions reportLabels = addAnalysisOptions(*reportCommand, report.analysis);
    reportCommand->add_option("-o,--output", report.output, "the page to write, e.g. trace.html")->required();
    reportCommand
        ->add_option("--each", report.analysis.each,
                     "also every run between labels START and END: the page shows how much each figure "
                     "moves from run to run")
        ->expected(2)
        ->check(labelRange);
    reportCommand->footer(
        "The page holds everything it shows (no network, no server): open it from disk in any browser. The figures\n"
        "come from every event; long traces are thinned for display only, and the page says how far.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture, 3 server error, 4 a capture that\n"
        "cannot be read or a page that cannot be written, 130 interrupted, 1 unexpected failure of the tool itself.");

    CompareOptions compare;
    CLI::App* compareCommand = app.add_subcommand(
        "compare", "two traces of a head side by side: the settings each shows and every figure before and after");
    compareCommand->add_option("before", compare.before, "the capture before the change (.csv or .h5)")->required();
    compareCommand->add_option("after", compare.after,
                               "the capture after it (default: the same capture, in "
                               "another label window)");
    compareCommand->add_option("--before-labels", compare.beforeLabels, "START END: the window of the before trace")
        ->expected(2)
        ->check(labelRange);
    compareCommand->add_option("--after-labels", compare.afterLabels, "START END: the window of the after trace")
        ->expected(2)
        ->check(labelRange);
    compareCommand->add_option("--head", compare.analysis.head, "scan head to compare")
        ->capture_default_str()
        ->check(CLI::Range(0, 1));
    compareCommand->add_option("--settle-band", compare.analysis.settleBandUnits, "as for analyze")
        ->capture_default_str()
        ->check(positiveNumberOf("units"));
    compareCommand->add_option("--max-edge-dose", compare.analysis.maxEdgeDose, "as for analyze")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 100.0));
    compareCommand->add_option("--units-per-mm", compare.analysis.unitsPerMm, "as for analyze")
        ->check(positiveNumberOf("units"));
    compareCommand->add_flag("--json", compare.json, "one JSON object: the changes and both analyses in full");
    compareCommand->add_option("-o,--output", compare.output,
                               "also write the comparison as a page to open in a browser, e.g. compare.html: the "
                               "figures, and before and after drawn over each other at each mark's start and end, "
                               "each jump length's settling and each corner");
    compareCommand->footer(
        "Marks, jumps and corners are paired by their commanded points, so the traces need not start at the same\n"
        "time; a job that differs is said so and only the pairs are compared.\n"
        "With -o the summary gives way to the page (--json still prints). The page holds the close-ups of the marks\n"
        "and corners that changed most and a few jumps of each length, so long captures give a page of bounded size.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture, 4 a capture that cannot be read\n"
        "or a page that cannot be written, 1 unexpected failure of the tool itself.");

    ConvertOptions convert;
    CLI::App* convertCommand =
        app.add_subcommand("convert", "turn a capture of oltb (.csv or .h5) into another format (.csv, .vcd, .h5)");
    convertCommand->add_option("input", convert.input, "the capture to read: a .csv or .h5 file written by oltb")
        ->required();
    convertCommand
        ->add_option("output", convert.output,
                     "the file to write: .csv, .vcd or .h5 (- for CSV on "
                     "standard output)")
        ->required();
    addVcdOptions(*convertCommand, convert.vcd);
    convertCommand->footer(
        R"(Reads and writes a batch at a time, so files of any length convert in little memory. A CSV has no
server, labels or start time for an .h5 file to keep. A failed or interrupted conversion removes its output.
Exit codes: 0 success, 2 usage error (also an input that is no capture of oltb: the message names the file and
the line), 4 a file could not be read or written (missing, damaged HDF5), 130 interrupted, 1 unexpected failure.)");

    MonitorOptions monitor;
    CLI::App* monitorCommand = addMonitorCommand(app, monitor);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {  // --help, --version
            app.exit(error);
            return ExitSuccess;
        }
        printError(usageMistake(app, argc, argv, error.what()));
        return ExitUsage;
    }

    ignoreBrokenPipes();
    installInterruptHandler();
    try {
        if (app.got_subcommand("signals")) {
            return runSignals();
        }
        if (app.got_subcommand(configCommand)) {
            return runConfig(config);
        }
        if (app.got_subcommand(captureCommand)) {
            return runCapture(capture);
        }
        if (app.got_subcommand(analyzeCommand)) {
            analyze.startGiven = analyzeLabels.start->count() > 0;
            analyze.endGiven = analyzeLabels.end->count() > 0;
            return runAnalyze(analyze);
        }
        if (app.got_subcommand(reportCommand)) {
            report.analysis.startGiven = reportLabels.start->count() > 0;
            report.analysis.endGiven = reportLabels.end->count() > 0;
            return runReport(report);
        }
        if (app.got_subcommand(compareCommand)) {
            return runCompare(compare);
        }
        if (app.got_subcommand(convertCommand)) {
            return runConvert(convert);
        }
        if (app.got_subcommand(monitorCommand)) {
            return runMonitor(monitor);
        }
        return runAcquire(acquire);
    } catch (const UsageError& error) {
        printError(error.what());
        return ExitUsage;
    } catch (const ServerError& error) {
        printError(error.what());
        return ExitServer;
    } catch (const InputError& error) {
        printError(error.what());
        return ExitOutput;
    } catch (const OutputError& error) {
        if (!error.standardOutputClosed()) {
            printError(error.what());
        }
        return ExitOutput;
    } catch (const std::exception& error) {
        printError(std::string("unexpected failure: ") + error.what());
        return ExitUnexpected;
    }
}

}  // namespace

int main(int argc, char** argv) { return checkStandardOutput(run(argc, argv)); }
