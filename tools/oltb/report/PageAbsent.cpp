// Built instead of Page.cpp where Debian's libjs-dygraphs was missing: the tool refuses reports, as a usage error,
// before anything is read or a server is asked.
#include "tools/oltb/report/Page.h"

#include "tools/oltb/Errors.h"

namespace oltb::report {

bool pageAvailable() { return false; }

std::string renderPage(const std::string&, const std::string&) {
    throw cli::UsageError("this oltb was built without its report page (install libjs-dygraphs and build again)");
}

std::string renderComparePage(const std::string& title, const std::string& data) { return renderPage(title, data); }

std::string renderChartPage(const char*, const std::string& title, const std::string&, const std::string&) {
    return renderPage(title, "");
}

}  // namespace oltb::report
