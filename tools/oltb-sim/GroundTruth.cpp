// The truth behind a job's trace, from the model's own samples and schedule, and its JSON form.
#include "tools/oltb-sim/GroundTruth.h"

#include "analysis/Json.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace oltb::sim {
namespace {

constexpr double ScanSteps = 60;
constexpr double ResolutionUs = 0.001;

struct GateSample {
    std::size_t index;  // of the sample period
    double x;
    double y;
};

// What an analysis has of a trace: the samples of both positions every period. The commanded position between two
// samples is taken on the straight line between them.
struct SampledTrace {
    std::vector<GateSample> gateOn;  // the actual positions while the gate is on
    std::vector<Vec2> commanded;     // every period of the cycle
};

SampledTrace sampleTrace(const MarkingJob& job) {
    SampledTrace trace;
    const std::uint64_t period = MarkingJob::SamplePeriodTicks;
    for (std::uint64_t tick = 0; tick <= job.cycleTicks(); tick += period) {
        const Position3 commanded = job.commanded(0, static_cast<std::int64_t>(tick));
        trace.commanded.push_back({static_cast<double>(commanded.x), static_cast<double>(commanded.y)});
    }
    for (const ScheduledMark& mark : job.marks()) {
        for (std::uint64_t tick = (mark.gateOnTick + period - 1) / period * period; tick < mark.gateOffTick;
             tick += period) {
            const Position3 actual = job.actual(0, static_cast<std::int64_t>(tick));
            trace.gateOn.push_back({tick / period, static_cast<double>(actual.x), static_cast<double>(actual.y)});
        }
    }
    return trace;
}

double squaredMismatch(const SampledTrace& trace, const double shiftUs) {
    const double shiftPeriods = shiftUs * static_cast<double>(TicksPerUs) / MarkingJob::SamplePeriodTicks;
    const auto wholePeriods = static_cast<std::ptrdiff_t>(std::floor(shiftPeriods));
    const double fraction = shiftPeriods - static_cast<double>(wholePeriods);
    const auto commandedAt = [&trace](const std::ptrdiff_t index) {
        return index < 0 ? trace.commanded.front() : trace.commanded[static_cast<std::size_t>(index)];
    };
    double sum = 0;
    for (const GateSample& sample : trace.gateOn) {
        // commanded(t - shift), between the samples before and after that time
        const auto index = static_cast<std::ptrdiff_t>(sample.index) - wholePeriods;
        const Vec2 after = commandedAt(index);
        const Vec2 before = commandedAt(index - 1);
        const double x = after.x + fraction * (before.x - after.x);
        const double y = after.y + fraction * (before.y - after.y);
        sum += (sample.x - x) * (sample.x - x) + (sample.y - y) * (sample.y - y);
    }
    return sum;
}

// A scan for the neighbourhood of the minimum, then a golden-section search within it.
double leastSquaresShiftUs(const MarkingJob& job) {
    const SampledTrace trace = sampleTrace(job);
    if (trace.gateOn.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const double highest = 3 * job.settings().servo.trackingErrorUs + 200;
    const double step = highest / ScanSteps;
    double best = 0;
    double bestValue = std::numeric_limits<double>::infinity();
    for (double shift = 0; shift <= highest; shift += step) {
        const double value = squaredMismatch(trace, shift);
        if (value < bestValue) {
            best = shift;
            bestValue = value;
        }
    }
    const double ratio = (std::sqrt(5.0) - 1) / 2;
    double low = std::max(0.0, best - step);
    double high = best + step;
    double left = high - ratio * (high - low);
    double right = low + ratio * (high - low);
    double leftValue = squaredMismatch(trace, left);
    double rightValue = squaredMismatch(trace, right);
    while (high - low > ResolutionUs) {
        if (leftValue <= rightValue) {
            high = right;
            right = left;
            rightValue = leftValue;
            left = high - ratio * (high - low);
            leftValue = squaredMismatch(trace, left);
        } else {
            low = left;
            left = right;
            leftValue = rightValue;
            right = low + ratio * (high - low);
            rightValue = squaredMismatch(trace, right);
        }
    }
    return (low + high) / 2;
}

double usFromJobStart(const MarkingJob& job, const double tick) {
    return (tick - static_cast<double>(job.jobStartTick())) / static_cast<double>(TicksPerUs);
}

std::string number(const double value) { return oltb::analysis::jsonNumber(value); }

std::string point(const Point p) { return "[" + std::to_string(p.x) + ", " + std::to_string(p.y) + "]"; }

std::string labelOrNull(const int label) { return label < 0 ? "null" : std::to_string(label); }

std::string quoted(const std::string& text) { return oltb::analysis::jsonString(text); }

double median(std::vector<double> values) {
    if (values.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

JobTruth explainJob(const MarkingJob& job) {
    JobTruth truth;
    truth.mirror = measureMirror(job);
    double fastestMark = job.marks().empty() ? job.settings().timing.markSpeedUnitsPerMs : 0;
    for (const MarkFigures& mark : truth.mirror.marks) {
        fastestMark = std::max(fastestMark, mark.markSpeedUnitsPerMs);
    }
    truth.trackingErrorUs = steadyLagUs(job.settings().servo, fastestMark);
    truth.leastSquaresShiftUs = leastSquaresShiftUs(job);
    const double lagUs = std::isfinite(truth.trackingErrorUs) ? truth.trackingErrorUs : truth.leastSquaresShiftUs;
    const double shiftTicks = lagUs * static_cast<double>(TicksPerUs);
    for (const ScheduledMark& mark : job.marks()) {
        MarkTruth result;
        result.gateOnUs = usFromJobStart(job, static_cast<double>(mark.gateOnTick));
        result.gateOffUs = usFromJobStart(job, static_cast<double>(mark.gateOffTick));
        result.motionStartUs = usFromJobStart(job, static_cast<double>(mark.motionStartTick) + shiftTicks);
        result.motionEndUs = usFromJobStart(job, static_cast<double>(mark.motionEndTick) + shiftTicks);
        result.laserOnOffsetUs = result.gateOnUs - result.motionStartUs;
        result.laserOffOffsetUs = result.gateOffUs - result.motionEndUs;
        truth.marks.push_back(result);
    }
    return truth;
}

std::string explanationJson(const MarkingJob& job, const JobTruth& truth) {
    const JobSettings& settings = job.settings();
    const CardTiming& timing = settings.timing;
    const ServoSettings& servo = settings.servo;
    const auto positiveOrNull = [](const double value) { return value > 0 ? number(value) : std::string("null"); };
    std::string out = "{\n";
    const auto field = [&out](const char* name, const std::string& value) {
        out += "  \"" + std::string(name) + "\": " + value + ",\n";
    };
    field("job", quoted(settings.program.source));
    field("time_origin", quoted("the job's first command; times in us"));
    field("servo", quoted(servo.kind == ServoKind::delay ? "delay" : "second-order"));
    field("set_tracking_error_us", number(servo.trackingErrorUs));
    field("damping", number(servo.damping));
    field("max_acceleration_units_per_ms2", number(servo.maxAccelerationUnitsPerMs2));
    field("driver_filter_us", number(servo.driverFilterUs));
    field("max_velocity_units_per_ms", positiveOrNull(servo.maxVelocityUnitsPerMs));
    field("jump_speed_units_per_ms", number(timing.jumpSpeedUnitsPerMs));
    field("mark_speed_units_per_ms", number(timing.markSpeedUnitsPerMs));
    field("jump_delay_us", number(timing.jumpDelayUs));
    std::string table = "null";
    for (std::size_t i = 0; i < timing.jumpDelayTable.size(); ++i) {
        const JumpDelayRow& row = timing.jumpDelayTable[i];
        table = (i == 0 ? "[" : table + ", ") + "{\"up_to_length\": " + number(row.lengthUnits) +
                ", \"delay_us\": " + number(row.delayUs) + "}";
    }
    field("jump_table", timing.jumpDelayTable.empty() ? table : table + "]");
    field("mark_delay_us", number(timing.markDelayUs));
    field("polygon_delay_us", number(timing.polygonDelayUs));
    field("laser_on_delay_us", number(timing.laserOnDelayUs));
    field("laser_off_delay_us", number(timing.laserOffDelayUs));
    field("settle_band_units", number(settings.settleBandUnits));
    field("max_edge_dose", number(settings.maxEdgeDose));
    field("job_duration_us", number(usFromJobStart(job, static_cast<double>(job.jobEndTick()))));
    field("cycle_us", number(static_cast<double>(job.cycleTicks()) / static_cast<double>(TicksPerUs)));
    field("tracking_error_us", number(truth.trackingErrorUs));
    field("least_squares_shift_us", number(truth.leastSquaresShiftUs));
    std::vector<double> onOffsets;
    std::vector<double> offOffsets;
    for (const MarkTruth& mark : truth.marks) {
        onOffsets.push_back(mark.laserOnOffsetUs);
        offOffsets.push_back(mark.laserOffOffsetUs);
    }
    field("laser_on_offset_us_median", number(median(onOffsets)));
    field("laser_off_offset_us_median", number(median(offOffsets)));
    std::vector<double> bestOn;
    std::vector<double> bestOff;
    for (const MarkFigures& mark : truth.mirror.marks) {
        if (std::isfinite(mark.bestLaserOnDelayUs)) {
            bestOn.push_back(mark.bestLaserOnDelayUs);
        }
        if (std::isfinite(mark.bestLaserOffDelayUs)) {
            bestOff.push_back(mark.bestLaserOffDelayUs);
        }
    }
    field("best_laser_on_delay_us", number(median(bestOn)));
    field("best_laser_off_delay_us", number(median(bestOff)));

    out += "  \"labels\": [";
    for (std::size_t i = 0; i < job.labels().size(); ++i) {
        const Label& label = job.labels()[i];
        out += std::string(i == 0 ? "\n" : ",\n") + "    {\"number\": " + std::to_string(label.number) +
               ", \"time_us\": " + number(usFromJobStart(job, static_cast<double>(label.tick))) + "}";
    }
    out += job.labels().empty() ? "],\n" : "\n  ],\n";

    out += "  \"marks\": [";
    for (std::size_t i = 0; i < truth.marks.size(); ++i) {
        const ScheduledMark& mark = job.marks()[i];
        const MarkTruth& result = truth.marks[i];
        const MarkFigures& figures = truth.mirror.marks[i];
        out += std::string(i == 0 ? "\n" : ",\n") + "    {\"index\": " + std::to_string(i) +
               ", \"line\": " + std::to_string(mark.line) + ", \"start_label\": " + labelOrNull(mark.startLabel) +
               ", \"end_label\": " + labelOrNull(mark.endLabel) + ", \"power\": " + std::to_string(mark.power) +
               ", \"start\": " + point(mark.startPoint) + ", \"end\": " + point(mark.segments.back().to) +
               ", \"mark_speed\": " + number(figures.markSpeedUnitsPerMs) +
               ", \"gate_on_us\": " + number(result.gateOnUs) + ", \"gate_off_us\": " + number(result.gateOffUs) +
               ", \"motion_start_us\": " + number(result.motionStartUs) +
               ", \"motion_end_us\": " + number(result.motionEndUs) +
               ", \"laser_on_offset_us\": " + number(result.laserOnOffsetUs) +
               ", \"laser_off_offset_us\": " + number(result.laserOffOffsetUs) +
               ", \"start_missing\": " + number(figures.startMissing) +
               ", \"end_missing\": " + number(figures.endMissing) + ", \"speed_at_on\": " + number(figures.speedAtOn) +
               ", \"speed_at_off\": " + number(figures.speedAtOff) +
               ", \"best_laser_on_delay_us\": " + number(figures.bestLaserOnDelayUs) +
               ", \"best_laser_off_delay_us\": " + number(figures.bestLaserOffDelayUs) +
               ", \"start_missing_at_best\": " + number(figures.startMissingAtBest) +
               ", \"end_missing_at_best\": " + number(figures.endMissingAtBest) + "}";
    }
    out += truth.marks.empty() ? "],\n" : "\n  ],\n";

    out += "  \"jumps\": [";
    for (std::size_t i = 0; i < job.jumps().size(); ++i) {
        const ScheduledJump& jump = job.jumps()[i];
        const JumpFigures& figures = truth.mirror.jumps[i];
        const double length =
            std::hypot(static_cast<double>(jump.to.x - jump.from.x), static_cast<double>(jump.to.y - jump.from.y));
        out += std::string(i == 0 ? "\n" : ",\n") + "    {\"index\": " + std::to_string(i) +
               ", \"line\": " + (jump.line > 0 ? std::to_string(jump.line) : std::string("null")) +
               ", \"from\": " + point(jump.from) + ", \"to\": " + point(jump.to) + ", \"length\": " + number(length) +
               ", \"end_us\": " + number(usFromJobStart(job, static_cast<double>(jump.motionEndTick))) +
               ", \"window_us\": " + number(figures.windowUs) + ", \"settle_us\": " + number(figures.settleUs) +
               ", \"settled\": " + (figures.settled ? "true" : "false") +
               ", \"overshoot_units\": " + number(figures.overshootUnits) + "}";
    }
    out += job.jumps().empty() ? "],\n" : "\n  ],\n";

    out += "  \"corners\": [";
    for (std::size_t i = 0; i < truth.mirror.corners.size(); ++i) {
        const CornerFigures& corner = truth.mirror.corners[i];
        out += std::string(i == 0 ? "\n" : ",\n") + "    {\"mark\": " + std::to_string(corner.mark) +
               ", \"at_us\": " + number(usFromJobStart(job, static_cast<double>(corner.atTick))) +
               ", \"point\": " + point(corner.point) + ", \"angle_deg\": " + number(corner.angleDeg) +
               ", \"polygon_delay_us\": " + number(corner.polygonDelayUs) +
               ", \"rounding\": " + number(corner.rounding) + ", \"edge_dose\": " + number(corner.edgeDose) + "}";
    }
    out += truth.mirror.corners.empty() ? "]\n" : "\n  ]\n";
    return out + "}\n";
}

}  // namespace oltb::sim
