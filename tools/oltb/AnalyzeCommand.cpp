// "oltb analyze": what a trace says about the card's tuning (the analysis library), as a summary with suggestions
// or as one JSON object. The trace comes from a capture file or, with --start and --end, from the server through
// the same acquisition as "oltb acquire".
#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace oltb::cli {

int runAnalyze(const AnalyzeOptions& options) {
    std::optional<std::vector<oltbTraceEvent>> events = eventsToAnalyze(options);
    if (!events) {
        printError("acquisition interrupted before the end label; nothing analyzed");
        return ExitInterrupted;
    }

    const analysis::Result result = analyzeEvents(*events, options);
    std::string text;
    if (options.json) {
        text = analysis::toJson(result, signalNameOf);
    } else {
        analysis::SummaryOptions summary;
        summary.source = options.input;
        summary.unitsPerMm = options.unitsPerMm;
        summary.signalName = signalNameOf;
        text = analysis::toSummary(result, summary);
    }
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
    return ExitSuccess;
}

}  // namespace oltb::cli
