// Running the command list: one pass over the commands, appending to the path and noting where the gate, the
// labels, the polylines and the jumps fall.
#include "tools/oltb-sim/CardTiming.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace oltb::sim {
namespace {

constexpr double Pi = 3.14159265358979323846;
constexpr std::uint64_t MaxJobTicks = 60ULL * 64000000;  // 60 s: a run is precomputed, so it must stay small
constexpr std::uint16_t InitialPower = 0x8000;

std::uint64_t ticksOfUs(const double us) {
    return static_cast<std::uint64_t>(std::llround(us * static_cast<double>(TicksPerUs)));
}

std::string duration(const std::uint64_t ticks) {
    const double us = static_cast<double>(ticks) / static_cast<double>(TicksPerUs);
    char text[48];
    std::snprintf(text, sizeof text, us < 1e6 ? "%.0f us" : "%.1f s", us < 1e6 ? us : us / 1e6);
    return text;
}

// True when an arc from `from` around `center` by `sweep` radians reaches beyond the field: checks its end and
// every point of it that lies furthest along an axis.
bool arcLeavesField(const Point from, const Point center, const double sweep) {
    const double dx = static_cast<double>(from.x - center.x);
    const double dy = static_cast<double>(from.y - center.y);
    const double radius = std::hypot(dx, dy);
    const double startAngle = std::atan2(dy, dx);
    const auto outside = [&](const double angle) {
        const double x = static_cast<double>(center.x) + radius * std::cos(angle);
        const double y = static_cast<double>(center.y) + radius * std::sin(angle);
        const double limit = static_cast<double>(FieldLimitUnits) + 0.5;
        return std::fabs(x) > limit || std::fabs(y) > limit;
    };
    if (outside(startAngle + sweep)) {
        return true;
    }
    for (int quarter = 0; quarter < 4; ++quarter) {
        const double axisAngle = quarter * Pi / 2;
        const double ahead = sweep > 0 ? axisAngle - startAngle : startAngle - axisAngle;
        const double reached = std::fmod(std::fmod(ahead, 2 * Pi) + 2 * Pi, 2 * Pi);
        if (reached <= std::fabs(sweep) && outside(axisAngle)) {
            return true;
        }
    }
    return false;
}

class Scheduler {
public:
    Scheduler(const JobProgram& program, const CardTiming& timing) : _program(program), _timing(timing) {}

    JobSchedule run(const std::uint64_t jobStartTick) {
        _schedule.path.dwell(jobStartTick);
        _schedule.jobStartTick = _schedule.path.durationTicks();
        for (const JobCommand& command : _program.commands) {
            const bool marks = command.kind == JobCommandKind::mark || command.kind == JobCommandKind::arc;
            if (!marks && _inPolyline) {
                endPolyline();
            }
            carryOut(command);
        }
        if (_inPolyline) {
            endPolyline();
        }
        _schedule.jobEndTick = _schedule.path.durationTicks();
        if (!(_schedule.path.end() == Point{0, 0})) {
            jump(0, Point{0, 0});
        }
        _schedule.homeTick = _schedule.path.durationTicks();
        if (_schedule.homeTick > MaxJobTicks + jobStartTick) {
            throw JobFileError(
                _program.source, 0,
                "the job lasts " + duration(_schedule.homeTick - jobStartTick) + "; a run may last at most 60 s");
        }
        return std::move(_schedule);
    }

private:
    void carryOut(const JobCommand& command) {
        const Point target{command.x, command.y};
        switch (command.kind) {
            case JobCommandKind::jump: {
                const Point from = _schedule.path.end();
                jump(command.line, target);
                const double length =
                    std::hypot(static_cast<double>(target.x - from.x), static_cast<double>(target.y - from.y));
                hold(jumpDelayUs(_timing.jumpDelayTable, length, _timing.jumpDelayUs));
                break;
            }
            case JobCommandKind::mark: {
                beginSegment(command.line);
                ScheduledSegment segment = segmentFromHere();
                _schedule.path.moveTo(target, _markSpeed);
                segment.to = target;
                segment.lengthUnits = std::hypot(static_cast<double>(target.x - segment.from.x),
                                                 static_cast<double>(target.y - segment.from.y));
                endSegment(segment);
                break;
            }
            case JobCommandKind::arc: {
                if (_schedule.path.end() == target) {
                    throw JobFileError(_program.source, command.line, "the arc's centre is the current position");
                }
                if (arcLeavesField(_schedule.path.end(), target, command.value * Pi / 180)) {
                    throw JobFileError(_program.source, command.line, "the arc leaves the field (-524287..524287)");
                }
                beginSegment(command.line);
                ScheduledSegment segment = segmentFromHere();
                _schedule.path.arc(target, command.value * Pi / 180, _markSpeed);
                segment.to = _schedule.path.end();
                segment.isArc = true;
                segment.center = target;
                segment.sweepRadians = command.value * Pi / 180;
                segment.lengthUnits = std::hypot(static_cast<double>(segment.from.x - target.x),
                                                 static_cast<double>(segment.from.y - target.y)) *
                                      std::fabs(segment.sweepRadians);
                endSegment(segment);
                break;
            }
            case JobCommandKind::label:
                _lastLabel = static_cast<int>(command.number);
                _schedule.labels.push_back(
                    {_schedule.path.durationTicks(), static_cast<std::uint16_t>(command.number)});
                for (auto mark = _schedule.marks.rbegin(); mark != _schedule.marks.rend() && mark->endLabel < 0;
                     ++mark) {
                    mark->endLabel = _lastLabel;
                }
                break;
            case JobCommandKind::power:
                _power = static_cast<std::uint16_t>(command.number);
                break;
            case JobCommandKind::wait:
                hold(command.value);
                break;
            case JobCommandKind::jumpSpeed:
                _jumpSpeed = command.value;
                break;
            case JobCommandKind::markSpeed:
                _markSpeed = command.value;
                break;
        }
    }

    void jump(const int line, const Point target) {
        noteMotion();
        ScheduledJump jump;
        jump.line = line;
        jump.from = _schedule.path.end();
        jump.to = target;
        _schedule.path.moveTo(target, _jumpSpeed);
        jump.motionEndTick = _schedule.path.durationTicks();
        _schedule.jumps.push_back(jump);
    }

    // The path stands still for `us`, rounded up to whole periods.
    void hold(const double us) {
        const std::uint64_t ticks = ticksOfUs(us);
        if (ticks > 0) {
            _schedule.path.dwell(ticks);
        }
    }

    // The commanded path is about to move: the jump before it has its window for settling.
    void noteMotion() {
        if (!_schedule.jumps.empty() && _schedule.jumps.back().nextMotionTick == NoTick) {
            _schedule.jumps.back().nextMotionTick = _schedule.path.durationTicks();
        }
    }

    void beginSegment(const int line) {
        if (_inPolyline) {
            hold(_timing.polygonDelayUs);
        } else {
            _inPolyline = true;
            ScheduledMark mark;
            mark.line = line;
            mark.power = _power;
            mark.startPoint = _schedule.path.end();
            mark.motionStartTick = _schedule.path.durationTicks();
            mark.gateOnTick = mark.motionStartTick + ticksOfUs(_timing.laserOnDelayUs);
            mark.startLabel = _lastLabel;
            _schedule.marks.push_back(mark);
        }
        noteMotion();
    }

    ScheduledSegment segmentFromHere() const {
        ScheduledSegment segment;
        segment.from = _schedule.path.end();
        segment.startTick = _schedule.path.durationTicks();
        return segment;
    }

    void endSegment(ScheduledSegment& segment) {
        segment.endTick = _schedule.path.durationTicks();
        _schedule.marks.back().motionEndTick = segment.endTick;
        _schedule.marks.back().segments.push_back(segment);
    }

    void endPolyline() {
        _inPolyline = false;
        ScheduledMark& mark = _schedule.marks.back();
        mark.gateOffTick = mark.motionEndTick + ticksOfUs(_timing.laserOffDelayUs);
        if (mark.gateOffTick <= mark.gateOnTick) {
            throw JobFileError(_program.source, mark.line,
                               "the polyline moves for " + duration(mark.motionEndTick - mark.motionStartTick) +
                                   ", too short for its gate: the laser-off delay would end it before the laser-on "
                                   "delay starts it");
        }
        hold(std::max(_timing.markDelayUs, _timing.laserOffDelayUs));
    }

    const JobProgram& _program;
    const CardTiming& _timing;
    JobSchedule _schedule;
    double _jumpSpeed = _timing.jumpSpeedUnitsPerMs;
    double _markSpeed = _timing.markSpeedUnitsPerMs;
    std::uint16_t _power = InitialPower;
    bool _inPolyline = false;
    int _lastLabel = -1;
};

Vec2 unit(const double x, const double y) {
    const double length = std::hypot(x, y);
    return length > 0 ? Vec2{x / length, y / length} : Vec2{};
}

// The tangent of an arc at `at`, in the sense of the turn.
Vec2 arcTangent(const Point at, const Point center, const double sweep) {
    const Vec2 radius = unit(static_cast<double>(at.x - center.x), static_cast<double>(at.y - center.y));
    return sweep > 0 ? Vec2{-radius.y, radius.x} : Vec2{radius.y, -radius.x};
}

}  // namespace

Vec2 ScheduledSegment::startDirection() const {
    if (lengthUnits <= 0) {
        return {};
    }
    return isArc ? arcTangent(from, center, sweepRadians)
                 : unit(static_cast<double>(to.x - from.x), static_cast<double>(to.y - from.y));
}

Vec2 ScheduledSegment::endDirection() const {
    if (lengthUnits <= 0) {
        return {};
    }
    if (!isArc) {
        return startDirection();
    }
    // The exact end of the arc, not its end point rounded to whole units.
    const double angle =
        std::atan2(static_cast<double>(from.y - center.y), static_cast<double>(from.x - center.x)) + sweepRadians;
    const Vec2 tangent{-std::sin(angle), std::cos(angle)};
    return sweepRadians > 0 ? tangent : Vec2{-tangent.x, -tangent.y};
}

JobSchedule scheduleJob(const JobProgram& program, const CardTiming& timing, const std::uint64_t jobStartTick) {
    return Scheduler(program, timing).run(jobStartTick);
}

}  // namespace oltb::sim
