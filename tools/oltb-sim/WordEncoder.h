// Packs what the card records into the 64-bit trace words of the server's stream, little-endian on the wire:
//   bits  0..23  timestamp field, ticks modulo 2^24        bit 31      overflow flag
//   bits 24..30  event type (127: time-base word)           bits 32..63 payload
// A client adds the last time base (payload of a type-127 word times 2^24) to every field, and for a signal of n
// bits per sample it adds 32 - n more: the field of such a word lies 32 - n ticks before its first sample. The
// encoder keeps that arithmetic in one place and emits the time-base words the stream needs.
#pragma once

#include "api/oltb.h"

#include <cstdint>
#include <vector>

namespace oltb::sim {

constexpr std::uint64_t TicksPerTimeBase = std::uint64_t{1} << 24;
constexpr std::uint32_t TimeBaseType = oltbEventTimeBase;

// Bits per sample of a traceable event type (32, 16, 8, 4, 2 or 1); 0 for the time-base type and every value that
// names no signal.
unsigned sampleWidthBits(std::uint32_t type) noexcept;

// One word from its fields; the field is taken modulo 2^24, the type modulo 128.
std::uint64_t packWord(std::uint32_t timestampField, std::uint32_t type, std::uint32_t payload,
                       bool overflow = false) noexcept;

// The 32-bit payload of 32 / widthBits samples of widthBits bits each, sample 0 in the most significant bits.
// Each sample is cut to widthBits bits.
std::uint32_t packSamples(unsigned widthBits, const std::uint32_t* samples) noexcept;

// The tick the word's timestamp field stands for, so that the client's adjustment lands on firstSampleTick.
// Requires firstSampleTick >= 32 - width.
std::uint64_t fieldTickOf(std::uint32_t type, std::uint64_t firstSampleTick) noexcept;

// Turns words given with absolute field ticks into stream words. The ticks handed in must not decrease; the
// encoder puts a time-base word in front of the first word of the stream and of the first word of every later
// 2^24-tick period, so that every field fits into its 24 bits.
class WordEncoder {
public:
    // Forgets the time base: the next word is preceded by a time-base word.
    void restart() noexcept { _hasTimeBase = false; }

    void append(std::vector<std::uint64_t>& out, std::uint64_t fieldTick, std::uint32_t type, std::uint32_t payload,
                bool overflow = false);
    // Appends a time-base word if a word at fieldTick would need one.
    void ensureTimeBase(std::vector<std::uint64_t>& out, std::uint64_t fieldTick);
    bool hasTimeBase() const noexcept { return _hasTimeBase; }

    // The time base in force (payload of the last time-base word); meaningful once a word was appended.
    std::uint64_t timeBasePayload() const noexcept { return _timeBasePayload; }

private:
    bool _hasTimeBase = false;
    std::uint64_t _timeBasePayload = 0;
    std::uint64_t _lastFieldTick = 0;
};

}  // namespace oltb::sim
