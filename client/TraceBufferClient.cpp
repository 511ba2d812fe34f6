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
#include <chrono>
#include <cstdint>
#include <cstring>
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
// Discarding at least this much queued data hands the freed memory back to the system, and so does reading a
// backlog of at least 16 MiB down to an eighth of it (not less: a reading loop that keeps only just ahead would trim,
// and then fault the pages in again, over and over).
constexpr std::size_t TrimAfterDiscardedBytes = std::size_t{4} << 20;
constexpr std::size_t TrimAfterQueuedBlocks = (std::size_t{16} << 20) / TraceBufferClient::_bufferSize;

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
    while (::nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {}
}

}  // namespace

// ---- block source ---------------------------------------------------------------------------------------------

bool TraceBufferClient::QueueBlockSource::waitBlock(std::vector<std::byte>& block, std::int64_t timeoutUs) {
    for (std::int64_t remainingUs = timeoutUs;;) {
        if (!isConnected()) return false;
        if (takeBlock(block)) break;
        if (remainingUs == 0) return false;
        const std::int64_t sliceUs = remainingUs < 0 ? WaitSliceUs : std::min(remainingUs, WaitSliceUs);
        if (_client._queue.wait_dequeue_timed(block, sliceUs)) break;
        if (remainingUs > 0 && (remainingUs -= sliceUs) <= 0) return false;
    }
    trimAfterBacklog();
    // Blocks still queued when the connection ended are not delivered any more.
    return isConnected();
}

bool TraceBufferClient::QueueBlockSource::takeBlock(std::vector<std::byte>& block) {
    // Under the lock under which the reader queues, so that the block being filled is taken only when every block
    // before it has been.
    const std::lock_guard<std::mutex> lock(_client._blockMutex);
    if (_client._queue.try_dequeue(block)) return true;
    if (_client._openBlock.empty()) return false;
    block = std::move(_client._openBlock);
    _client._openBlock = std::vector<std::byte>();
    return true;
}

void TraceBufferClient::QueueBlockSource::trimAfterBacklog() noexcept {
    const std::size_t queued = _client._queue.size_approx();
    _peakQueuedBlocks = std::max(_peakQueuedBlocks, queued);
    if (_peakQueuedBlocks >= TrimAfterQueuedBlocks && queued <= _peakQueuedBlocks / 8) {
        // The blocks were freed one by one as they were read; the allocator keeps such memory until trimmed.
        _peakQueuedBlocks = queued;
        ::malloc_trim(0);
    }
}

bool TraceBufferClient::QueueBlockSource::isConnected() const { return _client._connected.load(); }

void TraceBufferClient::QueueBlockSource::recycle(std::vector<std::byte>&& usedBlock) {
    // Only storage the reader could fill without growing it and copy into fast is worth keeping.
    if (usedBlock.capacity() >= _bufferSize && copiesFastFromPageStart(usedBlock) &&
        _client._freeBlocks.size_approx() < _MaxFreeBlocks) {
        usedBlock.clear();
        _client._freeBlocks.enqueue(std::move(usedBlock));
    }
}

bool TraceBufferClient::QueueBlockSource::restartRequested() { return _client._restartRequested.exchange(false); }

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
    const std::lock_guard<std::mutex> disconnectLock(_disconnectMutex);
    if (_disconnected) {
        return;  // another thread has ended the connection meanwhile
    }
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
    discardQueuedBlocks();
    _restartRequested = true;
}

void TraceBufferClient::discardQueuedBlocks() noexcept {
    std::array<std::vector<std::byte>, DrainBatchSize> drained;
    std::size_t discardedBytes = 0;
    {
        const std::lock_guard<std::mutex> lock(_blockMutex);
        ++_discards;
        for (std::size_t taken; (taken = _queue.try_dequeue_bulk(drained.begin(), drained.size())) > 0;) {
            for (std::size_t i = 0; i < taken; ++i) discardedBytes += drained[i].capacity();
        }
        discardedBytes += _openBlock.capacity();
        std::vector<std::byte>().swap(_openBlock);
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

void TraceBufferClient::wakeWaitingRead() { _queue.enqueue(std::vector<std::byte>()); }

bool TraceBufferClient::isSocketOpen() const noexcept { return _connected.load(); }

bool TraceBufferClient::isRunning() const noexcept { return _running.load(); }

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
    std::size_t kept = 0;  // bytes at the front of the buffer that may begin an answer
    while (_running) {
        const std::size_t count = kept + receiveMore(buffer, kept);
        if (_answersDue) {
            kept = takeAnswers(buffer.bytes.data(), count);
        } else {
            passOn(buffer.bytes.data(), count);
            kept = 0;
        }
    }
}

std::size_t TraceBufferClient::takeAnswers(std::byte* data, std::size_t count) {
    // Under _responseMutex: the bytes in front of an answer are passed on before the command wakes, so that a Start
    // or Clear issued after it discards them like all earlier data.
    std::lock_guard<std::mutex> responseLock(_responseMutex);
    for (;;) {
        if (!_answersDue) {
            passOn(data, count);  // every answer is in: the rest is trace data
            return 0;
        }
        const ResponseFrameScan scan = scanForResponseFrame(data, count, static_cast<int>(_wordPosition));
        if (scan.outcome == ResponseScanOutcome::noFrame) {
            passOn(data, count);
            return 0;
        }
        if (scan.outcome == ResponseScanOutcome::maybeFrameStart) {
            // What may be the beginning of an answer (at most a frame's length) waits for the next receive.
            passOn(data, scan.candidateStart);
            std::memmove(data, data + scan.candidateStart, count - scan.candidateStart);
            return count - scan.candidateStart;
        }
        passOn(data, scan.headerStart);
        _wordPosition = 0;  // a word begins behind an answer
        const std::uint64_t answer = ++_answersTaken;
        _answersDue = _answersTaken < _commandsSent;
        if (answer == _startAnswer) {
            _dropTrace = false;  // the trace begins behind the Start's answer
        }
        if (answer == _awaitedAnswer) {
            const std::byte* const payload = data + scan.payloadStart;
            _response.assign(payload, payload + scan.payloadLength);
            _responseCondition.notify_all();
        }
        // Any other answer is the late one of a command that gave up: dropped. Several may come together.
        count -= scan.frameEnd;
        std::memmove(data, data + scan.frameEnd, count);
    }
}

void TraceBufferClient::passOn(const std::byte* first, std::size_t count) {
    const bool keep = !_dropTrace && (_isStarted || _waitingForResponse);
    if (keep != _keeping && _wordPosition != 0) {
        // Trace data is kept or dropped in whole words: the rest of a word goes where its beginning went, so that
        // what is queued never begins or ends inside a word.
        const std::size_t rest = std::min(count, TraceWordBytes - _wordPosition);
        if (_keeping) enqueueBytes(first, rest, true);
        first += rest;
        count -= rest;
        _wordPosition = (_wordPosition + rest) % TraceWordBytes;
        if (_wordPosition != 0) return;
    }
    _keeping = keep;
    if (keep && count > 0) enqueueBytes(first, count);
    _wordPosition = (_wordPosition + count) % TraceWordBytes;
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

std::vector<std::byte> TraceBufferClient::blockStorage() {
    // Reused storage is already mapped and warm: a copy into fresh heap pages costs several times the copy itself.
    std::vector<std::byte> block;
    if (!_freeBlocks.try_dequeue(block)) {
        block = newBlockStorage(_bufferSize);
    }
    return block;
}

void TraceBufferClient::enqueueBytes(const std::byte* first, std::size_t count, bool restOfWord) {
    const std::lock_guard<std::mutex> lock(_blockMutex);
    if (restOfWord && _discards != _discardsSeen) {
        return;  // a Start discarded the beginning of the word meanwhile: its rest goes too
    }
    _discardsSeen = _discards;
    while (count > 0) {
        if (_openBlock.capacity() == 0) {
            _openBlock = blockStorage();
        }
        const std::size_t taken = std::min(count, _openBlock.capacity() - _openBlock.size());
        _openBlock.insert(_openBlock.end(), first, first + taken);
        first += taken;
        count -= taken;
        if (_openBlock.size() == _openBlock.capacity() || _queue.size_approx() == 0) {
            _queue.enqueue(std::move(_openBlock));
            _openBlock = std::vector<std::byte>();
        }
    }
}

// ---- reading ------------------------------------------------------------------------------------------------

unsigned TraceBufferClient::TryRead(oltbTraceEvent* events, unsigned start, unsigned count) {
    const std::lock_guard<std::mutex> readLock(_readMutex);
    return _decoder.TryRead(_blockSource, events, start, count, readTimeoutMs());
}

unsigned TraceBufferClient::Read(oltbTraceEvent* events, unsigned start, unsigned count) {
    const std::lock_guard<std::mutex> readLock(_readMutex);
    return _decoder.Read(_blockSource, events, start, count, readTimeoutMs());
}

AcquiredEvents TraceBufferClient::Acquire(unsigned short startLabel, unsigned short endLabel, AcquiredEvents storage) {
    const std::lock_guard<std::mutex> readLock(_readMutex);
    return _decoder.Acquire(_blockSource, startLabel, endLabel, readTimeoutMs(), std::move(storage));
}

void TraceBufferClient::ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept {
    TraceDecoder::ToSignedPosition(events, count);
}

int TraceBufferClient::readTimeoutMs() const noexcept { return _readTimeoutMs.load(std::memory_order_relaxed); }

void TraceBufferClient::setReadTimeoutMs(int timeoutMs) noexcept {
    _readTimeoutMs.store(timeoutMs, std::memory_order_relaxed);
}

}  // namespace OLVEN::TALIX3::TraceBuffer
