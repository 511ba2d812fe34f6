// One connection to a trace buffer server: the TCP socket, the reader thread that separates command responses
// from trace data, the command channel, the configuration, and the reading operations that decode the queued
// trace data on the caller's thread (through the decoding core in events/).
#pragma once

#include "api/oltb.h"

#include <string>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

class TraceBufferClient {
public:
    static constexpr unsigned _bufferSize = 16384;
    static constexpr int _DefaultReadTimeoutMs = 10000;

    // Connects (3 attempts), starts the reader thread and runs the opening exchange (Stop, then GetConfig).
    // Throws std::runtime_error("Could not connect to the tracebuffer server on address " + address + ". " +
    // cause) on failure.
    explicit TraceBufferClient(const std::string& address);
    ~TraceBufferClient();
    TraceBufferClient(const TraceBufferClient&) = delete;
    TraceBufferClient& operator=(const TraceBufferClient&) = delete;

    void Disconnect();

    void Start();
    void Stop();
    void Clear();
    void SetConfig(const oltbTraceBufferConfig_Struct& config);
    oltbTraceBufferConfig_Struct GetConfig();

    unsigned TryRead(oltbTraceEvent* events, unsigned start, unsigned count);
    unsigned Read(oltbTraceEvent* events, unsigned start, unsigned count);
    std::vector<oltbTraceEvent> Acquire(unsigned short startLabel, unsigned short endLabel);

    static void ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept;

    // The connection is up and the reader thread receives (the `_running` flag).
    bool isRunning() const noexcept;
    int readTimeoutMs() const noexcept;
    void setReadTimeoutMs(int timeoutMs) noexcept;

private:
    // (socket, reader thread, queue, decoder state, locks: to be declared by the client implementation)
};

}  // namespace OLVEN::TALIX3::TraceBuffer
