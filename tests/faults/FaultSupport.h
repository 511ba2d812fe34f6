// Helpers of the fault and stress tests: the calling thread's error text, streams of counting trace words, figures
// of this process read from /proc/self, bounded waits, and slow scenarios run side by side in threads.
#pragma once

#include "api/oltb.h"
#include "tests/support/LastError.h"
#include "tests/support/FakeServer.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace oltb::faults {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using oltb::testing::Bytes;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers keep freed memory in quarantine and map shadow memory: resident sizes say nothing there.
constexpr bool kResidentSizeIsMeaningful = false;
#else
constexpr bool kResidentSizeIsMeaningful = true;
#endif

constexpr std::uint8_t kCounterType = oltbEventSpi0Rx; // a 32-bit type: one event per word, no stamp shift
constexpr std::uint8_t kTimeBaseType = oltbEventTimeBase;

inline const std::string kNotEstablished = "Connection to trace buffer server not established!";
inline const std::string kNoConnection = "No connection to trace buffer server established.";
inline const std::string kCommandTimeout = "Could not receive a response from the trace buffer server within 3000ms";
inline const std::string kReadTimeout = "Nothing received from trace buffer server within the specified timeout";

// The text oltbConnect leaves when the opening exchange with `address` fails with `cause`.
inline std::string connectFailure(const std::string& address, const std::string& cause) {
    return "Could not connect to the tracebuffer server on address " + address + ". " + cause;
}

// Takes the calling thread's error text out of the store.
using oltb::testing::takeLastError;

inline double secondsSince(const Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU time the calling thread has used so far: a call that waits must not spend it.
inline double threadCpuSeconds() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

// Polls `condition` every few milliseconds until it holds or `timeout` has passed.
inline bool waitUntil(const std::function<bool()>& condition, const std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
}

// True once oltbIsConnected reports the handle's connection as lost.
inline bool waitForConnectionLost(const int handle, const std::chrono::milliseconds timeout) {
    return waitUntil(
        [handle] {
            bool connected = true;
            return oltbIsConnected(handle, &connected) == 0 && !connected;
        },
        timeout);
}

// Counting words: word i carries the value first + i at the 24-bit stamp stampFirst + i * stampStep.
inline Bytes counterWords(const std::uint32_t first, const std::uint32_t count, const std::uint32_t stampFirst,
                          const std::uint32_t stampStep) {
    Bytes bytes;
    bytes.reserve(static_cast<std::size_t>(count) * 8);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint64_t word =
            oltb::testing::packWord(kCounterType, (stampFirst + i * stampStep) & 0xFFFFFFU, first + i);
        for (int b = 0; b < 8; ++b) {
            bytes.push_back(static_cast<std::uint8_t>(word >> (8 * b)));
        }
    }
    return bytes;
}

// Bytes [begin, end) of `bytes`.
inline Bytes slice(const Bytes& bytes, const std::size_t begin, const std::size_t end) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(begin), bytes.begin() + static_cast<std::ptrdiff_t>(end));
}

// Reads with oltbRead until `wanted` events have arrived or a read fails; the events read so far.
inline std::vector<oltbTraceEvent> readEvents(const int handle, const std::size_t wanted) {
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

// Figures of this process, from /proc/self.
struct ProcessFigures {
    long threads = -1;
    long openDescriptors = -1;
    long residentKb = -1;
};

inline long statusField(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
        }
    }
    return -1;
}

inline long countOpenDescriptors() {
    DIR* const directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    long entries = 0;
    while (const dirent* const entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.') {
            ++entries;
        }
    }
    ::closedir(directory);
    return entries - 1; // the descriptor of the listing itself
}

inline ProcessFigures readProcessFigures() {
    ProcessFigures figures;
    figures.threads = statusField("Threads");
    figures.openDescriptors = countOpenDescriptors();
    figures.residentKb = statusField("VmRSS");
    return figures;
}

// Runs every scenario on a thread of its own and waits for all of them: scenarios that each wait out a 3 s command
// timeout then cost 3 s together. Each scenario uses its own server address. GoogleTest's EXPECT_* are safe on
// these threads; an ASSERT_* ends only its own scenario.
inline void runSideBySide(const std::vector<std::pair<std::string, std::function<void()>>>& scenarios) {
    std::vector<std::thread> threads;
    threads.reserve(scenarios.size());
    for (const auto& scenario : scenarios) {
        threads.emplace_back([&scenario] {
            SCOPED_TRACE(scenario.first);
            scenario.second();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace oltb::faults
