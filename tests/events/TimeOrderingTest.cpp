// Time ordering: the re-sorted stretch of both forms, and the pending samples merged against the array.
#include "tests/events/EventsTestSupport.h"

#include <gtest/gtest.h>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

std::vector<oltbTraceEvent> eventsAt(const std::vector<std::uint64_t>& timestamps) {
    std::vector<oltbTraceEvent> events(timestamps.size());
    for (std::size_t i = 0; i < timestamps.size(); ++i) events[i].Timestamp = timestamps[i];
    return events;
}

std::vector<std::uint64_t> timestampsOf(const oltbTraceEvent* events, std::size_t count) {
    std::vector<std::uint64_t> timestamps;
    for (std::size_t i = 0; i < count; ++i) timestamps.push_back(events[i].Timestamp);
    return timestamps;
}

// Fills the pending store of `decoder` with samples at the given ticks after `first` (a 1-bit word, no room).
void makePending(TraceDecoder& decoder, std::uint64_t first, std::uint32_t payload) {
    oltbTraceEvent word{};
    word.Timestamp = first;
    word.Type = oltbEventGate;
    word.Value = static_cast<std::int32_t>(payload);
    oltbTraceEvent unused{};
    unsigned next = 0, end = 0;
    decoder.unpackEvents(word, &unused, next, end);
}

TEST(TimeOrdering, ArrayFormSortsFromTheLastOldEventNotLaterThanTheFirstNewOne) {
    struct Case {
        std::vector<std::uint64_t> timestamps;
        unsigned start, end, count;
        std::vector<std::uint64_t> expected;
    };
    const Case cases[] = {
        {{10, 20, 30, 25, 26}, 0, 5, 2, {10, 20, 25, 26, 30}},
        {{9, 1}, 0, 1, 1, {9, 1}},                              // fewer than two events
        {{50, 10, 20, 30, 25}, 1, 5, 1, {50, 10, 20, 25, 30}},  // slots before start are never moved
        {{30, 10, 40, 35}, 0, 4, 1, {30, 10, 35, 40}},          // nor slots before the lower bound
        {{3, 1, 2}, 0, 3, 3, {1, 2, 3}},
    };
    for (const Case& c : cases) {
        TraceDecoder decoder;
        std::vector<oltbTraceEvent> events = eventsAt(c.timestamps);
        decoder.reSort(events.data(), c.start, c.end, c.count);
        EXPECT_EQ(timestampsOf(events.data(), events.size()), c.expected);
    }
}

TEST(TimeOrdering, ArrayFormLeavesNoPendingSampleEarlierThanTheLastSlot) {
    TraceDecoder decoder;
    makePending(decoder, 27, 0x80000000);  // samples at 27 and 28
    ASSERT_EQ(decoder.pendingCount(), 2u);
    std::vector<oltbTraceEvent> events = eventsAt({10, 20, 30, 25, 26});
    decoder.reSort(events.data(), 0, 5, 2);
    EXPECT_EQ(timestampsOf(events.data(), 5), (std::vector<std::uint64_t>{10, 20, 25, 26, 27}));
    EXPECT_EQ(timestampsOf(decoder.pendingEvents(), 2), (std::vector<std::uint64_t>{28, 30})) << "in time order";

    TraceDecoder early;  // a pending sample walks down no further than just above the lower bound
    makePending(early, 5, 0xFFFFFFFF);
    events = eventsAt({10, 20, 30, 25, 26});
    early.reSort(events.data(), 0, 5, 2);
    EXPECT_EQ(timestampsOf(events.data(), 5), (std::vector<std::uint64_t>{10, 20, 5, 25, 26}));
    EXPECT_EQ(timestampsOf(early.pendingEvents(), 1), (std::vector<std::uint64_t>{30}));
}

TEST(TimeOrdering, VectorFormSortsOnlyTheOverlapOfOldAndNew) {
    struct Case {
        std::vector<std::uint64_t> timestamps;
        unsigned first;
        std::vector<std::uint64_t> expected;
    };
    const Case cases[] = {
        {{1, 5, 7, 6, 8}, 3, {1, 5, 6, 7, 8}},
        {{3, 1, 2}, 0, {3, 1, 2}},
        {{3, 1, 2}, 3, {3, 1, 2}},
        {{1, 9, 5, 7, 6, 8}, 4, {1, 9, 5, 6, 7, 8}},
        {{1, 9, 5, 6, 2}, 3, {1, 9, 5, 6, 2}},  // the new events follow the last old one
        {{4, 8, 2, 1, 9}, 3, {1, 2, 4, 8, 9}},
    };
    for (const Case& c : cases) {
        std::vector<oltbTraceEvent> events = eventsAt(c.timestamps);
        TraceDecoder::reSort(events.data(), events.size(), c.first);
        EXPECT_EQ(timestampsOf(events.data(), events.size()), c.expected);
    }
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
