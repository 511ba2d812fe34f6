// "oltb report": the analysis of a trace and the trace itself as one HTML page (tools/oltb/report/). The trace
// comes as for "oltb analyze"; the page is written beside its final name and renamed into place, so that a failed
// or interrupted report leaves no half page.
#include "analysis/TraceAnalysis.h"
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/report/Page.h"
#include "tools/oltb/report/PageData.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <unistd.h>

namespace oltb::cli {

namespace {

void writeFile(const std::string& path, const std::string& text) {
    const std::string partial = path + ".part" + std::to_string(::getpid());
    std::FILE* file = std::fopen(partial.c_str(), "wb");
    if (file == nullptr) {
        throw OutputError("cannot create " + partial + ": " + std::strerror(errno));
    }
    bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int error = written ? 0 : errno;
    if (std::fclose(file) != 0 && written) {
        written = false;
        error = errno;
    }
    if (written && std::rename(partial.c_str(), path.c_str()) != 0) {
        written = false;
        error = errno;
    }
    if (!written) {
        std::remove(partial.c_str());
        throw OutputError("cannot write " + path + ": " + std::strerror(error));
    }
}

}  // namespace

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
    const std::string html =
        report::renderPage("oltb report: " + page.source,
                           report::pageData(events->data(), events->size(), result, page));
    writeFile(options.output, html);
    std::cout << "report of " << events->size() << " events written to " << options.output << " (" << html.size()
              << " bytes); open it in a browser\n";
    return ExitSuccess;
}

}  // namespace oltb::cli
