#include "analysis/Segments.h"

#include <algorithm>
#include <cmath>

namespace oltb::analysis {

namespace {

// A step shorter than this (the positions are whole units) is standing still.
constexpr double StillStep = 0.5;
// Two steps belong to one piece unless their vectors differ by more than this share of the longer one (a corner,
// a change of speed) and by more than the rounding of whole units can make.
constexpr double TurnShare = 0.2;
constexpr double RoundingUnits = 2.5;
// Pieces within this share of each other's speed move at one speed (rounding to whole units shows in the steps).
constexpr double SameSpeedShare = 0.08;

Vec2 stepOf(const Path& path, std::size_t j) { return {path.x[j + 1] - path.x[j], path.y[j + 1] - path.y[j]}; }

Vec2 unit(Vec2 v) {
    const double size = length(v);
    return size > 0 ? (1 / size) * v : Vec2{};
}

bool sameSpeed(double a, double b) { return std::abs(a - b) <= SameSpeedShare * std::max(a, b); }

Piece makePiece(const Path& path, std::size_t first, std::size_t last) {
    Piece piece;
    piece.first = first;
    piece.last = last;
    piece.startUs = path.t[first];
    piece.endUs = path.t[last + 1];
    piece.from = {path.x[first], path.y[first]};
    piece.to = {path.x[last + 1], path.y[last + 1]};
    std::vector<double> speeds;
    for (std::size_t j = first; j <= last; ++j) {
        const double stepLength = length(stepOf(path, j));
        const double duration = path.t[j + 1] - path.t[j];
        piece.length += stepLength;
        // The last step carries what is left of the length, so it only counts when it is the only one.
        if (duration > 0 && (j < last || first == last)) {
            speeds.push_back(stepLength / duration);
        }
    }
    piece.speed = speeds.empty() ? 0.0 : median(std::move(speeds));
    // Directions from a few steps, so that the rounding of one short step does not turn them.
    const std::size_t reach = std::min<std::size_t>(last - first, 2);
    piece.startDirection = unit(Vec2{path.x[first + reach + 1], path.y[first + reach + 1]} - piece.from);
    piece.endDirection = unit(piece.to - Vec2{path.x[last - reach], path.y[last - reach]});
    return piece;
}

}  // namespace

std::vector<Piece> commandedPieces(const Path& commanded) {
    std::vector<Piece> pieces;
    if (commanded.size() < 2) {
        return pieces;
    }
    const double maxGap = 4 * typicalSpacing(commanded.t);
    const std::size_t steps = commanded.size() - 1;
    std::size_t j = 0;
    while (j < steps) {
        if (length(stepOf(commanded, j)) < StillStep || commanded.t[j + 1] - commanded.t[j] > maxGap) {
            ++j;
            continue;
        }
        const std::size_t first = j;
        while (j + 1 < steps && commanded.t[j + 2] - commanded.t[j + 1] <= maxGap) {
            const Vec2 now = stepOf(commanded, j);
            const Vec2 next = stepOf(commanded, j + 1);
            const double longer = std::max(length(now), length(next));
            if (length(next) < StillStep || length(next - now) > std::max(TurnShare * longer, RoundingUnits)) {
                break;
            }
            ++j;
        }
        Piece piece = makePiece(commanded, first, j);
        ++j;
        // The last step of a line is usually shorter than the others (the rest of its length): it belongs to it.
        if (!pieces.empty() && piece.first == piece.last && pieces.back().last + 1 == piece.first &&
            dot(piece.startDirection, pieces.back().endDirection) > std::cos(0.2) &&
            length(stepOf(commanded, piece.first)) <= length(stepOf(commanded, pieces.back().last)) + RoundingUnits) {
            piece = makePiece(commanded, pieces.back().first, piece.last);
            pieces.back() = piece;
            continue;
        }
        pieces.push_back(piece);
    }
    if (!pieces.empty()) {
        pieces.front().cutAtStart = pieces.front().first == 0;
        pieces.back().cutAtEnd = pieces.back().last + 1 == steps;
    }
    return pieces;
}

JobLayout layOut(std::vector<Piece> pieces, const std::vector<Interval>& gate) {
    JobLayout layout;
    layout.pieces = std::move(pieces);
    layout.polylineOf.assign(layout.pieces.size(), std::nullopt);
    const std::size_t n = layout.pieces.size();
    // First pass: each gate interval's polyline is the run of pieces at one speed around the last piece that
    // started before the gate opened (the laser-on delay is usually shorter than a polyline's first segment; where
    // it is not, the run reaches back to it). A piece of another speed before it is the jump, and after it the
    // jump that may begin before the gate closes (a laser-off delay longer than the mark delay).
    std::vector<bool> ambiguous(gate.size(), false);
    std::vector<std::size_t> lowest(gate.size(), 0);  // the first piece the polyline may take
    std::size_t lower = 0;
    for (std::size_t k = 0; k < gate.size(); ++k) {
        Polyline polyline;
        polyline.gate = k;
        lowest[k] = lower;
        std::size_t anchor = lower;
        while (anchor + 1 < n && layout.pieces[anchor + 1].startUs <= gate[k].on) {
            ++anchor;
        }
        if (anchor < n && layout.pieces[anchor].startUs < gate[k].off) {
            const double speed = layout.pieces[anchor].speed;
            std::size_t first = anchor;
            while (first > lower && sameSpeed(layout.pieces[first - 1].speed, speed)) {
                --first;
            }
            std::size_t last = anchor;
            while (last + 1 < n && layout.pieces[last + 1].startUs < gate[k].off &&
                   sameSpeed(layout.pieces[last + 1].speed, speed)) {
                ++last;
            }
            ambiguous[k] = first == lower && first < anchor;
            polyline.firstPiece = first;
            polyline.lastPiece = last;
            lower = last + 1;
        }
        layout.polylines.push_back(polyline);
    }
    // Second pass: where the speeds could not tell the jump from the mark, the laser-on delay of the others can.
    std::vector<double> onDelays;
    for (std::size_t k = 0; k < gate.size(); ++k) {
        const Polyline& polyline = layout.polylines[k];
        if (polyline.firstPiece && !ambiguous[k] && !gate[k].openStart) {
            onDelays.push_back(gate[k].on - layout.pieces[*polyline.firstPiece].startUs);
        }
    }
    for (std::size_t k = 0; k < gate.size(); ++k) {
        Polyline& polyline = layout.polylines[k];
        if (!ambiguous[k]) {
            continue;
        }
        if (onDelays.empty()) {
            // Nothing to go by: the polyline starts with the last piece before the gate opened.
            while (*polyline.firstPiece + 1 <= polyline.lastPiece &&
                   layout.pieces[*polyline.firstPiece + 1].startUs <= gate[k].on) {
                ++*polyline.firstPiece;
            }
            continue;
        }
        const double wanted = gate[k].on - median(onDelays);
        std::size_t best = *polyline.firstPiece;
        for (std::size_t p = lowest[k]; p <= polyline.lastPiece; ++p) {
            if (std::abs(layout.pieces[p].startUs - wanted) < std::abs(layout.pieces[best].startUs - wanted)) {
                best = p;
            }
        }
        polyline.firstPiece = best;
    }
    for (std::size_t k = 0; k < layout.polylines.size(); ++k) {
        const Polyline& polyline = layout.polylines[k];
        if (polyline.firstPiece) {
            for (std::size_t p = *polyline.firstPiece; p <= polyline.lastPiece; ++p) {
                layout.polylineOf[p] = k;
            }
        }
    }
    for (std::size_t p = 0; p < n; ++p) {
        if (!layout.polylineOf[p]) {
            layout.jumps.push_back(p);
        }
    }
    return layout;
}

std::optional<double> nextMotionAfter(const JobLayout& layout, std::size_t index) {
    if (index + 1 < layout.pieces.size()) {
        return layout.pieces[index + 1].startUs;
    }
    return std::nullopt;
}

}  // namespace oltb::analysis
