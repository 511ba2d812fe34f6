// The scan head's mirrors: how the actual position follows the commanded one. Two models:
//   second order  each axis is a position loop with natural frequency w and damping z, driven by the commanded
//                 path (continuous between the card's setpoints):  a = w^2 (input - actual) - 2 z w v, its
//                 magnitude limited to the largest acceleration. At constant speed the mirror trails by the
//                 tracking error 2 z / w, so w follows from the tracking error and the damping; below damping 1 a
//                 stop overshoots and rings. Heads unlike the plain loop add
//                   a driver filter  the loop's input is the command through a first-order low pass of time
//                                    constant tf (integrated exactly); it adds tf to the lag at constant speed;
//                   a velocity limit the axis never moves faster than vmax: no acceleration raises |v| beyond it.
//                 Integrated by fourth-order Runge-Kutta in substeps of at most 1 us.
//   delay         the actual position is the commanded one delayed by the tracking error, with no dynamics.
// The command is a function of time (Command), so that a copy of a model can run on with the command held.
#pragma once

#include "tools/oltb-sim/Trajectory.h"

#include <cstdint>

namespace oltb::sim {

enum class ServoKind { secondOrder, delay };

struct ServoSettings {
    ServoKind kind = ServoKind::secondOrder;
    double trackingErrorUs = 250;  // the lag of the loop at constant speed
    double damping = 0.6;          // 1: no overshoot; below 1 the mirror rings
    double maxAccelerationUnitsPerMs2 = 50000;
    double driverFilterUs = 0;         // time constant of the driver's low pass; 0: none
    double maxVelocityUnitsPerMs = 0;  // per axis; 0: no limit
};

// The lag of the mirror behind a command moving at constant speed `speedUnitsPerMs` long enough: the loop's 2 z / w
// plus the driver filter, or the delay; NaN when the velocity limit keeps the mirror from that speed.
double steadyLagUs(const ServoSettings& settings, double speedUnitsPerMs);

struct MirrorState {
    Vec2 position;
    Vec2 velocity;  // units/us
};

// The commanded position as a function of time in ticks (fractions between ticks allowed).
class Command {
public:
    virtual ~Command() = default;
    virtual Vec2 position(double tick) const = 0;
    // As the command leaves `tick`, units/us.
    virtual Vec2 velocity(double tick) const = 0;
};

// The card's path; with a hold tick, the path until then and its position at that tick for ever after.
class PathCommand final : public Command {
public:
    explicit PathCommand(const Trajectory& path, double holdTick = -1) : _path(path), _holdTick(holdTick) {}
    Vec2 position(double tick) const override;
    Vec2 velocity(double tick) const override;

private:
    const Trajectory& _path;
    double _holdTick;
};

class ServoModel {
public:
    static constexpr std::uint64_t StepTicks = 64;  // the model advances 1 us at a time

    explicit ServoModel(const ServoSettings& settings);

    // Puts the mirror at rest on `position` at `tick`.
    void reset(Point position, std::uint64_t tick);
    // Advances by one step of StepTicks, following `command`.
    void step(const Command& command);

    std::uint64_t tick() const noexcept { return _tick; }
    Vec2 position() const noexcept { return _now.position; }
    const MirrorState& state() const noexcept { return _now; }
    // The state at `tick` within the last step (from tick() - StepTicks to tick()): exact for the delay head,
    // for the loop the cubic through the states at both ends of the step.
    MirrorState stateWithinStep(double tick, const Command& command) const;
    // True when the mirror stays within half a unit of `point` if the command keeps standing there.
    bool restsAt(Point point) const noexcept;
    // True when the mirror stays within `radius` of `point` from now on if the command keeps standing there.
    bool staysWithin(Point point, double radius) const noexcept;

private:
    struct Axis {
        double position;
        double velocity;
        double filtered;  // the driver filter's output, the loop's input
    };
    double limitVelocity(double velocity) const noexcept;
    double acceleration(double input, double position, double velocity) const noexcept;
    void integrate(Axis& axis, double from, double middle, double to, double stepUs) const noexcept;
    MirrorState delayedState(double tick, const Command& command) const;

    ServoSettings _settings;
    double _naturalFrequencyPerUs = 0;
    double _maxAccelerationPerUs2 = 0;
    double _maxVelocityPerUs = 0;  // 0: no limit
    unsigned _substeps = 1;
    std::uint64_t _tick = 0;
    MirrorState _before;  // at the start of the last step
    MirrorState _now;
    Vec2 _filtered;  // the driver filter's output per axis
};

}  // namespace oltb::sim
