// The mirror's motion between its samples. The position feedback is sampled every few microseconds while the
// mirror accelerates over tens to hundreds, so a smooth curve through the samples tells where the mirror was and
// how fast it moved at any moment, such as a gate edge that falls between two samples.
#pragma once

#include "analysis/Series.h"

#include <cstddef>
#include <vector>

namespace oltb::analysis {

struct Vec2 {
    double x = 0;
    double y = 0;
};

inline Vec2 operator-(Vec2 a, Vec2 b) { return {a.x - b.x, a.y - b.y}; }
inline Vec2 operator+(Vec2 a, Vec2 b) { return {a.x + b.x, a.y + b.y}; }
inline Vec2 operator*(double f, Vec2 a) { return {f * a.x, f * a.y}; }
inline double dot(Vec2 a, Vec2 b) { return a.x * b.x + a.y * b.y; }
double length(Vec2 a);

// Position and velocity (units/us) of a path at any time within its samples. The velocity at a sample is the slope
// of a least-squares parabola through up to five samples around it (for even spacing the five-point
// Savitzky-Golay derivative, exact for cubic motion); between two samples a cubic Hermite curve joins the
// positions and the velocity goes linearly from one to the other. A gap of more than four typical spacings (lost
// samples) is not bridged.
class PathMotion {
public:
    explicit PathMotion(const Path& path);

    const Path& path() const { return _path; }
    bool empty() const { return _path.size() < 2; }
    // Position and velocity at `time`; false outside the samples or inside a gap.
    bool at(double time, Vec2& position, Vec2& velocity) const;
    Vec2 positionOf(std::size_t i) const { return {_path.x[i], _path.y[i]}; }
    Vec2 velocityOf(std::size_t i) const { return _velocity[i]; }
    // The first sample at or after `time` (size() when none).
    std::size_t firstAtOrAfter(double time) const;
    std::size_t size() const { return _path.size(); }
    double time(std::size_t i) const { return _path.t[i]; }
    double maxGap() const { return _maxGap; }

private:
    const Path& _path;
    double _maxGap = 0;
    std::vector<Vec2> _velocity;
};

}  // namespace oltb::analysis
