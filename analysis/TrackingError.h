// The tracking error of one axis: how far in time the mirror runs behind the command once it follows a motion at
// constant speed. Measured only where the command moves at constant speed on the axis long enough for the
// mirror's transient (from a start, a corner or a jump's ringing) to die out, so that it is the head's own lag and
// not a mix of lags and transients that depends on the job.
#pragma once

#include "analysis/Series.h"

#include <optional>
#include <string>

namespace oltb::analysis {

struct SteadyLag {
    std::optional<double> lagUs;
    std::string failure;        // why there is none
    std::size_t stretches = 0;  // stretches of steady motion it was measured on
    double steadyUs = 0;        // their time in all
};

// `commanded` and `actual` are the axis' samples in time order.
SteadyLag steadyLag(const Series& commanded, const Series& actual);

}  // namespace oltb::analysis
