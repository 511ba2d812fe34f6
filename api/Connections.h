// Process-wide registry of connection handles. A handle is a positive int issued in increasing order and never
// reused; its entry owns the connection's client and the series of its last acquisition. Entries are shared with the
// calls that use them: a handle disconnected by one thread while another is inside a call on it stays alive until
// that call returns.
#pragma once

#include "api/oltb.h"
#include "events/AcquiredEvents.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

class TraceBufferClient;

struct TraceBufferConnection {
    explicit TraceBufferConnection(std::unique_ptr<TraceBufferClient> client);
    ~TraceBufferConnection();
    TraceBufferConnection(const TraceBufferConnection&) = delete;
    TraceBufferConnection& operator=(const TraceBufferConnection&) = delete;

    std::unique_ptr<TraceBufferClient> _client;
    // The series of the last acquisition, handed out in portions; the mutex keeps two threads from tearing it.
    std::mutex _acquiredMutex;
    AcquiredEvents _acquiredElements;
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
    // The entry, kept alive for the caller. Throws when the handle is not registered.
    std::shared_ptr<TraceBufferConnection> Get(int handle);
    // As Get, but an empty pointer when the handle is not registered.
    std::shared_ptr<TraceBufferConnection> Find(int handle);
    // Erases the entry if it is there (false when it is not); it is destroyed, with its client, once no call holds
    // it any more.
    bool Remove(int handle);

    Connections() = default;
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;
    ~Connections();

private:
    std::unordered_map<int, std::shared_ptr<TraceBufferConnection>> _connections;
    int _lastHandle = 0;
    std::mutex _mutex;
};

}  // namespace OLVEN::TALIX3::TraceBuffer
