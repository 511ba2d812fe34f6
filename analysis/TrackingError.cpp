// The search runs in two stages. A coarse one tries every whole sample of shift within the range on a few thousand
// actual samples spread over the trace, reading the commanded position from a copy resampled on an even grid, so
// that each try costs one multiply-add per sample. The fine one works on every sample: with the commanded
// position interpolated linearly and the actual samples on the same clock, the mean squared difference is a
// quadratic function of the shift between two whole samples, so a parabola through three values on each side of
// the coarse minimum finds its bottom exactly; a last small parabola step covers samples that are not on the
// commanded clock.
#include "analysis/TrackingError.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

namespace oltb::analysis {

namespace {

// The coarse search looks at this many actual samples spread over the trace, the fine one at up to this many.
constexpr std::size_t CoarseSamples = 4096;
constexpr std::size_t FineSamples = 262144;
constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

// Where the parabola through (x - h, a), (x, b), (x + h, c) is lowest, kept within [x - h, x + h]; x itself when
// it opens downwards or is flat.
double parabolaBottom(double x, double h, double a, double b, double c) {
    const double curvature = a - 2 * b + c;
    if (!(curvature > 0)) {
        return x;
    }
    return std::clamp(x + h * (a - c) / (2 * curvature), x - h, x + h);
}

}  // namespace

AxisLag::AxisLag(const Series& commanded, const Series& actual) : _commanded(commanded), _actual(actual) {
    if (commanded.size() < 2 || actual.empty()) {
        return;
    }
    _step = typicalSpacing(commanded.t);
    _maxGap = 4 * _step;
    if (!(_step > 0)) {
        return;
    }
    const double origin = commanded.t.front();
    const auto points = static_cast<std::size_t>((commanded.t.back() - origin) / _step) + 1;
    _grid.resize(points);
    ForwardReader reader(commanded.t, commanded.v, _maxGap);
    for (std::size_t m = 0; m < points; ++m) {
        double value = 0;
        _grid[m] = reader.at(origin + static_cast<double>(m) * _step, value) ? value : NaN;
    }
    const std::size_t stride = std::max<std::size_t>(1, actual.size() / CoarseSamples);
    for (std::size_t i = 0; i < actual.size(); i += stride) {
        _position.push_back((actual.t[i] - origin) / _step);
        _value.push_back(actual.v[i]);
    }
}

const std::vector<double>& AxisLag::coarse(long reach) {
    const auto shifts = static_cast<std::size_t>(2 * reach + 1);
    if (_coarse.size() == shifts) {
        return _coarse;
    }
    // Sample by sample, every shift in turn: the grid is read in one short stretch per sample.
    std::vector<double> sums(shifts, 0.0);
    std::vector<std::size_t> counts(shifts, 0);
    const auto last = static_cast<long>(_grid.size()) - 1;
    for (std::size_t i = 0; i < _position.size(); ++i) {
        const auto whole = static_cast<long>(std::floor(_position[i]));
        const double f = _position[i] - static_cast<double>(whole);
        for (long k = -reach; k <= reach; ++k) {
            const long m = whole - k;
            if (m < 0 || m >= last) {
                continue;
            }
            const double value = _grid[static_cast<std::size_t>(m)] +
                                 f * (_grid[static_cast<std::size_t>(m + 1)] - _grid[static_cast<std::size_t>(m)]);
            const double d = _value[i] - value;
            if (!std::isnan(d)) {
                sums[static_cast<std::size_t>(k + reach)] += d * d;
                ++counts[static_cast<std::size_t>(k + reach)];
            }
        }
    }
    _coarse.assign(shifts, Infinity);
    for (std::size_t k = 0; k < shifts; ++k) {
        if (counts[k] > 0 && 2 * counts[k] >= _position.size()) {
            _coarse[k] = sums[k] / static_cast<double>(counts[k]);
        }
    }
    return _coarse;
}

double AxisLag::fine(double lag) {
    const auto known = _fine.find(lag);
    if (known != _fine.end()) {
        return known->second;
    }
    ForwardReader commanded(_commanded.t, _commanded.v, _maxGap);
    double sum = 0;
    std::size_t count = 0;
    const std::size_t stride = std::max<std::size_t>(1, _actual.size() / FineSamples);
    for (std::size_t i = 0; i < _actual.size(); i += stride) {
        double value = 0;
        if (commanded.at(_actual.t[i] - lag, value)) {
            const double d = _actual.v[i] - value;
            sum += d * d;
            ++count;
        }
    }
    const double result = count > 0 ? sum / static_cast<double>(count) : Infinity;
    _fine.emplace(lag, result);
    return result;
}

ErrorFigures AxisLag::residuals(double lag) const {
    ForwardReader commanded(_commanded.t, _commanded.v, _maxGap);
    double sum = 0;
    double largest = 0;
    std::size_t count = 0;
    for (std::size_t i = 0; i < _actual.size(); ++i) {
        double value = 0;
        if (commanded.at(_actual.t[i] - lag, value)) {
            const double d = _actual.v[i] - value;
            sum += d * d;
            largest = std::max(largest, std::abs(d));
            ++count;
        }
    }
    if (count == 0) {
        return {};
    }
    return {std::sqrt(sum / static_cast<double>(count)), largest};
}

LagEstimate estimateLag(const std::vector<AxisLag*>& axes, double maxLagUs) {
    if (axes.empty()) {
        return {std::nullopt, "too few samples"};
    }
    double step = Infinity;
    for (AxisLag* axis : axes) {
        if (!axis->usable()) {
            return {std::nullopt, "has too few samples"};
        }
        step = std::min(step, axis->step());
    }
    for (AxisLag* axis : axes) {
        if (axis->step() != step) {
            return {std::nullopt, "is sampled at different rates on its axes"};
        }
    }

    const long reach = static_cast<long>(std::ceil(maxLagUs / step));
    long best = 0;
    double bestValue = Infinity;
    double worstValue = 0;
    for (long k = -reach; k <= reach; ++k) {
        double value = 0;
        for (AxisLag* axis : axes) {
            value += axis->coarse(reach)[static_cast<std::size_t>(k + reach)];
        }
        if (value < bestValue) {
            bestValue = value;
            best = k;
        }
        if (value < Infinity) {
            worstValue = std::max(worstValue, value);
        }
    }
    if (bestValue == Infinity) {
        return {std::nullopt, "has too few samples"};
    }
    if (!(worstValue - bestValue > 1e-9 * (1 + worstValue))) {
        return {std::nullopt, "does not move"};
    }

    const auto J = [&axes](double lag) {
        double value = 0;
        for (AxisLag* axis : axes) {
            value += axis->fine(lag);
        }
        return value;
    };
    // The coarse minimum came from a subset; on all samples it may lie a step or two aside.
    double centre = static_cast<double>(best) * step;
    for (int moves = 0; moves < 8; ++moves) {
        if (J(centre - step) < J(centre)) {
            centre -= step;
        } else if (J(centre + step) < J(centre)) {
            centre += step;
        } else {
            break;
        }
    }
    if (std::abs(centre) >= static_cast<double>(reach) * step) {
        return {std::nullopt, "is beyond the searched range"};
    }

    const double h = step / 2;
    double lag = centre;
    for (const double candidate : {parabolaBottom(centre - h, h, J(centre - step), J(centre - h), J(centre)),
                                   parabolaBottom(centre + h, h, J(centre), J(centre + h), J(centre + step))}) {
        if (J(candidate) < J(lag)) {
            lag = candidate;
        }
    }
    const double polish = step / 20;
    const double last = parabolaBottom(lag, polish, J(lag - polish), J(lag), J(lag + polish));
    if (J(last) < J(lag)) {
        lag = last;
    }
    return {lag, {}};
}

}  // namespace oltb::analysis
