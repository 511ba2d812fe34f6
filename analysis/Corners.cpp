// Corners of polylines. At a corner the command turns at once (after the polygon delay) while the mirror, running
// behind, cuts it: the closest the mirror comes to the corner point is the rounding the part shows. Waiting longer
// at the corner lets the mirror get there, but a mirror that slows down with the laser on leaves a dot.
#include "analysis/Figures.h"

#include <algorithm>
#include <cmath>

namespace oltb::analysis {

namespace {

constexpr double Pi = 3.14159265358979323846;
constexpr double MostDose = 100;

}  // namespace

std::vector<Corner> measureCorners(const JobLayout& layout, const std::vector<Interval>& gate, const HeadView& head) {
    std::vector<Corner> corners;
    const double lag = head.lagUs.value_or(250.0);
    for (std::size_t k = 0; k < layout.polylines.size(); ++k) {
        const Polyline& polyline = layout.polylines[k];
        if (!polyline.firstPiece) {
            continue;
        }
        for (std::size_t p = *polyline.firstPiece; p < polyline.lastPiece; ++p) {
            const Piece& before = layout.pieces[p];
            const Piece& after = layout.pieces[p + 1];
            Corner corner;
            corner.mark = k;
            corner.atUs = before.endUs;
            corner.x = before.to.x;
            corner.y = before.to.y;
            corner.angleDeg =
                std::acos(std::clamp(dot(before.endDirection, after.startDirection), -1.0, 1.0)) * 180 / Pi;
            corner.delayUs = after.startUs - before.endUs;
            if (head.mirror.empty()) {
                corners.push_back(corner);
                continue;
            }
            // The mirror passes the corner a tracking error or so after the command leaves it.
            // The dose where the mirror is slowest around the corner, while the laser is on.
            const double from = corner.atUs;
            const double closeBy = std::min(after.endUs + lag, after.startUs + 3 * lag + 20);
            const double slowBy = std::min(after.startUs + 2 * lag, gate[polyline.gate].off);
            const double to = std::max(closeBy, slowBy);
            const Vec2 point{corner.x, corner.y};
            double closest = INFINITY;
            double closestTime = from;
            double slowest = INFINITY;
            Vec2 p0, v0;
            for (std::size_t i = head.mirror.firstAtOrAfter(from); i < head.mirror.size() && head.mirror.time(i) <= to;
                 ++i) {
                const double t = head.mirror.time(i);
                if (!head.mirror.at(t, p0, v0)) continue;
                const double distance = length(p0 - point);
                if (distance < closest && t <= closeBy) {
                    closest = distance;
                    closestTime = t;
                }
                if (t <= slowBy) slowest = std::min(slowest, length(v0));
            }
            if (!std::isfinite(closest)) {
                corners.push_back(corner);
                continue;
            }
            // Between the samples around the closest one, the smooth path may come closer still.
            const double spacing = head.mirror.maxGap() / 4;
            for (int step = 0; step < 40; ++step) {
                const double t = closestTime - spacing + 2 * spacing * step / 40.0;
                if (head.mirror.at(t, p0, v0)) closest = std::min(closest, length(p0 - point));
            }
            corner.rounding = closest;
            if (std::isfinite(slowest)) {
                corner.edgeDose = std::min(MostDose, before.speed / std::max(slowest, before.speed / MostDose));
            }
            if (closest > head.band) {
                AxisState x, y;
                if (stateAt(head, corner.atUs, x, y)) {
                    const FreeMotion free = head.model->holdAt(x, y, point, head.band);
                    if (free.firstEntryUs) corner.suggestedDelayUs = roundUpToPeriod(*free.firstEntryUs);
                } else {
                    corner.suggestedDelayUs = roundUpToPeriod(corner.delayUs + lag);
                }
            }
            corners.push_back(corner);
        }
    }
    return corners;
}

}  // namespace oltb::analysis
