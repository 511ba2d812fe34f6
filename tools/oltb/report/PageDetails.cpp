#include "tools/oltb/report/PageDetails.h"

#include "analysis/Json.h"

#include "tools/oltb/report/PackedNumbers.h"

#include "analysis/Segments.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

namespace oltb::report {

namespace {

constexpr double TickScale = 64;      // times in ticks of the card's clock (1/64 us)
constexpr double DistanceScale = 16;  // distances in 1/16 unit: the band is a few tens of units at the least
constexpr double WindowLags = 1.5;    // an edge's window reaches this many tracking errors beyond it
constexpr double DefaultLagUs = 300;  // a typical head's tracking error, for a trace that does not give one
constexpr std::size_t MaxWindowPoints = 500;

const auto number = [](double value) { return analysis::jsonNumber(value); };

double doseOf(std::optional<double> speedShare) { return speedShare ? 1 / std::max(*speedShare, 0.01) : 0.0; }

// The samples of `path` from `fromUs` to `toUs`, every so many so that at most MaxWindowPoints remain.
void windowOf(const analysis::Path& path, double fromUs, double toUs, std::vector<double>& t, std::vector<double>& x,
              std::vector<double>& y) {
    const auto first =
        static_cast<std::size_t>(std::lower_bound(path.t.begin(), path.t.end(), fromUs) - path.t.begin());
    const auto last = static_cast<std::size_t>(std::upper_bound(path.t.begin(), path.t.end(), toUs) - path.t.begin());
    const std::size_t stride =
        std::max<std::size_t>(1, (last - std::min(first, last) + MaxWindowPoints - 1) / MaxWindowPoints);
    for (std::size_t i = first; i < last; i += stride) {
        t.push_back(path.t[i]);
        x.push_back(path.x[i]);
        y.push_back(path.y[i]);
    }
}

std::string samplesJson(const analysis::Path& path, double fromUs, double toUs) {
    std::vector<double> t, x, y;
    windowOf(path, fromUs, toUs, t, x, y);
    return "{\"t\": " + packedNumbers(t, TickScale, fromUs) + ", \"x\": " + packedNumbers(x, 1) +
           ", \"y\": " + packedNumbers(y, 1) + "}";
}

std::string edgeJson(double gateUs, double commandUs, analysis::Vec2 point, analysis::Vec2 direction, double lagUs,
                     const analysis::Path& commanded, const analysis::Path& mirror) {
    const double from = std::min(gateUs, commandUs) - WindowLags * lagUs;
    const double to = std::max(gateUs, commandUs) + WindowLags * lagUs;
    return "{\"gate_us\": " + number(gateUs) + ", \"command_us\": " + number(commandUs) + ", \"point\": [" +
           number(point.x) + ", " + number(point.y) + "], \"direction\": [" + number(direction.x) + ", " +
           number(direction.y) + "],\n    \"mirror\": " + samplesJson(mirror, from, to) +
           ",\n    \"command\": " + samplesJson(commanded, from, to) + "}";
}

template <typename Item, typename Format>
std::string listOf(const std::vector<Item>& items, std::size_t limit, Format format) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size() && i < limit; ++i) {
        out += (i == 0 ? "\n  " : ",\n  ") + format(items[i]);
    }
    return out + "]";
}

}  // namespace

std::vector<std::size_t> marksByEdges(const std::vector<analysis::Mark>& marks) {
    std::vector<std::size_t> byMissing, byDose;
    for (std::size_t i = 0; i < marks.size(); ++i) {
        if (marks[i].startMissing || marks[i].endMissing) {
            byMissing.push_back(i);
            byDose.push_back(i);
        }
    }
    const auto missing = [&](std::size_t i) {
        return std::max(std::abs(marks[i].startMissing.value_or(0.0)), std::abs(marks[i].endMissing.value_or(0.0)));
    };
    const auto dose = [&](std::size_t i) { return std::max(doseOf(marks[i].speedAtOn), doseOf(marks[i].speedAtOff)); };
    std::stable_sort(byMissing.begin(), byMissing.end(),
                     [&](std::size_t a, std::size_t b) { return missing(a) > missing(b); });
    std::stable_sort(byDose.begin(), byDose.end(), [&](std::size_t a, std::size_t b) { return dose(a) > dose(b); });
    std::vector<std::size_t> order;
    std::vector<bool> taken(marks.size(), false);
    for (std::size_t k = 0; k < byMissing.size(); ++k) {
        for (const std::size_t i : {byMissing[k], byDose[k]}) {
            if (!taken[i]) {
                taken[i] = true;
                order.push_back(i);
            }
        }
    }
    return order;
}

std::vector<std::size_t> jumpsBySettling(const std::vector<analysis::Jump>& jumps) {
    // Not settled with a known distance first (0), then settled (1), then undecided (2).
    const auto group = [&](std::size_t i) { return jumps[i].settled ? 1 : jumps[i].distanceAtNext ? 0 : 2; };
    const auto badness = [&](std::size_t i) {
        return jumps[i].settled ? jumps[i].settleUs.value_or(0.0) : jumps[i].distanceAtNext.value_or(0.0);
    };
    std::vector<std::size_t> order(jumps.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return group(a) != group(b) ? group(a) < group(b) : badness(a) > badness(b);
    });
    return order;
}

std::string markCloseUps(const analysis::Result& result, const analysis::Path& commanded, const analysis::Path& mirror,
                         const std::vector<std::size_t>& order, std::size_t limit) {
    const std::vector<analysis::Piece> pieces = analysis::commandedPieces(commanded);
    const double lag = result.pathTrackingErrorUs.value_or(DefaultLagUs);
    // The piece that starts (or ends) exactly when the mark's commanded motion does: the analysis took the mark's
    // start and end points and directions from it.
    const auto pieceAt = [&](std::optional<double> time, bool start) -> const analysis::Piece* {
        if (!time) return nullptr;
        const auto found = std::lower_bound(
            pieces.begin(), pieces.end(), *time,
            [&](const analysis::Piece& p, double t) { return (start ? p.startUs : p.endUs) < t - 1e-6; });
        return found != pieces.end() && std::abs((start ? found->startUs : found->endUs) - *time) <= 1e-6 ? &*found
                                                                                                          : nullptr;
    };
    return listOf(order, limit, [&](std::size_t i) {
        const analysis::Mark& mark = result.marks[i];
        const analysis::Piece* first = pieceAt(mark.commandStartUs, true);
        const analysis::Piece* last = pieceAt(mark.commandEndUs, false);
        return "{\"mark\": " + std::to_string(i) + ",\n   \"start\": " +
               (first && mark.startMissing
                    ? edgeJson(mark.startUs, first->startUs, first->from, first->startDirection, lag, commanded, mirror)
                    : "null") +
               ",\n   \"end\": " +
               (last && mark.endMissing
                    ? edgeJson(mark.endUs, last->endUs, last->to, last->endDirection, lag, commanded, mirror)
                    : "null") +
               "}";
    });
}

std::string jumpCloseUps(const analysis::Result& result, const analysis::Path& commanded, const analysis::Path& mirror,
                         const std::vector<std::size_t>& order, std::size_t limit) {
    const analysis::PathMotion command(commanded);
    return listOf(order, limit, [&](std::size_t i) {
        const analysis::Jump& jump = result.jumps[i];
        analysis::Vec2 target, velocity;
        if (!command.at(jump.endUs, target, velocity) || mirror.empty()) {
            return "{\"jump\": " + std::to_string(i) + ", \"t\": null}";
        }
        // From the end of the command until a quarter of the wait past the next motion (until the trace ends).
        const double next = jump.endUs + jump.delayUs.value_or(0.0);
        const double until = jump.delayUs ? next + std::max(0.25 * *jump.delayUs, 200.0)
                                          : std::min(mirror.t.back(), jump.endUs + 10'000);
        std::vector<double> t, x, y;
        windowOf(mirror, jump.endUs, until, t, x, y);
        std::vector<double> distance(t.size());
        for (std::size_t k = 0; k < t.size(); ++k) {
            distance[k] = std::hypot(x[k] - target.x, y[k] - target.y);
        }
        return "{\"jump\": " + std::to_string(i) + ", \"end_us\": " + number(jump.endUs) +
               ", \"next_us\": " + (jump.delayUs ? number(next) : "null") + ", \"target\": [" + number(target.x) +
               ", " + number(target.y) + "],\n   \"t\": " + packedNumbers(t, TickScale, jump.endUs) +
               ", \"distance\": " + packedNumbers(distance, DistanceScale) + "}";
    });
}

std::string cornerCloseUps(const analysis::Result& result, const analysis::Path& commanded,
                           const analysis::Path& mirror, const std::vector<std::size_t>& which) {
    const double lag = result.pathTrackingErrorUs.value_or(DefaultLagUs);
    return listOf(which, which.size(), [&](std::size_t i) {
        const analysis::Corner& corner = result.corners[i];
        const double from = corner.atUs - 2 * lag;
        const double to = corner.atUs + corner.delayUs + 3 * lag;
        return "{\"corner\": " + std::to_string(i) + ", \"at_us\": " + number(corner.atUs) + ", \"point\": [" +
               number(corner.x) + ", " + number(corner.y) + "],\n    \"mirror\": " + samplesJson(mirror, from, to) +
               ",\n    \"command\": " + samplesJson(commanded, from, to) + "}";
    });
}

}  // namespace oltb::report
