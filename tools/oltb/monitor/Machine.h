// What a monitor knows of the machine it watches, shared by its threads: the reading thread sets the connection's
// state and the labels', the analysing thread adds each job's figures, and the web server's threads read it all
// for the page, the metrics and the live updates. One lock guards everything; every change wakes the live pages.
// The history of jobs is bounded, so that memory stays flat however long the monitor runs.
#pragma once

#include "analysis/TraceAnalysis.h"
#include "api/oltb.h"
#include "tools/oltb/monitor/JobFigures.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace oltb::monitor {

// What the monitor watches; fixed for its life.
struct MachineIdentity {
    std::string name;  // in the page and in every metric's labels
    std::string host;  // the card's address
    int head = 0;
    unsigned startLabel = 0, endLabel = 0;
    std::size_t historyLength = 1000;  // jobs kept
};

enum class Link { Connecting, Tracing, Away };
const char* linkName(Link link);  // "connecting", "tracing", "away"

// The last job's capture and analysis, for its report page.
struct JobCapture {
    std::uint64_t id = 0;
    std::vector<oltbTraceEvent> events;
    analysis::Result result;
};

struct MachineStatus {
    Link link = Link::Connecting;
    std::string linkDetail;            // why the machine is away and when the next attempt comes
    std::string labels;                // the labels that do not come, or empty while jobs come
    std::string saving;                // why the last job could not be saved, or empty
    std::vector<std::string> signals;  // traced, as the card reported them after the monitor set them
    std::uint64_t jobs = 0;            // analysed
    std::uint64_t incompleteJobs = 0;  // a start label whose end label did not come
    std::uint64_t skippedJobs = 0;     // complete, but the analysis was too far behind to take them
    std::uint64_t lostEvents = 0;      // within the jobs analysed
    std::uint64_t reconnects = 0;
    std::uint64_t saveFailures = 0;
    std::uint64_t savedBytes = 0;  // in the save directory, the monitor's files
    std::optional<JobFigures> lastJob;
};

class Machine {
public:
    explicit Machine(MachineIdentity identity) : _identity(std::move(identity)) {}

    const MachineIdentity& identity() const { return _identity; }

    void setLink(Link link, const std::string& detail);
    void setSignals(std::vector<std::string> signals);
    void setLabels(const std::string& text);
    void countReconnect();
    void countIncompleteJob();
    void countSkippedJob();
    // failure: why the last save failed, empty when it succeeded.
    void setSaving(const std::string& failure, std::uint64_t savedBytes);
    void addJob(const JobFigures& figures, std::shared_ptr<const JobCapture> capture);
    // The monitor ends: waits end at once.
    void close();

    MachineStatus status() const;
    std::optional<JobFigures> job(std::uint64_t id) const;
    std::shared_ptr<const JobCapture> lastCapture() const;
    // The kept jobs after `id`, oldest first, at most `most` (the newest ones).
    std::vector<JobFigures> jobsAfter(std::uint64_t id, std::size_t most) const;

    // {"machine", "host", "head", "start_label", "end_label", "state", "detail", "labels", "saving", "signals",
    //  counters...}
    std::string statusJson() const;
    // {"status": statusJson, "history_length": N, "jobs": [brief job, ...]}
    std::string historyJson() const;

    // Waits until the count of changes exceeds `seen`, the timeout passes or the monitor closes; returns the count.
    std::uint64_t waitForChange(std::uint64_t seen, std::chrono::milliseconds timeout) const;
    bool closed() const;

private:
    void changed();  // under the lock
    std::string statusJsonLocked() const;

    const MachineIdentity _identity;
    mutable std::mutex _mutex;
    mutable std::condition_variable _changedCondition;
    std::uint64_t _changes = 0;
    bool _closed = false;
    MachineStatus _status;
    std::deque<JobFigures> _history;
    std::shared_ptr<const JobCapture> _lastCapture;
};

}  // namespace oltb::monitor
