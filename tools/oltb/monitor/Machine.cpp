#include "tools/oltb/monitor/Machine.h"

#include "analysis/AnalysisReport.h"

#include <algorithm>

namespace oltb::monitor {

const char* linkName(Link link) {
    switch (link) {
        case Link::Connecting:
            return "connecting";
        case Link::Tracing:
            return "tracing";
        case Link::Away:
            return "away";
    }
    return "unknown";
}

void Machine::changed() {
    ++_changes;
    _changedCondition.notify_all();
}

void Machine::setLink(Link link, const std::string& detail) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_status.link != link || _status.linkDetail != detail) {
        _status.link = link;
        _status.linkDetail = detail;
        changed();
    }
}

void Machine::setSignals(std::vector<std::string> signals) {
    std::lock_guard<std::mutex> lock(_mutex);
    _status.signals = std::move(signals);
    changed();
}

void Machine::setLabels(const std::string& text) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_status.labels != text) {
        _status.labels = text;
        changed();
    }
}

void Machine::countReconnect() {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_status.reconnects;
    changed();
}

void Machine::countIncompleteJob() {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_status.incompleteJobs;
    changed();
}

void Machine::countSkippedJob() {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_status.skippedJobs;
    changed();
}

void Machine::setSaving(const std::string& failure, std::uint64_t savedBytes) {
    std::lock_guard<std::mutex> lock(_mutex);
    _status.saving = failure;
    _status.savedBytes = savedBytes;
    if (!failure.empty()) {
        ++_status.saveFailures;
    }
    changed();
}

void Machine::addJob(const JobFigures& figures, std::shared_ptr<const JobCapture> capture) {
    std::lock_guard<std::mutex> lock(_mutex);
    ++_status.jobs;
    _status.lostEvents += figures.lostEvents;
    _status.lastJob = figures;
    _history.push_back(figures);
    while (_history.size() > std::max<std::size_t>(_identity.historyLength, 1)) {
        _history.pop_front();
    }
    _lastCapture = std::move(capture);
    changed();
}

void Machine::close() {
    std::lock_guard<std::mutex> lock(_mutex);
    _closed = true;
    changed();
}

MachineStatus Machine::status() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _status;
}

std::optional<JobFigures> Machine::job(std::uint64_t id) const {
    std::lock_guard<std::mutex> lock(_mutex);
    // Ids grow along the history, so the job is found by bisection.
    const auto found = std::lower_bound(_history.begin(), _history.end(), id,
                                        [](const JobFigures& job, std::uint64_t wanted) { return job.id < wanted; });
    if (found == _history.end() || found->id != id) {
        return std::nullopt;
    }
    return *found;
}

std::shared_ptr<const JobCapture> Machine::lastCapture() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _lastCapture;
}

std::vector<JobFigures> Machine::jobsAfter(std::uint64_t id, std::size_t most) const {
    std::lock_guard<std::mutex> lock(_mutex);
    auto first = std::upper_bound(_history.begin(), _history.end(), id,
                                  [](std::uint64_t wanted, const JobFigures& job) { return wanted < job.id; });
    if (static_cast<std::size_t>(_history.end() - first) > most) {
        first = _history.end() - static_cast<std::ptrdiff_t>(most);
    }
    return std::vector<JobFigures>(first, _history.end());
}

std::string Machine::statusJsonLocked() const {
    const MachineStatus& s = _status;
    std::string signals = "[";
    for (std::size_t i = 0; i < s.signals.size(); ++i) {
        signals += (i == 0 ? "" : ", ") + analysis::jsonString(s.signals[i]);
    }
    signals += "]";
    return "{\"machine\": " + analysis::jsonString(_identity.name) +
           ", \"host\": " + analysis::jsonString(_identity.host) + ", \"head\": " + std::to_string(_identity.head) +
           ", \"start_label\": " + std::to_string(_identity.startLabel) +
           ", \"end_label\": " + std::to_string(_identity.endLabel) +
           ", \"state\": " + analysis::jsonString(linkName(s.link)) +
           ", \"detail\": " + analysis::jsonString(s.linkDetail) + ", \"labels\": " + analysis::jsonString(s.labels) +
           ", \"saving\": " + analysis::jsonString(s.saving) + ", \"signals\": " + signals +
           ", \"jobs\": " + std::to_string(s.jobs) + ", \"incomplete_jobs\": " + std::to_string(s.incompleteJobs) +
           ", \"skipped_jobs\": " + std::to_string(s.skippedJobs) +
           ", \"lost_events\": " + std::to_string(s.lostEvents) + ", \"reconnects\": " + std::to_string(s.reconnects) +
           ", \"save_failures\": " + std::to_string(s.saveFailures) +
           ", \"saved_bytes\": " + std::to_string(s.savedBytes) +
           ", \"last_job\": " + (s.lastJob ? std::to_string(s.lastJob->id) : "null") + "}";
}

std::string Machine::statusJson() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return statusJsonLocked();
}

std::string Machine::historyJson() const {
    std::lock_guard<std::mutex> lock(_mutex);
    std::string json = "{\"status\": " + statusJsonLocked() +
                       ", \"history_length\": " + std::to_string(_identity.historyLength) + ", \"jobs\": [";
    for (std::size_t i = 0; i < _history.size(); ++i) {
        json += (i == 0 ? "" : ",\n") + toJson(_history[i], true);
    }
    return json + "]}";
}

std::uint64_t Machine::waitForChange(std::uint64_t seen, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(_mutex);
    _changedCondition.wait_for(lock, timeout, [&] { return _closed || _changes > seen; });
    return _changes;
}

bool Machine::closed() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _closed;
}

}  // namespace oltb::monitor
