// The card's settings as the trace shows them, the ones to change with what they would give, and the warnings
// that say when the advice cannot be trusted yet. The order follows the way heads are tuned at the machine: the
// jump delay first (until every jump settles, the marks after them show the jump, not the laser), then the laser
// delays, then the mark and polygon delays.
#include "analysis/Figures.h"
#include "analysis/Text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace oltb::analysis {

namespace {

std::optional<double> medianOf(const std::vector<double>& values) {
    return values.empty() ? std::nullopt : std::optional<double>(median(values));
}

// The distinct speeds (units/ms) of the given pieces, within 3 %.
std::vector<double> speedsOf(const JobLayout& layout, bool inPolylines) {
    std::vector<double> speeds;
    for (std::size_t p = 0; p < layout.pieces.size(); ++p) {
        if (layout.polylineOf[p].has_value() == inPolylines && !layout.pieces[p].cutAtStart &&
            !layout.pieces[p].cutAtEnd) {
            speeds.push_back(layout.pieces[p].speed * 1000);
        }
    }
    std::sort(speeds.begin(), speeds.end());
    std::vector<double> distinct;
    for (const double speed : speeds) {
        if (distinct.empty() || speed > 1.03 * distinct.back()) {
            distinct.push_back(std::round(speed));
        }
    }
    return distinct;
}

void adviseLaserSettings(Result& result) {
    std::vector<double> on, off;
    for (const Mark& mark : result.marks) {
        if (mark.laserOnDelayUs) on.push_back(*mark.laserOnDelayUs);
        if (mark.laserOffDelayUs) off.push_back(*mark.laserOffDelayUs);
    }
    Setting& laserOn = result.settings.laserOn;
    Setting& laserOff = result.settings.laserOff;
    laserOn.now = medianOf(on);
    laserOff.now = medianOf(off);
    const double dose = result.maxEdgeDose;
    if (laserOn.suggested) {
        const DelayChoice& at = result.onChoices[result.onChoices.size() / 2];
        laserOn.why =
            format("the gate opens when the mirror moves along the mark at 1/%g of the mark speed (edge dose %g)", dose,
                   dose) +
            (at.missing ? format(", leaving %.0f units of the start unmarked", std::max(0.0, *at.missing)) : "");
    }
    if (laserOff.suggested) {
        const DelayChoice& at = result.offChoices[result.offChoices.size() / 2];
        laserOff.why =
            format(
                "the gate closes when the mirror slows below 1/%g of the mark speed or reaches the end "
                "point, whichever comes first",
                dose) +
            (at.missing ? format(", leaving %.0f units of the end unmarked", std::max(0.0, *at.missing)) : "");
    }
    for (Setting* setting : {&laserOn, &laserOff}) {
        if (!setting->suggested && setting->why.empty()) {
            const auto any = [&result](auto condition) {
                return std::any_of(result.marks.begin(), result.marks.end(), condition);
            };
            setting->why = result.marks.empty() ? "no marks in the trace"
                           : any([](const Mark& m) { return m.afterUnsettledJump; })
                               ? "the marks follow jumps that did not settle; fix the jump delay first"
                           : any([&](const Mark& m) { return m.peakSpeed && *m.peakSpeed < 1 / dose; })
                               ? format("the marks are too short for the mirror to reach 1/%g of the mark speed", dose)
                               : "no mark with the mirror's motion measured";
        }
    }
    if (laserOn.suggested && laserOff.suggested && *laserOff.suggested < *laserOn.suggested) {
        result.warnings.push_back(
            format("The suggested laser-off delay (%.0f µs) is shorter than the laser-on delay "
                   "(%.0f µs): a mark shorter than their difference would switch off "
                   "before it switches on.",
                   *laserOff.suggested, *laserOn.suggested));
    }
}

void adviseJumpDelay(Result& result) {
    std::vector<double> now;
    std::size_t unsettled = 0;
    std::size_t judged = 0;
    std::string which;
    for (std::size_t j = 0; j < result.jumps.size(); ++j) {
        const Jump& jump = result.jumps[j];
        if (jump.delayUs) now.push_back(*jump.delayUs);
        if (jump.cutShort || (!jump.settled && !jump.atLeastUs)) continue;
        ++judged;
        if (!jump.settled) {
            ++unsettled;
            if (unsettled <= 8) which += (which.empty() ? "" : ", ") + std::to_string(j + 1);
        }
    }
    Setting& setting = result.settings.jump;
    setting.now = medianOf(now);
    if (now.size() > 1 && *std::max_element(now.begin(), now.end()) - *std::min_element(now.begin(), now.end()) > 10) {
        setting.why = format("now %.0f to %.0f µs (see the jumps); ", *std::min_element(now.begin(), now.end()),
                             *std::max_element(now.begin(), now.end()));
    }
    if (unsettled > 0) {
        result.warnings.push_back(std::to_string(unsettled) + " of " + std::to_string(judged) +
                                  " jumps did not settle before the next motion began (jump " + which +
                                  (unsettled > 8 ? ", ..." : "") +
                                  "): the marks after them start while the mirror still moves, so their laser figures "
                                  "are left out of the advice. Fix the jump delay first.");
    }
    if (result.jumpDelayTable.empty()) {
        setting.why += judged == 0 ? "no jump with a next motion to settle for" : "";
        return;
    }
    const JumpDelay& longest = result.jumpDelayTable.back();
    if (longest.delayUs) {
        setting.suggested = longest.delayUs;
        setting.why += std::string("covers every jump of the trace with a margin of 10 % (at least 5 µs)") +
                       (longest.predicted ? ", partly from settle times predicted by the head's model" : "") +
                       (result.jumpDelayTable.size() > 1 ? "; shorter jumps need less (jump_delay_table)" : "");
        return;
    }
    // Not known: a trace with a longer jump delay shows what the jumps need.
    double atLeast = 0;
    for (const Jump& jump : result.jumps) {
        if (!jump.settled && !jump.predictedSettleUs) atLeast = std::max(atLeast, jump.atLeastUs.value_or(0.0));
    }
    setting.suggested = roundUpToPeriod(std::max(2 * atLeast, atLeast + 500));
    setting.why += format(
        "not known yet: jumps did not settle within the %.0f µs they had, and the head's model "
        "cannot predict them; trace again with this longer jump delay to measure them",
        atLeast);
}

void adviseMarkAndPolygon(Result& result, const JobLayout& layout) {
    std::vector<double> markDelays;
    for (const Polyline& polyline : layout.polylines) {
        if (polyline.firstPiece) {
            if (const std::optional<double> next = nextMotionAfter(layout, polyline.lastPiece)) {
                markDelays.push_back(*next - layout.pieces[polyline.lastPiece].endUs);
            }
        }
    }
    Setting& mark = result.settings.mark;
    mark.now = medianOf(markDelays);
    const std::optional<double> off =
        result.settings.laserOff.suggested ? result.settings.laserOff.suggested : result.settings.laserOff.now;
    if (mark.now && off) {
        mark.suggested = roundUpToPeriod(std::max(0.0, *off));
        mark.why =
            "the next jump may begin once the gate has closed (the laser-off delay); a longer mark delay only "
            "costs time, a shorter one pulls the end of the mark toward the jump";
    } else {
        mark.why = mark.now ? "the laser-off delay is not known" : "no polyline with a next motion";
    }

    Setting& polygon = result.settings.polygon;
    std::vector<double> delays;
    std::optional<double> needed;
    std::size_t rounded = 0;
    for (const Corner& corner : result.corners) {
        delays.push_back(corner.delayUs);
        if (corner.suggestedDelayUs) {
            ++rounded;
            needed = std::max(needed.value_or(0.0), *corner.suggestedDelayUs);
        }
    }
    polygon.now = medianOf(delays);
    if (result.corners.empty()) {
        polygon.why = "no corners in the polylines";
    } else if (needed) {
        polygon.suggested = needed;
        polygon.why = format(
            "%zu of the corners are rounded by more than the band of %.0f units; this delay lets "
            "the mirror reach them, but it slows to a stop there with the laser on (a dot): "
            "keep the rounding if the part allows it",
            rounded, result.settleBandUnits);
    } else if (polygon.now) {
        polygon.suggested = polygon.now;
        polygon.why = format("the mirror passes every corner within the band of %.0f units", result.settleBandUnits);
    }
}

}  // namespace

void adviseSettings(Result& result, const JobLayout& layout) {
    result.settings.markSpeeds = speedsOf(layout, true);
    result.settings.jumpSpeeds = speedsOf(layout, false);
    adviseJumpDelay(result);
    adviseLaserSettings(result);
    adviseMarkAndPolygon(result, layout);

    std::size_t tooShort = 0;
    std::size_t tooSlow = 0;
    for (const Mark& mark : result.marks) {
        tooShort += mark.notMeasured.rfind("too short", 0) == 0 ? 1 : 0;
        tooSlow += mark.peakSpeed && *mark.peakSpeed < 1 / result.maxEdgeDose ? 1 : 0;
    }
    if (tooSlow > 0) {
        result.warnings.push_back(
            format("%zu marks are too short for the mirror to reach 1/%g of the mark speed: they "
                   "take more than %g times the dose whatever the laser delays (a lower mark "
                   "speed or skywriting helps); the laser advice rests on the others.",
                   tooSlow, result.maxEdgeDose, result.maxEdgeDose));
    }
    if (tooShort > 0) {
        result.warnings.push_back(std::to_string(tooShort) +
                                  " marks are too short to measure (fewer than 3 position samples under the gate); "
                                  "the laser advice rests on the others.");
    }
    for (const auto& [axis, servo] : {std::pair{"X", &result.servoX}, std::pair{"Y", &result.servoY}}) {
        if (!servo->trackingErrorUs && !servo->trackingFailure.empty()) {
            result.warnings.push_back(std::string("No tracking error on ") + axis + ": the command " +
                                      servo->trackingFailure + " on " + axis + ".");
        }
        if (servo->fitRms && !servo->fitHolds) {
            result.warnings.push_back(
                format("The model of the head does not hold on %s (it misses the mirror by "
                       "%.1f units rms against a following error of %.0f): settle times and "
                       "corner delays are as measured, not predicted.",
                       axis, *servo->fitRms, servo->followingRms.value_or(0.0)));
        }
    }
    if (!result.lostEvents.empty()) {
        result.warnings.push_back("The server lost events (overflow of its buffer): figures near them are less sure.");
    }
}

}  // namespace oltb::analysis
