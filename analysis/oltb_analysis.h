/*
 * The analysis of oltb analyze over events in memory, for applications and the Python package: one function with C
 * linkage in its own shared library (liboltb-analysis.so) beside the trace buffer library. It takes the events of a
 * capture in time order, head positions signed (as oltbToSignedPosition leaves them), and writes the same JSON
 * object as `oltb analyze --json`. C99.
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

#ifdef __cplusplus
}
#endif

#endif
