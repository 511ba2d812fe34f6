// The jobs read between their labels, on their way from the reading thread to the analysing one. The reading thread
// must never wait (the card's buffer would overflow meanwhile), so the queue is bounded and a job that finds it
// full is dropped and counted, never blocked on: a few jobs of slack absorb one slow analysis.
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
    explicit JobQueue(std::size_t capacity) : _capacity(capacity) {}

    // False when the queue is full or closed: the job is dropped.
    bool push(Job&& job) {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_closed || _jobs.size() >= _capacity) {
            return false;
        }
        _jobs.push_back(std::move(job));
        _ready.notify_one();
        return true;
    }

    // The oldest job; waits for one. Nothing once the queue is closed and every job taken.
    std::optional<Job> pop() {
        std::unique_lock<std::mutex> lock(_mutex);
        _ready.wait(lock, [&] { return _closed || !_jobs.empty(); });
        if (_jobs.empty()) {
            return std::nullopt;
        }
        Job job = std::move(_jobs.front());
        _jobs.pop_front();
        return job;
    }

    void close() {
        std::lock_guard<std::mutex> lock(_mutex);
        _closed = true;
        _ready.notify_all();
    }

private:
    const std::size_t _capacity;
    std::mutex _mutex;
    std::condition_variable _ready;
    std::deque<Job> _jobs;
    bool _closed = false;
};

}  // namespace oltb::monitor
