#include "tools/oltb/monitor/JobFigures.h"

#include "analysis/AnalysisReport.h"

#include <algorithm>
#include <cmath>

namespace oltb::monitor {

namespace {

std::optional<double> median(std::vector<double> values) {
    if (values.empty()) {
        return std::nullopt;
    }
    const std::size_t middle = values.size() / 2;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(middle), values.end());
    return values[middle];
}

std::optional<double> largest(const std::vector<double>& values) {
    if (values.empty()) {
        return std::nullopt;
    }
    return *std::max_element(values.begin(), values.end());
}

// The dose a point gets against the mark's body goes with 1 / the mirror's speed.
double doseAt(double speedShare) { return speedShare > 1.0 / MaxEdgeDose ? 1.0 / speedShare : MaxEdgeDose; }

std::string number(std::optional<double> value) { return analysis::jsonNumber(value); }

}  // namespace

JobFigures figuresOf(const analysis::Result& result) {
    JobFigures job;
    job.durationUs = result.durationUs;
    job.events = result.events;
    job.marks = result.marks.size();
    job.jumps = result.jumps.size();
    job.trackingErrorXUs = result.trackingErrorXUs;
    job.trackingErrorYUs = result.trackingErrorYUs;

    std::vector<double> starts, ends, doses;
    for (const analysis::Mark& mark : result.marks) {
        if (mark.afterUnsettledJump) {
            continue;
        }
        if (mark.startMissing) {
            starts.push_back(*mark.startMissing);
        }
        if (mark.endMissing) {
            ends.push_back(*mark.endMissing);
        }
        for (const std::optional<double>& speed : {mark.speedAtOn, mark.speedAtOff}) {
            if (speed && std::isfinite(*speed)) {
                doses.push_back(doseAt(*speed));
            }
        }
    }
    job.startMissing = median(starts);
    job.endMissing = median(ends);
    job.startMissingMax = largest(starts);
    job.endMissingMax = largest(ends);
    job.edgeDoseMax = largest(doses);

    std::vector<double> settles;
    for (const analysis::Jump& jump : result.jumps) {
        if (jump.cutShort) {
            continue;  // the trace ended before the next motion: nothing is known of it
        }
        if (!jump.settled) {
            ++job.unsettledJumps;
        }
        const std::optional<double> settle = jump.settled ? jump.settleUs : jump.predictedSettleUs;
        if (settle) {
            settles.push_back(*settle);
        }
    }
    job.settleMaxUs = largest(settles);

    for (const auto& [type, count] : result.lostEvents) {
        job.lostEvents += count;
    }
    const analysis::Settings& settings = result.settings;
    job.settings = {SettingFigures{"laser_on_delay_us", settings.laserOn.now, settings.laserOn.suggested},
                    SettingFigures{"laser_off_delay_us", settings.laserOff.now, settings.laserOff.suggested},
                    SettingFigures{"jump_delay_us", settings.jump.now, settings.jump.suggested},
                    SettingFigures{"mark_delay_us", settings.mark.now, settings.mark.suggested},
                    SettingFigures{"polygon_delay_us", settings.polygon.now, settings.polygon.suggested}};
    for (const std::string& warning : result.warnings) {
        if (job.warnings.size() + 1 == MaxWarnings && result.warnings.size() > MaxWarnings) {
            job.warnings.push_back(std::to_string(result.warnings.size() - job.warnings.size()) + " more warnings");
            break;
        }
        job.warnings.push_back(warning);
    }
    return job;
}

std::string toJson(const JobFigures& job, bool brief) {
    std::string json =
        "{\"id\": " + std::to_string(job.id) + ", \"ended_utc\": " + analysis::jsonString(job.endedUtc) +
        ", \"ended_unix\": " + number(job.endedUnixSeconds) + ", \"duration_us\": " + number(job.durationUs) +
        ", \"events\": " + std::to_string(job.events) + ", \"marks\": " + std::to_string(job.marks) +
        ", \"jumps\": " + std::to_string(job.jumps) +
        ", \"tracking_error_us\": {\"x\": " + number(job.trackingErrorXUs) +
        ", \"y\": " + number(job.trackingErrorYUs) + "}, \"start_missing\": {\"median\": " + number(job.startMissing) +
        ", \"max\": " + number(job.startMissingMax) + "}, \"end_missing\": {\"median\": " + number(job.endMissing) +
        ", \"max\": " + number(job.endMissingMax) + "}, \"edge_dose_max\": " + number(job.edgeDoseMax) +
        ", \"settle_max_us\": " + number(job.settleMaxUs) +
        ", \"jumps_unsettled\": " + std::to_string(job.unsettledJumps) +
        ", \"lost_events\": " + std::to_string(job.lostEvents) +
        ", \"warnings\": " + std::to_string(job.warnings.size()) +
        ", \"analysis_ms\": " + number(job.analysisSeconds * 1e3) +
        ", \"saved\": " + analysis::jsonString(job.savedFile) + ", \"failure\": " + analysis::jsonString(job.failure);
    if (brief) {
        return json + "}";
    }
    json += ", \"settings\": {";
    for (const SettingFigures& setting : job.settings) {
        json += std::string(&setting == job.settings.data() ? "" : ", ") + analysis::jsonString(setting.name) +
                ": {\"now\": " + number(setting.now) + ", \"suggested\": " + number(setting.suggested) + "}";
    }
    json += "}, \"warning_texts\": [";
    for (std::size_t i = 0; i < job.warnings.size(); ++i) {
        json += (i == 0 ? "" : ", ") + analysis::jsonString(job.warnings[i]);
    }
    return json + "]}";
}

}  // namespace oltb::monitor
