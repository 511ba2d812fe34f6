// Packing of trace words and the time-base bookkeeping of the stream.
#include "tools/oltb-sim/WordEncoder.h"

#include <cassert>

namespace oltb::sim {

unsigned sampleWidthBits(const std::uint32_t type) noexcept {
    if (type <= 26) {
        // Ports, DACs and laser lines of group 0, by their signal number.
        static constexpr unsigned widths[27] = {16, 16, 16, 16, 8, 16, 8, 2, 1, 1, 4, 1, 1, 1,
                                                16, 16, 16, 8,  4, 2,  1, 1, 1, 1, 1, 1, 1};
        return widths[type];
    }
    if (type >= 32 && type <= 60) {
        // Head channels: even numbers, three per group of eight.
        const std::uint32_t inGroup = (type - 32) % 8;
        return (inGroup == 0 || inGroup == 2 || inGroup == 4) ? 32 : 0;
    }
    if (type >= 64 && type <= 73) {
        static constexpr unsigned widths[5] = {16, 8, 4, 2, 1};
        return widths[(type - 64) % 5];
    }
    if (type >= 96 && type <= 99) {
        return 32;  // SPI receivers
    }
    if (type >= 100 && type <= 105) {
        return 1;  // quadrature encoder lines
    }
    if (type == 120 || type == 121 || type == 123) {
        return 32;  // event changes
    }
    if (type == oltbEventLabel) {
        return 16;
    }
    return 0;
}

std::uint64_t packWord(const std::uint32_t timestampField, const std::uint32_t type, const std::uint32_t payload,
                       const bool overflow) noexcept {
    return (std::uint64_t{payload} << 32) | (overflow ? std::uint64_t{0x80000000} : 0) |
           (std::uint64_t{type & 0x7F} << 24) | std::uint64_t{timestampField & 0xFFFFFF};
}

std::uint32_t packSamples(const unsigned widthBits, const std::uint32_t* const samples) noexcept {
    assert(widthBits >= 1 && widthBits <= 32 && 32 % widthBits == 0);
    if (widthBits == 32) {
        return samples[0];
    }
    const std::uint32_t sampleMask = (std::uint32_t{1} << widthBits) - 1;
    std::uint32_t payload = 0;
    for (unsigned i = 0; i < 32 / widthBits; ++i) {
        payload = (payload << widthBits) | (samples[i] & sampleMask);
    }
    return payload;
}

std::uint64_t fieldTickOf(const std::uint32_t type, const std::uint64_t firstSampleTick) noexcept {
    const unsigned width = sampleWidthBits(type);
    assert(width != 0 && firstSampleTick >= 32 - width);
    return firstSampleTick - (32 - width);
}

void WordEncoder::append(std::vector<std::uint64_t>& out, const std::uint64_t fieldTick, const std::uint32_t type,
                         const std::uint32_t payload, const bool overflow) {
    ensureTimeBase(out, fieldTick);
    out.push_back(packWord(static_cast<std::uint32_t>(fieldTick % TicksPerTimeBase), type, payload, overflow));
}

void WordEncoder::ensureTimeBase(std::vector<std::uint64_t>& out, const std::uint64_t fieldTick) {
    assert(!_hasTimeBase || fieldTick >= _lastFieldTick);
    _lastFieldTick = fieldTick;
    const std::uint64_t period = fieldTick / TicksPerTimeBase;
    if (!_hasTimeBase || period != _timeBasePayload) {
        // The card writes the upper bits of its clock whenever they change; the time-base payload is 32 bits wide.
        out.push_back(packWord(0, TimeBaseType, static_cast<std::uint32_t>(period)));
        _timeBasePayload = period;
        _hasTimeBase = true;
    }
}

}  // namespace oltb::sim
