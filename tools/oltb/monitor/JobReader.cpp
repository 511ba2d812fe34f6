#include "tools/oltb/monitor/JobReader.h"

#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Errors.h"

#include <algorithm>
#include <cstdio>

namespace oltb::monitor {

namespace {

// Short enough that stop() is noticed promptly, long enough not to spin on an idle card.
constexpr int ReadSliceMs = 100;
constexpr std::uint32_t BatchEvents = 1 << 16;
constexpr double FirstRetrySeconds = 0.5;
constexpr double LongestRetrySeconds = 30.0;

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g s", value);
    return text;
}

}  // namespace

double JobReader::retrySeconds(unsigned failures) {
    double pause = FirstRetrySeconds;
    for (unsigned i = 1; i < failures && pause < LongestRetrySeconds; ++i) {
        pause *= 2;
    }
    return std::min(pause, LongestRetrySeconds);
}

void JobReader::stop() {
    std::lock_guard<std::mutex> lock(_mutex);
    _stopping = true;
    _stopCondition.notify_all();
}

bool JobReader::stopping() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _stopping;
}

bool JobReader::waitUnlessStopped(double pauseSeconds) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _stopCondition.wait_for(lock, std::chrono::duration<double>(pauseSeconds), [&] { return _stopping; });
}

void JobReader::run() {
    unsigned failures = 0;
    bool tracedBefore = false;
    std::string lastFailure;
    while (!stopping()) {
        std::string failure;
        try {
            cli::Connection connection(_settings.host);
            cli::SeriesInfo info;
            info.signals = cli::chooseSignals(connection, _settings.signals, true);
            info.host = _settings.host;
            info.startLabel = _settings.startLabel;
            info.endLabel = _settings.endLabel;
            info.startTimeUtc = cli::utcNowIso8601();
            std::vector<std::string> names;
            for (const cli::SignalInfo* signal : info.signals) {
                names.emplace_back(signal->name);
            }
            _machine.setSignals(std::move(names));
            connection.setReadTimeout(ReadSliceMs);
            connection.start();
            if (tracedBefore) {
                _machine.countReconnect();
                cli::printError("monitor: tracing " + _settings.host + " again");
            }
            tracedBefore = true;
            failures = 0;
            lastFailure.clear();
            _machine.setLink(Link::Tracing, "");
            trace(connection, info);
        } catch (const std::exception& error) {
            failure = error.what();
        }
        if (stopping()) {
            break;
        }
        const double pause = retrySeconds(++failures);
        // The first line of the library's text says what failed; a hint may follow.
        failure = failure.substr(0, failure.find('\n'));
        if (failure != lastFailure) {
            cli::printError("monitor: " + _settings.host + " away: " + failure);
            lastFailure = failure;
        }
        _machine.setLink(Link::Away, failure + "; next attempt in " + seconds(pause));
        if (waitUnlessStopped(pause)) {
            break;
        }
    }
}

void JobReader::newWindow(Clock::time_point now) {
    _window = std::make_unique<cli::LabelWindow>(_settings.startLabel, _settings.endLabel);
    _started = false;
    _endSeen = false;
    _waitingSince = now;
}

void JobReader::trace(cli::Connection& connection, const cli::SeriesInfo& info) {
    // A job cut by the lost connection is gone; the next one begins at its start label.
    newWindow(Clock::now());
    std::vector<oltbTraceEvent> batch(BatchEvents);
    while (!stopping()) {
        const std::uint32_t count = connection.tryRead(batch.data(), BatchEvents);
        for (std::uint32_t i = 0; i < count; ++i) {
            take(batch[i], info);
        }
        if (count == 0 && _endSeen) {
            // A window completes with the first event after its end label; a card that falls silent after the
            // job sends none, and the job must not wait for the next one.
            finishJob(info);
        }
        watchLabels(Clock::now());
    }
}

void JobReader::take(const oltbTraceEvent& event, const cli::SeriesInfo& info) {
    const bool label = event.Type == oltbEventLabel;
    const auto number = static_cast<std::uint16_t>(event.Value);
    if (label && number == _settings.startLabel && _window->startSeen()) {
        // A start label again before the end label: the job was broken off and begun anew.
        _machine.countIncompleteJob();
        newWindow(Clock::now());
    }
    bool complete = false;
    try {
        complete = _window->add(&event, 1);
    } catch (const cli::ServerError&) {
        return;  // an end label before any start label: the monitor came in during a job
    }
    if (!_started && _window->startSeen()) {
        _started = true;
        _waitingSince = Clock::now();
    }
    if (label && number == _settings.endLabel) {
        _endSeen = true;
    }
    if (complete) {
        finishJob(info);
        take(event, info);  // the event after the job's end may begin the next one
    }
}

void JobReader::finishJob(const cli::SeriesInfo& info) {
    Job job;
    job.id = ++_lastId;
    job.endedUtc = cli::utcNowIso8601();
    job.endedUnixSeconds = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    job.info = info;
    job.events = _window->takeEvents();
    if (!_queue.push(std::move(job))) {
        _machine.countSkippedJob();
    }
    _machine.setLabels("");
    newWindow(Clock::now());
}

void JobReader::watchLabels(Clock::time_point now) {
    if (now - _waitingSince < std::chrono::duration<double>(_settings.maxWaitSeconds)) {
        return;
    }
    const std::string limit = " within " + seconds(_settings.maxWaitSeconds) + " (--max-wait)";
    if (!_started) {
        _machine.setLabels("no start label " + std::to_string(_settings.startLabel) + limit + "; still waiting");
        return;
    }
    // Memory follows the job: one whose end does not come is dropped rather than kept growing.
    _machine.countIncompleteJob();
    _machine.setLabels("start label " + std::to_string(_settings.startLabel) + " came, but no end label " +
                       std::to_string(_settings.endLabel) + limit + "; the job was dropped");
    newWindow(now);
}

}  // namespace oltb::monitor
