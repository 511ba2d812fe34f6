// The event loop of one connection: non-blocking socket, one ppoll per round, output produced only while little
// is queued, so commands are read and answered between batches even at maximum rate.
#include "tools/oltb-sim/Session.h"

#include "tools/oltb-sim/CardTiming.h"
#include "tools/oltb-sim/ShutdownSignal.h"

#include <poll.h>
#include <sys/socket.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace oltb::sim {
namespace {

constexpr std::size_t BatchWords = 8192;         // 64 KiB of words per batch
constexpr std::size_t OutLowWaterBytes = 65536;  // produce more only below this
// Commands are read only while less than this waits to go out: a client that sends commands without reading the
// answers (or the trace) finds the server no longer reading either, and the queue stays within this plus what one
// receive of commands answers (4096 bytes of frames, 5 KiB of answers), instead of growing without end.
constexpr std::size_t MostQueuedBytes = 1 << 20;
// Paced output goes out in slices of at least a millisecond of wall time: waking for every 10 us sample would
// cost a system call per sample and gain the client nothing.
constexpr auto ShortestPacingWait = std::chrono::milliseconds(1);
constexpr auto LongestPacingWait = std::chrono::milliseconds(20);

const char* commandName(const std::uint8_t code) {
    switch (static_cast<CommandCode>(code)) {
        case CommandCode::stop:
            return "Stop";
        case CommandCode::start:
            return "Start";
        case CommandCode::setConfig:
            return "SetConfig";
        case CommandCode::getConfig:
            return "GetConfig";
    }
    return "unknown";
}

}  // namespace

Session::Session(const int socket, const ServerSettings& settings, ServerState& state, TraceSource& source)
    : _socket(socket),
      _settings(settings),
      _state(state),
      _source(source),
      _pacer(settings.speed, settings.maxRate),
      _overflows(settings.faults.overflowEveryWords, settings.faults.overflowLostWords) {
    _words.reserve(BatchWords + 64);
}

SessionEnd Session::run() {
    SessionEnd end = SessionEnd::clientClosed;
    for (;;) {
        if (ShutdownSignal::requested()) {
            end = SessionEnd::shutdown;
            break;
        }
        if (producing() && pendingBytes() < OutLowWaterBytes) {
            // What is queued (an answer to Start, say) goes out first: a source may take a while to produce, as a
            // replay does that opens its file.
            if (pendingBytes() > 0 && flush() == IoResult::failed) {
                end = SessionEnd::connectionLost;
                break;
            }
            produceWords();
        }
        if (pendingBytes() > 0 && flush() == IoResult::failed) {
            end = SessionEnd::connectionLost;
            break;
        }
        if (_closeLimitReached && pendingBytes() == 0) {
            end = SessionEnd::closedAfterWords;
            break;
        }

        pollfd descriptor{_socket, static_cast<short>(pendingBytes() < MostQueuedBytes ? POLLIN : 0), 0};
        timespec timeout{};
        const timespec* wait = nullptr;  // no limit: only input, writability or a signal ends the wait
        if (pendingBytes() > 0) {
            descriptor.events |= POLLOUT;
        } else if (producing()) {
            const auto now = Pacer::Clock::now();
            const auto due = _pacer.delayUntil(_source.nextTick(), now);
            const auto delay = due.count() == 0
                                   ? due
                                   : std::clamp<std::chrono::nanoseconds>(due, ShortestPacingWait, LongestPacingWait);
            timeout.tv_sec = static_cast<time_t>(delay.count() / 1000000000);
            timeout.tv_nsec = static_cast<long>(delay.count() % 1000000000);
            wait = &timeout;
        }
        if (ppoll(&descriptor, 1, wait, ShutdownSignal::waitMask()) < 0) {
            if (errno == EINTR) {
                continue;
            }
            end = SessionEnd::connectionLost;
            break;
        }
        if ((descriptor.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            const IoResult received = receiveCommands();
            if (received != IoResult::ok) {
                end = received == IoResult::closed ? SessionEnd::clientClosed : SessionEnd::connectionLost;
                break;
            }
        }
    }
    stopStream();
    return end;
}

void Session::produceWords() {
    _words.clear();
    _source.generate(_pacer.horizonTick(Pacer::Clock::now()), BatchWords, _words);
    _overflows.apply(_words);
    if (_settings.faults.closeAfterWords) {
        const std::uint64_t allowed = *_settings.faults.closeAfterWords - _wordsSent;
        if (_words.size() >= allowed) {
            _words.resize(allowed);
            _closeLimitReached = true;
        }
    }
    _wordsSent += _words.size();
    queueWords(_words);
}

void Session::queueWords(const std::vector<std::uint64_t>& words) {
    if (_outPosition == _out.size()) {
        _out.clear();
        _outPosition = 0;
    }
    const std::size_t base = _out.size();
    _out.resize(base + words.size() * 8);
    std::uint8_t* bytes = _out.data() + base;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(bytes, words.data(), words.size() * 8);
#else
    for (const std::uint64_t word : words) {
        for (unsigned i = 0; i < 8; ++i) {
            *bytes++ = static_cast<std::uint8_t>(word >> (8 * i));
        }
    }
#endif
}

Session::IoResult Session::flush() {
    while (pendingBytes() > 0) {
        const ssize_t sent = send(_socket, _out.data() + _outPosition, pendingBytes(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            _outPosition += static_cast<std::size_t>(sent);
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            return IoResult::failed;  // the client vanished (EPIPE, ECONNRESET, ...)
        }
    }
    if (_outPosition == _out.size()) {
        _out.clear();
        _outPosition = 0;
    }
    return IoResult::ok;
}

Session::IoResult Session::receiveCommands() {
    std::uint8_t buffer[4096];
    const ssize_t received = recv(_socket, buffer, sizeof buffer, MSG_DONTWAIT);
    if (received == 0) {
        return IoResult::closed;
    }
    if (received < 0) {
        return (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) ? IoResult::ok : IoResult::failed;
    }
    _commands.feed(buffer, static_cast<std::size_t>(received));
    for (;;) {
        const CommandRead read = _commands.next();
        if (read.outcome == CommandReadOutcome::needMoreData) {
            break;
        }
        if (read.outcome == CommandReadOutcome::skippedBytes) {
            std::fprintf(stderr, "oltb-sim: skipped %zu bytes that do not start a command frame (0x4D)\n",
                         read.skipped);
            continue;
        }
        handleCommand(read.frame);
    }
    return IoResult::ok;
}

void Session::startStream() {
    if (_streaming) {
        return;  // a second Start keeps the running stream
    }
    constexpr std::uint64_t Grid = ServoPeriodTicks;
    const std::uint64_t startTick = (_state.clockTick + Grid - 1) / Grid * Grid;
    _source.start(startTick, _state.selection);
    _pacer.begin(startTick, Pacer::Clock::now());
    _overflows.reset();
    _streaming = true;
}

void Session::stopStream() {
    if (_streaming) {
        _state.clockTick = _source.nextTick();
        _streaming = false;
    }
}

void Session::handleCommand(const CommandFrame& frame) {
    if (_settings.verbose) {
        std::fprintf(stderr, "oltb-sim: command %s (0x%02X)\n", commandName(frame.code), frame.code);
    }
    switch (static_cast<CommandCode>(frame.code)) {
        case CommandCode::stop:
            stopStream();
            break;
        case CommandCode::start:
            startStream();
            break;
        case CommandCode::setConfig:
            _state.selection = SignalSelection::fromPayload(frame.payload.data());
            if (_streaming) {
                _source.select(_state.selection);
            }
            break;
        case CommandCode::getConfig:
            break;
        default:
            // The client waits for an answer to every frame; an empty one lets it go on instead of timing out.
            std::fprintf(stderr, "oltb-sim: unknown command code 0x%02X, answered with an empty response\n",
                         frame.code);
            break;
    }
    answer(frame.code);
}

void Session::answer(const std::uint8_t code) {
    const FaultSettings& faults = _settings.faults;
    if (faults.ignoredCommands.count(code) != 0) {
        if (_settings.verbose) {
            std::fprintf(stderr, "oltb-sim: response to 0x%02X withheld\n", code);
        }
        return;
    }
    const bool isGetConfig = code == static_cast<std::uint8_t>(CommandCode::getConfig);
    std::vector<std::uint8_t> payload;
    if (isGetConfig) {
        const auto configuration = _state.selection.toPayload();
        payload.assign(configuration.begin(), configuration.end());
    }
    ResponseShape shape = ResponseShape::exact;
    if (faults.malformedCommand && *faults.malformedCommand == code) {
        MalformedKind kind = faults.malformedKind;
        if (kind == MalformedKind::automatic) {
            kind = isGetConfig ? MalformedKind::shortPayload : MalformedKind::brokenTrailer;
        }
        switch (kind) {
            case MalformedKind::shortPayload:
                payload.resize(ConfigurationPayloadSize - 1);
                break;
            case MalformedKind::emptyPayload:
                payload.clear();
                break;
            case MalformedKind::brokenTrailer:
            case MalformedKind::automatic:
                shape = ResponseShape::brokenTrailer;
                break;
        }
    }
    if (_outPosition == _out.size()) {
        _out.clear();
        _outPosition = 0;
    }
    appendResponseFrame(_out, payload.data(), payload.size(), shape);
}

}  // namespace oltb::sim
