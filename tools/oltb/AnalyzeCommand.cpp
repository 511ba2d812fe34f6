// "oltb analyze": what a trace says about the card's tuning (the analysis library), as a summary with suggestions
// or as one JSON object. The trace comes from a capture file or, with --start and --end, from the server through
// the same acquisition as "oltb acquire".
#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/CaptureReader.h"
#include "tools/oltb/Errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace oltb::cli {

namespace {

// The whole capture (CSV or HDF5), head positions as signed numbers.
std::vector<oltbTraceEvent> readCapture(const std::string& path) {
    CaptureReader reader(path);
    std::vector<oltbTraceEvent> events;
    std::vector<oltbTraceEvent> batch(1 << 16);
    while (const std::size_t count = reader.read(batch.data(), batch.size())) {
        events.insert(events.end(), batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(count));
    }
    if (!reader.info().signedPositions) {
        oltbToSignedPosition(events.data(), static_cast<std::uint32_t>(events.size()));
    }
    return events;
}

std::string signalName(int type) {
    const SignalInfo* signal = findSignalByType(type);
    return signal != nullptr ? signal->name : std::string();
}

}  // namespace

int runAnalyze(const AnalyzeOptions& options) {
    if (options.startGiven != options.endGiven) {
        throw UsageError("analyzing a server needs both --start and --end");
    }
    std::vector<oltbTraceEvent> events;
    if (options.startGiven) {
        AcquireOptions live = options.live;
        live.host = options.input;
        live.raw = false;
        std::optional<AcquiredEvents> acquired = acquireEvents(live, parseWantedSignals(live.signals));
        if (!acquired) {
            printError("acquisition interrupted before the end label; nothing analyzed");
            return ExitInterrupted;
        }
        events = std::move(acquired->events);
    } else {
        events = readCapture(options.input);
    }

    analysis::Options settings;
    settings.head = options.head;
    settings.settleBandUnits = options.settleBandUnits;
    const analysis::Result result = analysis::analyze(events, settings);
    std::string text;
    if (options.json) {
        text = analysis::toJson(result, signalName);
    } else {
        analysis::SummaryOptions summary;
        summary.source = options.input;
        summary.unitsPerMm = options.unitsPerMm;
        summary.signalName = signalName;
        text = analysis::toSummary(result, summary);
    }
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
    return ExitSuccess;
}

}  // namespace oltb::cli
