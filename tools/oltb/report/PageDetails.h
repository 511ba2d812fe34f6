// The report page's close-ups, for the marks and jumps that came out worst: around each gate edge of a mark, the
// mirror's and the command's samples, from which the page draws at µm scale where the laser starts and stops on the
// part (the commanded start point, the mirror's path, where the gate switched); after each jump, the mirror's
// distance to the jump's target until past the start of the next motion, against the settle band. Only a bounded
// number of each goes to the page, so that a trace of thousands of marks still gives a page of bounded size.
//
// As JSON (times in us, positions in head units, packed as in PackedNumbers.h):
//   mark close-up: {"mark": i, "start": EDGE|null, "end": EDGE|null}, EDGE = {"gate_us", "command_us",
//     "point": [x, y] (the commanded start or end point), "direction": [dx, dy] (unit, of the mark there),
//     "mirror": {"t", "x", "y"}, "command": {"t", "x", "y"}}
//   jump close-up: {"jump": i, "end_us", "next_us" (null: not in the trace), "target": [x, y],
//     "t", "distance"} (the mirror's distance to the target at its samples)
//   corner close-up: {"corner": i, "at_us", "point": [x, y], "mirror": {"t", "x", "y"}, "command": {"t", "x", "y"}}
#pragma once

#include "analysis/Series.h"
#include "analysis/TraceAnalysis.h"

#include <cstddef>
#include <string>
#include <vector>

namespace oltb::report {

// The measured marks, worst first: in turn the one with the largest missing length at an edge (of either sign: a
// start or end left out, or marked beyond) and the one with the largest edge dose (a dot where the mirror is slow
// under the gate), each once. Marks whose edges were not measured are left out.
std::vector<std::size_t> marksByEdges(const std::vector<analysis::Mark>& marks);

// The jumps, worst first: those that had not settled when the next motion began, the farthest from the target
// first; then the settled ones, the slowest first; last those the trace cut short.
std::vector<std::size_t> jumpsBySettling(const std::vector<analysis::Jump>& jumps);

// The close-ups (a JSON list) of the first `limit` marks of `order`, each edge's samples from 1.5 tracking errors
// before the earlier of the gate edge and the commanded start (end) to 1.5 after the later one.
std::string markCloseUps(const analysis::Result& result, const analysis::Path& commanded, const analysis::Path& mirror,
                         const std::vector<std::size_t>& order, std::size_t limit);

// The close-ups (a JSON list) of the first `limit` jumps of `order`.
std::string jumpCloseUps(const analysis::Result& result, const analysis::Path& commanded, const analysis::Path& mirror,
                         const std::vector<std::size_t>& order, std::size_t limit);

// The close-ups (a JSON list) of the corners `which`: the samples from two tracking errors before the command reaches
// the corner until three after it leaves it, as the mirror comes in, cuts the corner and goes on.
std::string cornerCloseUps(const analysis::Result& result, const analysis::Path& commanded,
                           const analysis::Path& mirror, const std::vector<std::size_t>& which);

}  // namespace oltb::report
