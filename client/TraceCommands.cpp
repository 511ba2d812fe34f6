// The command channel: one 19-byte frame per command, then up to 3000 ms of waiting for the response frame that
// the reader thread hands over. Start, Stop and Clear control tracing.
#include "client/ClientMessages.h"
#include "client/TraceBufferClient.h"
#include "client/TraceCommands.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

const std::vector<std::byte> NoPayload;

}  // namespace

std::vector<std::byte> TraceBufferClient::writeCommand(const TraceCommandCode& code,
                                                       const std::vector<std::byte>& payload, bool wantResponse) {
    std::array<std::byte, CommandFrameSize> frame{};
    frame[0] = CommandMarker;
    frame[1] = static_cast<std::byte>(static_cast<std::uint32_t>(code) & 0xFFU);
    if (!payload.empty()) {
        if (payload.size() != CommandPayloadSize) {
            throw std::runtime_error(ClientMessages::IllegalPayloadLength);
        }
        std::copy(payload.begin(), payload.end(), frame.begin() + 2);
    }

    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    std::unique_lock<std::mutex> responseLock(_responseMutex);
    // Raised and sent while _responseMutex is held; the wait below releases it atomically, so the reader cannot
    // hand the response over, nor notify, before this command waits.
    _waitingForResponse = true;
    {
        const std::lock_guard<std::mutex> sendLock(_sendMutex);
        // The result is not examined: a frame that did not go out shows up as a missing response.
        (void)_socket->send(frame.data(), frame.size());
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ResponseTimeoutMs);
    // Commands never wait side by side (_commandMutex), so "the reader cleared the flag" means exactly "this
    // command's response is here"; waiting on that, a spurious wake-up cannot pass for a response.
    const bool answered = _responseCondition.wait_until(responseLock, deadline, [this] { return !_waitingForResponse; });
    if (!answered) {
        _waitingForResponse = false;
        throw std::runtime_error(ClientMessages::ResponseTimeout);
    }
    if (!wantResponse) {
        return {};
    }
    std::vector<std::byte> response;
    response.swap(_response);
    if (response.empty()) {
        throw std::runtime_error(ClientMessages::EmptyResponse);
    }
    return response;
}

void TraceBufferClient::Start() {
    if (_isStarted) {
        return;
    }
    if (!isSocketOpen()) {
        throw std::runtime_error(ClientMessages::NotConnected);
    }
    clear();
    // Set before sending, so that trace data following the response is queued from its first byte.
    _isStarted = true;
    try {
        (void)writeCommand(TraceCommandCode::Start, NoPayload, false);
    } catch (...) {
        _isStarted = false;
        throw;
    }
}

void TraceBufferClient::Stop() {
    if (!isSocketOpen()) {
        throw std::runtime_error(ClientMessages::NotConnected);
    }
    (void)writeCommand(TraceCommandCode::Stop, NoPayload, false);
    _isStarted = false;
}

void TraceBufferClient::Clear() {
    if (!_isStarted) {
        return;
    }
    Stop();
    Start();
}

}  // namespace OLVEN::TALIX3::TraceBuffer
