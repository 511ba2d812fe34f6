// Integration: fourth-order Runge-Kutta in substeps of at most a fifth of the fastest time constant, the command
// linear between samples. Fitting: Nelder-Mead over the logarithms of the parameters, first the loop alone, then
// with the driver filter, then with the acceleration limit; each part is kept only where it makes the fit better.
#include "analysis/ServoFit.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace oltb::analysis {

namespace {

constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr std::size_t MaxFitSamples = 2400;  // per axis: more say nothing new about a few parameters
constexpr std::size_t MaxWindowSamples = 250;
constexpr unsigned MaxSubsteps = 16;
constexpr double HoldHorizonUs = 50000;  // a mirror that needs longer to settle is not a working head
constexpr int Iterations = 100;
constexpr double KeepIfBetter = 0.9;  // a part of the model stays only when it lowers the squared misfit by 10 %

double rateOf(const AxisModel& m) {
    return std::max(m.omegaPerUs * std::max(1.0, m.damping + std::sqrt(std::max(0.0, m.damping * m.damping - 1))),
                    m.filterUs > 0 ? 1 / m.filterUs : 0.0);
}

struct Derivative {
    double dx, dv, df;
};

Derivative slope(const AxisModel& m, const AxisState& s, double u) {
    const double f = m.filterUs > 0 ? s.f : u;
    const double w = m.omegaPerUs;
    const double a = std::clamp(w * w * (f - s.x) - 2 * m.damping * w * s.v, -m.maxAcceleration, m.maxAcceleration);
    return {s.v, a, m.filterUs > 0 ? (u - s.f) / m.filterUs : 0.0};
}

AxisState plus(const AxisState& s, const Derivative& d, double h) {
    return {s.x + h * d.dx, s.v + h * d.dv, s.f + h * d.df};
}

using Objective = std::function<double(const std::vector<double>&)>;

std::vector<double> nelderMead(const Objective& J, std::vector<double> start, const std::vector<double>& steps,
                               double& best) {
    const std::size_t n = start.size();
    std::vector<std::vector<double>> points(n + 1, start);
    std::vector<double> values(n + 1);
    for (std::size_t i = 0; i < n; ++i) {
        points[i + 1][i] += steps[i];
    }
    for (std::size_t i = 0; i <= n; ++i) values[i] = J(points[i]);
    for (int iteration = 0; iteration < Iterations; ++iteration) {
        std::vector<std::size_t> order(n + 1);
        for (std::size_t i = 0; i <= n; ++i) order[i] = i;
        std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return values[a] < values[b]; });
        const std::size_t worst = order[n];
        if (values[order[0]] < Infinity && values[worst] - values[order[0]] <= 1e-5 * (values[order[0]] + 1e-9)) {
            break;
        }
        std::vector<double> centre(n, 0.0);
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t d = 0; d < n; ++d) centre[d] += points[order[i]][d] / static_cast<double>(n);
        }
        const auto along = [&](double f) {
            std::vector<double> p(n);
            for (std::size_t d = 0; d < n; ++d) p[d] = centre[d] + f * (points[worst][d] - centre[d]);
            return p;
        };
        const std::vector<double> reflected = along(-1);
        const double r = J(reflected);
        if (r < values[order[0]]) {
            const std::vector<double> expanded = along(-2);
            const double e = J(expanded);
            points[worst] = e < r ? expanded : reflected;
            values[worst] = std::min(e, r);
        } else if (r < values[order[n - 1]]) {
            points[worst] = reflected;
            values[worst] = r;
        } else {
            const std::vector<double> contracted = along(r < values[worst] ? -0.5 : 0.5);
            const double c = J(contracted);
            if (c < std::min(r, values[worst])) {
                points[worst] = contracted;
                values[worst] = c;
            } else {
                for (std::size_t i = 1; i <= n; ++i) {
                    for (std::size_t d = 0; d < n; ++d) {
                        points[order[i]][d] = points[order[0]][d] + 0.5 * (points[order[i]][d] - points[order[0]][d]);
                    }
                    values[order[i]] = J(points[order[i]]);
                }
            }
        }
    }
    const std::size_t index = static_cast<std::size_t>(std::min_element(values.begin(), values.end()) - values.begin());
    best = values[index];
    return points[index];
}

double axisOf(const Path& path, int axis, std::size_t i) { return axis == 0 ? path.x[i] : path.y[i]; }

// The fitting data of one window: mirror samples first..last, the command at their times, the start velocity.
struct Window {
    std::size_t first = 0, last = 0;
    std::vector<double> command;
    double startVelocity = 0;
    double startTime = 0;
};

}  // namespace

namespace {

// Advances by `durationUs` in `substeps` steps of fourth-order Runge-Kutta.
void integrate(const AxisModel& model, AxisState& state, double durationUs, unsigned substeps, double u0, double u1) {
    const double h = durationUs / substeps;
    const double du = (u1 - u0) / substeps;
    for (unsigned k = 0; k < substeps; ++k) {
        const double a = u0 + du * k;
        const Derivative k1 = slope(model, state, a);
        const Derivative k2 = slope(model, plus(state, k1, h / 2), a + du / 2);
        const Derivative k3 = slope(model, plus(state, k2, h / 2), a + du / 2);
        const Derivative k4 = slope(model, plus(state, k3, h), a + du);
        state.x += h / 6 * (k1.dx + 2 * k2.dx + 2 * k3.dx + k4.dx);
        state.v += h / 6 * (k1.dv + 2 * k2.dv + 2 * k3.dv + k4.dv);
        state.f += h / 6 * (k1.df + 2 * k2.df + 2 * k3.df + k4.df);
    }
}

unsigned substepsFor(double durationUs, double rate) {
    return static_cast<unsigned>(std::clamp(std::ceil(durationUs * rate / 0.2), 1.0, double(MaxSubsteps)));
}

}  // namespace

void advance(const AxisModel& model, AxisState& state, double durationUs, double u0, double u1) {
    if (durationUs > 0) {
        integrate(model, state, durationUs, substepsFor(durationUs, rateOf(model)), u0, u1);
    }
}

double filterOutputAt(const AxisModel& model, const Path& commanded, int axis, double time) {
    const std::size_t n = commanded.size();
    if (n == 0) {
        return 0.0;
    }
    // The last sample at or before `time` (the first one when there is none).
    const auto after = std::upper_bound(commanded.t.begin(), commanded.t.end(), time);
    const std::size_t index =
        after == commanded.t.begin() ? 0 : static_cast<std::size_t>(after - commanded.t.begin()) - 1;
    const auto commandAt = [&](std::size_t k, double t) {
        if (k + 1 >= n || !(commanded.t[k + 1] > commanded.t[k])) return axisOf(commanded, axis, k);
        const double f = std::clamp((t - commanded.t[k]) / (commanded.t[k + 1] - commanded.t[k]), 0.0, 1.0);
        return axisOf(commanded, axis, k) + f * (axisOf(commanded, axis, k + 1) - axisOf(commanded, axis, k));
    };
    if (!(model.filterUs > 0)) {
        return commandAt(index, time);
    }
    // The filter forgets what lies more than a few time constants back: start there with the command's value.
    std::size_t k = index;
    while (k > 0 && commanded.t[k - 1] >= time - 8 * model.filterUs) --k;
    double f = axisOf(commanded, axis, k);
    for (; k + 1 < n && commanded.t[k] < time; ++k) {
        const double t0 = commanded.t[k];
        const double t1 = std::min(commanded.t[k + 1], time);
        const double span = commanded.t[k + 1] - t0;
        if (!(span > 0)) continue;
        const double s = (axisOf(commanded, axis, k + 1) - axisOf(commanded, axis, k)) / span;  // command slope
        const double u0 = axisOf(commanded, axis, k);
        const double u1 = u0 + s * (t1 - t0);
        // Exact for a command linear in time: f follows u - s tau with the filter's exponential.
        const double decay = std::exp(-(t1 - t0) / model.filterUs);
        f = u1 - s * model.filterUs + (f - u0 + s * model.filterUs) * decay;
    }
    return f;
}

AxisFit fitAxis(const Path& commanded, const PathMotion& mirror, int axis, const Windows& windows,
                std::optional<double> trackingErrorUs) {
    AxisFit fit;
    const Path& actual = mirror.path();
    if (commanded.size() < 2 || actual.size() < 3) {
        fit.failure = "too few samples";
        return fit;
    }
    ForwardReader command(commanded.t, axis == 0 ? commanded.x : commanded.y, 4 * typicalSpacing(commanded.t));
    std::vector<Window> data;
    std::size_t total = 0;
    double following = 0;
    std::vector<double> accelerations;  // |a| of the mirror at its samples
    for (const auto& [from, to] : windows) {
        Window window;
        window.first = mirror.firstAtOrAfter(from);
        std::size_t last = window.first;
        double low = Infinity, high = -Infinity;
        for (std::size_t i = window.first;
             i < actual.size() && actual.t[i] <= to && i < window.first + MaxWindowSamples; ++i) {
            if (i > window.first && actual.t[i] - actual.t[i - 1] > mirror.maxGap()) break;
            double u = 0;
            if (!command.at(actual.t[i], u)) break;
            window.command.push_back(u);
            low = std::min(low, u);
            high = std::max(high, u);
            last = i;
        }
        if (window.command.size() < 5 || high - low < 10) {
            continue;  // the axis stands still here: nothing to learn
        }
        window.last = last;
        const Vec2 v0 = mirror.velocityOf(window.first);
        window.startVelocity = axis == 0 ? v0.x : v0.y;
        for (std::size_t i = window.first; i <= last; ++i) {
            const double d = axisOf(actual, axis, i) - window.command[i - window.first];
            following += d * d;
            // Over four sample steps: the velocities' noise shrinks against the change it shows.
            if (i >= window.first + 4) {
                const Vec2 a = mirror.velocityOf(i) - mirror.velocityOf(i - 4);
                const double dt = actual.t[i] - actual.t[i - 4];
                accelerations.push_back(std::abs(axis == 0 ? a.x : a.y) / dt);
            }
        }
        total += window.command.size();
        data.push_back(std::move(window));
        if (total >= MaxFitSamples) break;
    }
    if (data.empty()) {
        fit.failure = "the axis does not move in the stretches worth fitting";
        return fit;
    }
    fit.followingRms = std::sqrt(following / static_cast<double>(total));

    const auto misfit = [&](const AxisModel& model) {
        double sum = 0;
        const double rate = rateOf(model);
        for (const Window& window : data) {
            AxisState state{axisOf(actual, axis, window.first), window.startVelocity,
                            filterOutputAt(model, commanded, axis, actual.t[window.first])};
            double lastSpan = -1;
            unsigned substeps = 1;
            for (std::size_t i = window.first + 1; i <= window.last; ++i) {
                const std::size_t k = i - window.first;
                const double span = actual.t[i] - actual.t[i - 1];
                if (span != lastSpan) {
                    substeps = substepsFor(span, rate);
                    lastSpan = span;
                }
                integrate(model, state, span, substeps, window.command[k - 1], window.command[k]);
                const double d = state.x - axisOf(actual, axis, i);
                sum += d * d;
            }
        }
        const double value = sum / static_cast<double>(total);
        return std::isfinite(value) ? value : Infinity;
    };
    // Parameters: log w, log z, log(1 + filter), log(limit); the last two only in the later stages.
    const auto modelOf = [](const std::vector<double>& p, bool filter, bool limit) {
        AxisModel model;
        model.omegaPerUs = std::exp(std::clamp(p[0], -12.0, -1.2));  // up to 50 kHz
        model.damping = std::exp(std::clamp(p[1], -3.0, 1.4));
        model.filterUs = filter ? std::exp(std::clamp(p[2], 0.0, 9.0)) - 1 : 0.0;
        model.filterUs = model.filterUs < 1 ? 0.0 : model.filterUs;  // shorter than the integration step: none
        model.maxAcceleration = limit ? std::exp(std::clamp(p[3], -12.0, 6.0)) : Infinity;
        return model;
    };
    const double lag = std::max(trackingErrorUs.value_or(200.0), 1.0);
    // A limited head holds its largest acceleration for a while: the samples near the top show it, their median
    // to a fraction of a percent (the position after a long stretch at the limit depends on it to the square).
    const double largest = accelerations.empty() ? 0.0 : *std::max_element(accelerations.begin(), accelerations.end());
    std::vector<double> top;
    for (const double a : accelerations) {
        if (a >= 0.85 * largest) top.push_back(a);
    }
    const bool canLimit = largest > 0;
    const double observedLimit = canLimit ? std::log(top.size() >= 10 ? median(top) : 1.05 * largest) : 0.0;
    // The start: the damping that fits best with the natural frequency the tracking error gives, the acceleration
    // limited to the largest one the mirror shows (which binds nowhere on a head without a limit).
    double startDamping = 0.7;
    double startValue = Infinity;
    for (const double z : {0.3, 0.45, 0.6, 0.8, 1.0, 1.3}) {
        const double value = misfit(modelOf({std::log(2 * z / lag), std::log(z), 0, observedLimit}, false, canLimit));
        if (value < startValue) {
            startValue = value;
            startDamping = z;
        }
    }
    const std::vector<double> start{std::log(2 * startDamping / lag), std::log(startDamping), 0.0, observedLimit};
    // The loop with the acceleration limit seen in the trace: the limit is all but measured (a fit that moves it
    // off the plateau finds a flat misfit where it no longer binds), so it moves in small steps only.
    const auto fitLoop = [&](double limitLog, bool limited, std::vector<double> from, double& value) {
        const std::vector<double> p = nelderMead(
            [&](const std::vector<double>& q) {
                return misfit(modelOf({q[0], q[1], 0, limitLog}, false, limited));
            },
            {from[0], from[1]}, {0.2, 0.2}, value);
        return std::vector<double>{p[0], p[1], 0.0, limitLog};
    };
    double best = Infinity;
    std::vector<double> bestParameters = start;
    bool limit = false;
    if (canLimit) {
        bestParameters = fitLoop(observedLimit, true, start, best);
        const std::vector<double> p = nelderMead(
            [&](const std::vector<double>& q) {
                return misfit(modelOf({q[0], q[1], 0, q[2]}, false, true));
            },
            {bestParameters[0], bestParameters[1], observedLimit}, {0.05, 0.05, 0.01}, best);
        bestParameters = {p[0], p[1], 0.0, p[2]};
        limit = true;
    }
    {
        // Without the limit: kept unless the limit made the fit clearly better (the trace shows the limit).
        double value = 0;
        const std::vector<double> p = fitLoop(0, false, start, value);
        if (!limit || !(best < KeepIfBetter * value)) {
            best = value;
            bestParameters = p;
            limit = false;
        }
    }
    bool filter = false;
    {
        double value = 0;
        std::vector<double> p = nelderMead(
            [&](const std::vector<double>& q) {
                return misfit(modelOf({q[0], q[1], q[2], q[3]}, true, limit));
            },
            {bestParameters[0] + 0.2, bestParameters[1], std::log(1 + 0.2 * lag), bestParameters[3]},
            {0.2, 0.2, 0.3, 0.01}, value);
        if (value < KeepIfBetter * best) {
            best = value;
            bestParameters = p;
            filter = true;
        }
    }
    fit.model = modelOf(bestParameters, filter, limit);
    fit.accelerationLimited = limit;
    fit.fitRms = std::sqrt(best);
    fit.holds = fit.fitRms <= std::max(3.0, 0.01 * fit.followingRms);
    return fit;
}

double HeadModel::stepUs() const {
    // One Runge-Kutta step a step: at most a fifth of the fastest time constant.
    return std::min(1.0, 0.2 / std::max(rateOf(_x), rateOf(_y)));
}

std::optional<double> HeadModel::holdUntil(AxisState x, AxisState y, Vec2 target, double horizonUs,
                                           const std::function<bool(Vec2, Vec2)>& reached) const {
    const double step = stepUs();
    for (double t = 0; t <= std::min(horizonUs, HoldHorizonUs) && _stepsLeft > 0; t += step, --_stepsLeft) {
        if (reached({x.x, y.x}, {x.v, y.v})) {
            return t;
        }
        integrate(_x, x, step, 1, target.x, target.x);
        integrate(_y, y, step, 1, target.y, target.y);
    }
    return std::nullopt;
}

FreeMotion HeadModel::holdAt(AxisState x, AxisState y, Vec2 target, double band) const {
    FreeMotion motion;
    // Inside the band for this long, the mirror has come to rest: its oscillation has decayed twelvefold e.
    const double slowest = std::min(_x.damping * _x.omegaPerUs, _y.damping * _y.omegaPerUs);
    const double quiet = 12 / std::max(slowest, 1e-6) + 8 * std::max(_x.filterUs, _y.filterUs);
    const double step = stepUs();
    double previous = std::hypot(x.x - target.x, y.x - target.y);
    motion.largestDistance = previous;
    double lastCrossing = 0;  // into the band, for good so far
    if (previous <= band) motion.firstEntryUs = 0.0;
    bool rested = false;
    for (double t = step; t <= HoldHorizonUs && _stepsLeft > 0; t += step, --_stepsLeft) {
        integrate(_x, x, step, 1, target.x, target.x);
        integrate(_y, y, step, 1, target.y, target.y);
        const double distance = std::hypot(x.x - target.x, y.x - target.y);
        motion.largestDistance = std::max(motion.largestDistance, distance);
        if (distance <= band && previous > band) {
            lastCrossing = t - step + step * (previous - band) / (previous - distance);
            if (!motion.firstEntryUs) motion.firstEntryUs = lastCrossing;
        }
        previous = distance;
        if (distance <= band && t - lastCrossing >= quiet) {
            rested = true;
            break;
        }
    }
    if (rested) {
        motion.settledAtUs = lastCrossing;  // outside at the end of the horizon, or out of steps: not known
    }
    return motion;
}

}  // namespace oltb::analysis
