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

}  // namespace oltb::report
