// A scriptable trace buffer server for tests that need byte-exact control of what a real TCP peer sends. It listens
// on <loopback address>:9495, serves one client at a time, cuts the client's bytes into 19-byte command frames,
// records them and answers each with a scripted reaction (by default: an empty response frame, or the configuration
// of the last SetConfig for GetConfig). Tests write raw bytes (trace words, broken frames) into the connection at any
// time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace oltb::testing {

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

constexpr std::uint8_t StopCode = 16;
constexpr std::uint8_t StartCode = 17;
constexpr std::uint8_t SetConfigCode = 129;
constexpr std::uint8_t GetConfigCode = 130;

struct Reaction {
    std::vector<Bytes> chunks;           // one send each, on a TCP_NODELAY socket; nothing comes between them
    std::chrono::milliseconds pause{0};  // before every chunk but the first
    std::chrono::milliseconds delay{0};  // before the first chunk: a late answer
    bool closeAfter = false;             // close the connection once the chunks are out

    static Reaction payload(const Bytes& payload);  // one response frame
    static Reaction silent() { return {}; }
    static Reaction close() { return {{}, 0ms, 0ms, true}; }
};

Bytes responseFrame(const Bytes& payload);  // 4D 4D 4D 4D | length | payload | B2 B2
// Version, then the masks little-endian in the wire order conf0, conf1, conf3, conf2.
Bytes configPayload(std::uint8_t version, std::uint32_t conf0, std::uint32_t conf1, std::uint32_t conf2,
                    std::uint32_t conf3);
Bytes commandFrame(std::uint8_t code, const Bytes& payload = {});  // 4D, code, payload padded to 17 bytes
std::uint64_t packWord(std::uint8_t type, std::uint32_t stamp24, std::uint32_t payload, bool overflow = false);
Bytes makeWord(std::uint8_t type, std::uint32_t stamp24, std::uint32_t payload, bool overflow = false);
// Word i counts first + i at stamp stampFirst + i * stampStep, as a 32-bit SPI sample.
Bytes counterWords(std::uint32_t first, std::uint32_t count, std::uint32_t stampFirst, std::uint32_t stampStep);
Bytes concat(std::initializer_list<Bytes> parts);
Bytes slice(const Bytes& bytes, std::size_t begin, std::size_t end);

class FakeServer {
public:
    // Throws std::runtime_error when address:9495 cannot be bound.
    explicit FakeServer(const std::string& address);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    void setReaction(std::uint8_t code, Reaction reaction);      // for every later frame with that code
    void setReactionOnce(std::uint8_t code, Reaction reaction);  // for the next one only (queued)
    // Decides the reaction to every later frame instead (on the serving thread, which answers in order).
    void setScript(std::function<Reaction(const Bytes& frame)> script);

    bool waitForCommands(std::size_t count, std::chrono::milliseconds timeout);
    std::vector<Bytes> commands() const;  // the raw frames since the last clearCommands
    std::vector<std::uint8_t> commandCodes() const;
    void clearCommands();

    void send(const Bytes& bytes);  // to the current client, dropped when there is none
    // Closes the current connection and waits (bounded) until the server listens for the next client.
    void closeClient();
    // True once the most recent client has closed its side itself.
    bool waitForClientGone(std::chrono::milliseconds timeout);
    bool waitForClient(std::chrono::milliseconds timeout);

private:
    void serve();
    void receive();
    void sendLocked(const Bytes& bytes);  // the caller holds _writeMutex
    Reaction reactionFor(const Bytes& frame);
    void apply(const Reaction& reaction);
    bool waitFor(std::chrono::milliseconds timeout, bool (FakeServer::*condition)() const);
    bool connected() const { return _connected; }
    bool gone() const { return _clientGone; }
    bool enoughCommands() const { return _commands.size() >= _commandsWanted; }
    void endConnection(bool closedByPeer);

    int _listenFd = -1;
    int _clientFd = -1;  // changed only by the serving thread, under both mutexes
    bool _stopping = false;
    bool _connected = false;
    bool _clientGone = false;
    bool _closeRequested = false;
    Bytes _pending;  // serving thread only: the start of a frame not yet complete
    std::vector<Bytes> _commands;
    std::size_t _commandsWanted = 0;
    std::map<std::uint8_t, Reaction> _reactions;
    std::map<std::uint8_t, std::deque<Reaction>> _onceReactions;
    std::function<Reaction(const Bytes& frame)> _script;
    Bytes _config;
    std::mutex _writeMutex;  // taken before _mutex
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::thread _thread;
};

}  // namespace oltb::testing
