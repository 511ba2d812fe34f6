// Decoding core of one connection: turns the received byte stream of packed 64-bit trace words into time-ordered
// oltbTraceEvent records, collects label-bounded acquisitions and converts head positions.
//
// Trace word, little-endian in the stream:
//   bits  0..23  timestamp in ticks (1/64 us), modulo 2^24
//   bits 24..30  event type (oltbTraceEventType); 127 = time-base word, payload * 2^24 is the new time base
//   bit  31      overflow flag
//   bits 32..63  payload: one 32-bit sample, or 32/n samples of n bits, the first in the most significant bits
//
// The client owns one TraceDecoder and runs every operation on the caller's thread. Nothing here locks, knows a
// socket or starts a thread: received blocks come in through a BlockSource.
#pragma once

#include "api/oltb.h"
#include "events/AcquiredEvents.h"
#include "events/BlockSource.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace OLVEN::TALIX3::TraceBuffer {

struct TraceWordClock;

// Time order: by Timestamp only, no tie-break.
struct TraceEventComparer {
    bool operator()(const oltbTraceEvent& a, const oltbTraceEvent& b) const noexcept {
        return a.Timestamp < b.Timestamp;
    }
};

class TraceDecoder {
public:
    static constexpr std::uint64_t _timestampMask = 0xFFFFFF;
    static constexpr unsigned _timestampNumberOfBits = 24;
    static constexpr std::uint64_t _eventTypeMask = 0x7F000000;
    static constexpr unsigned _eventTypeShift = 24;
    static constexpr std::uint64_t _overflowMask = 0x80000000;
    static constexpr unsigned _payloadShift = 32;
    static constexpr unsigned _numPayloadBits = 32;
    static constexpr double _TicksPerMicroSecond = 0.015625;
    static constexpr unsigned _AcquireBatchSize = 4096;
    static constexpr double _AcquireEndMarginUs = 1.0;

    TraceDecoder();

    // ---- trace words -------------------------------------------------------------------------------------
    // Bits per sample of `type`; throws "TraceEventType <n> not supported!" for types outside the enumeration
    // and for 127.
    static unsigned getNumberOfBits(oltbTraceEventType type);
    // Bare field split of a word; leaves event.Time untouched.
    static void createPackedEvent(std::uint64_t word, oltbTraceEvent& event) noexcept;
    // Decodes one word against the time base. Returns false for a time-base word (no event). `late` reports an
    // adjusted timestamp more than 32 ticks behind the previous one. Throws for an unsupported type before any
    // state has changed.
    bool processEvent(std::uint64_t word, oltbTraceEvent& event, bool& late);
    // Splits a decoded word event into its samples (changes only; labels: the first sample only), storing them
    // at events[next], advancing next, while next < end; the rest goes to the pending store. Returns the number
    // stored in `events`.
    unsigned unpackEvents(const oltbTraceEvent& event, oltbTraceEvent* events, unsigned& next, unsigned& end);

    // ---- reading -----------------------------------------------------------------------------------------
    // Decodes what the current block holds into events[start, start + count) without waiting; carries an
    // incomplete word over to the next block, corrects late events and re-sorts small disorder.
    unsigned splitAndUnpack(oltbTraceEvent* events, unsigned start, unsigned count);
    // Delivers pending samples, then the current block, then blocks from `source`, waiting at most
    // `readTimeoutMs` for the first (0: never wait, negative: no limit). Throws
    // "No connection to trace buffer server established." and "buffer may not be null".
    unsigned TryRead(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count, int readTimeoutMs);
    // As TryRead; 0 events is a failure ("Nothing received from trace buffer server within the specified
    // timeout") unless readTimeoutMs is 0.
    unsigned Read(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count, int readTimeoutMs);
    // The events between the next start label and the following end label, Time counted from the start label.
    // `storage` (its elements are discarded) is reused for the series: a caller that hands back the last series
    // saves the page faults of fresh memory.
    AcquiredEvents Acquire(BlockSource& source, unsigned short startLabel, unsigned short endLabel, int readTimeoutMs,
                           AcquiredEvents storage = {});

    // ---- time ordering -----------------------------------------------------------------------------------
    // Restores time order of events[start, end) after `count` new events were appended at its end, merging the
    // pending samples so that none is earlier than events[end - 1].
    void reSort(oltbTraceEvent* events, unsigned start, unsigned end, unsigned count);
    // Restores time order of the overlap between old events [0, first) and new events [first, size).
    static void reSort(oltbTraceEvent* events, std::size_t size, unsigned first);

    // ---- positions ---------------------------------------------------------------------------------------
    static void ToSignedPosition(oltbTraceEvent* events, unsigned int count) noexcept;
    static std::int32_t toSignedPositionValue(std::uint32_t value) noexcept;

    // ---- state -------------------------------------------------------------------------------------------
    // Discards the time base, the carried word, the current block and the pending samples; keeps
    // _firstTimestamp, so times stay counted from the connection's first event.
    void clear() noexcept;
    // Forgets the time origin: the next decoded event becomes the reference (Time 0).
    void resetFirstTimestamp() noexcept { _firstTimestamp = 0; }

    std::uint64_t firstTimestamp() const noexcept { return _firstTimestamp; }
    std::uint64_t timeBase() const noexcept { return _timeBase; }
    std::uint64_t previousTimeBase() const noexcept { return _previousTimeBase; }
    std::uint64_t lastRelativeTimestamp() const noexcept { return _lastRelativeTimestamp; }
    unsigned pendingCount() const noexcept { return _pendingCount; }
    const oltbTraceEvent* pendingEvents() const noexcept { return _pendingEvents.data(); }
    // True while the current block still holds undecoded bytes.
    bool hasUndecodedBytes() const noexcept { return _blockPosition < _currentBlock.size(); }
    // Installs a block as the current one, as a reading operation does after taking it from its source.
    void takeBlock(std::vector<std::byte>&& block) noexcept;

private:
    // The time state as one value: the decoding loop (events/TraceWordsInline.h) works on a local copy, which
    // the compiler keeps in registers although the caller's array is written through a pointer.
    inline TraceWordClock loadClock() const noexcept;
    inline void storeClock(const TraceWordClock& clock) noexcept;

    // Reading steps shared by TryRead and Acquire (events/TraceReading.cpp).
    // Moves pending samples to events[start...]; returns how many (all of them, or `count` when not all fit).
    unsigned deliverPending(oltbTraceEvent* events, unsigned start, unsigned count) noexcept;
    // Waits for blocks and decodes them until the array is full or the wait rules end the call; `delivered` is the
    // number of events the call has delivered so far. Returns the new total.
    unsigned fillFromSource(BlockSource& source, oltbTraceEvent* events, unsigned start, unsigned count,
                            unsigned delivered, int readTimeoutMs);
    // Takes the next block from `source` as the current one, handing the used-up one back.
    bool takeNextBlock(BlockSource& source, int waitLimitMs);

    std::uint64_t _firstTimestamp = 0;
    std::uint64_t _timeBase = 0;
    std::uint64_t _previousTimeBase = 0;
    std::uint64_t _lastRelativeTimestamp = 0;
    std::uint64_t _partialWord = 0;
    std::int32_t _partialBits = 0;
    std::vector<std::byte> _currentBlock;
    std::uint32_t _blockPosition = 0;
    std::vector<oltbTraceEvent> _pendingEvents;
    std::uint32_t _pendingCount = 0;
    // Length of the last acquired series: the next acquisition starts with room for as many.
    std::size_t _acquiredEventsBefore = 0;
};

}  // namespace OLVEN::TALIX3::TraceBuffer
