// Simulated overflows of the card's internal trace buffer. After every `everyWords` data words that went out, the
// buffer overflows: the next `lostWords` data words are lost, and the first data word after them carries the
// overflow flag (bit 31). Time-base words are never lost and never flagged, so the clock stays right.
#pragma once

#include <cstdint>
#include <vector>

namespace oltb::sim {

class OverflowInjector {
public:
    OverflowInjector(std::uint64_t everyWords, std::uint64_t lostWords) noexcept
        : _everyWords(everyWords), _lostWords(lostWords) {}

    bool enabled() const noexcept { return _everyWords != 0; }
    void reset() noexcept;
    // Drops and flags words in place.
    void apply(std::vector<std::uint64_t>& words);

private:
    std::uint64_t _everyWords;
    std::uint64_t _lostWords;
    std::uint64_t _wordsSinceOverflow = 0;
    std::uint64_t _wordsToDrop = 0;
    bool _flagNext = false;
};

}  // namespace oltb::sim
