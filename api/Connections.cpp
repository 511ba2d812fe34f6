#include "api/Connections.h"

#include "api/ApiMessages.h"
#include "client/TraceBufferClient.h"

#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer {

TraceBufferConnection::TraceBufferConnection(std::unique_ptr<TraceBufferClient> client) : _client(std::move(client)) {}
TraceBufferConnection::~TraceBufferConnection() = default;

Connections& Connections::Instance() {
    static Connections instance;
    return instance;
}

Connections::~Connections() = default;

int Connections::Add(std::unique_ptr<TraceBufferClient> client) {
    std::lock_guard<std::mutex> lock(_mutex);
    // Counted in unsigned arithmetic: the counter wraps instead of overflowing.
    const unsigned first = static_cast<unsigned>(_lastHandle) + 1U;
    for (unsigned tried = 0; tried < static_cast<unsigned>(_HandleSearchLimit); ++tried) {
        _lastHandle = static_cast<int>(first + tried);
        if (_connections.find(_lastHandle) == _connections.end()) {
            _connections.emplace(_lastHandle, std::make_shared<TraceBufferConnection>(std::move(client)));
            return _lastHandle;
        }
    }
    throw std::runtime_error(ApiMessages::TooManyHandles);
}

bool Connections::Contains(int handle) {
    std::lock_guard<std::mutex> lock(_mutex);
    return _connections.find(handle) != _connections.end();
}

std::shared_ptr<TraceBufferConnection> Connections::Get(int handle) {
    std::shared_ptr<TraceBufferConnection> entry = Find(handle);
    if (!entry) {
        throw std::runtime_error(ApiMessages::NoSuchConnection);
    }
    return entry;
}

std::shared_ptr<TraceBufferConnection> Connections::Find(int handle) {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto found = _connections.find(handle);
    return found == _connections.end() ? nullptr : found->second;
}

bool Connections::Remove(int handle) {
    std::shared_ptr<TraceBufferConnection> removed;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        const auto found = _connections.find(handle);
        if (found == _connections.end()) {
            return false;
        }
        removed = std::move(found->second);
        _connections.erase(found);
    }
    // Destroyed here unless a call of another thread still holds it; either way without the registry lock.
    return true;
}

}  // namespace OLVEN::TALIX3::TraceBuffer
