// The options several subcommands share, and their checks.
#include "tools/oltb/CommandOptions.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>

namespace oltb::cli {

namespace {

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

}  // namespace

const char* const ServerExitCodes =
    R"(Exit codes: 0 success, 2 usage error, 3 server error (connection failed or lost, a command or a
read failed, a timeout), 1 unexpected failure of the tool itself.)";

const CLI::Range LabelRange(0, 65535);

CLI::Validator positiveNumberOf(const std::string& unit, double most) {
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

std::function<void()> addAnalysisOptions(CLI::App& command, AnalyzeOptions& analyze) {
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
    CLI::Option* start =
        command.add_option("--start", analyze.live.startLabel, "acquire from the server first: start label number")
            ->check(LabelRange);
    CLI::Option* end = command.add_option("--end", analyze.live.endLabel, "end label number")->check(LabelRange);
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
    return [&analyze, start, end] {
        analyze.startGiven = start->count() > 0;
        analyze.endGiven = end->count() > 0;
    };
}

}  // namespace oltb::cli
