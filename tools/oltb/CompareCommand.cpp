// "oltb compare": two traces of a head, before and after a change, side by side (the analysis library's
// comparison). Each trace is a capture file, or a window between two labels of one; the two may be windows of the
// same capture.
#include "analysis/Comparison.h"
#include "analysis/Repeats.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"

#include <cerrno>
#include <cstdio>

namespace oltb::cli {

namespace {

// The events of one side: the whole capture, or its first run between the labels.
std::vector<oltbTraceEvent> sideOf(const CompareOptions& options, const std::string& path,
                                   const std::vector<unsigned>& labels) {
    AnalyzeOptions input = options.analysis;
    input.input = path;
    std::vector<oltbTraceEvent> events = *eventsToAnalyze(input);
    if (labels.empty()) {
        return events;
    }
    std::vector<std::vector<oltbTraceEvent>> runs = analysis::runsBetween(
        events.data(), events.size(), static_cast<std::uint16_t>(labels[0]), static_cast<std::uint16_t>(labels[1]));
    if (runs.empty() || (runs.size() == 1 && runs.front().empty())) {
        throw UsageError(path + ": no window between labels " + std::to_string(labels[0]) + " and " +
                         std::to_string(labels[1]));
    }
    return std::move(runs.front());
}

std::string describe(const std::string& path, const std::vector<unsigned>& labels) {
    return labels.empty() ? path
                          : path + ", labels " + std::to_string(labels[0]) + " to " + std::to_string(labels[1]);
}

}  // namespace

int runCompare(const CompareOptions& options) {
    const std::string& afterPath = options.after.empty() ? options.before : options.after;
    if (options.after.empty() && (options.beforeLabels.empty() || options.afterLabels.empty())) {
        throw UsageError("comparing two windows of one capture needs --before-labels and --after-labels");
    }
    const analysis::Result before = analyzeEvents(sideOf(options, options.before, options.beforeLabels), options.analysis);
    const analysis::Result after = analyzeEvents(sideOf(options, afterPath, options.afterLabels), options.analysis);
    const analysis::Comparison comparison = analysis::compare(before, after);
    const std::string text =
        options.json ? analysis::toJson(comparison, before, after)
                     : analysis::toSummary(comparison, describe(options.before, options.beforeLabels),
                                           describe(afterPath, options.afterLabels), options.analysis.unitsPerMm);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
    return ExitSuccess;
}

}  // namespace oltb::cli
