// What the comparison page (oltb compare -o) shows of two traces of a head, as one JSON object for the page's script:
// the comparison's settings and figures, and for the marks, jumps and corners it paired by their commanded geometry
// the samples of both traces around them (PageDetails.h), so that the page draws before and after in one close-up:
// each mark's start and end at µm scale, the settle curves of the jumps of each length, each corner. Only so many go
// to the page (the marks and corners that changed most, a few jumps of each length, the figures that changed
// first), so that long captures give a page of bounded size; the data says how many it leaves out.
//
// As JSON (times in us, positions in head units; close-ups as in PageDetails.h):
//   {"tool", "head", "unitsPerMm", "settleBand", "maxEdgeDose", "jobDifference": text or null,
//    "settings", "figures": [{"figure", "unit", "before", "after", "verdict", "words"}], "figureCount",
//    "better", "worse" (counted over every figure),
//    "marks": {"pairs": n, "shown": [[b, a], ...]}, "corners": {"pairs": n, "shown": [[b, a], ...]},
//    "jumps": {"pairs": n, "groups": [{"length", "pairs": n, "shown": [[b, a], ...]}], "groupCount"},
//    "before", "after": {"source", "events", "startUs", "settings" (as oltb analyze --json has them),
//      "counts": [marks, jumps, corners], "marks": [MARK], "jumps": [JUMP], "corners": [CORNER] (the shown ones),
//      "markCloseUps", "jumpCloseUps", "cornerCloseUps"}}
//   MARK = {"index", "start_us", "speed", "start_missing", "end_missing", "speed_at_on", "speed_at_off",
//     "after_unsettled_jump"}; JUMP = {"index", "length", "delay_us", "settled", "settle_us", "predicted_settle_us",
//     "at_least_us", "distance_at_next"}; CORNER = {"index", "x", "y", "angle_deg", "delay_us", "rounding",
//     "edge_dose"}
#pragma once

#include "analysis/Comparison.h"
#include "api/oltb.h"

#include <cstddef>
#include <string>
#include <vector>

namespace oltb::report {

struct CompareSide {
    const oltbTraceEvent* events = nullptr;
    std::size_t count = 0;
    const analysis::Result* result = nullptr;
    std::string source;  // a file, or a file and its labels
};

struct ComparePageOptions {
    double unitsPerMm = 0;           // > 0: the page shows mm, µm and mm/s
    std::size_t marks = 24;          // mark pairs with their close-ups
    std::size_t jumpLengths = 16;    // lengths of jumps, each with a plot
    std::size_t jumpsPerLength = 3;  // pairs of jumps in each plot
    std::size_t corners = 24;        // corner pairs with their close-ups
    std::size_t figures = 200;       // rows of the table of figures
};

// The paired marks (indices into comparison.marks) whose edges were measured, those that changed most first: in
// turn the one with the largest change of a missing length and the one with the largest change of an edge dose.
std::vector<std::size_t> markPairsByChange(const analysis::Comparison& comparison, const analysis::Result& before,
                                           const analysis::Result& after);

std::string compareData(const CompareSide& before, const CompareSide& after, const analysis::Comparison& comparison,
                        const ComparePageOptions& options);

}  // namespace oltb::report
