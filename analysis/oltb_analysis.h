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
 *         call is to be repeated with a buffer of at least that length + 1. -1 for a head other than 0 or 1, a
 *         settle band that is not positive, or null pointers with a count or size above 0.
 */
OLTB_API int oltbAnalyzeToJson(const oltbTraceEvent* events, uint32_t count, int head, double settleBandUnits,
                               char* json, int jsonSize);

#ifdef __cplusplus
}
#endif

#endif
