// The scan head's mirrors: how the actual position follows the commanded one. Two models:
//   second order  each axis is a position loop with natural frequency w and damping z, driven by the commanded
//                 path (continuous between the card's setpoints):  a = w^2 (commanded - actual) - 2 z w v, its
//                 magnitude limited to the largest acceleration. At constant speed the mirror trails by the
//                 tracking error 2 z / w, so w follows from the tracking error and the damping; below damping 1 a
//                 stop overshoots and rings. Integrated by fourth-order Runge-Kutta in substeps of at most 1 us.
//   delay         the actual position is the commanded one delayed by the tracking error, with no dynamics.
#pragma once

#include "Trajectory.h"

#include <cstdint>

namespace oltbsim {

enum class ServoKind { secondOrder, delay };

struct ServoSettings {
    ServoKind kind = ServoKind::secondOrder;
    double trackingErrorUs = 250;                    // the lag at constant speed
    double damping = 0.6;                            // 1: no overshoot; below 1 the mirror rings
    double maxAccelerationUnitsPerMs2 = 50000;
};

class ServoModel {
public:
    static constexpr std::uint64_t kStepTicks = 64;  // the model advances 1 us at a time

    explicit ServoModel(const ServoSettings& settings);

    // Puts the mirror at rest on `position` at `tick`.
    void reset(Point position, std::uint64_t tick);
    // Advances by one step of kStepTicks, following `commanded`.
    void step(const Trajectory& commanded);

    std::uint64_t tick() const noexcept { return _tick; }
    Vec2 position() const noexcept { return _position; }
    // True when the mirror stays within half a unit of `point` if the command keeps standing there.
    bool restsAt(Point point) const noexcept;

private:
    struct Axis {
        double position;
        double velocity;
    };
    double acceleration(double commanded, double position, double velocity) const noexcept;
    void integrate(Axis& axis, double from, double middle, double to, double stepUs) const noexcept;

    ServoSettings _settings;
    double _naturalFrequencyPerUs = 0;
    double _maxAccelerationPerUs2 = 0;
    unsigned _substeps = 1;
    std::uint64_t _tick = 0;
    Vec2 _position;
    Vec2 _velocity;  // units/us
};

}  // namespace oltbsim
