// The mirror's motion, one step at a time; time in us, positions in head units, speeds in units/us.
#include "tools/oltb-sim/ServoModel.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

namespace oltb::sim {
namespace {

// Largest w * h per substep: keeps the integration exact to far below a unit also for stiff settings.
constexpr double MaxRateTimesStep = 0.05;

}  // namespace

double steadyLagUs(const ServoSettings& settings, const double speedUnitsPerMs) {
    if (settings.kind == ServoKind::delay) {
        return std::llround(settings.trackingErrorUs * 64) / 64.0;
    }
    if (settings.maxVelocityUnitsPerMs > 0 && settings.maxVelocityUnitsPerMs < speedUnitsPerMs) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return settings.trackingErrorUs + settings.driverFilterUs;
}

Vec2 PathCommand::position(const double tick) const {
    return _path.interpolated(_holdTick >= 0 && tick > _holdTick ? _holdTick : tick);
}

Vec2 PathCommand::velocity(const double tick) const {
    return _holdTick >= 0 && tick >= _holdTick ? Vec2{} : _path.velocity(tick);
}

ServoModel::ServoModel(const ServoSettings& settings) : _settings(settings) {
    if (settings.kind == ServoKind::delay) {
        return;
    }
    assert(settings.trackingErrorUs > 0 && settings.damping > 0 && settings.maxAccelerationUnitsPerMs2 > 0);
    _naturalFrequencyPerUs = 2 * settings.damping / settings.trackingErrorUs;
    _maxAccelerationPerUs2 = settings.maxAccelerationUnitsPerMs2 / 1e6;
    _maxVelocityPerUs = settings.maxVelocityUnitsPerMs / 1e3;
    // The fastest mode of the loop: w for damping up to 1, the faster real pole above. The filter needs no
    // substeps of its own: it is integrated exactly.
    const double z = settings.damping;
    const double fastest = _naturalFrequencyPerUs * (z > 1 ? z + std::sqrt(z * z - 1) : 1.0);
    const double stepUs = static_cast<double>(StepTicks) / 64.0;
    _substeps = static_cast<unsigned>(std::max(1.0, std::ceil(fastest * stepUs / MaxRateTimesStep)));
}

void ServoModel::reset(const Point position, const std::uint64_t tick) {
    _tick = tick;
    _now = {{static_cast<double>(position.x), static_cast<double>(position.y)}, {}};
    _before = _now;
    _filtered = _now.position;
}

double ServoModel::limitVelocity(const double velocity) const noexcept {
    return _maxVelocityPerUs > 0 ? std::clamp(velocity, -_maxVelocityPerUs, _maxVelocityPerUs) : velocity;
}

double ServoModel::acceleration(const double input, const double position, const double velocity) const noexcept {
    const double w = _naturalFrequencyPerUs;
    const double wanted = w * w * (input - position) - 2 * _settings.damping * w * velocity;
    const double limited = std::clamp(wanted, -_maxAccelerationPerUs2, _maxAccelerationPerUs2);
    // At the velocity limit the loop cannot speed the mirror up any further, only slow it down.
    if (_maxVelocityPerUs > 0 && std::fabs(velocity) >= _maxVelocityPerUs && limited * velocity > 0) {
        return 0;
    }
    return limited;
}

// One substep of one axis. The command is taken as linear over the substep; through the driver filter the loop's
// input is then known in closed form: for u(t) = u0 + s t and the filter's output f0 at the start,
//   f(t) = u0 + s (t - tf) + (f0 - u0 + s tf) e^(-t / tf).
void ServoModel::integrate(Axis& axis, const double from, const double middle, const double to,
                           const double stepUs) const noexcept {
    const double h = stepUs;
    double inputFrom = from;
    double inputMiddle = middle;
    double inputTo = to;
    if (_settings.driverFilterUs > 0) {
        const double tf = _settings.driverFilterUs;
        const double slope = (to - from) / h;
        const auto filtered = [&](const double t) {
            return from + slope * (t - tf) + (axis.filtered - from + slope * tf) * std::exp(-t / tf);
        };
        inputFrom = axis.filtered;
        inputMiddle = filtered(h / 2);
        inputTo = filtered(h);
    }
    axis.filtered = inputTo;
    const double x = axis.position;
    const double v = axis.velocity;
    const double k1x = limitVelocity(v);
    const double k1v = acceleration(inputFrom, x, k1x);
    const double k2x = limitVelocity(v + h / 2 * k1v);
    const double k2v = acceleration(inputMiddle, x + h / 2 * k1x, k2x);
    const double k3x = limitVelocity(v + h / 2 * k2v);
    const double k3v = acceleration(inputMiddle, x + h / 2 * k2x, k3x);
    const double k4x = limitVelocity(v + h * k3v);
    const double k4v = acceleration(inputTo, x + h * k3x, k4x);
    axis.position = x + h / 6 * (k1x + 2 * k2x + 2 * k3x + k4x);
    axis.velocity = limitVelocity(v + h / 6 * (k1v + 2 * k2v + 2 * k3v + k4v));
}

MirrorState ServoModel::delayedState(const double tick, const Command& command) const {
    const double delayTicks = static_cast<double>(std::llround(_settings.trackingErrorUs * 64));
    const double delayed = tick - delayTicks;
    return {command.position(delayed), command.velocity(delayed)};
}

void ServoModel::step(const Command& command) {
    const std::uint64_t next = _tick + StepTicks;
    _before = _now;
    if (_settings.kind == ServoKind::delay) {
        _now = delayedState(static_cast<double>(next), command);
        _tick = next;
        return;
    }
    const double substepTicks = static_cast<double>(StepTicks) / _substeps;
    const double substepUs = substepTicks / 64.0;
    Axis x{_now.position.x, _now.velocity.x, _filtered.x};
    Axis y{_now.position.y, _now.velocity.y, _filtered.y};
    double start = static_cast<double>(_tick);
    Vec2 from = command.position(start);
    for (unsigned i = 0; i < _substeps; ++i, start += substepTicks) {
        const Vec2 middle = command.position(start + substepTicks / 2);
        const Vec2 to = command.position(start + substepTicks);
        integrate(x, from.x, middle.x, to.x, substepUs);
        integrate(y, from.y, middle.y, to.y, substepUs);
        from = to;
    }
    _now = {{x.position, y.position}, {x.velocity, y.velocity}};
    _filtered = {x.filtered, y.filtered};
    _tick = next;
}

MirrorState ServoModel::stateWithinStep(const double tick, const Command& command) const {
    if (_settings.kind == ServoKind::delay) {
        return delayedState(tick, command);
    }
    const double h = static_cast<double>(StepTicks) / 64.0;
    const double s =
        std::clamp((tick - static_cast<double>(_tick - StepTicks)) / static_cast<double>(StepTicks), 0.0, 1.0);
    const double s2 = s * s;
    const double s3 = s2 * s;
    const auto cubic = [&](const double p0, const double v0, const double p1, const double v1) {
        const double position =
            (2 * s3 - 3 * s2 + 1) * p0 + (s3 - 2 * s2 + s) * h * v0 + (3 * s2 - 2 * s3) * p1 + (s3 - s2) * h * v1;
        const double velocity = ((6 * s2 - 6 * s) * (p0 - p1)) / h + (3 * s2 - 4 * s + 1) * v0 + (3 * s2 - 2 * s) * v1;
        return std::pair{position, velocity};
    };
    const auto [px, vx] = cubic(_before.position.x, _before.velocity.x, _now.position.x, _now.velocity.x);
    const auto [py, vy] = cubic(_before.position.y, _before.velocity.y, _now.position.y, _now.velocity.y);
    return {{px, py}, {vx, vy}};
}

bool ServoModel::restsAt(const Point point) const noexcept {
    const double px = static_cast<double>(point.x);
    const double py = static_cast<double>(point.y);
    if (_settings.kind == ServoKind::delay) {
        return std::lround(_now.position.x) == point.x && std::lround(_now.position.y) == point.y &&
               _now.velocity.x == 0 && _now.velocity.y == 0;
    }
    // An upper bound of the amplitude still to come, for damping from 0.2 on: the offset plus what the speed
    // carries it within one time constant, plus twice what the driver filter has still to pass on.
    const double w = _naturalFrequencyPerUs;
    const auto rest = [w](const double position, const double velocity, const double filtered, const double target) {
        return std::fabs(position - target) + 2 * std::fabs(velocity) / w + 2 * std::fabs(filtered - target);
    };
    return std::max(rest(_now.position.x, _now.velocity.x, _filtered.x, px),
                    rest(_now.position.y, _now.velocity.y, _filtered.y, py)) < 0.4;
}

// Without the acceleration limit the loop's (x - p)^2 + (v / w)^2 never grows while the input stands still, so
// its square root bounds each axis from now on; what the driver filter has still to pass on adds at most twice its
// offset. (The limit acts only far outside any band: beyond w^2 x = largest acceleration.)
bool ServoModel::staysWithin(const Point point, const double radius) const noexcept {
    const double dx = _now.position.x - static_cast<double>(point.x);
    const double dy = _now.position.y - static_cast<double>(point.y);
    if (_settings.kind == ServoKind::delay) {
        return std::hypot(dx, dy) <= radius && _now.velocity.x == 0 && _now.velocity.y == 0;
    }
    const double w = _naturalFrequencyPerUs;
    const double x = std::hypot(dx, _now.velocity.x / w) + 2 * std::fabs(_filtered.x - static_cast<double>(point.x));
    const double y = std::hypot(dy, _now.velocity.y / w) + 2 * std::fabs(_filtered.y - static_cast<double>(point.y));
    return std::hypot(x, y) <= radius;
}

}  // namespace oltb::sim
