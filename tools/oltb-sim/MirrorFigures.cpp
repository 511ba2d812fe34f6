// One pass of the model over the run: each step is offered to the polylines whose time it touches; at the commanded
// end of each jump a copy of the model runs on with the command held at the target.
#include "tools/oltb-sim/MirrorFigures.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace oltb::sim {
namespace {

constexpr double NaN = std::numeric_limits<double>::quiet_NaN();
constexpr double Pi = 3.14159265358979323846;
constexpr double TicksPerUsF = static_cast<double>(TicksPerUs);
constexpr std::uint64_t LongestSettleTicks = 20ULL * 64000000;  // a held mirror still moving then never settles
constexpr int Bisections = 30;                                  // 1 us down to below 1e-9 us
constexpr int SpeedSamplesPerStep = 4;

double dot(const Vec2 a, const Vec2 b) { return a.x * b.x + a.y * b.y; }
Vec2 offset(const Vec2 from, const Point to) {
    return {from.x - static_cast<double>(to.x), from.y - static_cast<double>(to.y)};
}
double length(const Vec2 v) { return std::hypot(v.x, v.y); }

// One step of the mirror, from `from` to `to` (ticks), and its state at any moment between.
struct Span {
    double from;
    double to;
    const ServoModel& model;
    const Command& command;

    MirrorState at(const double tick) const { return model.stateWithinStep(tick, command); }

    // The first moment within [start, to] at which `holds` is true of the state, if it holds at `to` or at `start`
    // (a condition that comes true within one step and stays true to its end); NaN otherwise.
    template <class Condition>
    double firstWhere(const double start, const Condition& holds) const {
        if (start > to) {
            return NaN;
        }
        if (holds(at(start))) {
            return start;
        }
        if (!holds(at(to))) {
            return NaN;
        }
        double low = start;
        double high = to;
        for (int i = 0; i < Bisections; ++i) {
            const double middle = (low + high) / 2;
            (holds(at(middle)) ? high : low) = middle;
        }
        return high;
    }
};

// The figures of one polyline and its corners, from the steps within its window: from its commanded start until the
// next polyline starts.
class MarkWatch {
public:
    MarkWatch(const ScheduledMark& mark, const double maxEdgeDose, const double lagTicks, MarkFigures& figures)
        : _mark(mark), _lagTicks(lagTicks), _figures(figures) {
        const ScheduledSegment& first = mark.segments.front();
        const ScheduledSegment& last = mark.segments.back();
        _startDirection = first.startDirection();
        _endDirection = last.endDirection();
        double totalLength = 0;
        double movingTicks = 0;
        for (const ScheduledSegment& segment : mark.segments) {
            totalLength += segment.lengthUnits;
            movingTicks += static_cast<double>(segment.endTick - segment.startTick);
        }
        _speed = totalLength / (movingTicks / TicksPerUsF);
        _threshold = _speed / maxEdgeDose;
        _figures = {_speed * 1000, NaN, NaN, NaN, NaN, NaN, NaN, NaN, NaN};
        _hasEdges = length(_startDirection) > 0 && length(_endDirection) > 0 && _speed > 0;
        _done = !_hasEdges;  // a polyline of no length has no edges to judge
    }

    void addCorner(CornerFigures& corner, const ScheduledSegment& before, const ScheduledSegment& after,
                   const std::size_t mark) {
        const Vec2 in = before.endDirection();
        const Vec2 out = after.startDirection();
        const bool turns = length(in) > 0 && length(out) > 0;  // a segment of no length has no direction
        const double angle = turns ? std::acos(std::clamp(dot(in, out), -1.0, 1.0)) * 180 / Pi : NaN;
        corner = {mark,
                  before.endTick,
                  before.to,
                  angle,
                  static_cast<double>(after.startTick - before.endTick) / TicksPerUsF,
                  NaN,
                  NaN};
        const double doseEnd =
            std::min(static_cast<double>(after.startTick) + 2 * _lagTicks, static_cast<double>(_mark.gateOffTick));
        // The mirror passes the end of the segment after a lag after the command does.
        _corners.push_back({&corner, static_cast<double>(before.startTick),
                            static_cast<double>(after.endTick) + _lagTicks, static_cast<double>(before.endTick),
                            doseEnd, INFINITY, INFINITY});
    }

    void observe(const Span& span) {
        const double on = static_cast<double>(_mark.gateOnTick);
        const double off = static_cast<double>(_mark.gateOffTick);
        if (_hasEdges && span.from <= on && on <= span.to) {
            const MirrorState state = span.at(on);
            _figures.startMissing = dot(offset(state.position, _mark.segments.front().from), _startDirection);
            _figures.speedAtOn = dot(state.velocity, _startDirection) / _speed;
        }
        if (_hasEdges && span.from <= off && off <= span.to) {
            const MirrorState state = span.at(off);
            _figures.endMissing = -dot(offset(state.position, _mark.segments.back().to), _endDirection);
            _figures.speedAtOff = dot(state.velocity, _endDirection) / _speed;
        }
        if (!_done) {
            findBestGate(span);
        }
        for (CornerWatch& corner : _corners) {
            watchCorner(corner, span);
        }
    }

    // What a polyline's window does not reach stays NaN; the corners' rounding and dose come from what it saw.
    void finish() {
        for (CornerWatch& corner : _corners) {
            corner.figures->rounding = std::isfinite(corner.closest) ? corner.closest : NaN;
            corner.figures->edgeDose = std::isfinite(corner.slowest) ? edgeDose(corner.slowest / _speed) : NaN;
        }
    }

private:
    struct CornerWatch {
        CornerFigures* figures;
        double roundingFrom;  // ticks
        double roundingTo;
        double doseFrom;
        double doseTo;
        double closest;
        double slowest;
    };

    void findBestGate(const Span& span) {
        const double start = static_cast<double>(_mark.motionStartTick);
        const double end = static_cast<double>(_mark.motionEndTick);
        if (std::isnan(_onTick)) {
            _onTick = span.firstWhere(std::max(span.from, start), [this](const MirrorState& state) {
                return dot(state.velocity, _startDirection) >= _threshold;
            });
            if (std::isnan(_onTick)) {
                return;
            }
            const MirrorState state = span.at(_onTick);
            _figures.bestLaserOnDelayUs = (_onTick - start) / TicksPerUsF;
            _figures.startMissingAtBest = dot(offset(state.position, _mark.segments.front().from), _startDirection);
        }
        // A mirror that trails the command reaches the end point after the command does, so both conditions are
        // looked for from the commanded end on (on a closed path the start point would pass for the end before).
        const double off = span.firstWhere(std::max({span.from, end, _onTick}), [this](const MirrorState& state) {
            return dot(state.velocity, _endDirection) < _threshold ||
                   dot(offset(state.position, _mark.segments.back().to), _endDirection) >= 0;
        });
        if (std::isnan(off)) {
            return;
        }
        const MirrorState state = span.at(off);
        _figures.bestLaserOffDelayUs = (off - end) / TicksPerUsF;
        _figures.endMissingAtBest = -dot(offset(state.position, _mark.segments.back().to), _endDirection);
        _done = true;
    }

    // The closest approach within a step lies where the distance stops falling: (position - C) . velocity = 0.
    // The slowest speed is taken at a few moments of the step.
    static void watchCorner(CornerWatch& corner, const Span& span) {
        const Point c = corner.figures->point;
        const double from = std::max(span.from, corner.roundingFrom);
        const double to = std::min(span.to, corner.roundingTo);
        if (from <= to) {
            const auto approaching = [c](const MirrorState& state) {
                return dot(offset(state.position, c), state.velocity) >= 0;
            };
            double closest = span.firstWhere(from, approaching);
            closest = std::isnan(closest) || closest > to ? to : closest;
            for (const double tick : {from, closest, to}) {
                corner.closest = std::min(corner.closest, length(offset(span.at(tick).position, c)));
            }
        }
        const double doseFrom = std::max(span.from, corner.doseFrom);
        const double doseTo = std::min(span.to, corner.doseTo);
        for (int i = 0; i <= SpeedSamplesPerStep && doseFrom <= doseTo; ++i) {
            const double tick = doseFrom + (doseTo - doseFrom) * i / SpeedSamplesPerStep;
            corner.slowest = std::min(corner.slowest, length(span.at(tick).velocity));
        }
    }

    const ScheduledMark& _mark;
    double _lagTicks;
    MarkFigures& _figures;
    Vec2 _startDirection;
    Vec2 _endDirection;
    double _speed = 0;      // units/us
    double _threshold = 0;  // units/us
    double _onTick = NaN;
    bool _hasEdges = false;
    bool _done = false;  // the best gate times are known
    std::vector<CornerWatch> _corners;
};

// A copy of the model from the commanded end of the jump on, the command held at the target: the last moment it
// is outside the band, and how far it goes beyond the target until the next motion.
JumpFigures settleJump(ServoModel mirror, const Trajectory& path, const ScheduledJump& jump, const double band) {
    const double end = static_cast<double>(jump.motionEndTick);
    const PathCommand held(path, end);
    const double lengthUnits =
        length(offset({static_cast<double>(jump.to.x), static_cast<double>(jump.to.y)}, jump.from));
    const Vec2 direction = lengthUnits > 0 ? Vec2{static_cast<double>(jump.to.x - jump.from.x) / lengthUnits,
                                                  static_cast<double>(jump.to.y - jump.from.y) / lengthUnits}
                                           : Vec2{};
    const auto inside = [&](const MirrorState& state) { return length(offset(state.position, jump.to)) <= band; };
    JumpFigures figures;
    figures.windowUs = jump.nextMotionTick == NoTick
                           ? NaN
                           : static_cast<double>(jump.nextMotionTick - jump.motionEndTick) / TicksPerUsF;
    double lastOutside = end;
    bool wasInside = inside(mirror.state());
    bool known = false;  // the mirror stays in the band, and the overshoot until the next motion is seen
    while (mirror.tick() < jump.motionEndTick + LongestSettleTicks) {
        const bool beforeNextMotion = mirror.tick() < jump.nextMotionTick;
        if (beforeNextMotion) {
            figures.overshootUnits =
                std::max(figures.overshootUnits, dot(offset(mirror.position(), jump.to), direction));
        }
        if (mirror.staysWithin(jump.to, band) && (!beforeNextMotion || mirror.restsAt(jump.to))) {
            known = true;
            break;
        }
        mirror.step(held);
        const Span span{static_cast<double>(mirror.tick() - ServoModel::StepTicks), static_cast<double>(mirror.tick()),
                        mirror, held};
        const bool isInside = inside(mirror.state());
        if (!isInside) {
            lastOutside = span.to;
        } else if (!wasInside) {
            lastOutside = span.firstWhere(span.from, inside);
        }
        wasInside = isInside;
    }
    figures.settleUs = known ? (lastOutside - end) / TicksPerUsF : NaN;
    figures.settled = known && !(figures.settleUs > figures.windowUs);
    return figures;
}

}  // namespace

double edgeDose(const double speedFraction) { return 1 / std::max(speedFraction, 0.01); }

MirrorFigures measureMirror(const MarkingJob& job) {
    const JobSettings& settings = job.settings();
    const double lagUs = steadyLagUs(settings.servo, 0);
    MirrorFigures figures;
    figures.marks.resize(job.marks().size());
    figures.jumps.resize(job.jumps().size());
    std::size_t cornerCount = 0;
    for (const ScheduledMark& mark : job.marks()) {
        cornerCount += mark.segments.size() - 1;
    }
    figures.corners.resize(cornerCount);  // stays in place: the watches point into it

    std::vector<MarkWatch> watches;
    watches.reserve(job.marks().size());
    std::size_t corner = 0;
    for (std::size_t k = 0; k < job.marks().size(); ++k) {
        const ScheduledMark& mark = job.marks()[k];
        watches.emplace_back(mark, settings.maxEdgeDose, lagUs * TicksPerUsF, figures.marks[k]);
        for (std::size_t i = 0; i + 1 < mark.segments.size(); ++i) {
            watches.back().addCorner(figures.corners[corner++], mark.segments[i], mark.segments[i + 1], k);
        }
    }

    ServoModel mirror(settings.servo);
    mirror.reset(Point{0, 0}, 0);
    const PathCommand command(job.path());
    std::size_t nextJump = 0;
    std::size_t firstWatch = 0;
    while (mirror.tick() < job.cycleTicks()) {
        mirror.step(command);
        const std::uint64_t tick = mirror.tick();
        const Span span{static_cast<double>(tick - ServoModel::StepTicks), static_cast<double>(tick), mirror, command};
        // A polyline's window runs until the next one starts; the step that ends there belongs to both.
        while (firstWatch + 1 < watches.size() && tick > job.marks()[firstWatch + 1].motionStartTick) {
            ++firstWatch;
        }
        for (std::size_t k = firstWatch; k < watches.size() && job.marks()[k].motionStartTick <= tick; ++k) {
            watches[k].observe(span);
        }
        while (nextJump < job.jumps().size() && job.jumps()[nextJump].motionEndTick <= tick) {
            figures.jumps[nextJump] = settleJump(mirror, job.path(), job.jumps()[nextJump], settings.settleBandUnits);
            ++nextJump;
        }
    }
    for (MarkWatch& watch : watches) {
        watch.finish();
    }
    return figures;
}

}  // namespace oltb::sim
