#include "analysis/Kinematics.h"

#include <algorithm>
#include <cmath>

namespace oltb::analysis {

namespace {

// The slope at t[i] of the least-squares parabola through the samples first..last (times relative to t[i]).
double slopeAt(const std::vector<double>& t, const std::vector<double>& v, std::size_t i, std::size_t first,
               std::size_t last) {
    const std::size_t count = last - first + 1;
    if (count < 2) {
        return 0.0;
    }
    if (count == 2) {
        const double span = t[last] - t[first];
        return span > 0 ? (v[last] - v[first]) / span : 0.0;
    }
    // Normal equations of x = a + b d + c d^2, d = t - t[i]; solved by Cramer's rule.
    double s[5] = {0, 0, 0, 0, 0};
    double r[3] = {0, 0, 0};
    for (std::size_t k = first; k <= last; ++k) {
        const double d = t[k] - t[i];
        double power = 1;
        for (int p = 0; p < 5; ++p) {
            s[p] += power;
            if (p < 3) {
                r[p] += v[k] * power;
            }
            power *= d;
        }
    }
    const double det =
        s[0] * (s[2] * s[4] - s[3] * s[3]) - s[1] * (s[1] * s[4] - s[3] * s[2]) + s[2] * (s[1] * s[3] - s[2] * s[2]);
    if (!(std::abs(det) > 0)) {
        return 0.0;
    }
    const double detB =
        s[0] * (r[1] * s[4] - s[3] * r[2]) - r[0] * (s[1] * s[4] - s[3] * s[2]) + s[2] * (s[1] * r[2] - r[1] * s[2]);
    return detB / det;
}

}  // namespace

double length(Vec2 a) { return std::hypot(a.x, a.y); }

PathMotion::PathMotion(const Path& path) : _path(path) {
    const std::size_t n = path.size();
    _maxGap = 4 * typicalSpacing(path.t);
    _velocity.resize(n);
    if (n < 2) {
        return;
    }
    // The samples joined without a gap: [segmentStart, segmentEnd].
    std::size_t segmentStart = 0;
    while (segmentStart < n) {
        std::size_t segmentEnd = segmentStart;
        while (segmentEnd + 1 < n && path.t[segmentEnd + 1] - path.t[segmentEnd] <= _maxGap) {
            ++segmentEnd;
        }
        for (std::size_t i = segmentStart; i <= segmentEnd; ++i) {
            const std::size_t first = std::max(segmentStart, i >= 2 ? i - 2 : 0);
            const std::size_t last = std::min(segmentEnd, i + 2);
            _velocity[i] = {slopeAt(path.t, path.x, i, first, last), slopeAt(path.t, path.y, i, first, last)};
        }
        segmentStart = segmentEnd + 1;
    }
}

std::size_t PathMotion::firstAtOrAfter(double time) const {
    return static_cast<std::size_t>(std::lower_bound(_path.t.begin(), _path.t.end(), time) - _path.t.begin());
}

bool PathMotion::at(double time, Vec2& position, Vec2& velocity) const {
    const std::size_t n = _path.size();
    if (n < 2 || !(time >= _path.t[0]) || !(time <= _path.t[n - 1])) {
        return false;
    }
    std::size_t i = firstAtOrAfter(time);
    if (i < n && _path.t[i] == time) {
        position = positionOf(i);
        velocity = _velocity[i];
        return true;
    }
    i -= 1;  // t[i] < time < t[i + 1]
    const double h = _path.t[i + 1] - _path.t[i];
    if (!(h > 0) || h > _maxGap) {
        return false;
    }
    const double s = (time - _path.t[i]) / h;
    const double s2 = s * s;
    const double s3 = s2 * s;
    const Vec2 p0 = positionOf(i);
    const Vec2 p1 = positionOf(i + 1);
    const Vec2 m0 = h * _velocity[i];
    const Vec2 m1 = h * _velocity[i + 1];
    position = (2 * s3 - 3 * s2 + 1) * p0 + (s3 - 2 * s2 + s) * m0 + (-2 * s3 + 3 * s2) * p1 + (s3 - s2) * m1;
    // The velocity between the samples from theirs, not from the curve: the curve's slope also carries the
    // rounding of the two positions to whole units.
    velocity = (1 - s) * _velocity[i] + s * _velocity[i + 1];
    return true;
}

}  // namespace oltb::analysis
