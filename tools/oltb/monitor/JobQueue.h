// The jobs read between their labels, on their way from the reading thread to the analysing one. The reading thread
// must never wait (the card's buffer would overflow meanwhile), so a job that finds the queue full is dropped and
// counted, never blocked on. The queue holds events up to a number of bytes: slack for many short jobs or a few
// long ones while the analysis catches up (a busy machine, a long job), with memory bounded all the same.
#pragma once

#include "api/oltb.h"
#include "tools/oltb/SeriesInfo.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace oltb::monitor {

struct Job {
    std::uint64_t id = 0;
    std::string endedUtc;
    double endedUnixSeconds = 0;
    cli::SeriesInfo info;                // the traced signals, the card, the labels, when tracing started
    std::vector<oltbTraceEvent> events;  // raw positions, time from the start label
};

class JobQueue {
public:
    explicit JobQueue(std::size_t capacityBytes) : _capacityBytes(capacityBytes) {}

    // False when the queue is closed, or when it holds jobs and this one would take it past its bytes: the job is
    // dropped. An empty queue takes any job, which is in memory already.
    bool push(Job&& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        const std::size_t bytes = job.events.size() * sizeof(oltbTraceEvent);
        if (_closed || (!_jobs.empty() && _bytes + bytes > _capacityBytes)) {
            return false;
        }
        _bytes += bytes;
        _jobs.push_back(std::move(job));
        _ready.notify_one();
        return true;
    }

    // The oldest job; waits for one. Nothing once the queue is closed.
    std::optional<Job> pop() {
        std::unique_lock<std::mutex> lock(_mutex);
        _ready.wait(lock, [&] { return _closed || !_jobs.empty(); });
        if (_jobs.empty()) {
            return std::nullopt;
        }
        Job job = std::move(_jobs.front());
        _jobs.pop_front();
        _bytes -= job.events.size() * sizeof(oltbTraceEvent);
        return job;
    }

    // No job is taken after this; the jobs still waiting are dropped, so that the monitor ends within one analysis
    // however far behind it is. Returns how many were dropped.
    std::size_t close() {
        std::lock_guard<std::mutex> lock(_mutex);
        _closed = true;
        const std::size_t dropped = _jobs.size();
        _jobs.clear();
        _bytes = 0;
        _ready.notify_all();
        return dropped;
    }

private:
    const std::size_t _capacityBytes;
    std::size_t _bytes = 0;
    std::mutex _mutex;
    std::condition_variable _ready;
    std::deque<Job> _jobs;
    bool _closed = false;
};

}  // namespace oltb::monitor
