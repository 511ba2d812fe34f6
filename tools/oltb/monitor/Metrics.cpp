#include "tools/oltb/monitor/Metrics.h"

#include <charconv>
#include <cmath>
#include <optional>

namespace oltb::monitor {

namespace {

// A label value: backslash, double quote and line feed escaped.
std::string labelValue(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string sampleValue(double value) {
    if (std::isnan(value)) {
        return "NaN";
    }
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    char text[40];
    const auto written = std::to_chars(text, text + sizeof(text), value);  // the shortest that reads back exact
    return std::string(text, written.ptr);
}

class Exposition {
public:
    explicit Exposition(const std::string& machine) : _machine("machine=\"" + labelValue(machine) + "\"") {}

    // The HELP and TYPE lines of a metric; its samples follow.
    void family(const char* name, const char* type, const char* help) {
        _text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
        _name = name;
    }
    void sample(double value, const std::string& labels = "") {
        _text += _name + "{" + _machine + labels + "} " + sampleValue(value) + "\n";
    }
    void sample(std::optional<double> value, double scale, const std::string& labels = "") {
        if (value) {
            sample(*value * scale, labels);
        }
    }
    const std::string& text() const { return _text; }

private:
    const std::string _machine;
    std::string _name;
    std::string _text;
};

constexpr double SecondsPerUs = 1e-6;

}  // namespace

std::string prometheusText(const MachineIdentity& identity, const MachineStatus& status) {
    Exposition out(identity.name);
    out.family("oltb_connected", "gauge", "1 while the monitor traces the card, 0 while the card is away.");
    out.sample(status.link == Link::Tracing ? 1.0 : 0.0);
    out.family("oltb_monitor_state", "gauge", "The connection's state: 1 for the state it is in.");
    for (const Link link : {Link::Connecting, Link::Tracing, Link::Away}) {
        out.sample(status.link == link ? 1.0 : 0.0, std::string(",state=\"") + linkName(link) + "\"");
    }
    out.family("oltb_labels_missing", "gauge", "1 while the job's labels do not come within --max-wait.");
    out.sample(status.labels.empty() ? 0.0 : 1.0);
    out.family("oltb_save_failing", "gauge", "1 when the last job could not be saved (a full save directory).");
    out.sample(status.saving.empty() ? 0.0 : 1.0);
    out.family("oltb_saved_bytes", "gauge", "Bytes of the machine's captures in the save directory.");
    out.sample(static_cast<double>(status.savedBytes));

    out.family("oltb_jobs_total", "counter", "Jobs read between their labels and analysed.");
    out.sample(static_cast<double>(status.jobs));
    out.family("oltb_jobs_incomplete_total", "counter", "Start labels whose end label did not come.");
    out.sample(static_cast<double>(status.incompleteJobs));
    out.family("oltb_jobs_skipped_total", "counter", "Jobs read but not analysed: the analysis was too far behind.");
    out.sample(static_cast<double>(status.skippedJobs));
    out.family("oltb_lost_events_total", "counter", "Events the card's buffer dropped within the jobs analysed.");
    out.sample(static_cast<double>(status.lostEvents));
    out.family("oltb_reconnects_total", "counter", "Connections made again after the card was away.");
    out.sample(static_cast<double>(status.reconnects));
    out.family("oltb_save_failures_total", "counter", "Jobs whose capture could not be saved.");
    out.sample(static_cast<double>(status.saveFailures));

    if (!status.lastJob) {
        return out.text();
    }
    const JobFigures& job = *status.lastJob;
    const std::string head = ",head=\"" + std::to_string(identity.head) + "\"";
    out.family("oltb_job_id", "gauge", "The number of the last job analysed.");
    out.sample(static_cast<double>(job.id));
    out.family("oltb_job_end_timestamp_seconds", "gauge", "When the last job's end label came (Unix time).");
    out.sample(job.endedUnixSeconds);
    out.family("oltb_job_duration_seconds", "gauge", "From the last job's start label to its end label.");
    out.sample(job.durationUs * SecondsPerUs);
    out.family("oltb_analysis_seconds", "gauge",
               "What the last job's analysis took (keep it below the time between jobs).");
    out.sample(job.analysisSeconds);
    out.family("oltb_tracking_error_seconds", "gauge",
               "How long the mirror runs behind the command at constant speed, per axis (last job).");
    out.sample(job.trackingErrorXUs, SecondsPerUs, head + ",axis=\"x\"");
    out.sample(job.trackingErrorYUs, SecondsPerUs, head + ",axis=\"y\"");
    out.family("oltb_start_missing_units", "gauge",
               "How much of a mark's start the laser leaves out, median over the last job's marks (head units).");
    out.sample(job.startMissing, 1.0, head);
    out.family("oltb_end_missing_units", "gauge",
               "How much of a mark's end the laser leaves out, median over the last job's marks (head units).");
    out.sample(job.endMissing, 1.0, head);
    out.family("oltb_start_missing_max_units", "gauge", "The most of a mark's start left out in the last job.");
    out.sample(job.startMissingMax, 1.0, head);
    out.family("oltb_end_missing_max_units", "gauge", "The most of a mark's end left out in the last job.");
    out.sample(job.endMissingMax, 1.0, head);
    out.family("oltb_edge_dose_max", "gauge",
               "The largest dose at a mark's start or end, in times the dose of the mark's body (last job).");
    out.sample(job.edgeDoseMax, 1.0, head);
    out.family("oltb_settle_max_seconds", "gauge",
               "The longest a jump of the last job took to settle in the band (predicted where it did not).");
    out.sample(job.settleMaxUs, SecondsPerUs, head);
    out.family("oltb_jumps_unsettled", "gauge",
               "Jumps of the last job that had not settled when the next motion began.");
    out.sample(static_cast<double>(job.unsettledJumps), head);
    out.family("oltb_job_lost_events", "gauge", "Events the card's buffer dropped within the last job.");
    out.sample(static_cast<double>(job.lostEvents), head);
    out.family("oltb_job_warnings", "gauge", "Warnings of the last job's analysis.");
    out.sample(static_cast<double>(job.warnings.size()), head);
    out.family("oltb_setting_seconds", "gauge",
               "The card's delays as the last job's trace shows them (value=\"now\") and as suggested.");
    for (const SettingFigures& setting : job.settings) {
        std::string name = setting.name;
        name = name.substr(0, name.rfind("_us"));
        out.sample(setting.now, SecondsPerUs, head + ",setting=\"" + name + "\",value=\"now\"");
        out.sample(setting.suggested, SecondsPerUs, head + ",setting=\"" + name + "\",value=\"suggested\"");
    }
    return out.text();
}

}  // namespace oltb::monitor
