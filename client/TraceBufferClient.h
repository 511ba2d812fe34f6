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
    // valid until such calls have returned (the handle registry shares it with them).
    void Disconnect();

    void Start();
    void Stop();
    void Clear();
    void SetConfig(const oltbTraceBufferConfig_Struct& config);
    oltbTraceBufferConfig_Struct GetConfig();

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

    // The reading operations take received blocks from the queue the reader thread fills, and hand the used-up ones
    // back for the reader to receive into again.
    class QueueBlockSource final : public BlockSource {
    public:
        QueueBlockSource(BlockQueue& queue, FreeBlockQueue& freeBlocks, const std::atomic<bool>& connected) noexcept
            : _queue(queue), _freeBlocks(freeBlocks), _connected(connected) {}
        // Waits in slices and ends early once the connection is gone, so that no wait outlives the connection;
        // an empty block (queued when the connection ends) wakes a waiting read at once.
        bool waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) override;
        bool isConnected() const override;
        void recycle(std::vector<std::byte>&& usedBlock) override;

    private:
        BlockQueue& _queue;
        FreeBlockQueue& _freeBlocks;
        const std::atomic<bool>& _connected;
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
    // Scans for the waiting command's response (or, shortly after a command gave up, for its late answer) and hands
    // it over (or drops it); returns once neither is looked for any more. `count` bytes are in the buffer on entry.
    void scanForResponse(ReceiveBuffer& buffer, std::size_t count);
    bool isLookingForLateResponse() const noexcept;
    // One receive into buffer[offset, _bufferSize); a closed connection or a failure throws.
    std::size_t receiveMore(ReceiveBuffer& buffer, std::size_t offset);
    // Queues a copy of the bytes as one block, in reused storage when there is some.
    void enqueueBlock(const std::byte* first, std::size_t count);
    // Ends the connection after a reader failure: _running cleared and the socket closed, under _socketMutex.
    void closeAfterReaderFailure() noexcept;
    // Wakes a read that waits for a block: the empty block ends its wait, and it finds the connection gone.
    void wakeWaitingRead();

    // Discards the decoder state and every queued block.
    void clear();
    // Discards every queued block and the storage kept for reuse; returns the memory of a large backlog to the system.
    void discardQueuedBlocks() noexcept;

    // ---- commands (TraceCommands.cpp) ---------------------------------------------------------------------
    // Sends one command frame and waits up to 3000 ms for its response; returns the response payload when
    // `wantResponse`, else an empty vector. The caller holds _commandMutex: a command, the started flag and the
    // decoder reset that go with it change together, whichever threads issue commands.
    std::vector<std::byte> writeCommand(const TraceCommandCode& code, const std::vector<std::byte>& payload,
                                        bool wantResponse);
    void startLocked();
    void stopLocked();
    void requireConnection() const;

    // Locks, always taken in these orders: _commandMutex, _responseMutex, _sendMutex (a command); _socketMutex,
    // _sendMutex (the reader closing the socket after a failure, so that no command sends on a descriptor number
    // that is being closed and may be reused). Nothing takes _socketMutex while holding another of these.
    std::atomic<bool> _abortReader{false};
    std::unique_ptr<kissnet::tcp_socket> _socket;
    std::atomic<bool> _isStarted{false};
    BlockQueue _queue;
    FreeBlockQueue _freeBlocks;
    std::thread _readerThread;
    // Time base, carried word, current block and pending samples of the reading operations.
    TraceDecoder _decoder;
    // The socket is open for commands and reads: set once connected, cleared when the reader closes it after a
    // failure and by Disconnect. Read without a lock by every thread.
    std::atomic<bool> _connected{false};
    QueueBlockSource _blockSource{_queue, _freeBlocks, _connected};
    std::mutex _responseMutex;
    std::condition_variable _responseCondition;
    std::atomic<bool> _waitingForResponse{false};
    // Until this steady-clock time (ns) the reader drops the late answer of a command that gave up; 0: none due.
    std::atomic<std::int64_t> _lateResponseUntilNs{0};
    // Set while a Start waits for its answer: what arrives before the answer (the reader may hold the beginning of
    // what looked like a frame from before the Start) is old and is dropped; the trace begins behind the answer.
    std::atomic<bool> _dropUntilResponse{false};
    // Set by Disconnect: a command that waits (or waits for its turn) ends at once.
    std::atomic<bool> _disconnected{false};
    std::vector<std::byte> _response;
    std::mutex _socketMutex;
    std::mutex _sendMutex;
    // Held across a whole command (the started flag, the decoder reset, the send and the wait), so that commands of
    // several threads on one client run one after another and none takes another's response. Taken before
    // _responseMutex.
    std::mutex _commandMutex;
    std::atomic<bool> _running{false};
    std::atomic<int> _readTimeoutMs{_DefaultReadTimeoutMs};
};

}  // namespace OLVEN::TALIX3::TraceBuffer
