#include "tools/oltb-sim/OverflowInjector.h"

#include "tools/oltb-sim/WordEncoder.h"

namespace oltb::sim {

void OverflowInjector::reset() noexcept {
    _wordsSinceOverflow = 0;
    _wordsToDrop = 0;
    _flagNext = false;
}

void OverflowInjector::apply(std::vector<std::uint64_t>& words) {
    if (!enabled()) {
        return;
    }
    constexpr std::uint64_t OverflowBit = 0x80000000;
    std::size_t kept = 0;
    for (const std::uint64_t word : words) {
        const bool isTimeBase = ((word >> 24) & 0x7F) == TimeBaseType;
        if (isTimeBase) {
            words[kept++] = word;
            continue;
        }
        if (_wordsToDrop > 0) {
            --_wordsToDrop;
            continue;
        }
        words[kept++] = _flagNext ? (word | OverflowBit) : word;
        _flagNext = false;
        if (++_wordsSinceOverflow == _everyWords) {
            _wordsSinceOverflow = 0;
            _wordsToDrop = _lostWords;
            _flagNext = true;
        }
    }
    words.resize(kept);
}

}  // namespace oltb::sim
