// Per-word hot path: field split, time base, timestamp adjustment and splitting of a word into its samples.
// Included by the sources that decode words, so that the reading loop inlines the same code the public
// members run.
#pragma once

#include "events/SignalList.h"
#include "events/TraceDecoder.h"

#include <array>
#include <cstdint>

namespace OLVEN::TALIX3::TraceBuffer {

// The decoder's time state (see the members of the same names).
struct TraceWordClock {
    std::uint64_t firstTimestamp;
    std::uint64_t timeBase;
    std::uint64_t previousTimeBase;
    std::uint64_t lastRelativeTimestamp;
};

inline TraceWordClock TraceDecoder::loadClock() const noexcept {
    return {_firstTimestamp, _timeBase, _previousTimeBase, _lastRelativeTimestamp};
}

inline void TraceDecoder::storeClock(const TraceWordClock& clock) noexcept {
    _firstTimestamp = clock.firstTimestamp;
    _timeBase = clock.timeBase;
    _previousTimeBase = clock.previousTimeBase;
    _lastRelativeTimestamp = clock.lastRelativeTimestamp;
}

namespace TraceWordDecoding {

constexpr std::array<std::uint8_t, 128> makeBitsPerSample() {
    std::array<std::uint8_t, 128> bits{};
    for (const Signal& signal : Signals) {
        bits[static_cast<unsigned>(signal.type)] = static_cast<std::uint8_t>(signal.bitsPerSample);
    }
    return bits;  // 0: no such signal; 127 (time base) carries no samples
}

// Bits per sample of each 7-bit type value.
inline constexpr std::array<std::uint8_t, 128> BitsPerSample = makeBitsPerSample();

inline constexpr std::uint64_t TimeBaseUnit = std::uint64_t{1} << TraceDecoder::_timestampNumberOfBits;

// Raises "TraceEventType <type> not supported!".
[[noreturn]] void throwUnsupportedType(long long type);

// The bare fields of a word: 24-bit stamp, type, overflow flag, payload. Time is left alone.
inline void splitFields(std::uint64_t word, oltbTraceEvent& event) noexcept {
    event.Timestamp = word & TraceDecoder::_timestampMask;
    event.Type =
        static_cast<oltbTraceEventType>((word & TraceDecoder::_eventTypeMask) >> TraceDecoder::_eventTypeShift);
    event.Overflow = (word & TraceDecoder::_overflowMask) != 0;
    event.Value = static_cast<std::int32_t>(static_cast<std::uint32_t>(word >> TraceDecoder::_payloadShift));
}

// Microseconds from the time origin to `timestamp`; negative for timestamps before the origin, as after a
// restart or a late correction.
inline double timeOf(const TraceWordClock& clock, std::uint64_t timestamp) noexcept {
    return static_cast<double>(static_cast<std::int64_t>(timestamp - clock.firstTimestamp)) *
           TraceDecoder::_TicksPerMicroSecond;
}

// Decodes one word against the time base; false for a time-base word. `bits` receives the bits per sample.
// An unsupported type fails before `clock` has changed.
inline bool decodeWord(TraceWordClock& clock, std::uint64_t word, oltbTraceEvent& event, bool& late, unsigned& bits) {
    splitFields(word, event);
    bits = BitsPerSample[static_cast<unsigned>(event.Type)];
    if (bits == 0) {  // one test on the common path for both rare cases
        if (event.Type != oltbEventTimeBase) throwUnsupportedType(event.Type);
        clock.previousTimeBase = clock.timeBase;
        clock.timeBase = static_cast<std::uint64_t>(static_cast<std::int64_t>(event.Value) *
                                                    static_cast<std::int64_t>(TimeBaseUnit));
        clock.lastRelativeTimestamp = 0;
        // Stamps seen before the first time-base word belong to the period before the one it opens: an origin
        // taken there moves into that period, and an unset origin becomes that period's start.
        if (clock.firstTimestamp <= TraceDecoder::_timestampMask) {
            clock.firstTimestamp = clock.firstTimestamp - TimeBaseUnit + clock.timeBase;
        }
        late = false;
        return false;
    }

    // Words of narrower samples are stamped earlier: a word of n-bit samples is moved by 32 - n ticks.
    const std::uint64_t relative = event.Timestamp + (TraceDecoder::_numPayloadBits - bits);
    // A drop of more than 32 ticks means the words before this one were stamped in the previous period but
    // arrived after the time-base word that opened this one; the reading loop moves them back.
    late = clock.lastRelativeTimestamp > relative + 32;
    clock.lastRelativeTimestamp = relative;
    event.Timestamp = relative + clock.timeBase;
    if (clock.firstTimestamp == 0) clock.firstTimestamp = event.Timestamp;
    event.Time = timeOf(clock, event.Timestamp);
    return true;
}

// Stores the samples of a decoded word at `out`, advancing it, while out < outEnd; the rest goes to the pending
// store, which is emptied first. Returns the number stored at `out`.
inline unsigned storeSamples(const oltbTraceEvent& event, unsigned bits, oltbTraceEvent*& out, oltbTraceEvent* outEnd,
                             oltbTraceEvent* pending, std::uint32_t& pendingCount) {
    pendingCount = 0;
    if (bits == TraceDecoder::_numPayloadBits) {
        *out++ = event;
        return 1;
    }
    oltbTraceEvent* const first = out;
    const std::uint32_t payload = static_cast<std::uint32_t>(event.Value);
    const std::uint32_t mask = (std::uint32_t{1} << bits) - 1;
    // A label word carries its number in the upper half; the lower half means nothing to the client.
    const unsigned samples = event.Type == oltbEventLabel ? 1 : TraceDecoder::_numPayloadBits / bits;

    oltbTraceEvent sample = event;
    unsigned shift = TraceDecoder::_numPayloadBits - bits;
    std::uint32_t previous = payload >> shift;
    sample.Value = static_cast<std::int32_t>(previous);
    if (out < outEnd) {
        *out++ = sample;
    } else {
        pending[pendingCount++] = sample;
    }
    sample.Overflow = false;
    // Only changes are reported: a sample equal to the one before it produces no event.
    for (unsigned i = 1; i < samples; ++i) {
        shift -= bits;
        const std::uint32_t value = (payload >> shift) & mask;
        if (value != previous) {
            sample.Timestamp = event.Timestamp + i;
            sample.Time = event.Time + static_cast<double>(i) * TraceDecoder::_TicksPerMicroSecond;
            sample.Value = static_cast<std::int32_t>(value);
            if (out < outEnd) {
                *out++ = sample;
            } else {
                pending[pendingCount++] = sample;
            }
        }
        previous = value;
    }
    return static_cast<unsigned>(out - first);
}

}  // namespace TraceWordDecoding
}  // namespace OLVEN::TALIX3::TraceBuffer
