// Steps the subcommands share: reading a --signals list, connecting, choosing the traced signals, and the
// report at the end of a command, the events and the analysis of analyze and report.
#pragma once

#include "analysis/TraceAnalysis.h"
#include "tools/oltb/Connection.h"
#include "tools/oltb/Outputs.h"
#include "tools/oltb/SeriesInfo.h"
#include "tools/oltb/Signals.h"
#include "tools/oltb/Summary.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace oltb::cli {

// The signals of a --signals list; nothing for an empty list. Throws UsageError for unknown names.
std::optional<std::vector<const SignalInfo*>> parseWantedSignals(const std::string& list);

// Connects with interrupts blocked for the library's reader thread. Throws ServerError.
std::unique_ptr<Connection> connectTo(const std::string& host);

// Runs `step` (connecting and the commands before the trace flows, each of which the library may wait seconds for)
// on a thread of its own, with interrupts blocked there and in the library's threads it starts, while this thread
// waits for it and for Ctrl-C. Ctrl-C ends the tool at once: `cleanUp` (which removes the files begun), a line
// that nothing was written, exit code 130. What `step` throws is thrown here.
void runInterruptibly(const std::function<void()>& step, const std::function<void()>& cleanUp);

// Sets the server's configuration to `wanted` (if given), adds Label when `withLabel`, and returns the signals
// the server then reports as traced.
std::vector<const SignalInfo*> chooseSignals(Connection& connection,
                                             const std::optional<std::vector<const SignalInfo*>>& wanted,
                                             bool withLabel);

// The events between the start and the end label of `options` (signed positions unless options.raw), and the
// signals traced; `wanted` replaces the server's configuration first. Nothing when interrupted before the end
// label; interrupted before the trace flows, the tool ends after `cleanUp` (runInterruptibly). Throws ServerError.
struct AcquiredEvents {
    SeriesInfo info;  // the traced signals, the server, the labels and when tracing started
    std::vector<oltbTraceEvent> events;
};
struct AcquireOptions;
std::optional<AcquiredEvents> acquireEvents(
    const AcquireOptions& options, const std::optional<std::vector<const SignalInfo*>>& wanted,
    const std::function<void()>& cleanUp = [] {});

// The events that oltb analyze and oltb report look at: the capture file named by options.input, or with both
// labels given the events acquired between them from the server it names; head positions as signed numbers.
// Nothing when the acquisition was interrupted before the end label. Throws UsageError, InputError, ServerError.
struct AnalyzeOptions;
std::optional<std::vector<oltbTraceEvent>> eventsToAnalyze(const AnalyzeOptions& options);

// The analysis' settings of `options`: the scan head, the settle band, the edge dose.
analysis::Options analysisOptions(const AnalyzeOptions& options);

// The analysis of `events` for the scan head and the settle band of `options`.
analysis::Result analyzeEvents(const std::vector<oltbTraceEvent>& events, const AnalyzeOptions& options);

// Finishes the outputs, then the summary on standard output (on standard error when CSV went to standard output)
// and the outputs' warnings on standard error. When an output could not be written, the summary names only the
// outputs that were (nothing at all when none was) and the failure is thrown (OutputError).
void finishAndReport(Outputs& outputs, const Summary& summary);

// Writes `text` to `path` whole or not at all: into a file beside it, renamed into place. Throws OutputError.
void writeWholeFile(const std::string& path, const std::string& text);

// A message on standard error as "oltb: <text>".
void printError(const std::string& text);

}  // namespace oltb::cli
