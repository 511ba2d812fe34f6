// A model of each axis of the head, fitted to the trace: a first-order driver filter in front of a position loop of
// second order, a = w^2 (filtered command - position) - 2 z w v, with the acceleration limited. It predicts what
// the trace could not show, such as how long a jump cut short by the next motion would have taken to settle. Heads
// are built in many ways, so the fit says how well it holds, and a prediction is made only where it holds.
#pragma once

#include "analysis/Kinematics.h"
#include "analysis/Series.h"

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace oltb::analysis {

struct AxisModel {
    double omegaPerUs = 0;  // natural frequency, rad/us
    double damping = 1;
    double filterUs = 0;                                               // time constant of the driver filter, 0: none
    double maxAcceleration = std::numeric_limits<double>::infinity();  // units/us^2
};

struct AxisFit {
    std::optional<AxisModel> model;
    double fitRms = 0;        // mirror - model over the fitted stretches, units
    double followingRms = 0;  // mirror - command over the same stretches, units
    bool holds = false;
    bool accelerationLimited = false;  // the limit improved the fit: the trace shows it
    std::string failure;               // why there is no model
};

// The state of one axis: position, velocity (units/us), driver filter output.
struct AxisState {
    double x = 0;
    double v = 0;
    double f = 0;
};

// Advances the model over `durationUs` while the command moves linearly from u0 to u1.
void advance(const AxisModel& model, AxisState& state, double durationUs, double u0, double u1);

// The stretches of the trace worth fitting on (jumps, starts and ends of marks), as time windows.
using Windows = std::vector<std::pair<double, double>>;

// Fits one axis (0: X, 1: Y) over the windows, starting from a model with the given tracking error.
AxisFit fitAxis(const Path& commanded, const PathMotion& mirror, int axis, const Windows& windows,
                std::optional<double> trackingErrorUs);

// The driver filter's output at `time`, from the commanded history before it.
double filterOutputAt(const AxisModel& model, const Path& commanded, int axis, double time);

struct FreeMotion {
    std::optional<double> settledAtUs;   // when it enters the band for good (0: never outside; none: not in time)
    std::optional<double> firstEntryUs;  // the first moment it is within the band
    double largestDistance = 0;
};

// Both axes' models, for predictions. Every prediction integrates the models step by step; a budget of steps for
// the whole analysis keeps its work bounded whatever the models and the trace (predictions stop when it is spent).
class HeadModel {
public:
    HeadModel(const AxisModel& x, const AxisModel& y, std::size_t steps) : _x(x), _y(y), _stepsLeft(steps) {}

    const AxisModel& x() const { return _x; }
    const AxisModel& y() const { return _y; }
    bool spent() const { return _stepsLeft == 0; }

    // From the axes' states on for at most `horizonUs`, the command standing at `target`: the first time (to a
    // microsecond or better) at which `reached(position, velocity)` holds.
    std::optional<double> holdUntil(AxisState x, AxisState y, Vec2 target, double horizonUs,
                                    const std::function<bool(Vec2, Vec2)>& reached) const;
    // From the axes' states on, the command standing at `target`: when the mirror stays within `band` of it.
    FreeMotion holdAt(AxisState x, AxisState y, Vec2 target, double band) const;

private:
    double stepUs() const;

    AxisModel _x, _y;
    mutable std::size_t _stepsLeft;
};

}  // namespace oltb::analysis
