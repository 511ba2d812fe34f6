#include "analysis/SyntheticTrace.h"

#include "analysis/TraceAnalysis.h"

#include <algorithm>
#include <cmath>

namespace oltb::analysis {

namespace {

constexpr double Pi = 3.14159265358979323846;

// The commanded path: straight pieces between corner times, each lasting whole samples.
struct Corner {
    double t, x, y;
};

struct Plan {
    std::vector<Corner> corners;
    std::vector<std::pair<double, double>> gate;  // commanded start and end of each mark
    std::vector<std::pair<double, int>> labels;   // 1 where a repeat of the job begins, 2 where it ends
    double end = 0;
};

Plan plan(const SyntheticSettings& settings, const std::vector<Move>& job) {
    Plan result;
    double t = settings.leadUs;
    double x = 0;
    double y = 0;
    result.corners.push_back({0, 0, 0});
    for (unsigned r = 0; r < settings.repeats; ++r) {
        result.labels.emplace_back(t, 1);
        for (std::size_t i = 0; i < job.size(); ++i) {
            const Move& move = job[i];
            const double length = std::hypot(move.x - x, move.y - y);
            const double steps = std::max(1.0, std::ceil(length / (move.speedUnitsPerMs / 1000) / settings.sampleUs));
            result.corners.push_back({t, x, y});
            if (move.mark && (i == 0 || !job[i - 1].mark)) {
                result.gate.emplace_back(t, 0.0);
            }
            t += steps * settings.sampleUs;
            x = move.x;
            y = move.y;
            result.corners.push_back({t, x, y});
            if (move.mark && (i + 1 == job.size() || !job[i + 1].mark)) {
                result.gate.back().second = t;
            }
            t += std::round(move.dwellUs / settings.sampleUs) * settings.sampleUs;
        }
        result.labels.emplace_back(t - settings.sampleUs / 2, 2);
    }
    result.end = t + settings.delayUs + 1000;
    return result;
}

// The commanded position at any time, read with a cursor for increasing times.
struct PathReader {
    const std::vector<Corner>& corners;
    std::size_t j = 0;
    void at(double t, double& x, double& y) {
        while (j + 1 < corners.size() && corners[j + 1].t <= t) ++j;
        const Corner& a = corners[j];
        if (j + 1 == corners.size() || t <= a.t) {
            x = a.x;
            y = a.y;
            return;
        }
        const Corner& b = corners[j + 1];
        const double f = (t - a.t) / (b.t - a.t);
        x = a.x + f * (b.x - a.x);
        y = a.y + f * (b.y - a.y);
    }
};

void add(std::vector<oltbTraceEvent>& events, double time, oltbTraceEventType type, double value) {
    const double ticks = std::round(time * 64);
    events.push_back(
        {static_cast<std::uint64_t>(ticks), ticks / 64, type, false, static_cast<std::int32_t>(std::lround(value))});
}

}  // namespace

std::vector<Move> exampleJob() {
    return {
        {-30000, -25000, 25000, 300, false}, {30000, -25000, 5000, 100, true},  {-10000, -10000, 25000, 300, false},
        {10000, -10000, 5000, 0, true},      {10000, 10000, 5000, 0, true},     {-10000, 10000, 5000, 0, true},
        {-10000, -10000, 5000, 100, true},   {20000, 20000, 25000, 120, false}, {30000, 35000, 2000, 100, true},
        {0, 0, 25000, 300, false},
    };
}

std::vector<oltbTraceEvent> syntheticTrace(const SyntheticSettings& settings, const std::vector<Move>& job) {
    const Plan path = plan(settings, job);
    const HeadChannels head = channelsOf(settings.head);
    std::vector<oltbTraceEvent> events;
    const auto samples = static_cast<std::size_t>(path.end / settings.sampleUs);
    events.reserve(samples * 4 + path.gate.size() * 2 + 1);

    std::vector<std::pair<double, int>> edges;  // gate edges in mirror time, and labels
    for (const auto& [start, end] : settings.gate ? path.gate : decltype(path.gate){}) {
        edges.emplace_back(start + settings.delayUs + settings.laserOnOffsetUs, 1);
        edges.emplace_back(end + settings.delayUs + settings.laserOffOffsetUs, 0);
    }
    if (settings.labels) {
        for (const auto& [time, number] : path.labels) edges.emplace_back(time, number == 1 ? 3 : 4);
    }
    std::sort(edges.begin(), edges.end());
    std::size_t nextEdge = 0;
    if (settings.gate) {
        add(events, 0, oltbEventGate, 0);
    }

    PathReader commanded{path.corners};
    PathReader delayed{path.corners};
    // The mirror: the delayed command through the lag, integrated in small steps (classic Runge-Kutta).
    const double omega = 2 * Pi * settings.naturalHz * 1e-6;  // per us
    const auto derivative = [&](double input, const double state[2], double out[2]) {
        if (settings.naturalHz > 0) {
            out[0] = state[1];
            out[1] = omega * omega * (input - state[0]) - 2 * settings.damping * omega * state[1];
        } else if (settings.firstOrderUs > 0) {
            out[0] = (input - state[0]) / settings.firstOrderUs;
            out[1] = 0;
        } else {
            out[0] = out[1] = 0;
        }
    };
    double mirror[2][2] = {{0, 0}, {0, 0}};  // per axis: position, speed
    const bool filtered = settings.naturalHz > 0 || settings.firstOrderUs > 0;
    const int substeps = 20;
    const double h = settings.sampleUs / substeps;
    for (std::size_t s = 0; s < samples; ++s) {
        const double t = static_cast<double>(s) * settings.sampleUs;
        while (nextEdge < edges.size() && edges[nextEdge].first <= t) {
            const int what = edges[nextEdge].second;  // 0, 1: the gate off, on; 3, 4: label 1, 2
            add(events, edges[nextEdge].first, what < 2 ? oltbEventGate : oltbEventLabel, what < 2 ? what : what - 2);
            ++nextEdge;
        }
        double cx = 0, cy = 0;
        commanded.at(t, cx, cy);
        double ax = 0, ay = 0;
        if (filtered && s > 0) {
            for (int k = 0; k < substeps; ++k) {
                const double t0 = t - settings.sampleUs + k * h - settings.delayUs;
                double in0[2], inHalf[2], in1[2];
                delayed.at(t0, in0[0], in0[1]);
                delayed.at(t0 + h / 2, inHalf[0], inHalf[1]);
                delayed.at(t0 + h, in1[0], in1[1]);
                for (int axis = 0; axis < 2; ++axis) {
                    double* y = mirror[axis];
                    double k1[2], k2[2], k3[2], k4[2], tmp[2];
                    derivative(in0[axis], y, k1);
                    for (int i = 0; i < 2; ++i) tmp[i] = y[i] + h / 2 * k1[i];
                    derivative(inHalf[axis], tmp, k2);
                    for (int i = 0; i < 2; ++i) tmp[i] = y[i] + h / 2 * k2[i];
                    derivative(inHalf[axis], tmp, k3);
                    for (int i = 0; i < 2; ++i) tmp[i] = y[i] + h * k3[i];
                    derivative(in1[axis], tmp, k4);
                    for (int i = 0; i < 2; ++i) y[i] += h / 6 * (k1[i] + 2 * k2[i] + 2 * k3[i] + k4[i]);
                }
            }
            ax = mirror[0][0];
            ay = mirror[1][0];
        } else if (!filtered) {
            delayed.at(t - settings.delayUs, ax, ay);
        }
        if (settings.commanded) {
            add(events, t, head.commandedX, cx);
            add(events, t, head.commandedY, cy);
        }
        if (settings.actual) {
            add(events, t, head.actualX, ax);
            add(events, t, head.actualY, ay);
        }
    }
    return events;
}

}  // namespace oltb::analysis
