// Jump settling. A mirror that passes through the band around its target at speed has not arrived: a jump has
// settled when the mirror entered the band for the last time before the next commanded motion began, and would have
// stayed there had the command stood still. Whether it would have stayed, the trace cannot show (the next motion
// takes the mirror away): the head's model tells where it holds, and otherwise the mirror's speed, which carries it
// about a tracking error's worth further.
#include "analysis/Figures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace oltb::analysis {

namespace {

constexpr double MarginShare = 0.1;
constexpr double MarginUs = 5;
constexpr double PeriodUs = 10;
constexpr std::size_t MostRows = 32;

// Settling of the mirror on `target` between the end of the command `end` and the next motion `next`.
void settle(Jump& jump, const HeadView& head, Vec2 target, double end, double next) {
    Vec2 p, v;
    if (!head.mirror.at(next, p, v) || !head.mirror.at(end, p, v)) {
        return;
    }
    double lastEntry = end;  // the last crossing into the band within [end, next]
    head.mirror.at(end, p, v);
    double previousTime = end;
    double previous = length(p - target);
    bool outside = previous > head.band;
    std::vector<double> times;
    for (std::size_t i = head.mirror.firstAtOrAfter(end); i < head.mirror.size() && head.mirror.time(i) < next; ++i) {
        times.push_back(head.mirror.time(i));
    }
    times.push_back(next);
    for (const double t : times) {
        if (!(t > previousTime)) continue;
        head.mirror.at(t, p, v);
        const double distance = length(p - target);
        if (distance <= head.band && previous > head.band) {
            lastEntry = previousTime + (t - previousTime) * (previous - head.band) / (previous - distance);
        }
        outside = distance > head.band;
        previous = distance;
        previousTime = t;
    }
    head.mirror.at(next, p, v);
    jump.distanceAtNext = length(p - target);
    bool stays = !outside;
    AxisState x, y;
    std::optional<double> rest;  // from `next` on, with the command held: when the mirror stays in the band
    if (head.models() && stateAt(head, next, x, y)) {
        const FreeMotion free = head.model->holdAt(x, y, target, head.band);
        rest = free.settledAtUs;
        stays = stays && rest && *rest == 0;
    } else {
        stays = stays && *jump.distanceAtNext + length(v) * head.lagUs.value_or(0.0) <= head.band;
    }
    if (stays) {
        jump.settled = true;
        jump.settleUs = lastEntry - end;
        return;
    }
    jump.atLeastUs = next - end;
    if (rest) {
        jump.predictedSettleUs = next - end + *rest;
    }
}

}  // namespace

double roundUpToPeriod(double us) { return std::ceil(us / PeriodUs - 1e-9) * PeriodUs; }

bool stateAt(const HeadView& head, double time, AxisState& x, AxisState& y) {
    Vec2 p, v;
    if (!head.models() || !head.mirror.at(time, p, v)) {
        return false;
    }
    x = {p.x, v.x, filterOutputAt(head.model->x(), head.commanded, 0, time)};
    y = {p.y, v.y, filterOutputAt(head.model->y(), head.commanded, 1, time)};
    return true;
}

std::vector<Jump> measureJumps(const JobLayout& layout, const HeadView& head, std::vector<Mark>& marks) {
    std::vector<Jump> jumps;
    for (const std::size_t index : layout.jumps) {
        const Piece& piece = layout.pieces[index];
        Jump jump;
        jump.startUs = piece.startUs;
        jump.endUs = piece.endUs;
        jump.length = piece.length;
        jump.fromX = piece.from.x;
        jump.fromY = piece.from.y;
        jump.toX = piece.to.x;
        jump.toY = piece.to.y;
        const std::optional<double> next = nextMotionAfter(layout, index);
        if (next) jump.delayUs = *next - piece.endUs;
        if (!next || piece.cutAtEnd) {
            jump.cutShort = true;
        } else if (!head.mirror.empty()) {
            settle(jump, head, piece.to, piece.endUs, *next);
            const std::optional<std::size_t> following = layout.polylineOf[index + 1];
            if (following && !jump.settled) {
                marks[*following].afterUnsettledJump = true;
            }
        }
        jumps.push_back(jump);
    }
    return jumps;
}

std::vector<JumpDelay> jumpDelayTable(const std::vector<Jump>& jumps) {
    struct Need {
        double length;
        std::optional<double> us;  // what the jump needs; empty: not known
        double atLeast;
        bool predicted;
    };
    std::vector<Need> needs;
    for (const Jump& jump : jumps) {
        if (jump.cutShort || (!jump.settled && !jump.atLeastUs)) {
            continue;
        }
        if (jump.settled) {
            needs.push_back({jump.length, jump.settleUs, *jump.settleUs, false});
        } else {
            needs.push_back({jump.length, jump.predictedSettleUs, *jump.atLeastUs, jump.predictedSettleUs.has_value()});
        }
    }
    std::sort(needs.begin(), needs.end(), [](const Need& a, const Need& b) { return a.length < b.length; });
    std::vector<JumpDelay> table;
    bool known = true;
    bool predicted = false;
    double most = 0;
    double atLeast = 0;
    for (const Need& need : needs) {
        // A row covers every jump up to its length: the delays never decrease with the length.
        known = known && need.us.has_value();
        predicted = predicted || need.predicted;
        most = std::max(most, need.us.value_or(0.0));
        atLeast = std::max(atLeast, std::max(need.atLeast, need.us.value_or(0.0)));
        JumpDelay row;
        row.upToLength = std::ceil(need.length);
        row.atLeastUs = atLeast;
        row.predicted = known && predicted;
        if (known) {
            row.delayUs = roundUpToPeriod(most + std::max(MarginShare * most, MarginUs));
        }
        if (!table.empty() && (table.back().upToLength >= row.upToLength ||
                               (table.back().delayUs == row.delayUs && table.back().predicted == row.predicted))) {
            table.back() = row;  // the same length, or the same delay: one row for the longer jumps does
        } else {
            table.push_back(row);
        }
    }
    // A card holds a few dozen rows: merge the rows whose delays lie closest.
    while (table.size() > MostRows) {
        std::size_t closest = 0;
        double smallest = std::numeric_limits<double>::infinity();
        for (std::size_t row = 0; row + 1 < table.size(); ++row) {
            const double a = table[row].delayUs.value_or(table[row].atLeastUs.value_or(0.0));
            const double b = table[row + 1].delayUs.value_or(table[row + 1].atLeastUs.value_or(0.0));
            if (b - a < smallest) {
                smallest = b - a;
                closest = row;
            }
        }
        table.erase(table.begin() + static_cast<std::ptrdiff_t>(closest));
    }
    return table;
}

}  // namespace oltb::analysis
