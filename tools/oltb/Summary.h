// Per-signal figures of what a capture or acquisition wrote: number of events, time of the first and the last
// (us, as the library reports Time), smallest and largest value.
#pragma once

#include "api/oltb.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>

namespace oltb::cli {

class Summary {
public:
    struct SignalFigures {
        std::uint64_t count = 0;
        double firstTimeUs = 0.0;
        double lastTimeUs = 0.0;
        std::int32_t minValue = 0;
        std::int32_t maxValue = 0;
    };

    void add(const oltbTraceEvent& event);
    void add(const oltbTraceEvent* events, std::size_t count);

    std::uint64_t totalEvents() const { return _totalEvents; }
    std::map<int, SignalFigures> figuresByType() const;

    // A table, one line per signal in order of event type, then the total.
    void print(std::ostream& out) const;

private:
    std::array<SignalFigures, 128> _figuresOfType{};  // the event types; count 0 for those that did not come
    std::map<int, SignalFigures> _otherFigures;       // numbers outside them, which no event of the library has
    std::uint64_t _totalEvents = 0;
};

}  // namespace oltb::cli
