// Helpers for tests of the client against the fake server: captured standard streams, the text of a failed
// construction, and reading a number of events with a bounded wait.
#pragma once

#include "client/TraceBufferClient.h"
#include "tests/support/FakeServer.h"

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer::Testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using oltb::testing::Bytes;

// Redirects a standard stream (std::cout or std::cerr) into a string for the helper's lifetime. Install it
// before the client whose output is wanted is made, and read it only after that client's reader thread has
// written (or ended), so that no thread writes to the stream while it is switched.
class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : _stream(stream), _previous(stream.rdbuf(_captured.rdbuf())) {}
    ~StreamCapture() { _stream.rdbuf(_previous); }
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;
    std::string text() const { return _captured.str(); }

private:
    std::ostream& _stream;
    std::ostringstream _captured;
    std::streambuf* _previous;
};

// The text of the exception `operation` throws; empty when it succeeds.
template <typename Operation>
std::string failureOf(Operation operation) {
    try {
        operation();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

inline std::string constructionFailure(const std::string& address) {
    return failureOf([&] { TraceBufferClient client(address); });
}

inline std::string connectFailure(const std::string& address, const std::string& cause) {
    return "Could not connect to the tracebuffer server on address " + address + ". " + cause;
}

inline Bytes commandBytes(std::uint8_t code, const Bytes& payload = {}) {
    return oltb::testing::commandFrame(code, payload);
}

// A 32-bit SPI sample: one event per word, its Value the payload.
inline Bytes spiWord(std::uint32_t timestamp, std::uint32_t value) {
    return oltb::testing::makeWord(oltbEventSpi0Rx, timestamp, value);
}

// The values of the events read until `count` have arrived or 2 s have passed.
inline std::vector<std::int32_t> readValues(TraceBufferClient& client, std::size_t count) {
    client.setReadTimeoutMs(100);
    std::vector<std::int32_t> values;
    std::vector<oltbTraceEvent> events(16);
    const auto deadline = Clock::now() + 2s;
    while (values.size() < count && Clock::now() < deadline) {
        const unsigned read = client.TryRead(events.data(), 0, static_cast<unsigned>(events.size()));
        for (unsigned i = 0; i < read; ++i) {
            values.push_back(events[i].Value);
        }
    }
    return values;
}

}  // namespace OLVEN::TALIX3::TraceBuffer::Testing
