// The analysis behind its C interface: the library's JSON of a trace, for callers that are not C++.
#include "analysis/AnalysisReport.h"
#include "analysis/TraceAnalysis.h"
#include "analysis/oltb_analysis.h"
#include "tools/oltb/Signals.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

namespace {

// A failure's text goes where the JSON would have gone: the caller holds that buffer anyway, and no state outlives
// the call (so calls from several threads need nothing shared).
int fail(const char* text, char* json, int jsonSize) {
    if (json != nullptr && jsonSize > 0) {
        std::snprintf(json, static_cast<std::size_t>(jsonSize), "%s", text);
    }
    return -1;
}

}  // namespace

extern "C" OLTB_API int oltbAnalyzeToJson(const oltbTraceEvent* events, uint32_t count, int head,
                                          double settleBandUnits, char* json, int jsonSize) {
    if (json == nullptr && jsonSize > 0) return -1;
    if (head != 0 && head != 1) return fail("head must be 0 or 1", json, jsonSize);
    if (!(settleBandUnits > 0)) return fail("the settle band must be a positive number of head units", json, jsonSize);
    if (events == nullptr && count > 0) return fail("events is a null pointer, but count is above 0", json, jsonSize);
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
    } catch (const std::bad_alloc&) {
        return fail("not enough memory for the analysis", json, jsonSize);
    } catch (const std::exception& error) {
        return fail(error.what(), json, jsonSize);
    } catch (...) {
        return fail("the analysis failed", json, jsonSize);
    }
}
