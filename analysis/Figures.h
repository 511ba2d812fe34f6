// The parts of the analysis between the layout of the job and the result: marks, jumps, corners, the advice.
// Internal to the analysis.
#pragma once

#include "analysis/Kinematics.h"
#include "analysis/Segments.h"
#include "analysis/ServoFit.h"
#include "analysis/TraceAnalysis.h"

#include <optional>
#include <vector>

namespace oltb::analysis {

// What the marks, jumps and corners are measured against.
struct HeadView {
    const Path& commanded;
    const PathMotion& mirror;        // empty when the actual positions are not traced
    std::optional<HeadModel> model;  // only where the fit holds
    std::optional<double> lagUs;     // the larger steady lag of the axes
    double band = 100;
    double maxEdgeDose = 2;
    bool models() const { return model && !model->spent(); }
};

// The mirror's state on both axes at `time` as the models start from it.
bool stateAt(const HeadView& head, double time, AxisState& x, AxisState& y);

std::vector<Mark> measureMarks(const JobLayout& layout, const std::vector<Interval>& gate, const HeadView& head);

// Jumps with their settling; marks whose polyline follows a jump that did not settle are flagged.
std::vector<Jump> measureJumps(const JobLayout& layout, const HeadView& head, std::vector<Mark>& marks);

// Rows by jump length with a margin of 10 % (at least 5 us), rounded up to the card's 10 us.
std::vector<JumpDelay> jumpDelayTable(const std::vector<Jump>& jumps);

std::vector<Corner> measureCorners(const JobLayout& layout, const std::vector<Interval>& gate, const HeadView& head);

// The laser delays for the dose limit: the suggestion, the choices around it and the groups by speed.
void adviseLaser(Result& result, const JobLayout& layout, const HeadView& head);

// The card's settings now and suggested, and the warnings that guard the advice.
void adviseSettings(Result& result, const JobLayout& layout);

// actual(t) - commanded(t - lag) of one axis at the actual samples.
Series followingErrorSeries(const Series& commanded, const Series& actual, double lagUs);
// Root mean square and largest magnitude of the samples inside the intervals.
ErrorFigures rmsAndLargest(const Series& error, const std::vector<Interval>& intervals);

// Distance of each actual position inside the intervals from the commanded path near the time t - lag.
ErrorFigures pathDeviation(const Path& commanded, const Path& actual, const std::vector<Interval>& intervals,
                           double lagUs);

// A delay the card can hold: rounded up to its 10 us output period.
double roundUpToPeriod(double us);

}  // namespace oltb::analysis
