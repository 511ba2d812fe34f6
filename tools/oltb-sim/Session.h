// One client connection: reads command frames, answers them, and while tracing is started streams the words of
// the trace source, paced, with the configured faults. Responses and words share one output queue that only ever
// holds whole words and whole frames, so a response always lies between two words, never inside one. The queue is
// bounded: commands are read only while it is short.
#pragma once

#include "tools/oltb-sim/CommandFrames.h"
#include "tools/oltb-sim/OverflowInjector.h"
#include "tools/oltb-sim/Pacer.h"
#include "tools/oltb-sim/ServerSettings.h"
#include "tools/oltb-sim/SignalSelection.h"
#include "tools/oltb-sim/TraceSource.h"

#include <cstdint>
#include <vector>

namespace oltb::sim {

// What outlives a connection: the selected signals and the card clock.
struct ServerState {
    SignalSelection selection;
    std::uint64_t clockTick = 0;
};

enum class SessionEnd {
    clientClosed,
    connectionLost,
    closedAfterWords,  // the --close-after-words fault
    shutdown,          // SIGINT or SIGTERM
};

class Session {
public:
    Session(int socket, const ServerSettings& settings, ServerState& state, TraceSource& source);
    SessionEnd run();

private:
    enum class IoResult { ok, closed, failed };

    void produceWords();
    void queueWords(const std::vector<std::uint64_t>& words);
    IoResult flush();
    IoResult receiveCommands();
    void handleCommand(const CommandFrame& frame);
    void answer(std::uint8_t code);
    void startStream();
    void stopStream();
    std::size_t pendingBytes() const noexcept { return _out.size() - _outPosition; }
    // Words may still come: tracing runs, no fault ended it and the source has not run out.
    bool producing() const { return _streaming && !_closeLimitReached && !_source.exhausted(); }

    int _socket;
    const ServerSettings& _settings;
    ServerState& _state;
    TraceSource& _source;
    Pacer _pacer;
    OverflowInjector _overflows;
    CommandFrameReader _commands;
    std::vector<std::uint8_t> _out;
    std::size_t _outPosition = 0;
    std::vector<std::uint64_t> _words;
    bool _streaming = false;
    std::uint64_t _wordsSent = 0;
    bool _closeLimitReached = false;
};

}  // namespace oltb::sim
