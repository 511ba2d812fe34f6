// The fake server's serving thread accepts one client after another, reassembles its command frames from whatever
// pieces TCP delivers and answers them; tests write into the same connection from their own threads.
#include "tests/support/FakeServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace oltb::testing {

namespace {

constexpr std::size_t FrameSize = 19;

void appendLittleEndian(Bytes& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

}  // namespace

Reaction Reaction::payload(const Bytes& payload) { return {{responseFrame(payload)}}; }

Bytes responseFrame(const Bytes& payload) {
    return concat({{0x4D, 0x4D, 0x4D, 0x4D, static_cast<std::uint8_t>(payload.size())}, payload, {0xB2, 0xB2}});
}

Bytes configPayload(std::uint8_t version, std::uint32_t conf0, std::uint32_t conf1, std::uint32_t conf2,
                    std::uint32_t conf3) {
    Bytes payload{version};
    for (std::uint32_t mask : {conf0, conf1, conf3, conf2}) appendLittleEndian(payload, mask, 4);
    return payload;
}

Bytes commandFrame(std::uint8_t code, const Bytes& payload) {
    Bytes frame = concat({{0x4D, code}, payload});
    frame.resize(FrameSize, 0);
    return frame;
}

std::uint64_t packWord(std::uint8_t type, std::uint32_t stamp24, std::uint32_t payload, bool overflow) {
    return (std::uint64_t{payload} << 32) | (overflow ? 0x80000000U : 0U) | (std::uint64_t{type} << 24) |
           (stamp24 & 0xFFFFFFU);
}

Bytes makeWord(std::uint8_t type, std::uint32_t stamp24, std::uint32_t payload, bool overflow) {
    Bytes bytes;
    appendLittleEndian(bytes, packWord(type, stamp24, payload, overflow), 8);
    return bytes;
}

Bytes counterWords(std::uint32_t first, std::uint32_t count, std::uint32_t stampFirst, std::uint32_t stampStep) {
    Bytes bytes;
    bytes.reserve(std::size_t{count} * 8);
    for (std::uint32_t i = 0; i < count; ++i) {
        appendLittleEndian(bytes, packWord(96, stampFirst + i * stampStep, first + i), 8);
    }
    return bytes;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes slice(const Bytes& bytes, std::size_t begin, std::size_t end) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(begin), bytes.begin() + static_cast<std::ptrdiff_t>(end));
}

FakeServer::FakeServer(const std::string& address) : _config(configPayload(6, 0, 0, 0, 0)) {
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_port = htons(9495);
    _listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (::inet_pton(AF_INET, address.c_str(), &endpoint.sin_addr) != 1 ||
        ::setsockopt(_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(_listenFd, reinterpret_cast<const sockaddr*>(&endpoint), sizeof endpoint) != 0 ||
        ::listen(_listenFd, 8) != 0) {
        const std::string reason = std::strerror(errno);
        ::close(_listenFd);
        throw std::runtime_error("FakeServer: cannot listen on " + address + ":9495: " + reason);
    }
    _thread = std::thread([this] { serve(); });
}

FakeServer::~FakeServer() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
        if (_clientFd >= 0) ::shutdown(_clientFd, SHUT_RDWR);
    }
    _changed.notify_all();
    _thread.join();
    ::close(_listenFd);
}

void FakeServer::setReaction(std::uint8_t code, Reaction reaction) {
    std::lock_guard<std::mutex> lock(_mutex);
    _reactions[code] = std::move(reaction);
}

void FakeServer::setReactionOnce(std::uint8_t code, Reaction reaction) {
    std::lock_guard<std::mutex> lock(_mutex);
    _onceReactions[code].push_back(std::move(reaction));
}

void FakeServer::setScript(std::function<Reaction(const Bytes& frame)> script) {
    std::lock_guard<std::mutex> lock(_mutex);
    _script = std::move(script);
}

bool FakeServer::waitFor(std::chrono::milliseconds timeout, bool (FakeServer::*condition)() const) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return (this->*condition)(); });
}

bool FakeServer::waitForCommands(std::size_t count, std::chrono::milliseconds timeout) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _commandsWanted = count;
    }
    return waitFor(timeout, &FakeServer::enoughCommands);
}

std::vector<Bytes> FakeServer::commands() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _commands;
}

std::vector<std::uint8_t> FakeServer::commandCodes() const {
    std::vector<std::uint8_t> codes;
    for (const Bytes& frame : commands()) codes.push_back(frame[1]);
    return codes;
}

void FakeServer::clearCommands() {
    std::lock_guard<std::mutex> lock(_mutex);
    _commands.clear();
}

void FakeServer::send(const Bytes& bytes) {
    std::lock_guard<std::mutex> writeLock(_writeMutex);
    sendLocked(bytes);
}

void FakeServer::sendLocked(const Bytes& bytes) {
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        fd = _clientFd;
    }
    for (std::size_t sent = 0; fd >= 0 && sent < bytes.size();) {
        const ssize_t result = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result < 0 && errno == EINTR) continue;
        if (result <= 0) return;  // the connection is gone or the client stopped reading: the test will notice
        sent += static_cast<std::size_t>(result);
    }
}

void FakeServer::closeClient() {
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_connected) return;
    _closeRequested = true;
    ::shutdown(_clientFd, SHUT_RDWR);
    _changed.notify_all();  // cuts a pausing reaction short
    _changed.wait_for(lock, 2s, [this] { return !_connected; });
}

bool FakeServer::waitForClientGone(std::chrono::milliseconds timeout) { return waitFor(timeout, &FakeServer::gone); }

bool FakeServer::waitForClient(std::chrono::milliseconds timeout) { return waitFor(timeout, &FakeServer::connected); }

void FakeServer::serve() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (_stopping) break;
        }
        if (_clientFd >= 0) {
            receive();
            continue;
        }
        pollfd listener{_listenFd, POLLIN, 0};
        if (::poll(&listener, 1, 20) <= 0) continue;
        const int fd = ::accept4(_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        const timeval sendLimit{5, 0};  // a client that stops reading cannot hang a test in a send
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof sendLimit);
        std::lock_guard<std::mutex> writeLock(_writeMutex);
        std::lock_guard<std::mutex> lock(_mutex);
        _clientFd = fd;
        _connected = true;
        _clientGone = false;
        _closeRequested = false;
        _changed.notify_all();
    }
    if (_clientFd >= 0) endConnection(false);
}

void FakeServer::receive() {
    pollfd client{_clientFd, POLLIN, 0};
    if (::poll(&client, 1, 20) <= 0) return;
    std::uint8_t buffer[4096];
    const ssize_t received = ::recv(_clientFd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (received < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (received <= 0) {
        endConnection(true);
        return;
    }
    // Frames carry no marker to resynchronise on, so the stream is cut strictly every 19 bytes.
    _pending.insert(_pending.end(), buffer, buffer + received);
    while (_clientFd >= 0 && _pending.size() >= FrameSize) {
        const Bytes frame = slice(_pending, 0, FrameSize);
        _pending.erase(_pending.begin(), _pending.begin() + FrameSize);
        apply(reactionFor(frame));
    }
}

Reaction FakeServer::reactionFor(const Bytes& frame) {
    std::unique_lock<std::mutex> lock(_mutex);
    _commands.push_back(frame);
    _changed.notify_all();
    const std::uint8_t code = frame[1];
    if (frame[0] == 0x4D && code == SetConfigCode) _config = slice(frame, 2, FrameSize);
    if (_script) {
        const auto script = _script;
        lock.unlock();
        return script(frame);
    }
    auto& once = _onceReactions[code];
    if (!once.empty()) {
        Reaction reaction = std::move(once.front());
        once.pop_front();
        return reaction;
    }
    if (const auto found = _reactions.find(code); found != _reactions.end()) return found->second;
    if (frame[0] != 0x4D) return Reaction::silent();
    if (code == GetConfigCode) return Reaction::payload(_config);
    return code == StopCode || code == StartCode || code == SetConfigCode ? Reaction::payload({}) : Reaction::silent();
}

void FakeServer::apply(const Reaction& reaction) {
    const auto pauseFor = [this](std::chrono::milliseconds pause) {
        std::unique_lock<std::mutex> lock(_mutex);
        return !_changed.wait_for(lock, pause, [this] { return _stopping || _closeRequested; });
    };
    if (!pauseFor(reaction.delay)) return;
    {
        // A frame cut into chunks stays whole in the stream: trace words sent meanwhile wait.
        std::lock_guard<std::mutex> writeLock(_writeMutex);
        for (std::size_t i = 0; i < reaction.chunks.size(); ++i) {
            if (i > 0 && !pauseFor(reaction.pause)) return;
            sendLocked(reaction.chunks[i]);
        }
    }
    if (reaction.closeAfter) endConnection(false);
}

void FakeServer::endConnection(bool closedByPeer) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        ::shutdown(_clientFd, SHUT_RDWR);  // releases a send blocked on another thread, which holds _writeMutex
    }
    std::lock_guard<std::mutex> writeLock(_writeMutex);
    std::lock_guard<std::mutex> lock(_mutex);
    ::close(_clientFd);
    _clientFd = -1;
    _pending.clear();
    _connected = false;
    _clientGone = closedByPeer && !_closeRequested;
    _closeRequested = false;
    _changed.notify_all();
}

}  // namespace oltb::testing
