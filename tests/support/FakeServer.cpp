// The fake trace buffer server: a listening socket and one serving thread that accepts a client,
// reassembles its 19-byte command frames from whatever pieces TCP delivers, records them and answers.
// Tests write trace words into the same connection from their own thread through send().
#include "tests/support/FakeServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace oltb::testing {

namespace {

constexpr int kPollIntervalMs = 20;
constexpr std::size_t kReceiveChunkSize = 4096;
// Bounds a send to a client that stopped reading, so that no test can hang in it.
constexpr int kSendTimeoutSeconds = 5;
constexpr auto kCloseClientWait = std::chrono::seconds(2);

[[noreturn]] void throwSystemError(const std::string& what) {
    throw std::runtime_error("FakeServer: " + what + ": " + std::strerror(errno));
}

} // namespace

FakeServer::FakeServer(const std::string& address) : _config(configPayload(6, 0, 0, 0, 0)) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(kTraceBufferPort);
    if (inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1 ||
        (ntohl(endpoint.sin_addr.s_addr) >> 24) != 127) {
        throw std::runtime_error("FakeServer: " + address + " is not an IPv4 loopback address");
    }
    _listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (_listenFd < 0) {
        throwSystemError("cannot create a socket");
    }
    const int on = 1;
    if (::setsockopt(_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(_listenFd, reinterpret_cast<const sockaddr*>(&endpoint), sizeof endpoint) != 0 ||
        ::listen(_listenFd, 8) != 0) {
        const int error = errno;
        ::close(_listenFd);
        errno = error;
        throwSystemError("cannot listen on " + address + ":" + std::to_string(kTraceBufferPort));
    }
    _thread = std::thread([this] { serve(); });
}

FakeServer::~FakeServer() {
    {
        std::lock_guard<std::mutex> lock(_stateMutex);
        _stopping = true;
    }
    _stateChanged.notify_all();
    ::shutdown(_listenFd, SHUT_RDWR);
    shutdownClient();
    if (_thread.joinable()) {
        _thread.join();
    }
    ::close(_listenFd);
}

void FakeServer::setReaction(std::uint8_t code, Reaction reaction) {
    std::lock_guard<std::mutex> lock(_stateMutex);
    _reactions[code] = std::move(reaction);
}

void FakeServer::setReactionOnce(std::uint8_t code, Reaction reaction) {
    std::lock_guard<std::mutex> lock(_stateMutex);
    _onceReactions[code].push_back(std::move(reaction));
}

void FakeServer::setReactionFunction(std::function<Reaction(const CommandFrame&)> fn) {
    std::lock_guard<std::mutex> lock(_stateMutex);
    _reactionFunction = std::move(fn);
}

Bytes FakeServer::config() const {
    std::lock_guard<std::mutex> lock(_stateMutex);
    return _config;
}

void FakeServer::setConfig(const Bytes& payload) {
    std::lock_guard<std::mutex> lock(_stateMutex);
    _config = payload;
}

bool FakeServer::waitForClient(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    return _stateChanged.wait_for(lock, timeout, [this] { return _clientConnected; });
}

bool FakeServer::waitForClientsAccepted(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    return _stateChanged.wait_for(lock, timeout, [&] { return _clientsAccepted >= count; });
}

bool FakeServer::waitForCommands(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    return _stateChanged.wait_for(lock, timeout, [&] { return _commands.size() >= count; });
}

std::vector<CommandFrame> FakeServer::commands() const {
    std::lock_guard<std::mutex> lock(_stateMutex);
    return _commands;
}

void FakeServer::clearCommands() {
    std::lock_guard<std::mutex> lock(_stateMutex);
    _commands.clear();
}

void FakeServer::send(const Bytes& bytes) { writeToClient(bytes); }

void FakeServer::sendChunks(const std::vector<Bytes>& chunks, std::chrono::milliseconds pause) {
    for (std::size_t i = 0; i < chunks.size(); ++i) {
        if (i > 0 && pause.count() > 0) {
            std::this_thread::sleep_for(pause);
        }
        writeToClient(chunks[i]);
    }
}

void FakeServer::closeClient() {
    std::unique_lock<std::mutex> lock(_stateMutex);
    if (!_clientConnected) {
        return;
    }
    _closeRequested = true;
    lock.unlock();
    _stateChanged.notify_all(); // cuts a pausing reaction short
    shutdownClient();
    // From inside a reaction function the serving thread itself must do the rest, so do not wait.
    if (std::this_thread::get_id() != _thread.get_id()) {
        lock.lock();
        _stateChanged.wait_for(lock, kCloseClientWait, [this] { return !_clientConnected; });
    }
}

bool FakeServer::waitForClientGone(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    return _stateChanged.wait_for(lock, timeout, [this] { return _clientGone; });
}

std::size_t FakeServer::clientsAccepted() const {
    std::lock_guard<std::mutex> lock(_stateMutex);
    return _clientsAccepted;
}

// _clientFd is read here without _fdMutex: only this thread ever changes it.
void FakeServer::serve() {
    while (!_stopping) {
        if (_clientFd < 0) {
            acceptClient();
        } else {
            receiveFromClient();
        }
    }
    if (_clientFd >= 0) {
        endConnection(false);
    }
}

void FakeServer::acceptClient() {
    pollfd listener{_listenFd, POLLIN, 0};
    if (::poll(&listener, 1, kPollIntervalMs) <= 0) {
        return;
    }
    const int fd = ::accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return; // the pending connection went away again, or the listener is being shut down
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval sendTimeout{kSendTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    _pendingBytes.clear();
    {
        std::lock_guard<std::mutex> lock(_fdMutex);
        _clientFd = fd;
    }
    {
        std::lock_guard<std::mutex> lock(_stateMutex);
        ++_clientsAccepted;
        _clientConnected = true;
        _clientGone = false;
        _closeRequested = false;
    }
    _stateChanged.notify_all();
}

void FakeServer::receiveFromClient() {
    pollfd client{_clientFd, POLLIN, 0};
    if (::poll(&client, 1, kPollIntervalMs) <= 0) {
        return;
    }
    std::uint8_t buffer[kReceiveChunkSize];
    const ssize_t received = ::recv(_clientFd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (received < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) {
        return;
    }
    if (received <= 0) {
        endConnection(true);
        return;
    }
    _pendingBytes.insert(_pendingBytes.end(), buffer, buffer + received);
    // The client's sends need not line up with the receives here: a frame may arrive in pieces, and
    // one receive may carry several frames. Frames carry no marker that could resynchronise, so the
    // stream is cut strictly every 19 bytes.
    std::size_t consumed = 0;
    while (_clientFd >= 0 && _pendingBytes.size() - consumed >= kCommandFrameSize) {
        const auto first = _pendingBytes.begin() + static_cast<std::ptrdiff_t>(consumed);
        handleFrame(Bytes(first, first + static_cast<std::ptrdiff_t>(kCommandFrameSize)));
        consumed += kCommandFrameSize;
    }
    if (_clientFd >= 0) {
        _pendingBytes.erase(_pendingBytes.begin(), _pendingBytes.begin() + static_cast<std::ptrdiff_t>(consumed));
    }
}

void FakeServer::handleFrame(const Bytes& raw) {
    CommandFrame frame;
    frame.code = raw[1];
    frame.payload.assign(raw.begin() + 2, raw.end());
    frame.raw = raw;
    {
        std::lock_guard<std::mutex> lock(_stateMutex);
        if (raw[0] == kFrameMarker && frame.code == kSetConfigCode) {
            _config = frame.payload;
        }
        _commands.push_back(frame);
    }
    _stateChanged.notify_all();
    applyReaction(reactionFor(frame));
}

Reaction FakeServer::reactionFor(const CommandFrame& frame) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    if (_reactionFunction) {
        const auto fn = _reactionFunction;
        lock.unlock();
        return fn(frame);
    }
    if (frame.raw[0] != kFrameMarker) {
        return Reaction::silent();
    }
    const auto once = _onceReactions.find(frame.code);
    if (once != _onceReactions.end() && !once->second.empty()) {
        Reaction reaction = std::move(once->second.front());
        once->second.pop_front();
        return reaction;
    }
    const auto persistent = _reactions.find(frame.code);
    if (persistent != _reactions.end()) {
        return persistent->second;
    }
    switch (frame.code) {
    case kStopCode:
    case kStartCode:
    case kSetConfigCode:
        return Reaction::emptyResponse();
    case kGetConfigCode:
        return Reaction::payloadResponse(_config);
    default:
        return Reaction::silent();
    }
}

void FakeServer::applyReaction(const Reaction& reaction) {
    if (!pauseUnlessInterrupted(reaction.delayBeforeFirstChunk)) {
        return;
    }
    for (std::size_t i = 0; i < reaction.chunks.size(); ++i) {
        if (i > 0 && !pauseUnlessInterrupted(reaction.pauseBetweenChunks)) {
            return;
        }
        writeToClient(reaction.chunks[i]);
    }
    if (reaction.closeAfter) {
        {
            std::lock_guard<std::mutex> lock(_stateMutex);
            _closeRequested = true;
        }
        endConnection(false);
    }
}

bool FakeServer::pauseUnlessInterrupted(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(_stateMutex);
    const auto interrupted = [this] { return _stopping || _closeRequested; };
    if (pause.count() <= 0) {
        return !interrupted();
    }
    return !_stateChanged.wait_for(lock, pause, interrupted);
}

void FakeServer::writeToClient(const Bytes& bytes) {
    std::lock_guard<std::mutex> writeLock(_writeMutex);
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(_fdMutex);
        fd = _clientFd;
    }
    std::size_t sent = 0;
    while (fd >= 0 && sent < bytes.size()) {
        const ssize_t result = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            return; // the connection is gone or the client stopped reading; the test will notice
        }
        sent += static_cast<std::size_t>(result);
    }
}

void FakeServer::shutdownClient() {
    std::lock_guard<std::mutex> lock(_fdMutex);
    if (_clientFd >= 0) {
        ::shutdown(_clientFd, SHUT_RDWR);
    }
}

void FakeServer::endConnection(bool closedByPeer) {
    shutdownClient(); // releases a send blocked on another thread, which holds _writeMutex
    {
        std::lock_guard<std::mutex> writeLock(_writeMutex);
        std::lock_guard<std::mutex> lock(_fdMutex);
        ::close(_clientFd);
        _clientFd = -1;
    }
    _pendingBytes.clear();
    {
        std::lock_guard<std::mutex> lock(_stateMutex);
        _clientConnected = false;
        _clientGone = closedByPeer && !_closeRequested;
        _closeRequested = false;
    }
    _stateChanged.notify_all();
}

} // namespace oltb::testing
