// The analysis behind its C interface: the library's JSON of a trace, for callers that are not C++.
#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"
#include "analysis/oltb_analysis.h"
#include "tools/oltb/Signals.h"

#include <cstring>
#include <exception>
#include <string>

extern "C" OLTB_API int oltbAnalyzeToJson(const oltbTraceEvent* events, uint32_t count, int head,
                                          double settleBandUnits, char* json, int jsonSize) {
    if ((head != 0 && head != 1) || !(settleBandUnits > 0) || (events == nullptr && count > 0) ||
        (json == nullptr && jsonSize > 0)) {
        return -1;
    }
    try {
        oltb::analysis::Options options;
        options.head = head;
        options.settleBandUnits = settleBandUnits;
        const std::string text =
            oltb::analysis::toJson(oltb::analysis::analyze(events, count, options), oltb::cli::signalNameOf);
        const int length = static_cast<int>(text.size());
        if (length < jsonSize) {
            std::memcpy(json, text.c_str(), text.size() + 1);
        }
        return length;
    } catch (const std::exception&) {
        return -1;
    }
}
