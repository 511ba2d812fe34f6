// The analysis as one JSON object: what scripts and the report page read.
#include "analysis/AnalysisReport.h"

#include "events/SignalList.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace oltb::analysis {

namespace {

const auto number = [](std::optional<double> value) { return jsonNumber(value); };

std::string errorsJson(const ErrorFigures& figures) {
    return "{\"rms\": " + number(figures.rms) + ", \"max\": " + number(figures.max) + "}";
}

}  // namespace

std::string signalLabel(int type) {
    const auto* signal = OLVEN::TALIX3::TraceBuffer::signalOfType(type);
    return signal != nullptr ? signal->name : "type " + std::to_string(type);
}

namespace {

const auto boolean = [](bool value) { return jsonBool(value); };

std::string settingJson(const Setting& setting) {
    return "{\"now\": " + number(setting.now) + ", \"suggested\": " + number(setting.suggested) +
           ", \"why\": " + jsonString(setting.why) + "}";
}

std::string servoJson(const AxisServo& servo) {
    return "{\"tracking_error_us\": " + number(servo.trackingErrorUs) +
           ", \"natural_frequency_hz\": " + number(servo.naturalFrequencyHz) +
           ", \"damping\": " + number(servo.damping) + ", \"driver_filter_us\": " + number(servo.driverFilterUs) +
           ", \"max_acceleration\": " + number(servo.maxAcceleration) + ", \"fit_rms\": " + number(servo.fitRms) +
           ", \"following_rms\": " + number(servo.followingRms) + ", \"fit_holds\": " + boolean(servo.fitHolds) +
           ", \"why\": " + jsonString(servo.trackingFailure) + "}";
}

// [x, y], or null.
std::string point(std::optional<double> x, std::optional<double> y) {
    return x && y ? "[" + number(x) + ", " + number(y) + "]" : std::string("null");
}

std::string numbers(const std::vector<double>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        out += (i == 0 ? "" : ", ") + number(values[i]);
    }
    return out + "]";
}

std::string choicesJson(const std::vector<DelayChoice>& rows) {
    std::string out = "[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += std::string(i == 0 ? "" : ", ") + "{\"delay_us\": " + number(rows[i].delayUs) +
               ", \"missing\": " + number(rows[i].missing) + ", \"edge_dose\": " + number(rows[i].edgeDose) + "}";
    }
    return out + "]";
}

// A list of JSON objects, one a line.
template <typename T, typename Row>
std::string listJson(const std::vector<T>& items, Row row) {
    std::string out = "[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        out += std::string(i == 0 ? "\n  " : ",\n  ") + row(items[i]);
    }
    return out + "]";
}

}  // namespace

std::string settingsJson(const Settings& settings) {
    return "{\"laser_on_delay_us\": " + settingJson(settings.laserOn) +
           ",\n  \"laser_off_delay_us\": " + settingJson(settings.laserOff) +
           ",\n  \"jump_delay_us\": " + settingJson(settings.jump) +
           ",\n  \"mark_delay_us\": " + settingJson(settings.mark) +
           ",\n  \"polygon_delay_us\": " + settingJson(settings.polygon) + "}";
}

std::string jumpDelayTableJson(const std::vector<JumpDelay>& table) {
    return listJson(table, [](const JumpDelay& row) {
        return "{\"up_to_length\": " + number(row.upToLength) + ", \"delay_us\": " + number(row.delayUs) +
               ", \"at_least_us\": " + number(row.atLeastUs) + ", \"predicted\": " + boolean(row.predicted) + "}";
    });
}

std::string toJson(const Result& result) {
    std::string json = "{\"head\": " + std::to_string(result.head) + ", \"events\": " + std::to_string(result.events) +
                       ", \"duration_us\": " + number(result.durationUs) +
                       ", \"settle_band\": " + number(result.settleBandUnits) +
                       ", \"max_edge_dose\": " + number(result.maxEdgeDose) + ",\n";
    json += " \"tracking_error_us\": {\"x\": " + number(result.trackingErrorXUs) +
            ", \"y\": " + number(result.trackingErrorYUs) + "},\n";
    json +=
        " \"servo\": {\"x\": " + servoJson(result.servoX) + ",\n           \"y\": " + servoJson(result.servoY) + "},\n";
    json += " \"following_error\": {\"x\": " + errorsJson(result.followingErrorX) +
            ", \"y\": " + errorsJson(result.followingErrorY) + "},\n";
    json += " \"path_deviation\": " + errorsJson(result.pathDeviation) + ",\n";
    json += " \"settings\": " + settingsJson(result.settings) + ",\n";
    json += " \"speeds\": {\"mark_units_per_ms\": " + numbers(result.settings.markSpeeds) +
            ", \"jump_units_per_ms\": " + numbers(result.settings.jumpSpeeds) + "},\n";
    json += " \"marks\": " +
            listJson(result.marks,
                     [](const Mark& mark) {
                         return "{\"start_us\": " + number(mark.startUs) + ", \"end_us\": " + number(mark.endUs) +
                                ", \"length\": " + number(mark.length) + ", \"speed\": " + number(mark.speed) +
                                ", \"command_start_us\": " + number(mark.commandStartUs) +
                                ", \"command_end_us\": " + number(mark.commandEndUs) +
                                ", \"start\": " + point(mark.startX, mark.startY) +
                                ", \"end\": " + point(mark.endX, mark.endY) +
                                ", \"laser_on_delay_us\": " + number(mark.laserOnDelayUs) +
                                ", \"laser_off_delay_us\": " + number(mark.laserOffDelayUs) +
                                ", \"start_missing\": " + number(mark.startMissing) +
                                ", \"end_missing\": " + number(mark.endMissing) +
                                ", \"speed_at_on\": " + number(mark.speedAtOn) +
                                ", \"speed_at_off\": " + number(mark.speedAtOff) +
                                ", \"best_on_delay_us\": " + number(mark.bestOnDelayUs) +
                                ", \"best_off_delay_us\": " + number(mark.bestOffDelayUs) +
                                ", \"best_off_predicted\": " + boolean(mark.bestOffPredicted) +
                                ", \"start_missing_at_best\": " + number(mark.startMissingAtBest) +
                                ", \"end_missing_at_best\": " + number(mark.endMissingAtBest) +
                                ", \"peak_speed\": " + number(mark.peakSpeed) +
                                ", \"laser_on_offset_us\": " + number(mark.laserOnOffsetUs) +
                                ", \"laser_off_offset_us\": " + number(mark.laserOffOffsetUs) +
                                ", \"samples_under_gate\": " + std::to_string(mark.samplesUnderGate) +
                                ", \"after_unsettled_jump\": " + boolean(mark.afterUnsettledJump) +
                                ", \"not_measured\": " +
                                (mark.notMeasured.empty() ? std::string("null") : jsonString(mark.notMeasured)) + "}";
                     }) +
            ",\n";
    json += " \"laser\": {\"on_offset_us\": " + number(result.laserOnOffsetUs) +
            ", \"off_offset_us\": " + number(result.laserOffOffsetUs) +
            ", \"suggested_on_delay_change_us\": " + number(result.suggestedOnDelayChangeUs) +
            ", \"suggested_off_delay_change_us\": " + number(result.suggestedOffDelayChangeUs) +
            ",\n  \"on_choices\": " + choicesJson(result.onChoices) +
            ",\n  \"off_choices\": " + choicesJson(result.offChoices) + ",\n  \"by_speed\": " +
            listJson(result.bySpeed,
                     [](const SpeedGroup& group) {
                         return "{\"speed\": " + number(group.speed) + ", \"marks\": " + std::to_string(group.marks) +
                                ", \"laser_on_delay_us\": " + number(group.onDelayUs) +
                                ", \"laser_off_delay_us\": " + number(group.offDelayUs) +
                                ", \"start_missing\": " + number(group.startMissing) +
                                ", \"end_missing\": " + number(group.endMissing) + "}";
                     }) +
            "},\n";
    json +=
        " \"jumps\": " +
        listJson(result.jumps,
                 [](const Jump& jump) {
                     return "{\"start_us\": " + number(jump.startUs) + ", \"end_us\": " + number(jump.endUs) +
                            ", \"length\": " + number(jump.length) + ", \"from\": " + point(jump.fromX, jump.fromY) +
                            ", \"to\": " + point(jump.toX, jump.toY) + ", \"delay_us\": " + number(jump.delayUs) +
                            ", \"settle_us\": " + number(jump.settleUs) + ", \"settled\": " + boolean(jump.settled) +
                            ", \"cut_short\": " + boolean(jump.cutShort) +
                            ", \"at_least_us\": " + number(jump.atLeastUs) +
                            ", \"predicted_settle_us\": " + number(jump.predictedSettleUs) +
                            ", \"distance_at_next\": " + number(jump.distanceAtNext) + "}";
                 }) +
        ",\n";
    json += " \"jump_delay_table\": " + jumpDelayTableJson(result.jumpDelayTable) + ",\n";
    json += " \"corners\": " +
            listJson(result.corners,
                     [](const Corner& corner) {
                         return "{\"mark\": " + std::to_string(corner.mark) + ", \"at_us\": " + number(corner.atUs) +
                                ", \"x\": " + number(corner.x) + ", \"y\": " + number(corner.y) +
                                ", \"angle_deg\": " + number(corner.angleDeg) +
                                ", \"delay_us\": " + number(corner.delayUs) +
                                ", \"rounding\": " + number(corner.rounding) +
                                ", \"edge_dose\": " + number(corner.edgeDose) +
                                ", \"suggested_delay_us\": " + number(corner.suggestedDelayUs) + "}";
                     }) +
            ",\n";
    json +=
        " \"warnings\": " + listJson(result.warnings, [](const std::string& text) { return jsonString(text); }) + ",\n";
    json += " \"lost_events\": {";
    for (std::size_t i = 0; i < result.lostEvents.size(); ++i) {
        json += std::string(i == 0 ? "" : ", ") + jsonString(signalLabel(result.lostEvents[i].first)) + ": " +
                std::to_string(result.lostEvents[i].second);
    }
    return json + "}}\n";
}

}  // namespace oltb::analysis
