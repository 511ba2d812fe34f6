// The mirror's motion, one step at a time; time in us, positions in head units, speeds in units/us.
#include "ServoModel.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace oltbsim {
namespace {

// Largest w * h per substep: keeps the integration exact to far below a unit also for stiff settings.
constexpr double kMaxRateTimesStep = 0.05;

}  // namespace

ServoModel::ServoModel(const ServoSettings& settings) : _settings(settings) {
    if (settings.kind == ServoKind::delay) {
        return;
    }
    assert(settings.trackingErrorUs > 0 && settings.damping > 0 && settings.maxAccelerationUnitsPerMs2 > 0);
    _naturalFrequencyPerUs = 2 * settings.damping / settings.trackingErrorUs;
    _maxAccelerationPerUs2 = settings.maxAccelerationUnitsPerMs2 / 1e6;
    // The fastest mode of the loop: w for damping up to 1, the faster real pole above.
    const double z = settings.damping;
    const double fastest = _naturalFrequencyPerUs * (z > 1 ? z + std::sqrt(z * z - 1) : 1.0);
    const double stepUs = static_cast<double>(kStepTicks) / 64.0;
    _substeps = static_cast<unsigned>(std::max(1.0, std::ceil(fastest * stepUs / kMaxRateTimesStep)));
}

void ServoModel::reset(const Point position, const std::uint64_t tick) {
    _tick = tick;
    _position = {static_cast<double>(position.x), static_cast<double>(position.y)};
    _velocity = {};
}

double ServoModel::acceleration(const double commanded, const double position, const double velocity) const noexcept {
    const double w = _naturalFrequencyPerUs;
    const double wanted = w * w * (commanded - position) - 2 * _settings.damping * w * velocity;
    return std::clamp(wanted, -_maxAccelerationPerUs2, _maxAccelerationPerUs2);
}

void ServoModel::integrate(Axis& axis, const double from, const double middle, const double to,
                           const double stepUs) const noexcept {
    const double h = stepUs;
    const double x = axis.position;
    const double v = axis.velocity;
    const double k1x = v;
    const double k1v = acceleration(from, x, v);
    const double k2x = v + h / 2 * k1v;
    const double k2v = acceleration(middle, x + h / 2 * k1x, v + h / 2 * k1v);
    const double k3x = v + h / 2 * k2v;
    const double k3v = acceleration(middle, x + h / 2 * k2x, v + h / 2 * k2v);
    const double k4x = v + h * k3v;
    const double k4v = acceleration(to, x + h * k3x, v + h * k3v);
    axis.position = x + h / 6 * (k1x + 2 * k2x + 2 * k3x + k4x);
    axis.velocity = v + h / 6 * (k1v + 2 * k2v + 2 * k3v + k4v);
}

void ServoModel::step(const Trajectory& commanded) {
    const std::uint64_t next = _tick + kStepTicks;
    if (_settings.kind == ServoKind::delay) {
        const auto delayTicks = static_cast<std::int64_t>(std::llround(_settings.trackingErrorUs * 64));
        const Point p = commanded.at(static_cast<std::int64_t>(next) - delayTicks);
        _position = {static_cast<double>(p.x), static_cast<double>(p.y)};
        _tick = next;
        return;
    }
    const double substepTicks = static_cast<double>(kStepTicks) / _substeps;
    const double substepUs = substepTicks / 64.0;
    Axis x{_position.x, _velocity.x};
    Axis y{_position.y, _velocity.y};
    double start = static_cast<double>(_tick);
    Vec2 from = commanded.interpolated(start);
    for (unsigned i = 0; i < _substeps; ++i, start += substepTicks) {
        const Vec2 middle = commanded.interpolated(start + substepTicks / 2);
        const Vec2 to = commanded.interpolated(start + substepTicks);
        integrate(x, from.x, middle.x, to.x, substepUs);
        integrate(y, from.y, middle.y, to.y, substepUs);
        from = to;
    }
    _position = {x.position, y.position};
    _velocity = {x.velocity, y.velocity};
    _tick = next;
}

bool ServoModel::restsAt(const Point point) const noexcept {
    if (_settings.kind == ServoKind::delay) {
        return std::lround(_position.x) == point.x && std::lround(_position.y) == point.y;
    }
    // An upper bound of the amplitude still to come, for damping from 0.2 on: the offset plus what the speed
    // carries it within one time constant.
    const double w = _naturalFrequencyPerUs;
    const double rest = std::max(std::fabs(_position.x - static_cast<double>(point.x)) + 2 * std::fabs(_velocity.x) / w,
                                 std::fabs(_position.y - static_cast<double>(point.y)) + 2 * std::fabs(_velocity.y) / w);
    return rest < 0.4;
}

}  // namespace oltbsim
