// How far the mirror is from where it should be while marking: per axis against the command shifted by the axis'
// tracking error (the following error), and in the plane against the commanded path (the path deviation).
#include "analysis/Figures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace oltb::analysis {

namespace {

// Path deviation: commanded steps looked at on either side of the corresponding time.
constexpr std::size_t NearbySteps = 6;

double squaredDistanceToStep(const Path& path, std::size_t j, double x, double y) {
    const double dx = path.x[j + 1] - path.x[j];
    const double dy = path.y[j + 1] - path.y[j];
    const double squared = dx * dx + dy * dy;
    double f = squared > 0 ? ((x - path.x[j]) * dx + (y - path.y[j]) * dy) / squared : 0.0;
    f = std::clamp(f, 0.0, 1.0);
    const double ex = x - (path.x[j] + f * dx);
    const double ey = y - (path.y[j] + f * dy);
    return ex * ex + ey * ey;
}

}  // namespace

Series followingErrorSeries(const Series& commanded, const Series& actual, double lagUs) {
    Series error;
    ForwardReader reader(commanded.t, commanded.v, 4 * typicalSpacing(commanded.t));
    for (std::size_t i = 0; i < actual.size(); ++i) {
        double value = 0;
        if (reader.at(actual.t[i] - lagUs, value)) {
            error.add(actual.t[i], actual.v[i] - value);
        }
    }
    return error;
}

ErrorFigures rmsAndLargest(const Series& error, const std::vector<Interval>& intervals) {
    const Series inside = within(error, intervals);
    if (inside.empty()) {
        return {};
    }
    double sum = 0;
    double largest = 0;
    for (const double d : inside.v) {
        sum += d * d;
        largest = std::max(largest, std::abs(d));
    }
    return {std::sqrt(sum / static_cast<double>(inside.size())), largest};
}

ErrorFigures pathDeviation(const Path& commanded, const Path& actual, const std::vector<Interval>& intervals,
                           double lagUs) {
    if (commanded.size() < 2 || actual.empty()) {
        return {};
    }
    double sum = 0;
    double largest = 0;
    std::size_t count = 0;
    std::size_t k = 0;
    std::size_t j = 0;
    const std::size_t steps = commanded.size() - 1;
    for (std::size_t i = 0; i < actual.size(); ++i) {
        const double time = actual.t[i];
        while (k < intervals.size() && intervals[k].off <= time) {
            ++k;
        }
        if (k == intervals.size()) {
            break;
        }
        if (time < intervals[k].on) {
            continue;
        }
        const double then = time - lagUs;
        if (then < commanded.t.front() || then > commanded.t.back()) {
            continue;
        }
        while (j + 1 < steps && commanded.t[j + 1] <= then) {
            ++j;
        }
        double nearest = std::numeric_limits<double>::infinity();
        const std::size_t from = j > NearbySteps ? j - NearbySteps : 0;
        const std::size_t to = std::min(steps - 1, j + NearbySteps);
        for (std::size_t n = from; n <= to; ++n) {
            nearest = std::min(nearest, squaredDistanceToStep(commanded, n, actual.x[i], actual.y[i]));
        }
        sum += nearest;
        largest = std::max(largest, nearest);
        ++count;
    }
    if (count == 0) {
        return {};
    }
    return {std::sqrt(sum / static_cast<double>(count)), std::sqrt(largest)};
}

}  // namespace oltb::analysis
