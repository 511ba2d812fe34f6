// A scriptable stand-in for the trace buffer server, for tests that need a real TCP peer.
// It listens on <loopback address>:9495, serves one client at a time, cuts the incoming byte stream
// into 19-byte command frames (0x4D, code, 17 payload bytes), records every frame and answers it with
// a scripted reaction. Answers are response frames: 4D 4D 4D 4D, length L, L payload bytes, B2 B2.
// Trace data is a plain stream of 8-byte little-endian words that a test writes into the same
// connection at any time, also while the server is answering commands.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
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

/// Command codes the client sends (second byte of a command frame).
constexpr std::uint8_t kStopCode = 16;
constexpr std::uint8_t kStartCode = 17;
constexpr std::uint8_t kSetConfigCode = 129;
constexpr std::uint8_t kGetConfigCode = 130;

/// Every command frame starts with the marker; a response frame starts with four of them.
constexpr std::uint8_t kFrameMarker = 0x4D;
/// Two of these end a response frame.
constexpr std::uint8_t kFrameTrailer = 0xB2;
/// Every command frame is exactly this long, whatever the command.
constexpr std::size_t kCommandFrameSize = 19;
constexpr std::size_t kCommandPayloadSize = 17;
constexpr std::uint16_t kTraceBufferPort = 9495;

/// One received command frame. `raw` holds all 19 bytes as they came, so a frame whose first byte
/// is not 0x4D is kept as well; `code` is raw[1] and `payload` raw[2..18].
struct CommandFrame {
    std::uint8_t code = 0;
    Bytes payload;
    Bytes raw;
};

/// What the server does when a command frame arrives.
struct Reaction {
    /// Sent in order, each with one send() on a TCP_NODELAY socket, so each leaves as its own segment.
    /// Whether the client's receives see them apart depends on the pause between them.
    std::vector<Bytes> chunks;
    /// Waited before every chunk but the first.
    std::chrono::milliseconds pauseBetweenChunks{0};
    /// Close the client connection after the chunks have gone out.
    bool closeAfter = false;
    /// Waited before the first chunk (and before closing, when there are no chunks): a late answer.
    std::chrono::milliseconds delayBeforeFirstChunk{0};

    static Reaction emptyResponse();                   ///< 4D 4D 4D 4D 00 B2 B2
    static Reaction payloadResponse(const Bytes& payload);
    static Reaction silent();                          ///< send nothing, keep the connection
    static Reaction close();                           ///< close the connection at once, send nothing
};

/// 4D 4D 4D 4D, payload length, payload, B2 B2. Throws std::invalid_argument above 255 bytes.
Bytes responseFrame(const Bytes& payload);
/// The 17-byte configuration payload: version, then the masks little-endian in the wire order
/// conf0, conf1, conf3, conf2 (the last two are swapped relative to their numbering).
Bytes configPayload(std::uint8_t version, std::uint32_t conf0, std::uint32_t conf1, std::uint32_t conf2,
                    std::uint32_t conf3);
/// A 19-byte command frame as the client sends it: 0x4D, code, payload padded with zeros to 17 bytes.
Bytes commandFrame(std::uint8_t code, const Bytes& payload = {});
/// The 8 bytes of a trace word, least significant first.
Bytes traceWord(std::uint64_t word);
/// The packed word: bits 0..23 timestamp, 24..30 type, 31 overflow, 32..63 payload.
std::uint64_t packWord(std::uint8_t type, std::uint32_t timestamp24, std::uint32_t payload, bool overflow = false);
/// traceWord(packWord(...)).
Bytes makeWord(std::uint8_t type, std::uint32_t timestamp24, std::uint32_t payload, bool overflow = false);
/// The parts one after another.
Bytes concat(std::initializer_list<Bytes> parts);

/// The server. Public functions may be called from any thread; every wait is bounded by its timeout,
/// and destruction never blocks for long (it shuts the sockets down to release blocked calls).
class FakeServer {
public:
    /// Binds address:9495 (SO_REUSEADDR), listens, and serves clients one after another on its own
    /// thread. Only IPv4 loopback addresses (127.0.0.0/8) are accepted; give every server its own.
    /// Throws std::runtime_error when the address is not loopback or cannot be bound (for instance
    /// because another server already listens there).
    explicit FakeServer(const std::string& address);
    /// Closes listener and client and joins the serving thread; a reaction still pausing is cut short.
    ~FakeServer();

    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    /// Defaults: Stop, Start and SetConfig get an empty response; GetConfig gets payloadResponse of the
    /// stored configuration (initially version 6, all masks 0); other codes and frames not starting
    /// with 0x4D get no answer. Every SetConfig frame stores its payload as the configuration,
    /// whatever the reaction.
    void setReaction(std::uint8_t code, Reaction reaction);     ///< for every later frame with that code
    void setReactionOnce(std::uint8_t code, Reaction reaction); ///< queued: for the next such frame only
    /// Decides every frame while set (an empty function unsets it). Called on the serving thread with
    /// no lock held, so it may call the server's other functions.
    void setReactionFunction(std::function<Reaction(const CommandFrame&)> fn);

    /// The stored configuration payload (17 bytes), and a way to preset it.
    Bytes config() const;
    void setConfig(const Bytes& payload);

    /// True once a client is connected (and not yet gone), false after the timeout.
    bool waitForClient(std::chrono::milliseconds timeout);
    /// True once at least `count` clients have been accepted since construction.
    bool waitForClientsAccepted(std::size_t count, std::chrono::milliseconds timeout);
    /// True once at least `count` frames are recorded (from all clients, since the last clearCommands).
    bool waitForCommands(std::size_t count, std::chrono::milliseconds timeout);
    std::vector<CommandFrame> commands() const;                 ///< in order of arrival
    void clearCommands();

    /// Raw bytes to the current client with one send (MSG_NOSIGNAL); dropped when no client is
    /// connected. Safe against the serving thread's own answers: a send never cuts into another.
    void send(const Bytes& bytes);
    /// One send per chunk, with `pause` before every chunk but the first.
    void sendChunks(const std::vector<Bytes>& chunks, std::chrono::milliseconds pause = {});
    /// Closes the current client connection (the client sees the end of the stream at once) and
    /// waits, bounded, until the serving thread has let go of it and listens for the next client.
    void closeClient();
    /// True once the most recently accepted client has closed its side (the server read the end of
    /// the stream or a reset); a connection the server closed itself does not count.
    bool waitForClientGone(std::chrono::milliseconds timeout);
    std::size_t clientsAccepted() const;

private:
    void serve();
    void acceptClient();
    void receiveFromClient();
    void handleFrame(const Bytes& raw);
    Reaction reactionFor(const CommandFrame& frame);
    void applyReaction(const Reaction& reaction);
    bool pauseUnlessInterrupted(std::chrono::milliseconds pause);
    void writeToClient(const Bytes& bytes);
    void shutdownClient();
    void endConnection(bool closedByPeer);

    int _listenFd = -1;
    std::atomic<bool> _stopping{false};

    // Lock order: _writeMutex, then _fdMutex. _clientFd changes only on the serving thread, and it
    // is closed only while holding both, so a send in progress always writes to the right socket.
    // Shutting the socket down needs only _fdMutex, which is how a blocked send is released.
    std::mutex _writeMutex;
    mutable std::mutex _fdMutex;
    int _clientFd = -1;

    mutable std::mutex _stateMutex;
    std::condition_variable _stateChanged;
    std::vector<CommandFrame> _commands;
    std::map<std::uint8_t, Reaction> _reactions;
    std::map<std::uint8_t, std::deque<Reaction>> _onceReactions;
    std::function<Reaction(const CommandFrame&)> _reactionFunction;
    Bytes _config;
    std::size_t _clientsAccepted = 0;
    bool _clientConnected = false;
    bool _clientGone = false;
    bool _closeRequested = false;

    Bytes _pendingBytes; // serving thread only: the start of a frame not yet complete
    std::thread _thread;
};

} // namespace oltb::testing
