// The tracking error: the shift in time that best lays the actual position over the commanded one.
#pragma once

#include "analysis/Series.h"
#include "analysis/TraceAnalysis.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace oltb::analysis {

// One axis: its whole commanded channel and the actual samples that count (those with the gate on). Keeps the
// values worked out for one search, so that a search over both axes together reuses them.
class AxisLag {
public:
    AxisLag(const Series& commanded, const Series& actual);

    bool usable() const { return _step > 0 && _actual.size() >= 3; }
    double step() const { return _step; }
    // Mean squared difference over a subset of the samples at shifts of -reach .. reach steps (index k + reach);
    // infinity where too few compare.
    const std::vector<double>& coarse(long reach);
    // Mean squared difference over all samples at a shift of `lag` us; infinity when none compares.
    double fine(double lag);
    // actual(t) - commanded(t - lag): root mean square and largest magnitude.
    ErrorFigures residuals(double lag) const;

private:
    const Series& _commanded;
    const Series& _actual;
    double _step = 0;     // typical spacing of the commanded samples
    double _maxGap = 0;   // longer spaces between commanded samples are lost samples
    std::vector<double> _grid;      // the commanded channel on an even grid of `_step`, NaN in gaps
    std::vector<double> _position;  // grid position of each actual sample of the subset
    std::vector<double> _value;     // its value
    std::vector<double> _coarse;
    std::map<double, double> _fine;
};

struct LagEstimate {
    std::optional<double> lagUs;
    std::string failure;  // why there is none
};

// The shift tau minimising, summed over the axes, the mean of (actual(t) - commanded(t - tau))^2, with the
// commanded position interpolated linearly between its samples; looked for within +-maxLagUs.
LagEstimate estimateLag(const std::vector<AxisLag*>& axes, double maxLagUs);

}  // namespace oltb::analysis
