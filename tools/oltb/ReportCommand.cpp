// "oltb report": the analysis of a trace and the trace itself as one HTML page (tools/oltb/report/). The trace
// comes as for "oltb analyze"; the page is written beside its final name and renamed into place, so that a failed
// or interrupted report leaves no half page.
#include "analysis/Repeats.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandOptions.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/report/Page.h"
#include "tools/oltb/report/PageData.h"

#include <iostream>
#include <memory>
#include <string>

namespace oltb::cli {

namespace {

int runReport(const ReportOptions& options) {
    const AnalyzeOptions& input = options.analysis;
    if (!report::pageAvailable()) {
        report::renderPage({}, {});  // throws the reason
    }
    if (!input.startGiven && sameFile(options.output, input.input)) {
        throw UsageError("the report would replace its own capture " + input.input);
    }
    const std::optional<std::vector<oltbTraceEvent>> events = eventsToAnalyze(input);
    if (!events) {
        printError("acquisition interrupted before the end label; no report written");
        return ExitInterrupted;
    }
    const analysis::Result result = analyzeEvents(*events, input);

    report::PageOptions page;
    page.source = input.startGiven ? input.input + ", labels " + std::to_string(input.live.startLabel) + " to " +
                                         std::to_string(input.live.endLabel)
                                   : input.input;
    page.unitsPerMm = input.unitsPerMm;
    if (!input.each.empty()) {
        try {
            page.repeats = analysis::toJson(
                analysis::analyzeEach(events->data(), events->size(), static_cast<std::uint16_t>(input.each[0]),
                                      static_cast<std::uint16_t>(input.each[1]), analysisOptions(input)),
                false);
        } catch (const analysis::RunsError& error) {
            throw UsageError(input.input + ": " + error.what());
        }
    }
    const std::string html = report::renderPage("oltb report: " + page.source,
                                                report::pageData(events->data(), events->size(), result, page));
    writeWholeFile(options.output, html);
    std::cout << "report of " << events->size() << " events written to " << options.output << " (" << html.size()
              << " bytes); open it in a browser\n";
    return ExitSuccess;
}

}  // namespace

Command addReportCommand(CLI::App& app) {
    auto options = std::make_shared<ReportOptions>();
    ReportOptions& report = *options;
    CLI::App* command = app.add_subcommand(
        "report", "one HTML page of a trace to open in a browser: the figures of analyze, the XY path, time plots");
    const std::function<void()> labelsGiven = addAnalysisOptions(*command, report.analysis);
    command->add_option("-o,--output", report.output, "the page to write, e.g. trace.html")->required();
    command
        ->add_option("--each", report.analysis.each,
                     "also every run between labels START and END: the page shows how much each figure "
                     "moves from run to run")
        ->expected(2)
        ->check(LabelRange);
    command->footer(
        "The page holds everything it shows (no network, no server): open it from disk in any browser. The figures\n"
        "come from every event; long traces are thinned for display only, and the page says how far.\n"
        "Exit codes: 0 success, 2 usage error or a file that is not an oltb capture, 3 server error, 4 a capture that\n"
        "cannot be read or a page that cannot be written, 130 interrupted, 1 unexpected failure of the tool itself.");

    return {command, [options, labelsGiven] {
                labelsGiven();
                return runReport(*options);
            }};
}

}  // namespace oltb::cli
