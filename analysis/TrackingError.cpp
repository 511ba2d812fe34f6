// A stretch of constant commanded speed is found where the commanded samples lie on one straight line in time
// (within the rounding to whole units). On it, lag(t) = (commanded(t) - actual(t)) / speed; while the mirror is
// still in its transient, lag(t) moves; once it stays within a small band around its final value, the mirror
// follows at its steady lag. A stretch whose lag still drifts at its end (too short, or a head whose speed is
// limited) does not count.
#include "analysis/TrackingError.h"

#include <algorithm>
#include <cmath>

namespace oltb::analysis {

namespace {

constexpr double LineToleranceUnits = 1.0;  // whole-unit rounding of the commanded positions
constexpr double SlowestUnitsPerUs = 0.05;  // slower stretches show the rounding more than the lag
constexpr std::size_t ShortestStretch = 6;  // samples
constexpr double ShortestSteadyUs = 30;

struct Stretch {
    std::size_t first = 0;  // commanded samples first..last
    std::size_t last = 0;
    double slope = 0;   // units/us
    double origin = 0;  // commanded value at t[first] on the fitted line
};

// Least-squares line through the commanded samples first..last.
Stretch fitLine(const Series& c, std::size_t first, std::size_t last) {
    double st = 0, sv = 0, stt = 0, stv = 0;
    const double t0 = c.t[first];
    const double count = static_cast<double>(last - first + 1);
    for (std::size_t k = first; k <= last; ++k) {
        const double t = c.t[k] - t0;
        st += t;
        sv += c.v[k];
        stt += t * t;
        stv += t * c.v[k];
    }
    const double denominator = count * stt - st * st;
    Stretch stretch{first, last, 0, 0};
    stretch.slope = denominator > 0 ? (count * stv - st * sv) / denominator : 0.0;
    stretch.origin = (sv - stretch.slope * st) / count;
    return stretch;
}

// Maximal stretches over which the commanded samples lie on one line: grown greedily, each new sample checked
// against the line through the stretch's first sample and the new one.
std::vector<Stretch> constantSpeedStretches(const Series& c, double maxGap) {
    std::vector<Stretch> stretches;
    std::size_t first = 0;
    const std::size_t n = c.size();
    while (first + 1 < n) {
        std::size_t last = first + 1;
        while (last + 1 < n && c.t[last + 1] - c.t[last] <= maxGap) {
            const double span = c.t[last + 1] - c.t[first];
            const double slope = (c.v[last + 1] - c.v[first]) / span;
            bool onLine = true;
            // Checking the middle and a few samples near the end keeps this linear in the samples.
            for (const std::size_t k : {(first + last + 1) / 2, last, last > first + 1 ? last - 1 : last}) {
                const double expected = c.v[first] + slope * (c.t[k] - c.t[first]);
                onLine = onLine && std::abs(c.v[k] - expected) <= LineToleranceUnits + 0.5;
            }
            const double step = c.v[last + 1] - c.v[last];
            if (!onLine || std::abs(step - slope * (c.t[last + 1] - c.t[last])) > LineToleranceUnits + 0.5) {
                break;
            }
            ++last;
        }
        if (last - first + 1 >= ShortestStretch) {
            Stretch stretch = fitLine(c, first, last);
            if (std::abs(stretch.slope) >= SlowestUnitsPerUs) {
                stretches.push_back(stretch);
            }
        }
        first = last;
    }
    return stretches;
}

}  // namespace

SteadyLag steadyLag(const Series& commanded, const Series& actual) {
    SteadyLag result;
    if (commanded.size() < ShortestStretch || actual.size() < 3) {
        result.failure = "has too few samples";
        return result;
    }
    const double maxGap = 4 * typicalSpacing(commanded.t);
    const std::vector<Stretch> stretches = constantSpeedStretches(commanded, maxGap);
    if (stretches.empty()) {
        result.failure = "never moves at constant speed";
        return result;
    }
    double weighted = 0;  // sum of speed * (commanded - actual)
    double weights = 0;   // sum of speed^2
    ForwardReader mirror(actual.t, actual.v, 4 * typicalSpacing(actual.t));
    for (const Stretch& stretch : stretches) {
        const double t0 = commanded.t[stretch.first];
        const double t1 = commanded.t[stretch.last];
        // The mirror's samples within the stretch, with the lag each one shows.
        std::vector<double> times, lags;
        const auto begin = std::upper_bound(actual.t.begin(), actual.t.end(), t0);
        for (auto it = begin; it != actual.t.end() && *it <= t1; ++it) {
            double value = 0;
            if (!mirror.at(*it, value)) {
                continue;
            }
            const double expected = stretch.origin + stretch.slope * (*it - t0);
            times.push_back(*it);
            lags.push_back((expected - value) / stretch.slope);
        }
        if (lags.size() < ShortestStretch) {
            continue;
        }
        const std::size_t tail = std::max<std::size_t>(3, lags.size() / 4);
        const double final = median(std::vector<double>(lags.end() - static_cast<std::ptrdiff_t>(tail), lags.end()));
        const double tolerance = std::max({0.5, 0.02 * std::abs(final), 2.0 / std::abs(stretch.slope)});
        std::size_t steady = lags.size();  // the first sample of the steady end
        while (steady > 0 && std::abs(lags[steady - 1] - final) <= tolerance) {
            --steady;
        }
        const std::size_t count = lags.size() - steady;
        if (count < 3 || times.back() - times[steady] < ShortestSteadyUs) {
            continue;
        }
        // Still drifting at the end: the halves of the steady part disagree.
        const std::size_t half = steady + count / 2;
        double early = 0, late = 0;
        for (std::size_t i = steady; i < half; ++i) early += lags[i];
        for (std::size_t i = half; i < lags.size(); ++i) late += lags[i];
        early /= static_cast<double>(half - steady);
        late /= static_cast<double>(lags.size() - half);
        if (std::abs(late - early) > tolerance / 2) {
            continue;
        }
        // A lag of the mirror behind the command is reached only where the command has moved on for at least
        // that long since the stretch began.
        if (times[steady] - final < t0) {
            continue;
        }
        for (std::size_t i = steady; i < lags.size(); ++i) {
            weighted += stretch.slope * stretch.slope * lags[i];
            weights += stretch.slope * stretch.slope;
        }
        ++result.stretches;
        result.steadyUs += times.back() - times[steady];
    }
    if (result.stretches == 0) {
        result.failure = "never moves at constant speed long enough for the mirror to follow at a steady lag";
        return result;
    }
    const double lag = weighted / weights;
    if (lag < -1.0) {
        result.failure = "runs ahead of the command";
        return result;
    }
    result.lagUs = std::max(0.0, lag);
    return result;
}

}  // namespace oltb::analysis
