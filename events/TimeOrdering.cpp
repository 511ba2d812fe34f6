// Time ordering: words of different signals interleave, widths get different stamp adjustments and the samples
// of one word spread over up to 32 ticks, so decoded events can come out of order. Both forms re-sort only the
// stretch where new events overlap the ones before them.
#include "events/TraceDecoder.h"

#include <algorithm>
#include <utility>

namespace OLVEN::TALIX3::TraceBuffer {

void TraceDecoder::reSort(oltbTraceEvent* events, unsigned start, unsigned end, unsigned count) {
    if (end < start || end - start < 2 || count == 0 || count > end - start) return;
    const unsigned first = end - count;
    const std::uint64_t firstNew = events[first].Timestamp;
    unsigned low = start;
    for (unsigned slot = first; slot > start; --slot) {
        if (events[slot - 1].Timestamp <= firstNew) {
            low = slot - 1;
            break;
        }
    }
    std::sort(events + low, events + end, TraceEventComparer{});

    // Samples that did not fit wait in the pending store and are delivered first by the next call; none of
    // them may be earlier than the last event delivered now.
    oltbTraceEvent* const pending = _pendingEvents.data();
    for (unsigned index = 0; index < _pendingCount; ++index) {
        if (pending[index].Timestamp >= events[end - 1].Timestamp) continue;
        std::swap(pending[index], events[end - 1]);
        for (unsigned slot = end - 1; slot > low + 1;) {
            --slot;
            if (!(events[slot + 1].Timestamp < events[slot].Timestamp)) break;
            std::swap(events[slot], events[slot + 1]);
        }
    }
    if (_pendingCount >= 2) std::sort(pending, pending + _pendingCount, TraceEventComparer{});
}

void TraceDecoder::reSort(oltbTraceEvent* events, std::size_t size, unsigned first) {
    if (first == 0 || first >= size) return;
    const std::uint64_t firstNew = events[first].Timestamp;
    std::size_t low = 0;
    for (std::size_t index = first; index > 0; --index) {
        if (events[index - 1].Timestamp < firstNew) {
            if (index == first) return;  // the new events already follow the old ones
            low = index;
            break;
        }
    }
    const std::uint64_t lastOld = events[first - 1].Timestamp;
    std::size_t high = first;
    while (high < size && events[high].Timestamp <= lastOld) ++high;
    std::sort(events + low, events + high, TraceEventComparer{});
}

}  // namespace OLVEN::TALIX3::TraceBuffer
