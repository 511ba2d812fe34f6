// Where the laser's edges land on the part. The gate's edges are times; what the part gets is decided by where the
// mirror is and how fast it moves at those times, along the mark's own direction at its start and end. The dose a
// point of the mark takes grows as the mirror slows (dose ~ 1 / speed), so an edge where the mirror is slow leaves
// a burnt dot, and an edge where the mirror is already far into the mark leaves its start unmarked.
#include "analysis/Figures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace oltb::analysis {

namespace {

constexpr double LowestSpeedShare = 0.01;  // the dose of a mirror this slow or slower counts as 100 times: a dot
constexpr int Bisections = 24;

double doseOf(double speedShare) { return 1 / std::max(speedShare, LowestSpeedShare); }

struct Edges {
    Vec2 startPoint, startDirection, endPoint, endDirection;
    double commandStart = 0, commandEnd = 0;
    double nextMotion = 0;  // the command moves on (the next jump): the mirror's motion after it is not the mark's
    double speed = 0;       // units/us
};

// The first time in [from, to] at which `reached(t)` holds, found on the mirror's samples and refined between two
// of them by bisection; none when it never holds.
template <typename Condition>
std::optional<double> firstTime(const PathMotion& mirror, double from, double to, Condition reached) {
    Vec2 p, v;
    if (!mirror.at(from, p, v)) {
        return std::nullopt;
    }
    if (reached(p, v)) {
        return from;
    }
    double before = from;
    for (std::size_t i = mirror.firstAtOrAfter(from); i < mirror.size() && mirror.time(i) <= to; ++i) {
        const double t = mirror.time(i);
        if (t <= before) {
            continue;
        }
        if (!mirror.at(t, p, v)) {
            return std::nullopt;  // a gap: the mirror's motion there is not known
        }
        if (reached(p, v)) {
            double low = before, high = t;
            for (int k = 0; k < Bisections; ++k) {
                const double middle = (low + high) / 2;
                mirror.at(middle, p, v);
                (reached(p, v) ? high : low) = middle;
            }
            return high;
        }
        before = t;
    }
    return std::nullopt;
}

// The gate times that put this mark's edges at the dose limit (see adviseLaser).
void bestTimes(Mark& mark, const Edges& e, const HeadView& head) {
    const double enough = e.speed / head.maxEdgeDose;
    // The mirror follows the mark until the next motion's command reaches it, about a tracking error later.
    const double until = e.nextMotion + head.lagUs.value_or(0.0);
    // The fastest the mirror moves along the mark's start before the command moves on.
    double peak = -INFINITY;
    for (std::size_t i = head.mirror.firstAtOrAfter(e.commandStart);
         i < head.mirror.size() && head.mirror.time(i) <= until; ++i) {
        peak = std::max(peak, dot(head.mirror.velocityOf(i), e.startDirection));
    }
    if (std::isfinite(peak)) mark.peakSpeed = peak / e.speed;
    const std::optional<double> on =
        firstTime(head.mirror, e.commandStart, until, [&](Vec2, Vec2 v) { return dot(v, e.startDirection) >= enough; });
    if (!on) {
        return;
    }
    const auto ended = [&](Vec2 p, Vec2 v) {
        return dot(v, e.endDirection) < enough || dot(p - e.endPoint, e.endDirection) >= 0;
    };
    std::optional<double> off = firstTime(head.mirror, std::max(e.commandEnd, *on), until, ended);
    // Where the next motion began before that (a mark delay shorter than the laser-off delay), it pulled the mirror
    // away: what the mirror would have done had the command stayed at the end, the head's model tells.
    AxisState x, y;
    if ((!off || *off > e.nextMotion) && e.nextMotion > std::max(e.commandEnd, *on) &&
        stateAt(head, e.nextMotion, x, y)) {
        const std::optional<double> after =
            head.model->holdUntil(x, y, e.endPoint, 4 * head.lagUs.value_or(250) + 1000, ended);
        off = after ? std::optional<double>(e.nextMotion + *after) : std::nullopt;
        mark.bestOffPredicted = true;
    }
    if (!off) {
        return;
    }
    Vec2 p, v;
    mark.bestOnDelayUs = *on - e.commandStart;
    mark.bestOffDelayUs = *off - e.commandEnd;
    if (head.mirror.at(*on, p, v)) mark.startMissingAtBest = dot(p - e.startPoint, e.startDirection);
    if (*off <= e.nextMotion && head.mirror.at(*off, p, v)) {
        mark.endMissingAtBest = dot(e.endPoint - p, e.endDirection);
    }
}

Edges edgesOf(const JobLayout& layout, const Polyline& polyline) {
    const Piece& first = layout.pieces[*polyline.firstPiece];
    const Piece& last = layout.pieces[polyline.lastPiece];
    Edges e;
    e.startPoint = first.from;
    e.startDirection = first.startDirection;
    e.endPoint = last.to;
    e.endDirection = last.endDirection;
    e.commandStart = first.startUs;
    e.commandEnd = last.endUs;
    e.nextMotion = nextMotionAfter(layout, polyline.lastPiece).value_or(last.endUs + 10000);
    std::vector<double> speeds;
    for (std::size_t p = *polyline.firstPiece; p <= polyline.lastPiece; ++p) {
        speeds.push_back(layout.pieces[p].speed);
    }
    e.speed = median(std::move(speeds));
    return e;
}

// Missing units and dose at one edge, were the gate to switch at `time`.
bool edgeAt(const HeadView& head, const Edges& e, bool start, double time, double& missing, double& dose) {
    Vec2 p, v;
    if (!head.mirror.at(time, p, v)) {
        return false;
    }
    missing = start ? dot(p - e.startPoint, e.startDirection) : dot(e.endPoint - p, e.endDirection);
    dose = doseOf(dot(v, start ? e.startDirection : e.endDirection) / e.speed);
    return true;
}

}  // namespace

std::vector<Mark> measureMarks(const JobLayout& layout, const std::vector<Interval>& gate, const HeadView& head) {
    std::vector<Mark> marks;
    for (const Polyline& polyline : layout.polylines) {
        const Interval& interval = gate[polyline.gate];
        Mark mark;
        mark.startUs = interval.on;
        mark.endUs = interval.off;
        if (!head.mirror.empty()) {
            const std::size_t first = head.mirror.firstAtOrAfter(interval.on);
            const std::size_t last = head.mirror.firstAtOrAfter(std::nextafter(interval.off, INFINITY));
            mark.samplesUnderGate = last - first;
        }
        if (!polyline.firstPiece) {
            mark.notMeasured = "the command stood still under the gate";
            marks.push_back(mark);
            continue;
        }
        const Edges e = edgesOf(layout, polyline);
        double length = 0;
        for (std::size_t p = *polyline.firstPiece; p <= polyline.lastPiece; ++p) {
            length += layout.pieces[p].length;
        }
        mark.length = length;
        mark.speed = e.speed * 1000;
        mark.commandStartUs = e.commandStart;
        mark.commandEndUs = e.commandEnd;
        mark.startX = e.startPoint.x;
        mark.startY = e.startPoint.y;
        mark.endX = e.endPoint.x;
        mark.endY = e.endPoint.y;
        if (!interval.openStart) mark.laserOnDelayUs = interval.on - e.commandStart;
        if (!interval.openEnd) mark.laserOffDelayUs = interval.off - e.commandEnd;
        if (head.lagUs) {
            if (!interval.openStart) mark.laserOnOffsetUs = interval.on - (e.commandStart + *head.lagUs);
            if (!interval.openEnd) mark.laserOffOffsetUs = interval.off - (e.commandEnd + *head.lagUs);
        }
        if (head.mirror.empty()) {
            mark.notMeasured = "the actual positions are not traced";
        } else if (mark.samplesUnderGate < 3) {
            mark.notMeasured = "too short: " + std::to_string(mark.samplesUnderGate) +
                               " position samples under the gate, at least 3 needed";
        } else if (!(e.speed > 0)) {
            mark.notMeasured = "the commanded speed is not known";
        } else {
            double missing = 0, dose = 0;
            if (!interval.openStart && edgeAt(head, e, true, interval.on, missing, dose)) {
                Vec2 p, v;
                head.mirror.at(interval.on, p, v);
                mark.startMissing = missing;
                mark.speedAtOn = dot(v, e.startDirection) / e.speed;
            }
            if (!interval.openEnd && edgeAt(head, e, false, interval.off, missing, dose)) {
                Vec2 p, v;
                head.mirror.at(interval.off, p, v);
                mark.endMissing = missing;
                mark.speedAtOff = dot(v, e.endDirection) / e.speed;
            }
            bestTimes(mark, e, head);
        }
        marks.push_back(mark);
    }
    return marks;
}

void adviseLaser(Result& result, const JobLayout& layout, const HeadView& head) {
    // Only marks whose mirror came from rest count: after a jump that did not settle, the mark's start shows the
    // jump's ringing, not the laser's timing.
    std::vector<std::size_t> counted;
    for (std::size_t k = 0; k < result.marks.size(); ++k) {
        const Mark& mark = result.marks[k];
        if (mark.bestOnDelayUs && mark.bestOffDelayUs && !mark.afterUnsettledJump) {
            counted.push_back(k);
        }
    }
    if (counted.empty()) {
        return;
    }
    const auto medianOf = [&](const std::vector<std::size_t>& marks, std::optional<double> Mark::*field) {
        std::vector<double> values;
        for (const std::size_t k : marks) {
            if (result.marks[k].*field) values.push_back(*(result.marks[k].*field));
        }
        return values.empty() ? std::nullopt : std::optional<double>(median(std::move(values)));
    };
    const double onDelay = std::round(*medianOf(counted, &Mark::bestOnDelayUs));
    const double offDelay = std::round(*medianOf(counted, &Mark::bestOffDelayUs));
    result.settings.laserOn.suggested = onDelay;
    result.settings.laserOff.suggested = offDelay;

    // What other delays would leave, so that the engineer can choose another trade-off without tracing again.
    const auto choices = [&](bool start, double centre) {
        std::vector<DelayChoice> rows;
        const double step = std::abs(centre) >= 50 ? 10.0 : 2.0;
        for (int k = -3; k <= 3; ++k) {
            DelayChoice row;
            row.delayUs = centre + k * step;
            std::vector<double> missing;
            for (const std::size_t index : counted) {
                const Polyline& polyline = layout.polylines[index];
                const Edges e = edgesOf(layout, polyline);
                double m = 0, dose = 0;
                if (edgeAt(head, e, start, (start ? e.commandStart : e.commandEnd) + row.delayUs, m, dose)) {
                    missing.push_back(m);
                    row.edgeDose = std::max(row.edgeDose.value_or(0.0), dose);
                }
            }
            if (!missing.empty()) row.missing = median(std::move(missing));
            rows.push_back(row);
        }
        return rows;
    };
    result.onChoices = choices(true, onDelay);
    result.offChoices = choices(false, offDelay);

    // Marks of several speeds need delays of their own: the mirror takes longer to reach a higher speed.
    std::vector<std::size_t> bySpeed = counted;
    std::sort(bySpeed.begin(), bySpeed.end(),
              [&](std::size_t a, std::size_t b) { return *result.marks[a].speed < *result.marks[b].speed; });
    std::vector<std::vector<std::size_t>> groups;
    for (const std::size_t k : bySpeed) {
        if (groups.empty() || *result.marks[k].speed > 1.03 * *result.marks[groups.back().front()].speed) {
            groups.emplace_back();
        }
        groups.back().push_back(k);
    }
    if (groups.size() > 1) {
        for (const std::vector<std::size_t>& group : groups) {
            SpeedGroup row;
            row.speed = *medianOf(group, &Mark::speed);
            row.marks = group.size();
            row.onDelayUs = medianOf(group, &Mark::bestOnDelayUs);
            row.offDelayUs = medianOf(group, &Mark::bestOffDelayUs);
            row.startMissing = medianOf(group, &Mark::startMissingAtBest);
            row.endMissing = medianOf(group, &Mark::endMissingAtBest);
            result.bySpeed.push_back(row);
        }
    }
}

}  // namespace oltb::analysis
