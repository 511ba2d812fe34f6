// Life of one connection: construction with connect retries and the opening exchange, the reader thread that
// separates response frames from trace data, the end of the connection, and the reading operations, which run
// the decoder on the caller's thread over the blocks the reader queued.

#include "client/TraceBufferClient.h"

#include "client/ClientMessages.h"
#include "client/ResponseFrameScanner.h"

#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr int ConnectAttempts = 3;
constexpr long ConnectTimeoutMs = 2000;
constexpr long RetryPauseMs = 200;
constexpr long StartupPollMs = 100;
constexpr std::size_t DrainBatchSize = 50;
constexpr std::uintptr_t PageBytes = 4096;
// A waiting read looks at the connection this often, even if nothing wakes it.
constexpr std::int64_t WaitSliceUs = 100000;
// Blocks whose storage is reused (receive-buffer sized) carry at least this many bytes, so that queued memory stays
// within 1.25 times the bytes queued; smaller receives get storage of their own size.
constexpr std::size_t MinimumBytesForReusedBlock = TraceBufferClient::_bufferSize * 4 / 5;
// Discarding at least this much queued data hands the freed memory back to the system.
constexpr std::size_t TrimAfterDiscardedBytes = std::size_t{4} << 20;

// glibc's memcpy runs about 30 times slower when its destination lies 1 to 31 bytes after its source modulo a page
// (its loads then seem to depend on its own earlier stores). Blocks are copied from the page-aligned receive buffer,
// so their storage must not start 1 to 31 bytes into a page; heap storage starts on a 16-byte boundary.
constexpr std::uintptr_t SlowCopyOffsets = 32;

bool copiesFastFromPageStart(const std::vector<std::byte>& block) noexcept {
    const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(block.data()) % PageBytes;
    return offset == 0 || offset >= SlowCopyOffsets;
}

// Storage for one block of up to `capacity` bytes at an offset that copies fast. An allocation at a slow offset is
// held while the next one is made, so the allocator cannot hand the same place out again.
std::vector<std::byte> newBlockStorage(std::size_t capacity) {
    std::vector<std::byte> block;
    block.reserve(capacity);
    if (copiesFastFromPageStart(block)) {
        return block;
    }
    // Two heap blocks of this size lie 16400 bytes apart, so the next one starts 16 bytes further into its page.
    std::vector<std::byte> next;
    next.reserve(capacity);
    return next;
}

std::int64_t steadyNowNs() noexcept {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Sleeps the whole pause even when signals interrupt it.
void pauseMs(long milliseconds) noexcept {
    timespec remaining{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (::nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

// ---- block source ---------------------------------------------------------------------------------------------

bool TraceBufferClient::QueueBlockSource::waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) {
    for (std::int64_t remainingUs = timeoutUs;;) {
        if (!isConnected()) return false;
        const std::int64_t sliceUs = remainingUs < 0 ? WaitSliceUs : std::min(remainingUs, WaitSliceUs);
        if (_queue.wait_dequeue_timed(block, sliceUs)) return true;
        if (remainingUs >= 0 && (remainingUs -= sliceUs) <= 0) return false;
    }
}

bool TraceBufferClient::QueueBlockSource::isConnected() const {
    return _connected.load();
}

void TraceBufferClient::QueueBlockSource::recycle(std::vector<std::byte>&& usedBlock) {
    // Only storage the reader could fill without growing it and copy into fast is worth keeping.
    if (usedBlock.capacity() >= _bufferSize && copiesFastFromPageStart(usedBlock) &&
        _freeBlocks.size_approx() < _MaxFreeBlocks) {
        usedBlock.clear();
        _freeBlocks.enqueue(std::move(usedBlock));
    }
}

// ---- construction -------------------------------------------------------------------------------------------

TraceBufferClient::TraceBufferClient(const std::string& address) {
    // Started only now that every member holds its initial value; it waits until the connection is up. A thread
    // that cannot be started fails the construction with the system's error, unwrapped.
    _readerThread = std::thread(&TraceBufferClient::reader, this);

    kissnet::owned_address_list addresses;
    try {
        kissnet::resolved_server server = kissnet::resolve_server(address);
        addresses = std::move(server.list);
        _socket = std::make_unique<kissnet::tcp_socket>(server.first);
        connectWithRetries();
        _connected = true;
        _isStarted = false;
        _decoder.resetFirstTimestamp();
        {
            std::lock_guard<std::mutex> socketLock(_socketMutex);
            _running = true;
        }
        runOpeningExchange();
        addresses.reset();
    } catch (const std::exception& e) {
        addresses.reset();
        abandonConstruction();
        throw std::runtime_error(ClientMessages::ConnectFailedPrefix + address + ". " + e.what());
    } catch (...) {
        addresses.reset();
        abandonConstruction();
        // Deliberately not an exception object: callers that catch only standard exceptions see an unknown one.
        throw ClientMessages::InitializationUnexpectedError;
    }
}

void TraceBufferClient::connectWithRetries() {
    for (int attempt = 1;; ++attempt) {
        try {
            _socket->connect(ConnectTimeoutMs);
            return;
        } catch (const std::exception&) {
            if (attempt == ConnectAttempts) {
                throw;
            }
            std::cout << ClientMessages::ConnectionFailedRetry << std::endl;
            pauseMs(RetryPauseMs);
        }
    }
}

void TraceBufferClient::runOpeningExchange() {
    try {
        Stop();
        (void)GetConfig();
    } catch (...) {
        // Shutting the socket down releases the reader's receive; with _running already clear it ends silently.
        {
            std::lock_guard<std::mutex> socketLock(_socketMutex);
            _running = false;
            _socket->shutdown();
        }
        throw;
    }
}

void TraceBufferClient::abandonConstruction() noexcept {
    if (_readerThread.joinable()) {
        _running = false;
        _abortReader = true;
        _readerThread.join();
    }
    _socket.reset();
}

// ---- end of the connection ----------------------------------------------------------------------------------

TraceBufferClient::~TraceBufferClient() {
    if (_readerThread.joinable()) {
        _running = false;
        if (_socket) {
            // Under _socketMutex, so that a reader closing the socket after a failure at this very moment cannot
            // hand the descriptor number to someone else before it is shut down here.
            std::lock_guard<std::mutex> socketLock(_socketMutex);
            _socket->shutdown();
        }
        _readerThread.join();
    }
    _socket.reset();
}

void TraceBufferClient::Disconnect() {
    std::exception_ptr lockFailure;
    try {
        std::lock_guard<std::mutex> socketLock(_socketMutex);
        _running = false;
        _connected = false;
        _socket->shutdown();
    } catch (const std::system_error&) {
        lockFailure = std::current_exception();
    }
    _isStarted = false;
    _disconnected = true;
    {
        // Taken and released, so that a command between its check of the flag and its wait cannot miss the wake-up.
        std::lock_guard<std::mutex> responseLock(_responseMutex);
    }
    _responseCondition.notify_all();
    if (lockFailure) {
        discardQueuedBlocks();
        std::rethrow_exception(lockFailure);
    }
    if (_readerThread.joinable()) {
        _readerThread.join();
    }
    // The decoder is left alone: another thread may be reading with it; it goes with the client.
    discardQueuedBlocks();
    wakeWaitingRead();
}

void TraceBufferClient::clear() {
    _decoder.clear();
    discardQueuedBlocks();
}

void TraceBufferClient::discardQueuedBlocks() noexcept {
    std::array<std::vector<std::byte>, DrainBatchSize> drained;
    std::size_t discardedBytes = 0;
    for (std::size_t taken; (taken = _queue.try_dequeue_bulk(drained.begin(), drained.size())) > 0;) {
        for (std::size_t i = 0; i < taken; ++i) discardedBytes += drained[i].capacity();
    }
    std::vector<std::byte> unused;
    while (_freeBlocks.try_dequeue(unused)) discardedBytes += unused.capacity();
    for (std::vector<std::byte>& block : drained) std::vector<std::byte>().swap(block);
    std::vector<std::byte>().swap(unused);
    if (discardedBytes >= TrimAfterDiscardedBytes) {
        // Freed blocks stay with the allocator (in the reader thread's arena) until trimmed.
        ::malloc_trim(0);
    }
}

void TraceBufferClient::wakeWaitingRead() {
    _queue.enqueue(std::vector<std::byte>());
}

bool TraceBufferClient::isSocketOpen() const noexcept {
    return _connected.load();
}

bool TraceBufferClient::isRunning() const noexcept {
    return _running.load();
}

// ---- reader thread ------------------------------------------------------------------------------------------

void TraceBufferClient::reader() {
    try {
        const auto buffer = std::make_unique<ReceiveBuffer>();
        while (!_running && !_abortReader) {
            pauseMs(StartupPollMs);
        }
        receiveAndDispatch(*buffer);
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> socketLock(_socketMutex);
        // With _running clear the failure is the client's own shutdown (Disconnect, destruction, a failed
        // construction): nothing to report.
        if (_running) {
            std::cerr << ClientMessages::ReaderCrashedWithException << e.what() << std::endl;
            closeAfterReaderFailure();
        }
    } catch (...) {
        std::cerr << ClientMessages::ReaderCrashedUnknown << std::endl;
        std::lock_guard<std::mutex> socketLock(_socketMutex);
        if (_running) {
            closeAfterReaderFailure();
        }
    }
}

void TraceBufferClient::closeAfterReaderFailure() noexcept {
    _running = false;
    _connected = false;
    {
        // A command may be sending at this moment; closing under _sendMutex keeps it from sending on a descriptor
        // number that the system could already have handed to another socket.
        std::lock_guard<std::mutex> sendLock(_sendMutex);
        _socket->close();
    }
    try {
        wakeWaitingRead();
    } catch (...) {
        // Without memory for the wake-up block, a waiting read still finds the connection gone within a slice.
    }
}

void TraceBufferClient::receiveAndDispatch(ReceiveBuffer& buffer) {
    while (_running) {
        const kissnet::recv_result received = _socket->recv(buffer.bytes);
        if (received.status == kissnet::recv_status::wouldBlock) {
            // The descriptor blocks and has no receive time limit, so this does not happen.
            throw std::runtime_error("");
        }
        if (received.status != kissnet::recv_status::received) {
            throw std::runtime_error(ClientMessages::ReadFailed);
        }
        if (_waitingForResponse || isLookingForLateResponse()) {
            scanForResponse(buffer, received.count);
        } else if (_isStarted) {
            enqueueBlock(buffer.bytes.data(), received.count);
        }
    }
}

bool TraceBufferClient::isLookingForLateResponse() const noexcept {
    const std::int64_t until = _lateResponseUntilNs.load();
    return until != 0 && steadyNowNs() < until;
}

void TraceBufferClient::scanForResponse(ReceiveBuffer& buffer, std::size_t count) {
    std::byte* const data = buffer.bytes.data();
    // Everything received while a command waits is kept, even while tracing is not started (but nothing before the
    // answer to a Start); around a late answer only what tracing keeps anyway.
    bool commandWaits = true;
    const auto passOn = [&](const std::byte* first, std::size_t bytes) {
        if (commandWaits ? !_dropUntilResponse : _isStarted.load()) enqueueBlock(first, bytes);
    };
    for (;;) {
        ResponseFrameScan scan;
        {
            std::lock_guard<std::mutex> responseLock(_responseMutex);
            if (!_waitingForResponse && !isLookingForLateResponse()) {
                // The command gave up meanwhile, or the late answer's time is over: the bytes are trace data.
                passOn(data, count);
                return;
            }
            commandWaits = _waitingForResponse;
            _response.clear();
            scan = scanForResponseFrame(data, count);
            if (scan.outcome == ResponseScanOutcome::frameFound) {
                // The bytes around the frame are queued before the command wakes, so that a Start or Clear issued
                // after it discards them like all earlier data.
                passOn(data, scan.headerStart);
                _dropUntilResponse = false;
                passOn(data + scan.frameEnd, count - scan.frameEnd);
                _lateResponseUntilNs = 0;
                if (commandWaits) {
                    const std::byte* const payload = data + scan.payloadStart;
                    _response.assign(payload, payload + scan.payloadLength);
                    _waitingForResponse = false;
                    _responseCondition.notify_all();
                }
                return;
            }
        }
        if (scan.outcome == ResponseScanOutcome::maybeFrameStart && scan.candidateStart > 0 && count == _bufferSize) {
            // No room behind a frame that may have begun: pass on what lies before it and keep its beginning.
            passOn(data, scan.candidateStart);
            count -= scan.candidateStart;
            std::memmove(data, data + scan.candidateStart, count);
        }
        if (scan.outcome == ResponseScanOutcome::maybeFrameStart && count < _bufferSize) {
            // Receive the rest behind what may be the beginning of the answer and scan the whole buffer again.
            count += receiveMore(buffer, count);
        } else {
            passOn(data, count);
            count = receiveMore(buffer, 0);
        }
    }
}

std::size_t TraceBufferClient::receiveMore(ReceiveBuffer& buffer, std::size_t offset) {
    const kissnet::recv_result received = _socket->recv(buffer.bytes, offset);
    switch (received.status) {
    case kissnet::recv_status::received:
        return received.count;
    case kissnet::recv_status::wouldBlock:
        return 0;
    case kissnet::recv_status::closed:
    case kissnet::recv_status::failed:
        break;
    }
    throw std::runtime_error(ClientMessages::ReadFailed);
}

void TraceBufferClient::enqueueBlock(const std::byte* first, std::size_t count) {
    // An empty block (nothing before or behind a frame, a receive that would block) carries nothing to read.
    if (count == 0) {
        return;
    }
    // Reused storage is already mapped and warm: a copy into fresh heap pages costs several times the copy itself.
    // It is receive-buffer sized, so only a receive that nearly fills it may take it; a smaller one (a reader that
    // keeps up receives what arrives, a few kB at a time) gets storage of its own size, so that a backlog costs
    // no more memory than it holds.
    std::vector<std::byte> block;
    if (count >= MinimumBytesForReusedBlock && !_freeBlocks.try_dequeue(block)) {
        block = newBlockStorage(_bufferSize);
    }
    block.assign(first, first + count);
    _queue.enqueue(std::move(block));
}

// ---- reading ------------------------------------------------------------------------------------------------

unsigned TraceBufferClient::TryRead(oltbTraceEvent* events, unsigned start, unsigned count) {
    return _decoder.TryRead(_blockSource, events, start, count, readTimeoutMs());
}

unsigned TraceBufferClient::Read(oltbTraceEvent* events, unsigned start, unsigned count) {
    return _decoder.Read(_blockSource, events, start, count, readTimeoutMs());
}

AcquiredEvents TraceBufferClient::Acquire(unsigned short startLabel, unsigned short endLabel,
                                          AcquiredEvents storage) {
    return _decoder.Acquire(_blockSource, startLabel, endLabel, readTimeoutMs(), std::move(storage));
}

void TraceBufferClient::ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept {
    TraceDecoder::ToSignedPosition(events, count);
}

int TraceBufferClient::readTimeoutMs() const noexcept {
    return _readTimeoutMs.load(std::memory_order_relaxed);
}

void TraceBufferClient::setReadTimeoutMs(int timeoutMs) noexcept {
    _readTimeoutMs.store(timeoutMs, std::memory_order_relaxed);
}

}  // namespace OLVEN::TALIX3::TraceBuffer
