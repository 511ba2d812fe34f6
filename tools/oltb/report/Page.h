// The report page: one HTML file that a browser opens from disk, with no network and no server. The charting
// library (dygraphs, from Debian's libjs-dygraphs), the page's own script and style and the trace's data are all
// inside it.
#pragma once

#include <string>

namespace oltb::report {

// Whether this oltb carries the charting library; without it (built where libjs-dygraphs was missing) there is
// no report.
bool pageAvailable();

// The page around `data` (from pageData). Throws UsageError when !pageAvailable().
std::string renderPage(const std::string& title, const std::string& data);

}  // namespace oltb::report
