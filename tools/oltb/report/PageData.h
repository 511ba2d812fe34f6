// What the report page shows of a trace, as one JSON object for the page's script: the analysis figures (worked
// out on every event), the marks and jumps in order of how badly they came out with close-ups of the worst
// (PageDetails.h), and the trace itself thinned for display, so that a capture of any length gives a page of a
// few megabytes that a browser draws at once.
//
// Time series: the commanded and actual positions of each axis, the speed along the path of the command and of the
// mirror (units/ms), and the following error of each axis.
//
// Time plots: each series on grids of columns, from an overview of 2048 columns over the whole trace to grids four
// times finer each, and the samples themselves where they fit; each column keeps its smallest and largest sample
// in the order they came, so a line through them draws the same envelope as every sample would. The page shows,
// for what is in view, the coarsest grid that still gives two points per pixel. The XY path keeps a sample once
// the head has moved a set distance from the last one kept, and the samples on both sides of each gate edge.
// What is kept is bounded by a byte budget: the finest grid or distance the page holds depends on the length of
// the trace, and the page says which it is.
#pragma once

#include "analysis/Series.h"
#include "analysis/TraceAnalysis.h"
#include "api/oltb.h"

#include <cstddef>
#include <string>
#include <vector>

namespace oltb::report {

// For each of `columns` columns of `columnUs` from `startUs` the smallest and the largest sample of `series`, the
// earlier one first; NaN twice for a column without samples. The last column also takes samples at or after its
// end, so the whole trace fits when the grid spans it.
std::vector<float> minMaxColumns(const analysis::Series& series, double startUs, double columnUs, std::size_t columns);

// The indices of the samples of `path` to draw: the first and the last, each one at least `minDistance` from the
// one kept before it, and the two around each time in `edges` (sorted), where the drawing changes from laser on to
// laser off.
std::vector<std::size_t> thinPath(const analysis::Path& path, const std::vector<double>& edges, double minDistance);

struct PageOptions {
    std::string source;                   // what was analysed: a file, or a server and its labels
    double unitsPerMm = 0;                // > 0: the page shows mm, um and mm/s
    std::size_t byteBudget = 12'000'000;  // for the decimated trace; the page adds about 150 kB of its own
    std::size_t closeUps = 100;           // the worst marks and jumps that get their samples (PageDetails.h)
    std::string repeats;  // with --each: the spread of each figure over the runs (the analysis' JSON), or empty
};

// The page's data as a JSON object (text safe to put inside a <script> element).
std::string pageData(const oltbTraceEvent* events, std::size_t count, const analysis::Result& result,
                     const PageOptions& options);

}  // namespace oltb::report
