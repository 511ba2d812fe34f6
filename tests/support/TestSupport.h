// What the tests through the C interface share: the calling thread's error text, the library's fixed texts, bounded
// waits, reading a number of events, and slow scenarios run side by side.
#pragma once

#include "api/oltb.h"

#include <gtest/gtest.h>

#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace oltb::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline const std::string NotEstablished = "Connection to trace buffer server not established!";
inline const std::string NoConnection = "No connection to trace buffer server established.";
inline const std::string CommandTimeout = "Could not receive a response from the trace buffer server within 3000ms";
inline const std::string ReadTimeout = "Nothing received from trace buffer server within the specified timeout";

inline std::string connectFailure(const std::string& address, const std::string& cause) {
    return "Could not connect to the tracebuffer server on address " + address + ". " + cause;
}

// Takes (and so consumes) the calling thread's error text.
inline std::string takeLastError() {
    char buffer[512];
    oltbGetLastError(buffer, static_cast<int>(sizeof buffer));
    return buffer;
}

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU time of the calling thread: a call that waits must not spend it.
inline double threadCpuSeconds() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

inline bool waitForConnectionLost(int handle, std::chrono::milliseconds timeout) {
    return waitUntil(
        [handle] {
            bool connected = true;
            return oltbIsConnected(handle, &connected) == 0 && !connected;
        },
        timeout);
}

// Runs `body` on a thread of its own and ends the test program when it has not returned within `limit`: a hang then
// fails at once, naming itself, instead of at the test's time limit.
inline void mustReturnWithin(std::chrono::milliseconds limit, const char* what, const std::function<void()>& body) {
    std::packaged_task<void()> task(body);
    std::future<void> done = task.get_future();
    std::thread runner(std::move(task));
    if (done.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "HANG: %s did not return within %lld ms\n", what, static_cast<long long>(limit.count()));
        std::abort();
    }
    runner.join();
}

// Reads with oltbRead until `wanted` events have arrived or a read fails; the events read so far.
inline std::vector<oltbTraceEvent> readEvents(int handle, std::size_t wanted) {
    std::vector<oltbTraceEvent> events(wanted);
    std::size_t total = 0;
    while (total < wanted) {
        std::uint32_t count = 0;
        if (oltbRead(handle, events.data(), static_cast<std::uint32_t>(total),
                     static_cast<std::uint32_t>(wanted - total), &count) != 0) {
            ADD_FAILURE() << "read failed after " << total << " of " << wanted << " events: " << takeLastError();
            break;
        }
        total += count;
    }
    events.resize(total);
    return events;
}

// Each scenario on a thread of its own: scenarios that each wait out a 3 s command limit cost 3 s together. Each
// uses its own server address; an ASSERT_* ends only its own scenario.
inline void runSideBySide(const std::vector<std::pair<std::string, std::function<void()>>>& scenarios) {
    std::vector<std::thread> threads;
    for (const auto& scenario : scenarios) {
        threads.emplace_back([&scenario] {
            SCOPED_TRACE(scenario.first);
            scenario.second();
        });
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace oltb::testing
