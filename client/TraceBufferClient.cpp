// Life of one connection: construction with connect retries and the opening exchange, the reader thread that
// separates response frames from trace data, the end of the connection, and the reading operations, which run
// the decoder on the caller's thread over the blocks the reader queued.

#include "client/TraceBufferClient.h"

#include "client/ClientMessages.h"
#include "client/ResponseFrameScanner.h"

#include <time.h>

#include <cerrno>
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

// Sleeps the whole pause even when signals interrupt it.
void pauseMs(long milliseconds) noexcept {
    timespec remaining{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (::nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
}

}  // namespace

// ---- block source ---------------------------------------------------------------------------------------------

bool TraceBufferClient::QueueBlockSource::waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) {
    if (timeoutUs < 0) {
        _queue.wait_dequeue(block);
        return true;
    }
    return _queue.wait_dequeue_timed(block, timeoutUs);
}

bool TraceBufferClient::QueueBlockSource::isConnected() const {
    return _socket && _socket->get_descriptor() != -1;
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
        _socket->shutdown();
    } catch (const std::system_error&) {
        lockFailure = std::current_exception();
    }
    _isStarted = false;
    clear();
    if (lockFailure) {
        std::rethrow_exception(lockFailure);
    }
    if (_readerThread.joinable()) {
        _readerThread.join();
    }
}

void TraceBufferClient::clear() {
    _decoder.clear();
    std::array<std::vector<std::byte>, DrainBatchSize> drained;
    while (_queue.try_dequeue_bulk(drained.begin(), drained.size()) > 0) {
    }
}

bool TraceBufferClient::isSocketOpen() const noexcept {
    return _blockSource.isConnected();
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
    // A command may be sending at this moment; closing under _sendMutex keeps it from sending on a descriptor
    // number that the system could already have handed to another socket.
    std::lock_guard<std::mutex> sendLock(_sendMutex);
    _socket->close();
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
        if (_waitingForResponse) {
            scanForResponse(buffer, received.count);
        } else if (_isStarted) {
            enqueueBlock(buffer.bytes.data(), received.count);
        }
    }
}

void TraceBufferClient::scanForResponse(ReceiveBuffer& buffer, std::size_t count) {
    std::byte* const data = buffer.bytes.data();
    for (;;) {
        ResponseScanOutcome outcome;
        {
            std::lock_guard<std::mutex> responseLock(_responseMutex);
            _response.clear();
            const ResponseFrameScan scan = scanForResponseFrame(data, count);
            outcome = scan.outcome;
            if (outcome == ResponseScanOutcome::frameFound) {
                // The bytes around the frame are trace data that came with the response; they are kept even while
                // tracing is not started, as is everything received while a command waits. They are queued before
                // the command wakes, so that a Start or Clear issued after it discards them like all earlier data.
                enqueueBlock(data, scan.headerStart);
                enqueueBlock(data + scan.frameEnd, count - scan.frameEnd);
                const std::byte* const payload = data + scan.payloadStart;
                _response.assign(payload, payload + scan.payloadLength);
                _waitingForResponse = false;
                _responseCondition.notify_all();
                return;
            }
        }
        if (outcome == ResponseScanOutcome::maybeFrameStart && count < _bufferSize) {
            // The data ends in 0x4D bytes that may begin the response: receive the rest behind them and scan the
            // whole buffer again.
            count += receiveMore(buffer, count);
        } else {
            // No frame. A full buffer that ends in 0x4D bytes has no room for the rest of a frame either; it is
            // passed on as trace data like any other.
            enqueueBlock(data, count);
            count = receiveMore(buffer, 0);
        }
        if (!_waitingForResponse) {
            // The command stopped waiting (it timed out) meanwhile.
            enqueueBlock(data, count);
            return;
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
    std::vector<std::byte> block;
    if (!_freeBlocks.try_dequeue(block)) {
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

std::vector<oltbTraceEvent> TraceBufferClient::Acquire(unsigned short startLabel, unsigned short endLabel) {
    return _decoder.Acquire(_blockSource, startLabel, endLabel, readTimeoutMs());
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
