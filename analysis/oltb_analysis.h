/*
 * The analysis of oltb analyze over events in memory, for applications and the Python package: functions with C
 * linkage in their own shared library (liboltb-analysis.so) beside the trace buffer library. They take the events
 * of a capture in time order, head positions signed (as oltbToSignedPosition leaves them), and write the same JSON
 * objects as `oltb analyze --json`, `oltb analyze --each START END --json` and `oltb compare --json`. C99.
 *
 * Every function writes zero-terminated JSON to json[0, jsonSize) and returns its length (without the zero); when
 * that is jsonSize or more, nothing was written and the call is to be repeated with a buffer of at least that length
 * + 1. -1 on failure, with its text written to json instead (zero-terminated, cut to jsonSize); a null json with
 * jsonSize above 0 is -1 without a text. Thread-safe: the calls keep no state.
 */
#ifndef OLTB_ANALYSIS_H
#define OLTB_ANALYSIS_H

#include "oltb.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Analyzes events[0, count) for scan head `head` (0 or 1) with the given settle band (head units, > 0) and writes
 * the JSON object, zero-terminated, to json[0, jsonSize).
 * @return the length of the JSON text (without the zero); when it is jsonSize or more, nothing was written and the
 *         call is to be repeated with a buffer of at least that length + 1. -1 on failure, with its text written
 *         to json instead (zero-terminated, cut to jsonSize): "head must be 0 or 1", "the settle band must be a
 *         positive number of head units", "events is a null pointer, but count is above 0", "not enough memory
 *         for the analysis", or the analysis' own text. A null json with jsonSize above 0 is -1 without a text.
 *         Thread-safe: the call keeps no state.
 */
OLTB_API int oltbAnalyzeToJson(const oltbTraceEvent* events, uint32_t count, int head, double settleBandUnits,
                               char* json, int jsonSize);

/** The settings of an analysis. */
typedef struct {
    int Head;               /**< the scan head, 0 or 1 */
    double SettleBandUnits; /**< a jump has settled once the mirror stays this close to its target, head units, > 0 */
    double MaxEdgeDose;     /**< the most dose a mark's ends may take, in times the nominal, 1 to 100 */
    int EachStartLabel;     /**< 0 to 65535: analyze every run between this label and EachEndLabel; -1: the whole */
    int EachEndLabel;
} oltbAnalysisOptions;

/** The defaults: head 0, settle band 100, edge dose 2, the trace as a whole. */
OLTB_API void oltbInitAnalysisOptions(oltbAnalysisOptions* options);

/**
 * Analyzes events[0, count) with `options`: the JSON of `oltb analyze --json`, or with EachStartLabel of
 * `oltb analyze --each START END --json`. Failures as oltbAnalyzeToJson, and "no run between labels ..." or "the runs
 * between labels ... hold different jobs: ..." for runs that cannot be analysed one by one.
 */
OLTB_API int oltbAnalyzeWithOptions(const oltbTraceEvent* events, uint32_t count, const oltbAnalysisOptions* options,
                                    char* json, int jsonSize);

/**
 * Compares two traces of a head, before[0, beforeCount) and after[0, afterCount): the JSON of `oltb compare --json`
 * (EachStartLabel is not used).
 */
OLTB_API int oltbCompareToJson(const oltbTraceEvent* before, uint32_t beforeCount, const oltbTraceEvent* after,
                               uint32_t afterCount, const oltbAnalysisOptions* options, char* json, int jsonSize);

#ifdef __cplusplus
}
#endif

#endif
