// Decodes simulator output the way a client of the card does: time-base words set the base, a word of an n-bit
// signal carries 32 / n samples, the first at field + (32 - n) + base, only changes after the first sample are
// events, and a label word yields its upper half once. Written from the wire format, independent of the encoder.
#pragma once

#include <cstdint>
#include <vector>

namespace oltbsim::test {

struct DecodedEvent {
    std::uint64_t tick = 0;
    std::uint32_t type = 0;
    std::uint32_t value = 0;
    bool overflow = false;
};

inline unsigned referenceWidth(const std::uint32_t type) {
    if (type == 126) return 16;
    if (type >= 32 && type <= 60) return 32;
    if (type >= 96 && type <= 99) return 32;
    static const unsigned group0[27] = {16, 16, 16, 16, 8, 16, 8, 2, 1, 1, 4, 1, 1, 1,
                                        16, 16, 16, 8, 4, 2, 1, 1, 1, 1, 1, 1, 1};
    if (type < 27) return group0[type];
    static const unsigned laser[5] = {16, 8, 4, 2, 1};
    if (type >= 64 && type <= 73) return laser[(type - 64) % 5];
    return 1;
}

struct StreamDecoder {
    std::uint64_t timeBase = 0;
    std::vector<std::uint64_t> timeBasePayloads;
    std::vector<DecodedEvent> events;

    void feed(const std::vector<std::uint64_t>& words) {
        for (const std::uint64_t word : words) {
            decode(word);
        }
    }

    void decode(const std::uint64_t word) {
        const std::uint64_t field = word & 0xFFFFFF;
        const auto type = static_cast<std::uint32_t>((word >> 24) & 0x7F);
        const bool overflow = ((word >> 31) & 1) != 0;
        const auto payload = static_cast<std::uint32_t>(word >> 32);
        if (type == 127) {
            timeBase = std::uint64_t{payload} << 24;
            timeBasePayloads.push_back(payload);
            return;
        }
        const unsigned n = referenceWidth(type);
        const std::uint64_t relative = field + (32 - n);
        const std::uint64_t first = relative + timeBase;
        if (n == 32) {
            events.push_back({first, type, payload, overflow});
            return;
        }
        std::uint32_t previous = 0;
        for (unsigned i = 0; i < 32 / n; ++i) {
            const std::uint32_t v = (payload >> (32 - n * (i + 1))) & ((1U << n) - 1);
            if (i == 0 || v != previous) {
                events.push_back({first + i, type, v, i == 0 && overflow});
            }
            previous = v;
            if (type == 126) {
                break;
            }
        }
    }

    std::vector<DecodedEvent> ofType(const std::uint32_t type) const {
        std::vector<DecodedEvent> selected;
        for (const DecodedEvent& e : events) {
            if (e.type == type) selected.push_back(e);
        }
        return selected;
    }
};

}  // namespace oltbsim::test
