// One pass splits the events into the head's four position channels, the gate's intervals and the count of lost
// events; every figure is then worked out from those, each in time linear in the trace (the tracking error adds a
// search over a sample of the trace).
#include "analysis/TraceAnalysis.h"

#include "analysis/Motions.h"
#include "analysis/Series.h"
#include "analysis/TrackingError.h"

#include <algorithm>
#include <array>
#include <limits>
#include <numeric>

namespace oltb::analysis {

namespace {

constexpr double Forever = std::numeric_limits<double>::infinity();

struct Channels {
    Series commandedX, commandedY, actualX, actualY;
    bool gateTraced = false;
    std::vector<Interval> gate;
    std::array<std::uint64_t, 128> lost{};
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
    std::array<std::size_t, 4> sizes{};
    for (std::size_t i = 0; i < count; ++i) {
        const oltbTraceEventType type = events[i].Type;
        sizes[0] += type == head.commandedX;
        sizes[1] += type == head.commandedY;
        sizes[2] += type == head.actualX;
        sizes[3] += type == head.actualY;
    }
    std::size_t index = 0;
    for (Series* series : {&channels.commandedX, &channels.commandedY, &channels.actualX, &channels.actualY}) {
        series->t.reserve(sizes[index]);
        series->v.reserve(sizes[index++]);
    }
    bool on = false;
    Interval current;
    const double firstTime = count > 0 ? events[0].Time : 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const oltbTraceEvent& event = events[i];
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
            // The trace holds the gate where it changes, so a first event that is already on is normally the
            // edge itself; only at the very start of the trace may the gate have been on before.
            const bool nowOn = (event.Value & 1) != 0;
            if (nowOn && !on) {
                current = {event.Time, 0.0, !channels.gateTraced && event.Time <= firstTime, false};
            } else if (!nowOn && on) {
                current.off = event.Time;
                channels.gate.push_back(current);
            }
            on = nowOn;
            channels.gateTraced = true;
        }
    }
    if (on) {
        current.off = events[count - 1].Time;
        current.openEnd = true;
        channels.gate.push_back(current);
    }
    for (Series* series : {&channels.commandedX, &channels.commandedY, &channels.actualX, &channels.actualY}) {
        putInOrder(*series);
    }
    return channels;
}

std::string nameOf(int head, const char* channel) {
    return "Head" + std::to_string(head) + channel;
}

std::string joinNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::optional<double> medianOf(const std::vector<Mark>& marks, std::optional<double> Mark::*offset) {
    std::vector<double> values;
    for (const Mark& mark : marks) {
        if (mark.*offset) {
            values.push_back(*(mark.*offset));
        }
    }
    return values.empty() ? std::nullopt : std::optional<double>(median(std::move(values)));
}

}  // namespace

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
    result.durationUs = count > 0 ? events[count - 1].Time - events[0].Time : 0.0;
    result.settleBandUnits = options.settleBandUnits;
    Channels channels = split(events, count, channelsOf(options.head));
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
        Series& commanded;
        Series& actual;
        const char* commandedName;
        const char* actualName;
        std::optional<double>& trackingError;
        ErrorFigures& followingError;
    };
    Axis axes[] = {
        {"X", channels.commandedX, channels.actualX, "TxX", "RxX", result.trackingErrorXUs, result.followingErrorX},
        {"Y", channels.commandedY, channels.actualY, "TxY", "RxY", result.trackingErrorYUs, result.followingErrorY},
    };
    std::vector<Series> actualWhileMarking;
    actualWhileMarking.reserve(2);
    std::vector<AxisLag> lags;
    lags.reserve(2);
    std::vector<AxisLag*> found;
    for (Axis& axis : axes) {
        const std::string figure = std::string("tracking and following error of ") + axis.name;
        std::vector<std::string> absent;
        if (axis.commanded.empty()) absent.push_back(nameOf(options.head, axis.commandedName));
        if (axis.actual.empty()) absent.push_back(nameOf(options.head, axis.actualName));
        if (!absent.empty()) {
            addMissing(figure, joinNames(absent) + (absent.size() > 1 ? " are" : " is") + " not traced",
                       joinNames(absent));
            continue;
        }
        actualWhileMarking.push_back(within(axis.actual, windows));
        AxisLag& lag = lags.emplace_back(axis.commanded, actualWhileMarking.back());
        const LagEstimate estimate = estimateLag({&lag}, options.maxTrackingErrorUs);
        if (!estimate.lagUs) {
            addMissing(figure,
                       std::string(axis.name) + " " + estimate.failure +
                           (result.errorsWhileMarking ? " while the laser is on" : " in the trace"),
                       "");
            continue;
        }
        axis.trackingError = estimate.lagUs;
        axis.followingError = lag.residuals(*estimate.lagUs);
        found.push_back(&lag);
    }
    if (!found.empty()) {
        result.pathTrackingErrorUs = estimateLag(found, options.maxTrackingErrorUs).lagUs;
    }

    const std::string allPositions = joinNames({nameOf(options.head, "TxX"), nameOf(options.head, "TxY"),
                                                nameOf(options.head, "RxX"), nameOf(options.head, "RxY")});
    const bool allTraced = !channels.commandedX.empty() && !channels.commandedY.empty() &&
                           !channels.actualX.empty() && !channels.actualY.empty();
    lags.clear();  // the channels go into the paths
    const Path commanded = joinAxes(std::move(channels.commandedX), std::move(channels.commandedY));
    const Path actual = joinAxes(std::move(channels.actualX), std::move(channels.actualY));
    if (allTraced && result.pathTrackingErrorUs) {
        result.pathDeviation = pathDeviation(commanded, actual, windows, *result.pathTrackingErrorUs);
    } else {
        addMissing("path deviation", allTraced ? "there is no tracking error" : "needs both axes, commanded and actual",
                   allTraced ? "" : allPositions);
    }

    if (!channels.gateTraced) {
        addMissing("marks, laser timing and jumps", "Gate is not traced", "Gate");
        return result;
    }
    result.marks = measureMarks(commanded, channels.gate, result.pathTrackingErrorUs);
    result.laserOnOffsetUs = medianOf(result.marks, &Mark::laserOnOffsetUs);
    result.laserOffOffsetUs = medianOf(result.marks, &Mark::laserOffOffsetUs);
    if (result.laserOnOffsetUs) result.suggestedOnDelayChangeUs = -*result.laserOnOffsetUs;
    if (result.laserOffOffsetUs) result.suggestedOffDelayChangeUs = -*result.laserOffOffsetUs;
    if (commanded.size() < 2) {
        addMissing("mark lengths and speeds, laser timing and jumps", "the commanded positions are not traced",
                   joinNames({nameOf(options.head, "TxX"), nameOf(options.head, "TxY")}));
        return result;
    }
    if (!result.pathTrackingErrorUs) {
        addMissing("laser timing and settle times", "they need the tracking error",
                   actual.empty() ? joinNames({nameOf(options.head, "RxX"), nameOf(options.head, "RxY")}) : "");
    } else if (!result.marks.empty() && !result.laserOnOffsetUs && !result.laserOffOffsetUs) {
        addMissing("laser timing", "no mark has a motion of the mirror to compare with", "");
    }
    result.jumps = measureJumps(commanded, commandedMotions(commanded), channels.gate,
                                actual.empty() ? nullptr : &actual, result.pathTrackingErrorUs,
                                options.settleBandUnits);
    if (result.pathTrackingErrorUs) {
        result.jumpDelayTable = jumpDelayTable(result.jumps);
    }
    return result;
}

}  // namespace oltb::analysis
