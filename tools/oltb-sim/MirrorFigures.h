// What lands on the part, from the mirror's exact motion in the model (oltb-sim --explain): the laser edges of each
// polyline, the best gate times for a largest edge dose, how each jump settles and how each corner is drawn.
// The model is followed in 1 us steps over the whole run; between steps the state is the model's own interpolation
// (exact for the delay head), so gate edges that fall on any tick are measured where they fall. Definitions, with
// P0, d0 the commanded start point of a polyline and its direction there, P1, d1 its end point and direction, v its
// commanded speed and D the largest edge dose:
//   start_missing  (mirror at gate on - P0) . d0;  end_missing (P1 - mirror at gate off) . d1
//   speed_at_on    (mirror velocity at gate on) . d0 / v;  speed_at_off likewise with d1 at gate off
//   best on        the first moment from the commanded start at which the speed along d0 reaches v / D
//   best off       the earlier of: the speed along d1 falling below v / D (from the commanded end and the best on)
//                  and the mirror reaching P1 along d1 (from the best on, once the command runs the last segment)
//   settle         the last moment the mirror is outside the band around a jump's target, from the commanded end
//                  of the jump, the command held at the target until the mirror stays in the band (a copy of the model)
//   corner         rounding: the closest the mirror comes to the corner point from the start of the segment before
//                  until a lag after the end of the segment after (the mirror passes a short segment late); edge
//                  dose: v over the mirror's lowest speed from the moment the command reaches the corner until two
//                  lags after it leaves (the mirror a lag past the corner)
#pragma once

#include "tools/oltb-sim/MarkingJob.h"

#include <cstddef>
#include <vector>

namespace oltb::sim {

// NaN stands for a figure that does not exist (a best gate time the mirror never reaches, a zero-length edge).
struct MarkFigures {
    double markSpeedUnitsPerMs = 0;  // the commanded speed: the polyline's length over its moving time
    double startMissing = 0;
    double endMissing = 0;
    double speedAtOn = 0;
    double speedAtOff = 0;
    double bestLaserOnDelayUs = 0;
    double bestLaserOffDelayUs = 0;
    double startMissingAtBest = 0;
    double endMissingAtBest = 0;
};

struct JumpFigures {
    double settleUs = 0;  // NaN: the mirror did not come to rest within the model's horizon
    double windowUs = 0;  // from the commanded end to the next motion; NaN when nothing follows
    bool settled = false;
    double overshootUnits = 0;  // furthest beyond the target along the jump, until the next motion
};

struct CornerFigures {
    std::size_t mark = 0;      // the polyline
    std::uint64_t atTick = 0;  // the command reaches the corner
    Point point;
    double angleDeg = 0;        // the change of direction: 0 straight on, 180 back
    double polygonDelayUs = 0;  // how long the command stands at the corner
    double rounding = 0;
    double edgeDose = 0;
};

struct MirrorFigures {
    std::vector<MarkFigures> marks;  // one per polyline
    std::vector<JumpFigures> jumps;  // one per jump
    std::vector<CornerFigures> corners;
};

// The corners' window counts in lags of the head at constant speed, taken without the velocity limit.
MirrorFigures measureMirror(const MarkingJob& job);

// The dose at an edge or corner for a speed fraction: 1 / fraction, at most 100 (a dot).
double edgeDose(double speedFraction);

}  // namespace oltb::sim
