#include "analysis/Series.h"

#include <algorithm>
#include <limits>

namespace oltb::analysis {

double median(std::vector<double> values) {
    if (values.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
    const double upper = values[middle];
    if (values.size() % 2 == 1) {
        return upper;
    }
    const double lower = *std::max_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle));
    return (lower + upper) / 2;
}

double typicalSpacing(const std::vector<double>& t) {
    if (t.size() < 2) {
        return 0.0;
    }
    // A few thousand gaps spread over the trace say as much as all of them.
    const std::size_t gaps = t.size() - 1;
    const std::size_t stride = std::max<std::size_t>(1, gaps / 4096);
    std::vector<double> spacing;
    spacing.reserve(gaps / stride + 1);
    for (std::size_t i = 0; i < gaps; i += stride) {
        spacing.push_back(t[i + 1] - t[i]);
    }
    return median(std::move(spacing));
}

Path joinAxes(Series x, Series y) {
    Path path;
    const bool hasX = !x.empty();
    const bool hasY = !y.empty();
    if (!hasX || !hasY || x.t == y.t) {
        path.t = std::move(hasX ? x.t : y.t);
        path.x = std::move(x.v);
        path.y = std::move(y.v);
        (hasX ? path.y : path.x).resize(path.t.size(), 0.0);
        return path;
    }
    ForwardReader reader(y.t, y.v, 4 * std::max(typicalSpacing(x.t), typicalSpacing(y.t)));
    for (std::size_t i = 0; i < x.size(); ++i) {
        double value = 0;
        if (reader.at(x.t[i], value)) {
            path.t.push_back(x.t[i]);
            path.x.push_back(x.v[i]);
            path.y.push_back(value);
        }
    }
    return path;
}

Series within(const Series& series, const std::vector<Interval>& intervals) {
    Series inside;
    std::size_t k = 0;
    for (std::size_t i = 0; i < series.size(); ++i) {
        const double time = series.t[i];
        while (k < intervals.size() && intervals[k].off <= time) {
            ++k;
        }
        if (k == intervals.size()) {
            break;
        }
        if (time >= intervals[k].on) {
            inside.add(time, series.v[i]);
        }
    }
    return inside;
}

}  // namespace oltb::analysis
