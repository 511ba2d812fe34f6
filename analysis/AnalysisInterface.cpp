// The analysis behind its C interface: the library's JSON of a trace, for callers that are not C++.
#include "analysis/AnalysisReport.h"
#include "analysis/Comparison.h"
#include "analysis/Repeats.h"
#include "analysis/TraceAnalysis.h"
#include "analysis/oltb_analysis.h"

#include <algorithm>
#include <climits>
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

// Runs `analysis` and delivers its text as the interface promises.
template <typename Analysis>
int deliver(char* json, int jsonSize, Analysis analysis) {
    try {
        const std::string text = analysis();
        const int length = static_cast<int>(std::min<std::size_t>(text.size(), INT_MAX));
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

// The options' own failures, or nullptr.
const char* refused(const oltbAnalysisOptions* options) {
    if (options == nullptr) return "options is a null pointer";
    if (options->Head != 0 && options->Head != 1) return "head must be 0 or 1";
    if (!(options->SettleBandUnits > 0)) return "the settle band must be a positive number of head units";
    if (!(options->MaxEdgeDose >= 1 && options->MaxEdgeDose <= 100)) return "the edge dose must lie from 1 to 100";
    const bool each = options->EachStartLabel >= 0 || options->EachEndLabel >= 0;
    if (each && (options->EachStartLabel < 0 || options->EachStartLabel > 65535 || options->EachEndLabel < 0 ||
                 options->EachEndLabel > 65535)) {
        return "the labels of a run must lie from 0 to 65535";
    }
    return nullptr;
}

oltb::analysis::Options analysisOptions(const oltbAnalysisOptions& options) {
    oltb::analysis::Options settings;
    settings.head = options.Head;
    settings.settleBandUnits = options.SettleBandUnits;
    settings.maxEdgeDose = options.MaxEdgeDose;
    return settings;
}

}  // namespace

extern "C" OLTB_API void oltbInitAnalysisOptions(oltbAnalysisOptions* options) {
    if (options != nullptr) {
        *options = {0, 100.0, 2.0, -1, -1};
    }
}

extern "C" OLTB_API int oltbAnalyzeToJson(const oltbTraceEvent* events, uint32_t count, int head,
                                          double settleBandUnits, char* json, int jsonSize) {
    oltbAnalysisOptions options;
    oltbInitAnalysisOptions(&options);
    options.Head = head;
    options.SettleBandUnits = settleBandUnits;
    return oltbAnalyzeWithOptions(events, count, &options, json, jsonSize);
}

extern "C" OLTB_API int oltbAnalyzeWithOptions(const oltbTraceEvent* events, uint32_t count,
                                               const oltbAnalysisOptions* options, char* json, int jsonSize) {
    if (json == nullptr && jsonSize > 0) return -1;
    if (const char* reason = refused(options)) return fail(reason, json, jsonSize);
    if (events == nullptr && count > 0) return fail("events is a null pointer, but count is above 0", json, jsonSize);
    return deliver(json, jsonSize, [&] {
        if (options->EachStartLabel >= 0) {
            return oltb::analysis::toJson(oltb::analysis::analyzeEach(
                events, count, static_cast<std::uint16_t>(options->EachStartLabel),
                static_cast<std::uint16_t>(options->EachEndLabel), analysisOptions(*options)));
        }
        return oltb::analysis::toJson(oltb::analysis::analyze(events, count, analysisOptions(*options)));
    });
}

extern "C" OLTB_API int oltbCompareToJson(const oltbTraceEvent* before, uint32_t beforeCount,
                                          const oltbTraceEvent* after, uint32_t afterCount,
                                          const oltbAnalysisOptions* options, char* json, int jsonSize) {
    if (json == nullptr && jsonSize > 0) return -1;
    if (const char* reason = refused(options)) return fail(reason, json, jsonSize);
    if ((before == nullptr && beforeCount > 0) || (after == nullptr && afterCount > 0)) {
        return fail("events is a null pointer, but count is above 0", json, jsonSize);
    }
    return deliver(json, jsonSize, [&] {
        const oltb::analysis::Result first = oltb::analysis::analyze(before, beforeCount, analysisOptions(*options));
        const oltb::analysis::Result second = oltb::analysis::analyze(after, afterCount, analysisOptions(*options));
        return oltb::analysis::toJson(oltb::analysis::compare(first, second), first, second);
    });
}
