// "oltb compare": two traces of a head, before and after a change, side by side (the analysis library's
// comparison). Each trace is a capture file, or a window between two labels of one; the two may be windows of the
// same capture. With -o the comparison also goes to a page (tools/oltb/report/), written whole or not at all.
#include "analysis/Comparison.h"
#include "analysis/Repeats.h"
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/report/CompareData.h"
#include "tools/oltb/report/Page.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <memory>

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
    return labels.empty() ? path : path + ", labels " + std::to_string(labels[0]) + " to " + std::to_string(labels[1]);
}

int runCompare(const CompareOptions& options) {
    const std::string& afterPath = options.after.empty() ? options.before : options.after;
    if (options.after.empty() && (options.beforeLabels.empty() || options.afterLabels.empty())) {
        throw UsageError("comparing two windows of one capture needs --before-labels and --after-labels");
    }
    if (!options.output.empty()) {
        if (!report::pageAvailable()) {
            report::renderComparePage({}, {});  // throws the reason
        }
        if (options.output == options.before || options.output == afterPath) {
            throw UsageError("the page would replace its own capture " + options.output);
        }
    }
    const std::vector<oltbTraceEvent> beforeEvents = sideOf(options, options.before, options.beforeLabels);
    const std::vector<oltbTraceEvent> afterEvents = sideOf(options, afterPath, options.afterLabels);
    const analysis::Result before = analyzeEvents(beforeEvents, options.analysis);
    const analysis::Result after = analyzeEvents(afterEvents, options.analysis);
    const analysis::Comparison comparison = analysis::compare(before, after);
    const std::string beforeName = describe(options.before, options.beforeLabels);
    const std::string afterName = describe(afterPath, options.afterLabels);
    if (!options.output.empty()) {
        report::ComparePageOptions page;
        page.unitsPerMm = options.analysis.unitsPerMm;
        const std::string html = report::renderComparePage(
            "oltb compare: " + beforeName + " and " + afterName,
            report::compareData({beforeEvents.data(), beforeEvents.size(), &before, beforeName},
                                {afterEvents.data(), afterEvents.size(), &after, afterName}, comparison, page));
        writeWholeFile(options.output, html);
        if (!options.json) {
            std::cout << "comparison written to " << options.output << " (" << html.size()
                      << " bytes); open it in a browser" << std::endl;
            return ExitSuccess;
        }
    }
    const std::string text = options.json
                                 ? analysis::toJson(comparison, before, after)
                                 : analysis::toSummary(comparison, beforeName, afterName, options.analysis.unitsPerMm);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
        throw OutputError("cannot write to standard output", errno == EPIPE);
    }
    return ExitSuccess;
}

}  // namespace

Command addCompareCommand(CLI::App& app) {
    auto options = std::make_shared<CompareOptions>();
    CompareOptions& compare = *options;
    CLI::App* command = app.add_subcommand(
        "compare", "two traces of a head side by side: the settings each shows and every figure before and after");
    command->add_option("before", compare.before, "the capture before the change (.csv or .h5)")->required();
    command->add_option("after", compare.after,
                        "the capture after it (default: the same capture, in "
                        "another label window)");
    command->add_option("--before-labels", compare.beforeLabels, "START END: the window of the before trace")
        ->expected(2)
        ->check(LabelRange);
    command->add_option("--after-labels", compare.afterLabels, "START END: the window of the after trace")
        ->expected(2)
        ->check(LabelRange);
    command->add_option("--head", compare.analysis.head, "scan head to compare")
        ->capture_default_str()
        ->check(CLI::Range(0, 1));
    command->add_option("--settle-band", compare.analysis.settleBandUnits, "as for analyze")
        ->capture_default_str()
        ->check(positiveNumberOf("units"));
    command->add_option("--max-edge-dose", compare.analysis.maxEdgeDose, "as for analyze")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 100.0));
    command->add_option("--units-per-mm", compare.analysis.unitsPerMm, "as for analyze")
        ->check(positiveNumberOf("units"));
    command->add_flag("--json", compare.json, "one JSON object: the changes and both analyses in full");
    command->add_option("-o,--output", compare.output,
                        "also write the comparison as a page to open in a browser, e.g. compare.html: the "
                        "figures, and before and after drawn over each other at each mark's start and end, "
                        "each jump length's settling and each corner");
    command->footer(
        "Marks, jumps and corners are paired by their commanded points, so the traces need not start at the same\n"
        "time; a job that differs is said so and only the pairs are compared.\n"
        "With -o the summary gives way to the page (--json still prints). The page holds the close-ups of the marks\n"
        "and corners that changed most and a few jumps of each length, so long captures give a page of bounded size.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture, 4 a capture that cannot be read\n"
        "or a page that cannot be written, 1 unexpected failure of the tool itself.");

    return {command, [options] { return runCompare(*options); }};
}

}  // namespace oltb::cli
