// The commanded path is linear between its samples, so its speed is constant on each sample step and changes
// only at samples: a motion starts and ends on a sample. The card moves in whole servo periods, which is the
// sample period, so these are exact.
#include "analysis/Motions.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace oltb::analysis {

namespace {

// A step shorter than this (the positions are whole units) is standing still.
constexpr double StillStep = 0.5;
// Path deviation: commanded steps looked at on either side of the corresponding time.
constexpr std::size_t NearbySteps = 6;

double stepLength(const Path& path, std::size_t j) {
    return std::hypot(path.x[j + 1] - path.x[j], path.y[j + 1] - path.y[j]);
}

// Units per us on step j.
double stepSpeed(const Path& path, std::size_t j) {
    const double duration = path.t[j + 1] - path.t[j];
    return duration > 0 ? stepLength(path, j) / duration : 0.0;
}

// The step j with t[j] <= time < t[j + 1], clamped to the path's steps.
std::size_t stepAt(const Path& path, double time) {
    const auto after = std::upper_bound(path.t.begin(), path.t.end(), time);
    const auto index = static_cast<std::size_t>(std::max<std::ptrdiff_t>(0, after - path.t.begin() - 1));
    return std::min(index, path.size() - 2);
}

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

// Settle time of one jump ending at sample `end` of the commanded path (see measureJumps).
void settle(Jump& jump, const Path& commanded, std::size_t end, const Path& actual, std::optional<double> nextStart,
            double lag, double band) {
    const double targetX = commanded.x[end];
    const double targetY = commanded.y[end];
    const double endTime = commanded.t[end];
    // Until the next commanded motion begins, the target is all the mirror follows. Past it the mirror keeps
    // following the target for about the tracking error, then leaves for the next motion.
    const double decisive = nextStart.value_or(std::numeric_limits<double>::infinity());
    const double horizon = nextStart ? *nextStart + lag : actual.t.back();
    const auto first = static_cast<std::size_t>(std::lower_bound(actual.t.begin(), actual.t.end(), endTime) -
                                                actual.t.begin());
    std::vector<double> distance;
    for (std::size_t i = first; i < actual.size() && actual.t[i] <= horizon; ++i) {
        distance.push_back(std::hypot(actual.x[i] - targetX, actual.y[i] - targetY));
    }
    if (distance.empty()) {
        return;
    }
    std::size_t usable = distance.size();
    std::size_t lastBeforeNext = 0;  // samples up to the next commanded start
    while (lastBeforeNext < distance.size() && actual.t[first + lastBeforeNext] <= decisive) {
        ++lastBeforeNext;
    }
    if (lastBeforeNext > 0 && distance[lastBeforeNext - 1] <= band) {
        usable = lastBeforeNext;
    } else if (!nextStart) {
        jump.cutShort = true;  // still outside when the trace ends
        return;
    } else if (distance.back() > band) {
        // Leaving for the next motion: the distance grows steadily from its last low point on.
        while (usable > 1 && distance[usable - 2] <= distance[usable - 1]) {
            --usable;
        }
        if (distance[usable - 1] > band) {
            return;  // never within the band before the next motion took the mirror away
        }
    }
    std::size_t lastOut = usable;
    for (std::size_t i = usable; i-- > 0;) {
        if (distance[i] > band) {
            lastOut = i;
            break;
        }
    }
    double settledAt = endTime;
    if (lastOut != usable) {
        if (lastOut + 1 >= usable) {
            return;
        }
        const double t0 = actual.t[first + lastOut];
        const double t1 = actual.t[first + lastOut + 1];
        const double d0 = distance[lastOut];
        const double d1 = distance[lastOut + 1];
        settledAt = t0 + (d0 - band) / (d0 - d1) * (t1 - t0);
    }
    if (!nextStart && actual.t.back() - settledAt < 2 * lag) {
        // The last jump of the trace: a mirror that rings may only be passing through the band when the trace ends.
        // Only a quiet tail of two tracking errors shows that it has come to rest.
        jump.cutShort = true;
        return;
    }
    jump.settleUs = settledAt - endTime;
    jump.settled = settledAt <= decisive;
}

}  // namespace

std::vector<Motion> commandedMotions(const Path& commanded) {
    std::vector<Motion> motions;
    for (std::size_t j = 0; j + 1 < commanded.size(); ++j) {
        const double length = stepLength(commanded, j);
        if (length < StillStep) {
            continue;
        }
        if (!motions.empty() && motions.back().last + 1 == j) {
            motions.back().last = j;
            motions.back().length += length;
        } else {
            motions.push_back({j, j, 0, 0, length});
        }
    }
    for (Motion& motion : motions) {
        motion.startUs = commanded.t[motion.first];
        motion.endUs = commanded.t[motion.last + 1];
    }
    return motions;
}

std::vector<Mark> measureMarks(const Path& commanded, const std::vector<Interval>& gate, std::optional<double> lagUs) {
    std::vector<Mark> marks;
    const double lag = lagUs.value_or(0.0);
    std::size_t floor = 0;  // the motion of a mark never reaches back into the previous one
    const double still = StillStep / std::max(typicalSpacing(commanded.t), 1e-9);
    for (std::size_t k = 0; k < gate.size(); ++k) {
        Mark mark;
        mark.startUs = gate[k].on;
        mark.endUs = gate[k].off;
        if (commanded.size() < 2) {
            marks.push_back(mark);
            continue;
        }
        // The gate in commanded time.
        const double on = gate[k].on - lag;
        const double off = gate[k].off - lag;
        const std::size_t onStep = std::max(stepAt(commanded, on), floor);
        const std::size_t offStep = std::max(stepAt(commanded, off), onStep);
        const std::size_t ceiling = k + 1 < gate.size() ? std::max(stepAt(commanded, gate[k + 1].on - lag), offStep)
                                                         : commanded.size() - 2;
        std::vector<double> speeds;
        for (std::size_t j = onStep; j <= offStep; ++j) {
            const double middle = (commanded.t[j] + commanded.t[j + 1]) / 2;
            if (middle >= on && middle <= off) {
                speeds.push_back(stepSpeed(commanded, j));
            }
        }
        const double typical = median(speeds);
        if (speeds.empty() || !(typical > still)) {
            mark.length = 0.0;
            mark.speed = 0.0;
            marks.push_back(mark);
            continue;
        }
        const auto inBand = [&](std::size_t j) {
            const double speed = stepSpeed(commanded, j);
            return speed >= typical / 2 && speed <= typical * 2;
        };
        std::size_t first = onStep;
        if (inBand(first)) {
            while (first > floor && inBand(first - 1)) {
                --first;
            }
        } else {
            while (first < offStep && !inBand(first)) {
                ++first;
            }
        }
        std::size_t last = std::max(offStep, first);
        if (inBand(last)) {
            while (last < ceiling && inBand(last + 1)) {
                ++last;
            }
        } else {
            while (last > first && !inBand(last)) {
                --last;
            }
        }
        double length = 0;
        for (std::size_t j = first; j <= last; ++j) {
            length += stepLength(commanded, j);
        }
        mark.length = length;
        mark.speed = typical * 1000.0;
        if (lagUs && inBand(first)) {
            if (!gate[k].openStart) {
                mark.laserOnOffsetUs = gate[k].on - (commanded.t[first] + lag);
            }
            if (!gate[k].openEnd) {
                mark.laserOffOffsetUs = gate[k].off - (commanded.t[last + 1] + lag);
            }
        }
        floor = last + 1;
        marks.push_back(mark);
    }
    return marks;
}

std::vector<Jump> measureJumps(const Path& commanded, const std::vector<Motion>& motions,
                               const std::vector<Interval>& gate, const Path* actual, std::optional<double> lagUs,
                               double band) {
    std::vector<Jump> jumps;
    const double lag = lagUs.value_or(0.0);
    std::size_t k = 0;
    for (std::size_t m = 0; m < motions.size(); ++m) {
        const Motion& motion = motions[m];
        const double from = motion.startUs + lag;
        const double to = motion.endUs + lag;
        while (k < gate.size() && gate[k].off <= from) {
            ++k;
        }
        double underGate = 0;
        for (std::size_t g = k; g < gate.size() && gate[g].on < to; ++g) {
            underGate += std::min(to, gate[g].off) - std::max(from, gate[g].on);
        }
        if (2 * underGate >= to - from) {
            continue;
        }
        Jump jump;
        jump.startUs = motion.startUs;
        jump.endUs = motion.endUs;
        jump.length = motion.length;
        if (actual != nullptr && !actual->empty() && lagUs) {
            const std::optional<double> nextStart =
                m + 1 < motions.size() ? std::optional<double>(motions[m + 1].startUs) : std::nullopt;
            settle(jump, commanded, motion.last + 1, *actual, nextStart, lag, band);
        }
        jumps.push_back(jump);
    }
    return jumps;
}

std::vector<JumpDelay> jumpDelayTable(const std::vector<Jump>& jumps) {
    std::vector<JumpDelay> table;
    std::vector<const Jump*> sorted;
    for (const Jump& jump : jumps) {
        if (!jump.cutShort) {
            sorted.push_back(&jump);
        }
    }
    std::sort(sorted.begin(), sorted.end(), [](const Jump* a, const Jump* b) { return a->length < b->length; });
    std::vector<bool> unknown;  // a jump of the range did not settle within the trace
    for (const Jump* jump : sorted) {
        // The next of 1, 2, 5, 10, 20, 50, ... at or above the length.
        double edge = 1;
        for (int step = 0; edge < jump->length && step < 60; ++step) {
            edge *= (step % 3 == 1) ? 2.5 : 2.0;
        }
        if (table.empty() || table.back().upToLength != edge) {
            table.push_back({edge, 0.0});
            unknown.push_back(false);
        }
        if (jump->settleUs) {
            table.back().delayUs = std::max(*table.back().delayUs, *jump->settleUs);
        } else {
            unknown.back() = true;
        }
    }
    // A card's delay for jumps up to a length covers every shorter jump too, so a row is at least the row before.
    for (std::size_t row = 1; row < table.size(); ++row) {
        table[row].delayUs = std::max(*table[row].delayUs, *table[row - 1].delayUs);
    }
    for (std::size_t row = 0; row < table.size(); ++row) {
        if (unknown[row]) {
            table[row].delayUs.reset();
        }
    }
    return table;
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
