// Marks, jumps and the path while marking: what the commanded motion and the gate say, measured against the
// actual motion.
#pragma once

#include "analysis/Series.h"
#include "analysis/TraceAnalysis.h"

#include <optional>
#include <vector>

namespace oltb::analysis {

// A run of commanded samples in motion: the path moves on every sample step from `first` to `last` + 1.
struct Motion {
    std::size_t first = 0;
    std::size_t last = 0;
    double startUs = 0;
    double endUs = 0;
    double length = 0;
};

std::vector<Motion> commandedMotions(const Path& commanded);

// Every gate interval as a mark. With the commanded path and the tracking error, each mark also gets the motion
// the mirror makes for it (the commanded one shifted by the tracking error): where the speed enters the band of
// half to twice the mark's median speed and where it leaves it again.
std::vector<Mark> measureMarks(const Path& commanded, const std::vector<Interval>& gate, std::optional<double> lagUs);

// The commanded motions with the gate off (less than half of the shifted motion under the gate). With the actual
// path, each gets its settle time: from the end of the commanded motion until the mirror stays within `band` of
// the target.
std::vector<Jump> measureJumps(const Path& commanded, const std::vector<Motion>& motions,
                               const std::vector<Interval>& gate, const Path* actual, std::optional<double> lagUs,
                               double band);

// The largest settle time of the jumps in each range of lengths (ranges end at 1, 2, 5, 10, 20, 50, ... units).
std::vector<JumpDelay> jumpDelayTable(const std::vector<Jump>& jumps);

// The distance of each actual position inside the intervals from the commanded path near the time
// t - lag: root mean square and largest.
ErrorFigures pathDeviation(const Path& commanded, const Path& actual, const std::vector<Interval>& intervals,
                           double lagUs);

}  // namespace oltb::analysis
