// "oltb report": the analysis of a trace and the trace itself as one HTML page (tools/oltb/report/). The trace
// comes as for "oltb analyze"; the page is written beside its final name and renamed into place, so that a failed
// or interrupted report leaves no half page.
#include "analysis/Repeats.h"
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/report/Page.h"
#include "tools/oltb/report/PageData.h"

#include <iostream>
#include <string>

namespace oltb::cli {

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

}  // namespace oltb::cli
