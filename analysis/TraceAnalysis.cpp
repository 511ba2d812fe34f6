// One pass splits the events into the head's four position channels, the gate's intervals and the count of lost
// events. Then, in the order each needs the one before: the commanded pieces and the polylines the gate marked, the
// steady lag of each axis, the model of each axis, the marks' edges, the jumps' settling, the corners, and the
// advice. Every step is linear in the samples, or works on a bounded selection of them (the model's fit).
#include "analysis/TraceAnalysis.h"

#include "analysis/Figures.h"
#include "analysis/Series.h"
#include "analysis/TrackingError.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

namespace oltb::analysis {

namespace {

constexpr double Forever = std::numeric_limits<double>::infinity();
// Integration steps of the head's model for all predictions of one analysis (each of a jump, a corner or a mark's
// end takes a few thousand): enough for traces of hundreds of jumps, and a bound on the work whatever the trace.
constexpr std::size_t PredictionSteps = 4'000'000;
constexpr double Pi = 3.14159265358979323846;

struct Channels {
    Series commandedX, commandedY, actualX, actualY;
    bool gateTraced = false;
    std::vector<Interval> gate;
    std::array<std::uint64_t, 128> lost{};
    double firstTime = 0, lastTime = 0;
};

// Samples of one channel out of order (never from the library, possibly from an edited file) are put in order.
void putInOrder(Series& series) {
    if (std::is_sorted(series.t.begin(), series.t.end())) {
        return;
    }
    std::vector<std::size_t> order(series.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return series.t[a] < series.t[b]; });
    Series sorted;
    for (const std::size_t i : order) {
        sorted.add(series.t[i], series.v[i]);
    }
    series = std::move(sorted);
}

Channels split(const oltbTraceEvent* events, std::size_t count, const HeadChannels& head) {
    Channels channels;
    // The gate's changes, in time order whatever the order of the events.
    std::vector<std::pair<double, bool>> changes;
    bool first = true;
    for (std::size_t i = 0; i < count; ++i) {
        const oltbTraceEvent& event = events[i];
        if (!std::isfinite(event.Time)) {
            continue;
        }
        channels.firstTime = first ? event.Time : std::min(channels.firstTime, event.Time);
        channels.lastTime = first ? event.Time : std::max(channels.lastTime, event.Time);
        first = false;
        const auto type = static_cast<unsigned>(event.Type);
        if (event.Overflow && type < channels.lost.size()) {
            ++channels.lost[type];
        }
        if (event.Type == head.commandedX) {
            channels.commandedX.add(event.Time, event.Value);
        } else if (event.Type == head.commandedY) {
            channels.commandedY.add(event.Time, event.Value);
        } else if (event.Type == head.actualX) {
            channels.actualX.add(event.Time, event.Value);
        } else if (event.Type == head.actualY) {
            channels.actualY.add(event.Time, event.Value);
        } else if (event.Type == oltbEventGate) {
            changes.emplace_back(event.Time, (event.Value & 1) != 0);
            channels.gateTraced = true;
        }
    }
    std::stable_sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    // The trace holds the gate where it changes, so a first event that is already on is normally the edge itself;
    // only at the very start of the trace may the gate have been on before.
    bool on = false;
    Interval current;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const auto& [time, nowOn] = changes[i];
        if (nowOn && !on) {
            current = {time, 0.0, i == 0 && time <= channels.firstTime, false};
        } else if (!nowOn && on) {
            current.off = time;
            channels.gate.push_back(current);
        }
        on = nowOn;
    }
    if (on) {
        current.off = channels.lastTime;
        current.openEnd = true;
        channels.gate.push_back(current);
    }
    for (Series* series : {&channels.commandedX, &channels.commandedY, &channels.actualX, &channels.actualY}) {
        putInOrder(*series);
    }
    return channels;
}

std::string nameOf(int head, const char* channel) { return "Head" + std::to_string(head) + channel; }

std::string joinNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::optional<double> medianOf(const std::vector<Mark>& marks, std::optional<double> Mark::*field) {
    std::vector<double> values;
    for (const Mark& mark : marks) {
        if (mark.*field) {
            values.push_back(*(mark.*field));
        }
    }
    return values.empty() ? std::nullopt : std::optional<double>(median(std::move(values)));
}

// The stretches that tell most about the head's dynamics: every jump with its arrival, and the start and the end of
// every polyline. Long jumps give their start and their end.
Windows fitWindows(const JobLayout& layout) {
    Windows windows;
    for (std::size_t p = 0; p < layout.pieces.size(); ++p) {
        const Piece& piece = layout.pieces[p];
        const double next = nextMotionAfter(layout, p).value_or(piece.endUs + 2000);
        const double arrival = std::min(next, piece.endUs + 2000);
        const bool jump = !layout.polylineOf[p];
        const bool polylineStart = !jump && (p == 0 || layout.polylineOf[p - 1] != layout.polylineOf[p]);
        const bool polylineEnd =
            !jump && (p + 1 == layout.pieces.size() || layout.polylineOf[p + 1] != layout.polylineOf[p]);
        if (jump || polylineStart) {
            windows.emplace_back(piece.startUs - 20, std::min(piece.startUs + 1500, jump ? arrival : piece.endUs));
        }
        if (jump || polylineEnd) {
            windows.emplace_back(std::max(piece.startUs, piece.endUs - 500), arrival);
        }
    }
    std::sort(windows.begin(), windows.end());
    Windows merged;
    for (const auto& window : windows) {
        if (!merged.empty() && window.first <= merged.back().second) {
            merged.back().second = std::max(merged.back().second, window.second);
        } else {
            merged.push_back(window);
        }
    }
    // Spread over the trace: every n-th window when there are many.
    Windows chosen;
    const std::size_t stride = std::max<std::size_t>(1, merged.size() / 48);
    for (std::size_t i = 0; i < merged.size(); i += stride) {
        chosen.push_back(merged[i]);
    }
    return chosen;
}

void describeServo(AxisServo& servo, const SteadyLag& lag, const AxisFit& fit) {
    servo.trackingErrorUs = lag.lagUs;
    servo.trackingFailure = lag.failure;
    if (!fit.model) {
        return;
    }
    servo.naturalFrequencyHz = fit.model->omegaPerUs * 1e6 / (2 * Pi);
    servo.damping = fit.model->damping;
    servo.driverFilterUs = fit.model->filterUs;
    if (fit.accelerationLimited) servo.maxAcceleration = fit.model->maxAcceleration * 1e6;
    servo.fitRms = fit.fitRms;
    servo.followingRms = fit.followingRms;
    servo.fitHolds = fit.holds;
}

}  // namespace

std::shared_ptr<const HeadSeries> headSeries(const oltbTraceEvent* events, std::size_t count, const Result& result) {
    Channels channels = split(events, count, channelsOf(result.head));
    HeadSeries series{std::move(channels.commandedX),
                      std::move(channels.commandedY),
                      std::move(channels.actualX),
                      std::move(channels.actualY),
                      {},
                      {}};
    if (result.trackingErrorXUs) {
        series.followingErrorX = followingErrorSeries(series.commandedX, series.actualX, *result.trackingErrorXUs);
    }
    if (result.trackingErrorYUs) {
        series.followingErrorY = followingErrorSeries(series.commandedY, series.actualY, *result.trackingErrorYUs);
    }
    return std::make_shared<const HeadSeries>(std::move(series));
}

HeadChannels channelsOf(int head) {
    if (head == 1) {
        return {oltbEventHead1TxX, oltbEventHead1TxY, oltbEventHead1RxX, oltbEventHead1RxY};
    }
    return {oltbEventHead0TxX, oltbEventHead0TxY, oltbEventHead0RxX, oltbEventHead0RxY};
}

Result analyze(const oltbTraceEvent* events, std::size_t count, const Options& options) {
    Result result;
    result.head = options.head;
    result.events = count;
    result.settleBandUnits = options.settleBandUnits;
    result.maxEdgeDose = options.maxEdgeDose;
    Channels channels = split(events, count, channelsOf(options.head));
    result.durationUs = channels.lastTime - channels.firstTime;
    for (std::size_t type = 0; type < channels.lost.size(); ++type) {
        if (channels.lost[type] > 0) {
            result.lostEvents.emplace_back(static_cast<int>(type), channels.lost[type]);
        }
    }
    const auto addMissing = [&result](std::string figure, std::string reason, std::string signals) {
        result.missing.push_back({std::move(figure), std::move(reason), std::move(signals)});
    };

    // The errors count while marking; without a traced gate, or a gate that never opened, over the whole trace.
    result.errorsWhileMarking = channels.gateTraced && !channels.gate.empty();
    const std::vector<Interval> everything{{-Forever, Forever, false, false}};
    const std::vector<Interval>& windows = result.errorsWhileMarking ? channels.gate : everything;

    struct Axis {
        const char* name;
        const Series& commanded;
        const Series& actual;
        const char* commandedName;
        const char* actualName;
        AxisServo& servo;
        ErrorFigures& followingError;
        SteadyLag lag;
        Series errors;
    };
    Axis axes[] = {
        {"X", channels.commandedX, channels.actualX, "TxX", "RxX", result.servoX, result.followingErrorX, {}, {}},
        {"Y", channels.commandedY, channels.actualY, "TxY", "RxY", result.servoY, result.followingErrorY, {}, {}},
    };
    for (Axis& axis : axes) {
        std::vector<std::string> absent;
        if (axis.commanded.empty()) absent.push_back(nameOf(options.head, axis.commandedName));
        if (axis.actual.empty()) absent.push_back(nameOf(options.head, axis.actualName));
        if (!absent.empty()) {
            addMissing(std::string("tracking and following error of ") + axis.name,
                       joinNames(absent) + (absent.size() > 1 ? " are" : " is") + " not traced", joinNames(absent));
            continue;
        }
        axis.lag = steadyLag(axis.commanded, axis.actual);
        if (!axis.lag.lagUs) {
            addMissing(std::string("tracking error of ") + axis.name,
                       "the command " + axis.lag.failure + " on " + axis.name, "");
            continue;
        }
        axis.errors = followingErrorSeries(axis.commanded, axis.actual, *axis.lag.lagUs);
        axis.followingError = rmsAndLargest(axis.errors, windows);
    }
    result.trackingErrorXUs = axes[0].lag.lagUs;
    result.trackingErrorYUs = axes[1].lag.lagUs;
    if (result.trackingErrorXUs && result.trackingErrorYUs) {
        result.pathTrackingErrorUs = (*result.trackingErrorXUs + *result.trackingErrorYUs) / 2;
    } else {
        result.pathTrackingErrorUs = result.trackingErrorXUs ? result.trackingErrorXUs : result.trackingErrorYUs;
    }

    const std::string allPositions = joinNames({nameOf(options.head, "TxX"), nameOf(options.head, "TxY"),
                                                nameOf(options.head, "RxX"), nameOf(options.head, "RxY")});
    const bool allTraced = !channels.commandedX.empty() && !channels.commandedY.empty() && !channels.actualX.empty() &&
                           !channels.actualY.empty();
    if (options.keepSeries) {
        result.series = std::make_shared<const HeadSeries>(
            HeadSeries{channels.commandedX, channels.commandedY, channels.actualX, channels.actualY,
                       std::move(axes[0].errors), std::move(axes[1].errors)});
    }
    const Path commanded = joinAxes(std::move(channels.commandedX), std::move(channels.commandedY));
    const Path actual = joinAxes(std::move(channels.actualX), std::move(channels.actualY));
    if (allTraced && result.pathTrackingErrorUs) {
        result.pathDeviation = pathDeviation(commanded, actual, windows, *result.pathTrackingErrorUs);
    } else {
        addMissing("path deviation", allTraced ? "there is no tracking error" : "needs both axes, commanded and actual",
                   allTraced ? "" : allPositions);
    }

    const JobLayout layout = layOut(commandedPieces(commanded), channels.gate);
    const PathMotion mirror(actual);
    HeadView head{commanded, mirror, std::nullopt, std::nullopt, options.settleBandUnits, options.maxEdgeDose};
    if (result.trackingErrorXUs || result.trackingErrorYUs) {
        head.lagUs = std::max(result.trackingErrorXUs.value_or(0.0), result.trackingErrorYUs.value_or(0.0));
    }
    if (allTraced && commanded.size() >= 2) {
        const Windows fitting = fitWindows(layout);
        const AxisFit fitX = fitAxis(commanded, mirror, 0, fitting, result.trackingErrorXUs);
        const AxisFit fitY = fitAxis(commanded, mirror, 1, fitting, result.trackingErrorYUs);
        describeServo(result.servoX, axes[0].lag, fitX);
        describeServo(result.servoY, axes[1].lag, fitY);
        // An axis that does not move has nothing to fit; the other's model stands in for it.
        const AxisFit& standInX = fitX.model ? fitX : fitY;
        const AxisFit& standInY = fitY.model ? fitY : fitX;
        if (standInX.model && standInY.model && standInX.holds && standInY.holds) {
            head.model.emplace(*standInX.model, *standInY.model, PredictionSteps);
        }
    } else {
        result.servoX.trackingErrorUs = axes[0].lag.lagUs;
        result.servoX.trackingFailure = axes[0].lag.failure;
        result.servoY.trackingErrorUs = axes[1].lag.lagUs;
        result.servoY.trackingFailure = axes[1].lag.failure;
    }

    if (!channels.gateTraced) {
        addMissing("marks, laser timing and jumps", "Gate is not traced", "Gate");
        return result;
    }
    if (commanded.size() < 2) {
        result.marks = measureMarks(layout, channels.gate, head);
        addMissing("mark lengths and speeds, laser timing and jumps", "the commanded positions are not traced",
                   joinNames({nameOf(options.head, "TxX"), nameOf(options.head, "TxY")}));
        return result;
    }
    result.marks = measureMarks(layout, channels.gate, head);
    result.jumps = measureJumps(layout, head, result.marks);
    result.jumpDelayTable = jumpDelayTable(result.jumps);
    result.corners = measureCorners(layout, channels.gate, head);
    result.laserOnOffsetUs = medianOf(result.marks, &Mark::laserOnOffsetUs);
    result.laserOffOffsetUs = medianOf(result.marks, &Mark::laserOffOffsetUs);
    adviseLaser(result, layout, head);
    adviseSettings(result, layout);
    if (result.settings.laserOn.now && result.settings.laserOn.suggested) {
        result.suggestedOnDelayChangeUs = *result.settings.laserOn.suggested - *result.settings.laserOn.now;
    }
    if (result.settings.laserOff.now && result.settings.laserOff.suggested) {
        result.suggestedOffDelayChangeUs = *result.settings.laserOff.suggested - *result.settings.laserOff.now;
    }
    if (head.model && head.model->spent()) {
        result.warnings.push_back(
            "The trace has more jumps and corners than the head's model predicts for in one "
            "analysis: the later ones are as measured, not predicted.");
    }
    if (mirror.empty()) {
        addMissing("laser edges and settle times", "they need the mirror's positions",
                   joinNames({nameOf(options.head, "RxX"), nameOf(options.head, "RxY")}));
    } else {
        std::size_t unmeasured = 0;
        for (const Mark& mark : result.marks) unmeasured += mark.notMeasured.empty() ? 0 : 1;
        if (unmeasured > 0) {
            addMissing("laser edges of " + std::to_string(unmeasured) + " of " + std::to_string(result.marks.size()) +
                           " marks",
                       "see the marks' notes", "");
        }
    }
    return result;
}

}  // namespace oltb::analysis
