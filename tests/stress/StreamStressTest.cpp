// Sixteen connections at once, each on its own thread and fake server (127.0.4.1 to 127.0.4.16), go through whole
// lives in a loop for a bounded time: connect, configure, start, read a counting stream cut at random places,
// acquire between two labels, read on, and end in one of four ways (disconnect, stop, clear of unread data, or the
// server closing first). Every counting value must arrive exactly once, in order, with its exact time stamp.
#include "tests/stress/StressSupport.h"

#include <iostream>

namespace oltb::stress {
namespace {

using oltb::testing::FakeServer;
using oltb::testing::makeWord;

constexpr int kWorkers = 16;

// Word j of a cycle's stream counts j at stamp 64 (j + 1), after a time-base word that puts the stream into period
// `period`. Labels lie 24 ticks (after the 16-tick shift of their width) behind the word before them.
std::uint64_t wordStamp(const std::uint32_t period, const std::uint32_t j) {
    return (static_cast<std::uint64_t>(period) << 24) + 64U * (j + 1);
}

Bytes labelWord(const std::uint16_t label, const std::uint32_t afterWord) {
    return makeWord(oltbEventLabel, 64U * (afterWord + 1) + 8, static_cast<std::uint32_t>(label) << 16);
}

struct WorkerFigures {
    int cycles = 0;
    std::uint64_t eventsChecked = 0;
    int acquisitions = 0;
    int serverCloses = 0;
    bool failed = false;
};

class Worker {
public:
    Worker(const int index, const Clock::time_point deadline)
        : _address("127.0.4." + std::to_string(index + 1)), _server(_address), _random(1000 + index),
          _deadline(deadline) {}

    WorkerFigures run() {
        while (!_figures.failed && Clock::now() < _deadline && _figures.cycles < 10000) {
            runCycle();
            ++_figures.cycles;
        }
        return _figures;
    }

private:
    void fail(const std::string& what) {
        ADD_FAILURE() << _address << ", cycle " << _figures.cycles << ": " << what;
        _figures.failed = true;
    }

    bool check(const bool condition, const std::string& what) {
        if (!condition) {
            fail(what);
        }
        return condition;
    }

    // Reads words [first, end) of the stream and checks each one. Mostly reads of random sizes that take only what
    // has arrived (read timeout 0); when nothing has, one read that waits for the rest. A waiting read never starts
    // on the remains of a block: it would deliver them and then wait its whole timeout for a block that never comes.
    bool readWords(const int handle, const std::uint32_t period, const std::uint32_t first, const std::uint32_t end) {
        std::vector<oltbTraceEvent> buffer(end - first);
        std::uint32_t expected = first;
        while (expected < end) {
            const std::uint32_t remaining = end - expected;
            std::uint32_t count = 0;
            if (!check(oltbSetReadTimeout(handle, 0) == 0 &&
                           oltbTryRead(handle, buffer.data(), 0, 1 + _random() % remaining, &count) == 0,
                       "polling read: " + takeLastError() + " at word " + std::to_string(expected))) {
                return false;
            }
            if (count == 0 &&
                !check(oltbSetReadTimeout(handle, 5000) == 0 && oltbRead(handle, buffer.data(), 0, remaining, &count) == 0,
                       "read: " + takeLastError() + " at word " + std::to_string(expected))) {
                return false;
            }
            for (std::uint32_t i = 0; i < count; ++i, ++expected) {
                const oltbTraceEvent& e = buffer[i];
                if (!check(e.Type == oltbEventSpi0Rx && static_cast<std::uint32_t>(e.Value) == expected &&
                               e.Timestamp == wordStamp(period, expected),
                           "word " + std::to_string(expected) + " arrived as value " + std::to_string(e.Value) +
                               ", type " + std::to_string(e.Type) + ", stamp " + std::to_string(e.Timestamp))) {
                    return false;
                }
            }
            _figures.eventsChecked += count;
        }
        return oltbSetReadTimeout(handle, 5000) == 0;
    }

    // The words [first, end) between a start and an end label, collected by one acquisition.
    bool acquireWords(const int handle, const std::uint32_t first, const std::uint32_t end) {
        const std::uint16_t startLabel = static_cast<std::uint16_t>(1 + _random() % 1000);
        const std::uint16_t endLabel = static_cast<std::uint16_t>(startLabel + 1);
        Bytes bytes = labelWord(startLabel, first - 1);
        const Bytes words = counterWords(first, end - first, 64 * (first + 1), 64);
        bytes.insert(bytes.end(), words.begin(), words.end());
        const Bytes closing = labelWord(endLabel, end - 1);
        bytes.insert(bytes.end(), closing.begin(), closing.end());
        sendCut(_server, bytes, _random);

        std::uint32_t elements = 0;
        if (!check(oltbAcquire(handle, startLabel, endLabel, &elements) == 0, "acquire: " + takeLastError()) ||
            !check(elements == end - first, "acquired " + std::to_string(elements) + " elements")) {
            return false;
        }
        std::vector<oltbTraceEvent> series(elements);
        std::uint32_t handedOut = 0;
        while (handedOut < elements) {
            if (!check(oltbGetAcquiredElements(handle, series.data(), 0, 1 + _random() % 2000, &handedOut) == 0,
                       "acquired elements: " + takeLastError())) {
                return false;
            }
        }
        const double startTicks = 64.0 * first + 24.0;
        for (std::uint32_t i = 0; i < elements; ++i) {
            const std::uint32_t j = first + i;
            if (!check(static_cast<std::uint32_t>(series[i].Value) == j &&
                           series[i].Time == (64.0 * (j + 1) - startTicks) * 0.015625,
                       "acquired word " + std::to_string(j) + " arrived as value " +
                           std::to_string(series[i].Value) + " at " + std::to_string(series[i].Time) + " us")) {
                return false;
            }
        }
        _figures.eventsChecked += elements;
        ++_figures.acquisitions;
        return true;
    }

    void runCycle() {
        const int handle = oltbConnect(_address.c_str());
        if (!check(handle > 0, "connect: " + takeLastError())) {
            return;
        }
        oltbTraceBufferConfig_Struct config;
        oltbInitConfig(&config);
        config.Spi0Rx = true;
        config.Label = true;
        const std::uint32_t period = 1 + static_cast<std::uint32_t>(_figures.cycles % 3);
        const std::uint32_t acquiredFirst = 1000 + _random() % 4000;
        const std::uint32_t acquiredEnd = acquiredFirst + 1 + _random() % 4000;
        const std::uint32_t lastEnd = acquiredEnd + 1 + _random() % 4000;
        const bool lived = check(oltbSetReadTimeout(handle, 5000) == 0, "timeout: " + takeLastError()) &&
                           check(oltbSetConfig(handle, &config) == 0, "configure: " + takeLastError()) &&
                           check(oltbStart(handle) == 0, "start: " + takeLastError());
        if (lived) {
            Bytes opening = makeWord(kTimeBaseType, 0, period);
            const Bytes words = counterWords(0, acquiredFirst, 64, 64);
            opening.insert(opening.end(), words.begin(), words.end());
            sendCut(_server, opening, _random);
            if (readWords(handle, period, 0, acquiredFirst) && acquireWords(handle, acquiredFirst, acquiredEnd)) {
                sendCut(_server, counterWords(acquiredEnd, lastEnd - acquiredEnd, 64 * (acquiredEnd + 1), 64),
                        _random);
                if (readWords(handle, period, acquiredEnd, lastEnd)) {
                    endCycle(handle, lastEnd);
                }
            }
        }
        check(oltbDisconnect(handle) == 0, "disconnect: " + takeLastError());
    }

    void endCycle(const int handle, const std::uint32_t next) {
        switch (_figures.cycles % 4) {
        case 0: // disconnect while started
            break;
        case 1:
            check(oltbStop(handle) == 0, "stop: " + takeLastError());
            break;
        case 2: { // unread words, all received (the answer of the GetConfig comes behind them), then cleared
            _server.send(counterWords(next, 2000, 64 * (next + 1), 64));
            oltbTraceBufferConfig_Struct config;
            if (!check(oltbGetConfig(handle, &config) == 0, "configuration: " + takeLastError()) ||
                !check(oltbClear(handle) == 0, "clear: " + takeLastError()) ||
                !check(oltbSetReadTimeout(handle, 0) == 0, "timeout: " + takeLastError())) {
                return;
            }
            std::uint32_t count = 1;
            oltbTraceEvent event;
            check(oltbTryRead(handle, &event, 0, 1, &count) == 0 && count == 0, "words left after a clear");
            break;
        }
        default: { // the server goes first
            _server.closeClient();
            ++_figures.serverCloses;
            if (!check(waitForConnectionLost(handle, 5s), "connection loss not noticed")) {
                return;
            }
            oltbTraceEvent event;
            std::uint32_t count = 0;
            check(oltbRead(handle, &event, 0, 1, &count) == -1 && takeLastError() == kNoConnection,
                  "read after the loss");
            break;
        }
        }
    }

    const std::string _address;
    FakeServer _server;
    std::mt19937 _random;
    const Clock::time_point _deadline;
    WorkerFigures _figures;
};

TEST(StreamStress, SixteenConnectionsLiveAndStreamSideBySideWithoutLosingAWord) {
    const double seconds = stressSeconds(12.0);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(seconds));
    std::vector<WorkerFigures> figures(kWorkers);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWorkers; ++i) {
        threads.emplace_back([i, deadline, &figures] {
            Worker worker(i, deadline);
            figures[static_cast<std::size_t>(i)] = worker.run();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    WorkerFigures total;
    int fewestCycles = 1 << 30;
    for (const WorkerFigures& f : figures) {
        total.cycles += f.cycles;
        total.eventsChecked += f.eventsChecked;
        total.acquisitions += f.acquisitions;
        total.serverCloses += f.serverCloses;
        fewestCycles = std::min(fewestCycles, f.cycles);
    }
    std::cout << kWorkers << " connections, " << seconds << " s: " << total.cycles << " lives (at least "
              << fewestCycles << " each), " << total.eventsChecked << " events checked, " << total.acquisitions
              << " acquisitions, " << total.serverCloses << " ended by the server\n";
    EXPECT_GE(fewestCycles, 4) << "every connection must have lived through each way of ending";
}

} // namespace
} // namespace oltb::stress
