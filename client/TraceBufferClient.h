// One connection to a trace buffer server: the TCP socket, the reader thread that separates command responses
// from trace data, the command channel, the configuration, and the reading operations that decode the queued
// trace data on the caller's thread (through the decoding core in events/).
#pragma once

#include "api/oltb.h"
#include "client/TraceCommands.h"
#include "client/kissnet.h"
#include "events/BlockSource.h"
#include "events/TraceDecoder.h"

#include <concurrentqueue/blockingconcurrentqueue.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

class TraceBufferClient {
public:
    static constexpr unsigned _bufferSize = 16384;
    static constexpr int _DefaultReadTimeoutMs = 10000;

    // Connects (3 attempts), starts the reader thread and runs the opening exchange (Stop, then GetConfig).
    // Throws std::runtime_error("Could not connect to the tracebuffer server on address " + address + ". " +
    // cause) on failure.
    explicit TraceBufferClient(const std::string& address);
    ~TraceBufferClient();
    TraceBufferClient(const TraceBufferClient&) = delete;
    TraceBufferClient& operator=(const TraceBufferClient&) = delete;

    // Ends the connection: the reader stops and the queued data is discarded. A read or a command that another
    // thread has in flight on this client ends promptly with the no-connection error; the object itself stays
    // valid until such calls have returned (the handle registry shares it with them). Several threads may call it at
    // once: each returns once the connection has ended.
    void Disconnect();

    void Start();
    void Stop();
    void Clear();
    void SetConfig(const oltbTraceBufferConfig_Struct& config);
    oltbTraceBufferConfig_Struct GetConfig();

    // Reading operations of several threads run one after another (they share the decoder).
    unsigned TryRead(oltbTraceEvent* events, unsigned start, unsigned count);
    unsigned Read(oltbTraceEvent* events, unsigned start, unsigned count);
    // `storage`: the storage of the last series, reused (see TraceDecoder::Acquire).
    AcquiredEvents Acquire(unsigned short startLabel, unsigned short endLabel, AcquiredEvents storage = {});

    static void ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept;

    // The connection is up and the reader thread receives (the `_running` flag).
    bool isRunning() const noexcept;
    int readTimeoutMs() const noexcept;
    void setReadTimeoutMs(int timeoutMs) noexcept;

private:
    // A reading operation that finds the queue empty spins only briefly before it sleeps. At the card's rate a block
    // arrives about once a millisecond and nearly every read waits for the next one; the queue's default spin
    // (10000 rounds, tens of microseconds) then costs more CPU than decoding the block.
    struct BlockQueueTraits : moodycamel::ConcurrentQueueDefaultTraits {
        static const int MAX_SEMA_SPINS = 100;
    };
    using BlockQueue = moodycamel::BlockingConcurrentQueue<std::vector<std::byte>, BlockQueueTraits>;
    // Storage of used-up blocks, handed back by the reading operations and reused by the reader thread.
    using FreeBlockQueue = moodycamel::ConcurrentQueue<std::vector<std::byte>>;
    // The most used-up blocks kept for reuse (512 KiB, some 30 ms of trace at the card's full rate); beyond it they
    // are freed, so the memory a backlog took goes back.
    static constexpr std::size_t _MaxFreeBlocks = 32;

    // The reading operations take received blocks from the queue the reader thread fills (and, once it is empty,
    // the block the reader is still filling), and hand the used-up ones back for the reader to fill again.
    class QueueBlockSource final : public BlockSource {
    public:
        explicit QueueBlockSource(TraceBufferClient& client) noexcept : _client(client) {}
        // Waits in slices and ends early once the connection is gone, so that no wait outlives the connection;
        // an empty block (queued when the connection ends) wakes a waiting read at once. A block taken after the
        // connection has gone is not delivered.
        bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) override;
        bool isConnected() const override;
        void recycle(std::vector<std::byte>&& usedBlock) override;
        bool restartRequested() override;

    private:
        bool takeBlock(std::vector<std::byte>& block);
        // Hands freed memory back to the system once a large backlog has been read.
        void trimAfterBacklog() noexcept;

        TraceBufferClient& _client;
        std::size_t _peakQueuedBlocks = 0;
    };

    // The reader's receive buffer, page-aligned: a misaligned buffer costs about half the loopback throughput.
    struct alignas(4096) ReceiveBuffer {
        std::array<std::byte, _bufferSize> bytes{};
    };

    // ---- construction and connection (TraceBufferClient.cpp) ----------------------------------------------
    void connectWithRetries();
    // Stop, then GetConfig: proves that the peer speaks the protocol and leaves tracing stopped on the server.
    void runOpeningExchange();
    // Undoes a failed construction: ends the reader thread and releases the socket.
    void abandonConstruction() noexcept;
    bool isSocketOpen() const noexcept;

    // ---- reader thread (TraceBufferClient.cpp) ------------------------------------------------------------
    void reader();
    void receiveAndDispatch(ReceiveBuffer& buffer);
    // While answers are due: takes every answer frame out of buffer[0, count) (handing the waiting command its own,
    // dropping the late ones of commands that gave up) and passes the bytes around them on as trace data. Returns
    // how many bytes it kept at the front of the buffer: the beginning of what may be an answer, to be completed by
    // the next receive.
    std::size_t takeAnswers(std::byte* data, std::size_t count);
    // Trace data received now: queued while tracing or while a command waits, dropped before a Start's answer;
    // advances the word grid.
    void passOn(const std::byte* first, std::size_t count);
    // One receive into buffer[offset, _bufferSize); a closed connection or a failure throws.
    std::size_t receiveMore(ReceiveBuffer& buffer, std::size_t offset);
    // Appends the bytes to the block being filled. A full block is queued, and so is any block while the queue is
    // empty (the reading side keeps up): a backlog then consists of full blocks, whatever pieces the network
    // delivers, and costs hardly more memory than its bytes. `restOfWord`: the bytes end a word whose beginning was
    // queued; they are dropped if a discard came in between.
    void enqueueBytes(const std::byte* first, std::size_t count, bool restOfWord = false);
    std::vector<std::byte> blockStorage();
    // Reader thread only: the place of the next byte received in the word grid of the trace data (see
    // scanForResponseFrame; a word begins behind every answer), and whether the word being received is kept.
    std::size_t _wordPosition = 0;
    bool _keeping = false;
    // Ends the connection after a reader failure: _running cleared and the socket closed, under _socketMutex.
    void closeAfterReaderFailure() noexcept;
    // Wakes a read that waits for a block: the empty block ends its wait, and it finds the connection gone.
    void wakeWaitingRead();

    // Discards every queued block and the block being filled; the reading side discards what it holds of the old
    // trace before it takes the next block (so that a Start does not touch the decoder under a read).
    void clear();
    // Discards every queued block, the block being filled and the storage kept for reuse; returns the memory of a
    // large backlog to the system.
    void discardQueuedBlocks() noexcept;

    // ---- commands (TraceCommands.cpp) ---------------------------------------------------------------------
    // Sends one command frame and waits up to 3000 ms for its own answer; returns the answer's payload when
    // `wantResponse`, else an empty vector. The server answers every command in the order it gets them, so the n-th
    // answer frame in the stream is the n-th command's: answers of commands that gave up are dropped whenever they
    // come. The caller holds _commandMutex: a command, the started flag and the data reset that go with it change
    // together, whichever threads issue commands.
    std::vector<std::byte> writeCommand(const TraceCommandCode& code, const std::vector<std::byte>& payload,
                                        bool wantResponse);
    void startLocked();
    void stopLocked();
    void requireConnection() const;

    // Locks, always taken in these orders: _commandMutex, _responseMutex, _sendMutex (a command); _responseMutex,
    // _blockMutex (the reader passing bytes on); _socketMutex, _sendMutex (the reader closing the socket after a
    // failure, so that no command sends on a descriptor number that is being closed and may be reused);
    // _disconnectMutex, then the others (Disconnect); _readMutex, _blockMutex (a read). Nothing takes _socketMutex
    // while holding another of these but _disconnectMutex.
    std::atomic<bool> _abortReader{false};
    std::unique_ptr<kissnet::tcp_socket> _socket;
    std::atomic<bool> _isStarted{false};
    BlockQueue _queue;
    FreeBlockQueue _freeBlocks;
    // The block the reader thread is filling, not yet queued; the reading side takes it when the queue is empty.
    std::mutex _blockMutex;
    std::vector<std::byte> _openBlock;
    // Discards of queued data so far, and as many as the reader had seen when it last queued bytes.
    std::uint64_t _discards = 0;
    std::uint64_t _discardsSeen = 0;
    std::thread _readerThread;
    // Time base, carried word, current block and pending samples of the reading operations, which hold _readMutex.
    std::mutex _readMutex;
    TraceDecoder _decoder;
    // Set by Start and Clear: the decoder discards what it holds of the old trace before its next block.
    std::atomic<bool> _restartRequested{false};
    // The socket is open for commands and reads: set once connected, cleared when the reader closes it after a
    // failure and by Disconnect. Read without a lock by every thread.
    std::atomic<bool> _connected{false};
    QueueBlockSource _blockSource{*this};
    // ---- answers (under _responseMutex) ----
    std::mutex _responseMutex;
    std::condition_variable _responseCondition;
    std::uint64_t _commandsSent = 0;
    // Answer frames taken from the stream; the n-th is the answer to the n-th command sent.
    std::uint64_t _answersTaken = 0;
    // The number of the answer the waiting command waits for (0: no command waits), and its payload once it came.
    std::uint64_t _awaitedAnswer = 0;
    std::vector<std::byte> _response;
    // The number of the last Start's answer: the bytes before it are old and are dropped; the trace begins behind it.
    std::uint64_t _startAnswer = 0;
    // Read by the reader without the mutex: answers are due (the reader looks for frames in what it receives), and a
    // command waits (what it receives meanwhile is kept even while tracing is not started).
    std::atomic<bool> _answersDue{false};
    std::atomic<bool> _waitingForResponse{false};
    // Set from the moment a Start is about to be sent until its answer came: what arrives meanwhile is dropped.
    std::atomic<bool> _dropTrace{false};
    // Set by Disconnect: a command that waits (or waits for its turn) ends at once.
    std::atomic<bool> _disconnected{false};
    std::mutex _socketMutex;
    std::mutex _sendMutex;
    // Held across a whole command (the started flag, the data reset, the send and the wait), so that commands of
    // several threads on one client run one after another. Taken before _responseMutex.
    std::mutex _commandMutex;
    // Held across a whole Disconnect: a second one waits for the first and then has nothing left to do.
    std::mutex _disconnectMutex;
    std::atomic<bool> _running{false};
    std::atomic<int> _readTimeoutMs{_DefaultReadTimeoutMs};
};

}  // namespace OLVEN::TALIX3::TraceBuffer
