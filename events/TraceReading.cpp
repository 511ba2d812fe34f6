// Reading: turns received blocks of trace bytes into events in the caller's array. Blocks are cut wherever the
// network cut them, so a word may straddle blocks; its first bytes are carried over, little-endian, until the
// rest arrives. Late events are moved back a period and small disorder is re-sorted.
#include "events/EventMessages.h"
#include "events/TraceDecoder.h"
#include "events/TraceWordsInline.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace OLVEN::TALIX3::TraceBuffer {

namespace {

constexpr std::uint32_t WordBytes = 8;

inline std::uint64_t loadLittleEndianWord(const std::byte* bytes) noexcept {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = __builtin_bswap64(word);
#endif
    return word;
}

// Stores the in-order run of 32-bit words at `cursor`: the bulk of a position stream, one event per word with no
// samples to split, nothing to move back and nothing to sort. Stops before the first word that needs the general
// path (another width, a time-base word, an unsupported type, a stamp behind the previous one), or when the block
// or the array ends. `lastTimestamp` is the stamp of out[-1] (0 while this call has stored nothing). Returns the
// number of events stored.
inline unsigned storeFullWidthRun(const TraceWordClock& clock, std::uint64_t& lastRelative,
                                  std::uint64_t& lastTimestamp, const std::byte*& cursor, const std::byte* limit,
                                  oltbTraceEvent*& out, const oltbTraceEvent* end) noexcept {
    using namespace TraceWordDecoding;
    const std::uint64_t timeBase = clock.timeBase;
    const std::uint64_t origin = clock.firstTimestamp;
    // A time base is a multiple of 2^24 below 2^64, so stamp = relative + time base never wraps, and a word is
    // neither late nor behind out[-1] exactly when its relative stamp reaches this floor. Within the run the floor
    // is the relative stamp of the word before.
    std::uint64_t floor = std::max(lastRelative, lastTimestamp > timeBase ? lastTimestamp - timeBase : 0);
    const std::size_t room =
        std::min(static_cast<std::size_t>(limit - cursor) / WordBytes, static_cast<std::size_t>(end - out));
    const std::byte* const first = cursor;
    const std::byte* const runLimit = cursor + room * WordBytes;
    oltbTraceEvent* event = out;
    for (; cursor != runLimit; cursor += WordBytes, ++event) {
        const std::uint64_t word = loadLittleEndianWord(cursor);
        const auto type = static_cast<unsigned>((word & TraceDecoder::_eventTypeMask) >> TraceDecoder::_eventTypeShift);
        const std::uint64_t relative = word & TraceDecoder::_timestampMask;  // a 32-bit sample is not moved
        if (BitsPerSample[type] != TraceDecoder::_numPayloadBits || relative < floor) break;
        floor = relative;
        const std::uint64_t timestamp = relative + timeBase;
        event->Timestamp = timestamp;
        event->Time =
            static_cast<double>(static_cast<std::int64_t>(timestamp - origin)) * TraceDecoder::_TicksPerMicroSecond;
        event->Type = static_cast<oltbTraceEventType>(type);
        event->Overflow = (word & TraceDecoder::_overflowMask) != 0;
        event->Value = static_cast<std::int32_t>(static_cast<std::uint32_t>(word >> TraceDecoder::_payloadShift));
    }
    const auto stored = static_cast<unsigned>((cursor - first) / WordBytes);
    if (stored > 0) {
        lastRelative = floor;
        lastTimestamp = event[-1].Timestamp;
    }
    out = event;
    return stored;
}

}  // namespace

unsigned TraceDecoder::splitAndUnpack(oltbTraceEvent* events, unsigned start, unsigned count) {
    using namespace TraceWordDecoding;
    if (count == 0) return 0;
    oltbTraceEvent* const first = events + start;
    oltbTraceEvent* const end = first + count;
    oltbTraceEvent* out = first;
    const std::byte* const bytes = _currentBlock.data();
    const std::byte* const limit = bytes + _currentBlock.size();
    const std::byte* cursor = bytes + _blockPosition;
    oltbTraceEvent* const pending = _pendingEvents.data();
    // Decoder state lives in locals while the loop runs and is written back on every way out.
    TraceWordClock clock = loadClock();
    std::uint32_t pendingCount = _pendingCount;
    oltbTraceEvent event;
    bool late = false;
    unsigned bits = 0;

    if (_partialBits > 0) {
        cursor = bytes;
        while (_partialBits <= 56 && cursor < limit) {
            _partialWord |= static_cast<std::uint64_t>(*cursor++) << _partialBits;
            _partialBits += 8;
        }
        if (_partialBits < 64) {
            // Still incomplete: this block was shorter than the rest of the word; the next one completes it.
            _currentBlock.clear();
            _blockPosition = 0;
            return 0;
        }
        const std::uint64_t word = _partialWord;
        _partialWord = 0;
        _partialBits = 0;
        _blockPosition = static_cast<std::uint32_t>(cursor - bytes);  // consumed first: never decoded twice
        if (decodeWord(clock, word, event, late, bits)) storeSamples(event, bits, out, end, pending, pendingCount);
    }

    // Events of this call are in order up to out - 1; 0 while none has been stored.
    std::uint64_t lastTimestamp = out > first ? out[-1].Timestamp : 0;
    try {
        while (out < end && limit - cursor >= static_cast<std::ptrdiff_t>(WordBytes)) {
            // Not before the time origin is set: the first event of a connection sets it.
            if (clock.firstTimestamp != 0 &&
                storeFullWidthRun(clock, clock.lastRelativeTimestamp, lastTimestamp, cursor, limit, out, end) > 0) {
                pendingCount = 0;
                if (out == end || limit - cursor < static_cast<std::ptrdiff_t>(WordBytes)) break;
            }
            const std::uint64_t word = loadLittleEndianWord(cursor);
            cursor += WordBytes;
            if (!decodeWord(clock, word, event, late, bits)) continue;

            if (__builtin_expect(late || event.Timestamp < lastTimestamp, 0)) {
                if (late) {
                    // The events just stored came after the time-base word but were stamped before it: move
                    // those of this call that are not earlier than this one back into the previous period.
                    const std::uint64_t backwards = clock.previousTimeBase - clock.timeBase;
                    for (oltbTraceEvent* slot = out; slot > first && slot[-1].Timestamp >= event.Timestamp; --slot) {
                        slot[-1].Timestamp += backwards;
                        slot[-1].Time = timeOf(clock, slot[-1].Timestamp);
                    }
                }
                if (out > first && event.Timestamp < out[-1].Timestamp) {
                    const unsigned added = storeSamples(event, bits, out, end, pending, pendingCount);
                    _pendingCount = pendingCount;
                    reSort(events, start, static_cast<unsigned>(out - events), added);
                } else {
                    storeSamples(event, bits, out, end, pending, pendingCount);
                }
                lastTimestamp = out[-1].Timestamp;
            } else if (bits == _numPayloadBits) {
                pendingCount = 0;
                *out++ = event;
                lastTimestamp = event.Timestamp;
            } else {
                storeSamples(event, bits, out, end, pending, pendingCount);
                lastTimestamp = out[-1].Timestamp;
            }
        }
    } catch (...) {
        _blockPosition = static_cast<std::uint32_t>(cursor - bytes);
        storeClock(clock);
        _pendingCount = pendingCount;
        throw;
    }
    storeClock(clock);
    _pendingCount = pendingCount;

    if (limit - cursor >= static_cast<std::ptrdiff_t>(WordBytes)) {
        // The array is full: the rest of the block waits for the next call.
        _blockPosition = static_cast<std::uint32_t>(cursor - bytes);
        return static_cast<unsigned>(out - first);
    }
    // 0 to 7 bytes left; a rest is the start of a word that the next block completes.
    _partialWord = 0;
    for (; cursor < limit; ++cursor) {
        _partialWord |= static_cast<std::uint64_t>(*cursor) << _partialBits;
        _partialBits += 8;
    }
    _currentBlock.clear();
    _blockPosition = 0;
    return static_cast<unsigned>(out - first);
}

unsigned TraceDecoder::deliverPending(oltbTraceEvent* events, unsigned start, unsigned count) noexcept {
    oltbTraceEvent* const pending = _pendingEvents.data();
    const unsigned copied = std::min(_pendingCount, count);
    std::copy_n(pending, copied, events + start);
    // Whatever does not fit moves to the front and waits for the next call, still in time order.
    std::copy(pending + copied, pending + _pendingCount, pending);
    _pendingCount -= copied;
    return copied;
}

bool TraceDecoder::takeNextBlock(BlockSource& source, int waitLimitMs) {
    assert(!hasUndecodedBytes());
    std::vector<std::byte> block;
    const std::int64_t timeoutUs = waitLimitMs < 0 ? -1 : static_cast<std::int64_t>(waitLimitMs) * 1000;
    if (!source.waitBlock(block, timeoutUs)) return false;
    if (source.restartRequested()) clear();
    if (_currentBlock.capacity() != 0) source.recycle(std::move(_currentBlock));
    takeBlock(std::move(block));
    return true;
}

unsigned TraceDecoder::fillFromSource(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count,
                                      unsigned delivered, int readTimeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point startTime = Clock::now();
    int waitLimitMs = readTimeoutMs;
    while (count > 0) {
        const bool taken = takeNextBlock(source, waitLimitMs);
        if (taken && !_currentBlock.empty()) {
            const unsigned decoded = splitAndUnpack(events, start, count);
            delivered += decoded;
            start += decoded;
            count -= decoded;
        }
        if (delivered > 0) {
            if (!taken) return delivered;
            // Something to deliver: from now on take only what is already queued.
            waitLimitMs = 0;
            continue;
        }
        // A wait that ends because the connection is gone (an empty block wakes it) ends the call, whatever its
        // timeout: nothing more will come.
        if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);
        if (readTimeoutMs < 0) continue;
        if (!taken && readTimeoutMs == 0) return 0;
        // Nothing decoded yet (a block of time-base words or carried bytes does not end the call): wait again
        // for what remains of the timeout.
        const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - startTime);
        waitLimitMs = readTimeoutMs - static_cast<int>(elapsedMs.count());
        if (waitLimitMs < 0) return 0;
    }
    return delivered;
}

unsigned TraceDecoder::TryRead(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count,
                               int readTimeoutMs) {
    if (!source.isConnected()) throw std::runtime_error(EventMessages::NoConnection);
    if (events == nullptr) throw std::runtime_error(EventMessages::NullBuffer);
    if (source.restartRequested()) clear();

    unsigned result = 0;
    if (_pendingCount > 0) {
        const unsigned pendingBefore = _pendingCount;
        result = deliverPending(events, start, count);
        if (result < pendingBefore) return result;
        start += result;
        count -= result;
        if (count == 0) return result;
    }
    if (hasUndecodedBytes()) {
        const unsigned decoded = splitAndUnpack(events, start, count);
        result += decoded;
        start += decoded;
        count -= decoded;
    }
    if (count == 0) return result;
    return fillFromSource(source, events, start, count, result, readTimeoutMs);
}

unsigned TraceDecoder::Read(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count,
                            int readTimeoutMs) {
    const unsigned result = TryRead(source, events, start, count, readTimeoutMs);
    if (result > 0 || readTimeoutMs == 0) return result;
    throw std::runtime_error(EventMessages::NothingReceived);
}

}  // namespace OLVEN::TALIX3::TraceBuffer
