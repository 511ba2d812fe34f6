// Piecewise path evaluation. Positions are rounded to whole units; a piece ends exactly on the point the next
// one starts from, so corners land on their nominal coordinates.
#include "tools/oltb-sim/Trajectory.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace oltb::sim {

std::uint64_t travelTicks(const double length, const double speedUnitsPerMs, const std::uint64_t periodTicks) {
    assert(speedUnitsPerMs > 0 && periodTicks > 0);
    constexpr double TicksPerMs = 64000.0;
    const double periods = std::ceil(length / speedUnitsPerMs * TicksPerMs / static_cast<double>(periodTicks));
    return std::max<std::uint64_t>(1, static_cast<std::uint64_t>(periods)) * periodTicks;
}

void Trajectory::append(Piece piece) {
    piece.startTick = _durationTicks;
    _durationTicks += piece.durationTicks;
    _end = evaluate(piece, piece.durationTicks);
    _pieces.push_back(piece);
}

void Trajectory::dwell(const std::uint64_t durationTicks) {
    Piece piece;
    piece.kind = Kind::dwell;
    piece.durationTicks = std::max<std::uint64_t>(1, (durationTicks + _periodTicks - 1) / _periodTicks) * _periodTicks;
    piece.from = piece.to = _end;
    append(piece);
}

void Trajectory::moveTo(const Point target, const double speedUnitsPerMs) {
    Piece piece;
    piece.kind = Kind::line;
    piece.from = _end;
    piece.to = target;
    const double length = std::hypot(static_cast<double>(target.x - _end.x), static_cast<double>(target.y - _end.y));
    piece.durationTicks = travelTicks(length, speedUnitsPerMs, _periodTicks);
    append(piece);
}

void Trajectory::arc(const Point center, const double sweepRadians, const double speedUnitsPerMs) {
    Piece piece;
    piece.kind = Kind::arc;
    piece.from = _end;
    piece.center = center;
    piece.radius = std::hypot(static_cast<double>(_end.x - center.x), static_cast<double>(_end.y - center.y));
    piece.startAngle = std::atan2(static_cast<double>(_end.y - center.y), static_cast<double>(_end.x - center.x));
    piece.sweep = sweepRadians;
    piece.durationTicks = travelTicks(piece.radius * std::fabs(sweepRadians), speedUnitsPerMs, _periodTicks);
    append(piece);
}

Point Trajectory::evaluate(const Piece& piece, const std::uint64_t elapsedTicks) {
    const double fraction = static_cast<double>(elapsedTicks) / static_cast<double>(piece.durationTicks);
    switch (piece.kind) {
        case Kind::dwell:
            return piece.from;
        case Kind::line:
            if (elapsedTicks >= piece.durationTicks) {
                return piece.to;
            }
            return {piece.from.x + std::llround(static_cast<double>(piece.to.x - piece.from.x) * fraction),
                    piece.from.y + std::llround(static_cast<double>(piece.to.y - piece.from.y) * fraction)};
        case Kind::arc: {
            const double angle = piece.startAngle + piece.sweep * fraction;
            return {piece.center.x + std::llround(piece.radius * std::cos(angle)),
                    piece.center.y + std::llround(piece.radius * std::sin(angle))};
        }
    }
    return piece.from;
}

// The last piece that starts at or before `tick`, if the path runs then.
const Trajectory::Piece* Trajectory::pieceAt(const std::uint64_t tick) const {
    if (_pieces.empty() || tick >= _durationTicks) {
        return nullptr;
    }
    const auto next = std::upper_bound(_pieces.begin(), _pieces.end(), tick,
                                       [](std::uint64_t value, const Piece& piece) { return value < piece.startTick; });
    return &*(next - 1);
}

Point Trajectory::at(const std::int64_t tick) const {
    if (_pieces.empty() || tick <= 0) {
        return _start;
    }
    const auto t = static_cast<std::uint64_t>(tick);
    const Piece* piece = pieceAt(t);
    return piece == nullptr ? _end : evaluate(*piece, t - piece->startTick);
}

Vec2 Trajectory::velocity(const double tick) const {
    if (tick < 0) {
        return {};
    }
    const Piece* piece = pieceAt(static_cast<std::uint64_t>(std::floor(tick)));
    if (piece == nullptr || piece->kind == Kind::dwell) {
        return {};
    }
    const double durationUs = static_cast<double>(piece->durationTicks) / 64.0;
    if (piece->kind == Kind::line) {
        return {static_cast<double>(piece->to.x - piece->from.x) / durationUs,
                static_cast<double>(piece->to.y - piece->from.y) / durationUs};
    }
    const double fraction = (tick - static_cast<double>(piece->startTick)) / static_cast<double>(piece->durationTicks);
    const double angle = piece->startAngle + piece->sweep * fraction;
    const double speed = piece->radius * piece->sweep / durationUs;  // signed: the sense of the turn
    return {-speed * std::sin(angle), speed * std::cos(angle)};
}

Vec2 Trajectory::interpolated(const double tick) const {
    const double whole = std::floor(tick);
    const Point before = at(static_cast<std::int64_t>(whole));
    const double fraction = tick - whole;
    if (fraction == 0) {
        return {static_cast<double>(before.x), static_cast<double>(before.y)};
    }
    const Point after = at(static_cast<std::int64_t>(whole) + 1);
    return {static_cast<double>(before.x) + fraction * static_cast<double>(after.x - before.x),
            static_cast<double>(before.y) + fraction * static_cast<double>(after.y - before.y)};
}

}  // namespace oltb::sim
