// What a trace of one scan head says about how the card is tuned, measured from what the mirror and the laser did:
// the card's settings as the trace shows them, where each mark's laser edges land on the part and how much dose
// they leave there, how long the mirror takes to settle after each jump, the corners, the head's steady lag and a
// model of its dynamics, and the settings to change with the outcome they would have. Pure functions over the
// events of a capture: no files, no sockets, no threads; the command-line tool, the report and the Python package
// share them.
//
// Time is the events' Time (us), positions their signed values in head units. Events should be in time order as the
// library delivers them (others are put in order; events with a time or value that is not a finite number are left
// out). Work and memory follow the number of events. Figures that the traced signals cannot give are left empty,
// and `missing` says which signals would give them.
#pragma once

#include "analysis/Series.h"
#include "api/oltb.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace oltb::analysis {

struct Options {
    int head = 0;                    // 0 or 1
    double settleBandUnits = 100.0;  // a jump has settled once the mirror stays this close to its target
    double maxEdgeDose = 2.0;        // the most dose, in times the nominal, that a mark's edge may take
    bool keepSeries = false;         // keep the head's samples in the result, for a page that draws them
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

// One interval with the laser gate on, and the polyline it marked.
struct Mark {
    double startUs = 0;                                     // gate on
    double endUs = 0;                                       // gate off
    std::optional<double> length;                           // of the polyline's commanded path, units
    std::optional<double> speed;                            // its commanded speed, units/ms
    std::optional<double> commandStartUs, commandEndUs;     // its commanded motion
    std::optional<double> startX, startY, endX, endY;       // its commanded start and end points
    std::optional<double> laserOnDelayUs, laserOffDelayUs;  // as the card has them: gate - commanded motion
    // Where the laser edges land, along the mark (units): > 0 that much of the start (end) is not marked; < 0 the
    // gate opened before the mirror reached the start point (stayed open after it passed the end point).
    std::optional<double> startMissing, endMissing;
    // The mirror's speed along the mark at the gate edges, as a share of the commanded speed.
    std::optional<double> speedAtOn, speedAtOff;
    // The laser delays that would put this mark's edges at the dose limit, and what they would leave missing.
    std::optional<double> bestOnDelayUs, bestOffDelayUs, startMissingAtBest, endMissingAtBest;
    // The next motion began before the mirror slowed at the end (a mark delay shorter than the laser-off delay): the
    // best laser-off delay is what the head's model says of the mirror had the command stayed at the end point.
    bool bestOffPredicted = false;
    // The fastest the mirror moves along the mark's start, as a share of the commanded speed: a mark too short for
    // the mirror to reach 1 / maxEdgeDose of it gets more dose than that whatever the laser delays.
    std::optional<double> peakSpeed;
    // gate on - (commanded start + tracking error), gate off - (commanded end + tracking error): > 0 the laser
    // switches later than a mirror that were a pure delay.
    std::optional<double> laserOnOffsetUs, laserOffOffsetUs;
    std::size_t samplesUnderGate = 0;
    bool afterUnsettledJump = false;  // the mirror still moved from the jump when the mark began
    std::string notMeasured;          // why its edges were not measured
};

// One commanded motion with the gate off.
struct Jump {
    double startUs = 0;  // of the commanded motion
    double endUs = 0;
    double length = 0;                              // commanded path length, units
    double fromX = 0, fromY = 0, toX = 0, toY = 0;  // its commanded start and target
    std::optional<double> delayUs;            // until the commanded path moves again: the jump delay as the card has it
    std::optional<double> settleUs;           // from the end of the command until the mirror entered the band for good
    bool settled = false;                     // ... and that before the next commanded motion began
    bool cutShort = false;                    // the trace ended before the next motion: not decided
    std::optional<double> atLeastUs;          // not settled: it needs at least this long (the time the trace shows)
    std::optional<double> predictedSettleUs;  // not settled: what the head's model predicts
    std::optional<double> distanceAtNext;     // mirror to target when the next motion began, units
};

// Jumps of length up to `upToLength` need `delayUs` (with the margin); a jump longer than the last row uses it.
struct JumpDelay {
    double upToLength = 0;
    std::optional<double> delayUs;    // empty when a jump up to this length did not settle and none was predicted
    std::optional<double> atLeastUs;  // the most that the jumps up to this length are known to need
    bool predicted = false;           // the delay rests on a settle time predicted by the model
};

// A corner between two segments of a polyline.
struct Corner {
    std::size_t mark = 0;
    double atUs = 0;                         // the command reaches the corner
    double x = 0, y = 0;                     // the corner point
    double angleDeg = 0;                     // change of direction: 0 straight on, 90 a right angle
    double delayUs = 0;                      // the command stands at the corner this long (the polygon delay)
    std::optional<double> rounding;          // the closest the mirror comes to the corner point, units
    std::optional<double> edgeDose;          // times the nominal dose where the mirror is slowest near the corner
    std::optional<double> suggestedDelayUs;  // a polygon delay that brings the mirror within the band of it
};

struct AxisServo {
    std::optional<double> trackingErrorUs;                                               // steady lag at constant speed
    std::string trackingFailure;                                                         // why there is none
    std::optional<double> naturalFrequencyHz, damping, driverFilterUs, maxAcceleration;  // units/ms^2
    std::optional<double> fitRms, followingRms;                                          // units
    bool fitHolds = false;
};

// A card setting as the trace shows it now, the value suggested and why.
struct Setting {
    std::optional<double> now;
    std::optional<double> suggested;
    std::string why;
};

struct Settings {
    Setting laserOn, laserOff, jump, mark, polygon;
    std::vector<double> markSpeeds, jumpSpeeds;  // units/ms, the distinct ones
};

// What one laser delay would leave: missing units (median over the marks) and the largest edge dose.
struct DelayChoice {
    double delayUs = 0;
    std::optional<double> missing;
    std::optional<double> edgeDose;
};

// The laser delays for the marks of one commanded speed.
struct SpeedGroup {
    double speed = 0;  // units/ms
    std::size_t marks = 0;
    std::optional<double> onDelayUs, offDelayUs, startMissing, endMissing;
};

// A figure the trace could not give, and why.
struct MissingFigure {
    std::string figure;   // "tracking error X", "laser timing", ...
    std::string reason;   // "Head0RxX is not traced", ...
    std::string signals;  // the signals that would give it (empty when tracing more would not help)
};

// The head's samples as the analysis reads them (in time order, times finite), and what the following error is at
// every sample of the mirror: the mirror minus the command shifted by the axis' tracking error.
struct HeadSeries {
    Series commandedX, commandedY, actualX, actualY;
    Series followingErrorX, followingErrorY;  // empty without a tracking error
};

struct Result {
    int head = 0;
    std::uint64_t events = 0;
    double durationUs = 0;
    double settleBandUnits = 0;       // as given in the options
    double maxEdgeDose = 0;           // as given in the options
    bool errorsWhileMarking = false;  // false: the errors are over the whole trace (no gate traced or never on)
    std::optional<double> trackingErrorXUs, trackingErrorYUs;
    std::optional<double> pathTrackingErrorUs;  // both axes together: the lag used for the following error
    AxisServo servoX, servoY;
    ErrorFigures followingErrorX, followingErrorY, pathDeviation;
    std::vector<Mark> marks;
    std::optional<double> laserOnOffsetUs, laserOffOffsetUs;  // medians over the marks
    std::optional<double> suggestedOnDelayChangeUs, suggestedOffDelayChangeUs;
    std::vector<DelayChoice> onChoices, offChoices;  // laser delays around the suggested ones
    std::vector<SpeedGroup> bySpeed;                 // where the marks have several speeds
    std::vector<Jump> jumps;
    std::vector<JumpDelay> jumpDelayTable;
    std::vector<Corner> corners;
    Settings settings;
    std::vector<std::string> warnings;
    std::vector<std::pair<int, std::uint64_t>> lostEvents;  // event type, events with the overflow flag (> 0)
    std::vector<MissingFigure> missing;
    std::shared_ptr<const HeadSeries> series;  // with Options::keepSeries
};

Result analyze(const oltbTraceEvent* events, std::size_t count, const Options& options = {});

// The head's samples of the events and their following errors with the tracking errors of `result`: what
// Options::keepSeries keeps, for a result analysed without it.
std::shared_ptr<const HeadSeries> headSeries(const oltbTraceEvent* events, std::size_t count, const Result& result);
inline Result analyze(const std::vector<oltbTraceEvent>& events, const Options& options = {}) {
    return analyze(events.data(), events.size(), options);
}

}  // namespace oltb::analysis
