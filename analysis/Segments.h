// What the card commanded, read from its position samples: straight or curved pieces at constant speed, the
// polylines the gate marked and the jumps between them. The card moves on its fixed output period, so the
// commanded path is exact: every change of speed or direction and every pause falls on a sample.
#pragma once

#include "analysis/Kinematics.h"
#include "analysis/Series.h"

#include <cstddef>
#include <optional>
#include <vector>

namespace oltb::analysis {

// A run of commanded steps at one speed without a pause or a corner: a jump, or one segment of a polyline.
struct Piece {
    std::size_t first = 0;  // steps first..last, step j from sample j to sample j + 1
    std::size_t last = 0;
    double startUs = 0;
    double endUs = 0;
    Vec2 from, to;                      // the commanded points where it starts and ends
    Vec2 startDirection, endDirection;  // unit vectors of its first and last steps
    double speed = 0;                   // units/us, of its full steps
    double length = 0;                  // along the path, units
    bool cutAtStart = false;            // the trace begins while it moves (it may have begun earlier)
    bool cutAtEnd = false;              // the trace ends while it moves
};

// One gate interval and the pieces its polyline consists of (none when the command stood still under the gate).
struct Polyline {
    std::size_t gate = 0;                   // index of the gate interval
    std::optional<std::size_t> firstPiece;  // pieces firstPiece..lastPiece
    std::size_t lastPiece = 0;
};

struct JobLayout {
    std::vector<Piece> pieces;                           // in time order
    std::vector<Polyline> polylines;                     // one per gate interval
    std::vector<std::size_t> jumps;                      // pieces that belong to no polyline
    std::vector<std::optional<std::size_t>> polylineOf;  // per piece, the polyline it belongs to
};

std::vector<Piece> commandedPieces(const Path& commanded);

// Assigns the pieces to the gate intervals: a polyline is the run of pieces at one speed around the last piece that
// started before its gate opened, within the pieces that start before its gate closes. Pieces at another speed are
// jumps; where a jump and the marks share one speed, the polyline starts with the piece whose start lies closest
// to its gate-on time minus the laser-on delay of the polylines that were told apart by speed.
JobLayout layOut(std::vector<Piece> pieces, const std::vector<Interval>& gate);

// The time the commanded path next moves after piece `index` ends, if the trace shows it.
std::optional<double> nextMotionAfter(const JobLayout& layout, std::size_t index);

}  // namespace oltb::analysis
