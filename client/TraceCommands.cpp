// The command channel: one 19-byte frame per command, then up to 3000 ms of waiting for the response frame that
// the reader thread hands over. Start, Stop and Clear control tracing.
#include "client/TraceCommands.h"
#include "client/ClientMessages.h"
#include "client/TraceBufferClient.h"

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

    std::unique_lock<std::mutex> responseLock(_responseMutex);
    // Numbered and sent while _responseMutex is held; the wait below releases it atomically, so the reader cannot
    // hand the answer over, nor notify, before this command waits. The answers due to commands that gave up come
    // first (the server answers in order) and are dropped.
    const std::uint64_t answer = ++_commandsSent;
    _answersDue = true;
    _awaitedAnswer = answer;
    _waitingForResponse = true;
    _response.clear();
    {
        const std::lock_guard<std::mutex> sendLock(_sendMutex);
        // The result is not examined: a frame that did not go out shows up as a missing response.
        (void)_socket->send(frame.data(), frame.size());
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ResponseTimeoutMs);
    const bool answered = _responseCondition.wait_until(
        responseLock, deadline, [this, answer] { return _answersTaken >= answer || _disconnected; });
    _awaitedAnswer = 0;
    _waitingForResponse = false;
    if (_disconnected) {
        throw std::runtime_error(ClientMessages::NotConnected);
    }
    if (!answered) {
        // The answer may still come: it is looked for, and dropped, whenever it does. An answer that never comes
        // (a server that ignored a command, an answer cut beyond recognition) cannot be told from a late one, and
        // taking a later frame in its place would hand some command the wrong answer: every later command then
        // waits for its own in vain, until a new connection.
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

void TraceBufferClient::requireConnection() const {
    if (!isSocketOpen()) {
        throw std::runtime_error(ClientMessages::NotConnected);
    }
}

void TraceBufferClient::Start() {
    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    startLocked();
}

void TraceBufferClient::startLocked() {
    if (_isStarted) {
        return;
    }
    requireConnection();
    clear();
    {
        // Everything received from now until the Start's answer is old: the trace begins behind the answer.
        const std::lock_guard<std::mutex> responseLock(_responseMutex);
        _startAnswer = _commandsSent + 1;
        _dropTrace = true;
    }
    // Set before sending, so that trace data following the response is queued from its first byte.
    _isStarted = true;
    try {
        (void)writeCommand(TraceCommandCode::Start, NoPayload, false);
    } catch (...) {
        _isStarted = false;
        _dropTrace = false;
        throw;
    }
}

void TraceBufferClient::Stop() {
    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    stopLocked();
}

void TraceBufferClient::stopLocked() {
    requireConnection();
    (void)writeCommand(TraceCommandCode::Stop, NoPayload, false);
    _isStarted = false;
}

void TraceBufferClient::Clear() {
    const std::lock_guard<std::mutex> commandLock(_commandMutex);
    if (!_isStarted) {
        return;
    }
    stopLocked();
    startLocked();
}

}  // namespace OLVEN::TALIX3::TraceBuffer
