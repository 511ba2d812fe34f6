// What a trace of one scan head says about how the card is tuned: the tracking error of each axis, the following
// error and path deviation while marking, the laser's timing at the start and end of every mark, and how long the
// mirrors need to settle after every jump. Pure functions over the events of a capture: no files, no sockets, no
// threads; the command-line tool, the report and the Python package share them.
//
// Time is the events' Time (us), positions their signed values in head units. Events must be in time order as the
// library delivers them. Figures that the traced signals cannot give are left empty, and `missing` says which
// signals would give them.
#pragma once

#include "api/oltb.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oltb::analysis {

struct Options {
    int head = 0;                      // 0 or 1
    double settleBandUnits = 100.0;    // a jump has settled once the mirror stays this close to its target
    double maxTrackingErrorUs = 2000;  // the tracking error is looked for within +- this shift
};

// The event types of a head's channels.
struct HeadChannels {
    oltbTraceEventType commandedX, commandedY, actualX, actualY;
};
HeadChannels channelsOf(int head);

struct ErrorFigures {
    std::optional<double> rms;
    std::optional<double> max;  // largest magnitude
};

// One interval with the laser gate on.
struct Mark {
    double startUs = 0;                  // gate on
    double endUs = 0;                    // gate off
    std::optional<double> length;        // of the commanded motion of the mark, units
    std::optional<double> speed;         // its typical (median) commanded speed, units/ms
    std::optional<double> laserOnOffsetUs;   // gate on - start of the mirror's motion (> 0: laser late)
    std::optional<double> laserOffOffsetUs;  // gate off - end of the mirror's motion (> 0: laser late)
};

// One commanded motion with the gate off.
struct Jump {
    double startUs = 0;  // of the commanded motion
    double endUs = 0;
    double length = 0;   // commanded path length, units
    std::optional<double> settleUs;  // end of the commanded motion until the mirror stays within the band
    bool settled = false;            // ... and that before the next commanded motion began
    bool cutShort = false;           // the trace ended before the mirror settled: the settle time is unknown
};

// The jump delay that every traced jump up to `upToLength` units would have needed: the longest settle time among
// them (rows for longer jumps are never shorter).
struct JumpDelay {
    double upToLength = 0;
    std::optional<double> delayUs;  // empty when a jump longer than the row before did not settle within the trace
};

// A figure the trace could not give, and why.
struct MissingFigure {
    std::string figure;   // "tracking error X", "laser timing", ...
    std::string reason;   // "Head0RxX is not traced", "X does not move while the laser is on", ...
    std::string signals;  // the signals that would give it (empty when tracing more would not help)
};

struct Result {
    int head = 0;
    std::uint64_t events = 0;
    double durationUs = 0;
    double settleBandUnits = 0;  // as given in the options
    bool errorsWhileMarking = false;  // false: the errors are over the whole trace (no gate traced or never on)
    std::optional<double> trackingErrorXUs, trackingErrorYUs;
    std::optional<double> pathTrackingErrorUs;  // both axes together: the shift used for marks, jumps and paths
    ErrorFigures followingErrorX, followingErrorY, pathDeviation;
    std::vector<Mark> marks;
    std::optional<double> laserOnOffsetUs, laserOffOffsetUs;  // medians over the marks
    std::optional<double> suggestedOnDelayChangeUs, suggestedOffDelayChangeUs;
    std::vector<Jump> jumps;
    std::vector<JumpDelay> jumpDelayTable;
    std::vector<std::pair<int, std::uint64_t>> lostEvents;  // event type, events with the overflow flag (> 0)
    std::vector<MissingFigure> missing;
};

Result analyze(const oltbTraceEvent* events, std::size_t count, const Options& options = {});
inline Result analyze(const std::vector<oltbTraceEvent>& events, const Options& options = {}) {
    return analyze(events.data(), events.size(), options);
}

}  // namespace oltb::analysis
