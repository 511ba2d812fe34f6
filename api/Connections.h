// Process-wide registry of connection handles. A handle is a positive int issued in increasing order and never
// reused; its entry owns the connection's client and the series of its last acquisition.
#pragma once

#include "api/oltb.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

class TraceBufferClient;

struct TraceBufferConnection {
    explicit TraceBufferConnection(std::unique_ptr<TraceBufferClient> client);
    TraceBufferConnection(TraceBufferConnection&&) noexcept;
    TraceBufferConnection& operator=(TraceBufferConnection&&) noexcept;
    ~TraceBufferConnection();

    std::unique_ptr<TraceBufferClient> _client;
    std::vector<oltbTraceEvent> _acquiredElements;
    std::uint32_t _acquiredPosition = 0;
};

class Connections {
public:
    static constexpr int _HandleSearchLimit = 65537;

    // Created by the first exported function that needs it; destroyed at process exit, taking every remaining
    // client with it.
    static Connections& Instance();

    // Registers the client under the next free handle and returns it. Throws when 65,537 consecutive values are
    // taken (the client is then destroyed by the caller's unwinding).
    int Add(std::unique_ptr<TraceBufferClient> client);
    bool Contains(int handle);
    // The entry; the reference is used after the lock is released. Throws when the handle is not registered.
    TraceBufferConnection& Get(int handle);
    // Erases and destroys the entry (the client's destructor runs under the lock). Throws when absent.
    void Remove(int handle);

    Connections() = default;
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;
    ~Connections();

private:
    std::unordered_map<int, TraceBufferConnection> _connections;
    int _lastHandle = 0;
    std::mutex _mutex;
};

}  // namespace OLVEN::TALIX3::TraceBuffer
