// The options several subcommands share, and their checks: how a host and a trace's outputs are named, the layout
// of a .vcd output, the input and settings of an analysis, and numbers the parser refuses before a command runs.
#pragma once

#include "tools/oltb/Commands.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace oltb::cli {

// The exit codes of a command that talks to a server, for its --help.
extern const char* const ServerExitCodes;

// A positive, finite number of `unit`, at most `most` ("nan", "inf", "0" and "abc" are refused).
CLI::Validator positiveNumberOf(const std::string& unit, double most = 1e12);

// A --signals list that names at least one signal.
extern const CLI::Validator NotEmpty;

// A label number, 0 .. 65535.
extern const CLI::Range LabelRange;

// How a .vcd output is laid out: its time unit, and a dump for sigrok.
void addVcdOptions(CLI::App& command, VcdFormat& format);

// The host, --signals, -o, --raw and --quiet of capture and acquire, and their footer.
void addTraceOptions(CLI::App& command, std::string& host, std::string& signals, std::vector<std::string>& outputs,
                     bool& raw, bool& quiet);

// The input and the analysis settings shared by analyze and report. The function returned, called once the
// arguments are parsed, sets `analyze.startGiven` and `endGiven`.
std::function<void()> addAnalysisOptions(CLI::App& command, AnalyzeOptions& analyze);

}  // namespace oltb::cli
