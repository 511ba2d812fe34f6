// The commanded path of a scan head as a function of time: a chain of dwells, straight moves and circular arcs,
// each starting where the previous one ended. Positions are raw head units (the 20-bit range of the card, about
// +-524288); time is in ticks (1/64 us) from the start of the path. The card's servo loop runs at a fixed period,
// so every piece lasts a whole number of periods and starts and ends on a period boundary.
#pragma once

#include <cstdint>
#include <vector>

namespace oltb::sim {

struct Point {
    std::int64_t x = 0;
    std::int64_t y = 0;
    friend bool operator==(const Point& a, const Point& b) noexcept { return a.x == b.x && a.y == b.y; }
};

struct Vec2 {
    double x = 0;
    double y = 0;
};

class Trajectory {
public:
    Trajectory(Point start, std::uint64_t periodTicks) : _start(start), _end(start), _periodTicks(periodTicks) {}

    // Each piece lasts at least one period; speeds are in units per millisecond, and a move takes the periods it
    // needs at that speed, rounded up.
    void dwell(std::uint64_t durationTicks);
    void moveTo(Point target, double speedUnitsPerMs);
    void arc(Point center, double sweepRadians, double speedUnitsPerMs);

    // The position at `tick`; before the start it is the start point, after the end the end point.
    Point at(std::int64_t tick) const;
    // The position between two ticks, linear from the one to the other.
    Vec2 interpolated(double tick) const;
    // The velocity of the path as it leaves `tick` (units/us): along the piece that starts at or before it, exact
    // (not from the rounded positions); 0 before the start and from the end on.
    Vec2 velocity(double tick) const;

    std::uint64_t durationTicks() const noexcept { return _durationTicks; }
    Point end() const noexcept { return _end; }

private:
    enum class Kind { dwell, line, arc };
    struct Piece {
        Kind kind = Kind::dwell;
        std::uint64_t startTick = 0;
        std::uint64_t durationTicks = 1;
        Point from;
        Point to;
        Point center;
        double radius = 0;
        double startAngle = 0;
        double sweep = 0;
    };

    static Point evaluate(const Piece& piece, std::uint64_t elapsedTicks);
    const Piece* pieceAt(std::uint64_t tick) const;
    void append(Piece piece);

    Point _start;
    Point _end;
    std::uint64_t _periodTicks;
    std::uint64_t _durationTicks = 0;
    std::vector<Piece> _pieces;
};

// Ticks needed to cover `length` units at `speedUnitsPerMs`, rounded up to whole periods, at least one period.
std::uint64_t travelTicks(double length, double speedUnitsPerMs, std::uint64_t periodTicks);

}  // namespace oltb::sim
