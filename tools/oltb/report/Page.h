// The pages of oltb: each one HTML file that a browser opens from disk, with no network and no server. The report
// page holds the charting library (dygraphs, from Debian's libjs-dygraphs), the scripts and style of the pages and
// the trace's data; the comparison page (oltb compare -o) the same but for the charting library, which it does not
// use.
#pragma once

#include <string>

namespace oltb::report {

// Whether this oltb carries the charting library; without it (built where libjs-dygraphs was missing) there is
// no report.
bool pageAvailable();

// The page around `data` (from pageData). Throws UsageError when !pageAvailable().
std::string renderPage(const std::string& title, const std::string& data);

// The comparison page around `data` (from compareData). Throws UsageError when !pageAvailable().
std::string renderComparePage(const std::string& title, const std::string& data);

// Another page of the tool that draws with the charting library (oltb monitor's live page): `chartPageTemplate` with
// @TITLE@, /*@CHART_STYLE@*/, /*@STYLE@*/, /*@CHART_SCRIPT@*/ and /*@SCRIPT@*/ filled in that order. Throws
// UsageError when !pageAvailable().
std::string renderChartPage(const char* chartPageTemplate, const std::string& title, const std::string& style,
                            const std::string& script);

}  // namespace oltb::report
