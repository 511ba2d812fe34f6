// Reading: a word carried over several tiny blocks, late correction across calls, an unsupported word in the
// middle of a stream, the failures of a call, and what clear keeps.
#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include <utility>

#include <stdexcept>
#include <string>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace Testing;

constexpr std::uint32_t Period = 1u << 24;

std::vector<oltbTraceEvent> readAll(TraceDecoder& decoder, FakeBlockSource& source, unsigned count) {
    std::vector<oltbTraceEvent> all;
    std::vector<oltbTraceEvent> buffer(count);
    for (unsigned n = 1; n != 0; all.insert(all.end(), buffer.begin(), buffer.begin() + n)) {
        n = decoder.TryRead(source, buffer.data(), 0, count, 0);
    }
    return all;
}

std::string readFailure(TraceDecoder& decoder, FakeBlockSource& source, oltbTraceEvent* buffer) {
    try {
        decoder.TryRead(source, buffer, 0, 1, 0);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no failure";
}

// A word is completed from three or more blocks of a few bytes each, also when a sample split off it is pending.
TEST(TraceReading, WordCarriedOverSeveralTinyBlocksDecodesAsInOneBlock) {
    const std::vector<std::byte> stream = bytesOf({traceWord(oltbEventDac0, 10, 0x00010002, true), timeBaseWord(1),
                                                   traceWord(oltbEventGate, 20, 0xF0F0F0F0),
                                                   traceWord(oltbEventSpi2Rx, 90, 0xDEADBEEF)});
    TraceDecoder whole;
    FakeBlockSource wholeSource;
    wholeSource.blocks.push_back(stream);
    const std::vector<oltbTraceEvent> expected = readAll(whole, wholeSource, 64);
    ASSERT_EQ(expected.size(), 11u);

    for (const std::vector<std::size_t>& sizes : std::vector<std::vector<std::size_t>>{
             {2, 2}, {1, 1, 1, 1, 1, 1, 1, 1, 1}, {15, 1, 2}, {9, 3, 3, 2}}) {
        for (unsigned count : {1u, 64u}) {
            SCOPED_TRACE(::testing::Message() << "first cuts " << sizes[0] << "," << sizes[1] << ", buffer " << count);
            TraceDecoder decoder;
            FakeBlockSource source;
            source.blocks = cutInto(stream, sizes);
            const std::vector<oltbTraceEvent> events = readAll(decoder, source, count);
            ASSERT_EQ(events.size(), expected.size());
            for (std::size_t i = 0; i < events.size(); ++i) {
                EXPECT_EQ(events[i].Timestamp, expected[i].Timestamp) << i;
                EXPECT_EQ(events[i].Time, expected[i].Time) << i;
                EXPECT_EQ(events[i].Value, expected[i].Value) << i;
                EXPECT_EQ(events[i].Overflow, expected[i].Overflow) << i;
            }
        }
    }
}

// The late word is only moved back when the event it is late against is delivered by the same call.
TEST(TraceReading, LateCorrectionLeavesEventsOfEarlierCallsAlone) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({timeBaseWord(1), timeBaseWord(2), traceWord(oltbEventSpi0Rx, 16777200, 1),
                                     traceWord(oltbEventSpi0Rx, 16, 2)}));
    oltbTraceEvent events[2]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 1, 0), 1u);
    ASSERT_EQ(decoder.TryRead(source, events, 1, 1, 0), 1u);
    EXPECT_EQ(events[0].Timestamp, 3u * Period - 16);
    EXPECT_EQ(events[1].Timestamp, 2u * Period + 16);
}

// Runs of in-order 32-bit words take a shortcut; every word that breaks the run must still get the full
// treatment: a word behind the previous one is sorted in, a time-base word switches the period, a late word
// moves the event before it back.
TEST(TraceReading, WordsThatBreakARunOfPositionsAreOrderedAndCorrected) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 100, 1), traceWord(oltbEventSpi0Rx, 110, 2),
                                     traceWord(oltbEventSpi0Rx, 90, 3), traceWord(oltbEventSpi0Rx, 200, 4),
                                     timeBaseWord(1), traceWord(oltbEventSpi0Rx, 50, 5),
                                     traceWord(oltbEventSpi0Rx, 60, 6), traceWord(oltbEventSpi0Rx, 10, 7)}));
    oltbTraceEvent events[8]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 8, 0), 7u);
    const std::pair<std::uint64_t, std::int32_t> expected[] = {
        {90, 3}, {100, 1}, {110, 2}, {200, 4}, {50, 5}, {60, 6}, {Period + 10, 7}};
    for (std::size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(events[i].Timestamp, expected[i].first) << i;
        EXPECT_EQ(events[i].Value, expected[i].second) << i;
        EXPECT_DOUBLE_EQ(events[i].Time, (static_cast<double>(events[i].Timestamp) - 100.0) / 64.0) << i;
    }
}

TEST(TraceReading, UnsupportedWordIsConsumedAndReadingContinuesAfterIt) {
    TraceDecoder decoder;
    FakeBlockSource source;
    const auto bad = static_cast<oltbTraceEventType>(27);
    source.blocks = cutInto(bytesOf({traceWord(oltbEventSpi0Rx, 1, 1), traceWord(bad, 2, 0),
                                     traceWord(oltbEventSpi0Rx, 3, 3), traceWord(bad, 4, 0),
                                     traceWord(oltbEventSpi0Rx, 5, 5)}),
                            {20, 8});  // both the third and the fourth word straddle a cut
    oltbTraceEvent event{};
    for (int expectedValue : {1, 0, 3, 0, 5}) {
        if (expectedValue == 0) {
            EXPECT_EQ(readFailure(decoder, source, &event), "TraceEventType 27 not supported!");
        } else {
            ASSERT_EQ(decoder.TryRead(source, &event, 0, 1, 0), 1u);
            EXPECT_EQ(event.Value, expectedValue);
        }
    }
}

TEST(TraceReading, NullBufferAndLostConnectionFailWithoutTakingABlock) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 5, 1)}));
    oltbTraceEvent event{};
    EXPECT_EQ(readFailure(decoder, source, nullptr), "buffer may not be null");
    source.connected = false;
    EXPECT_EQ(readFailure(decoder, source, &event), "No connection to trace buffer server established.");
    EXPECT_EQ(source.blocks.size(), 1u);
}

TEST(TraceReading, UsedUpBlocksAreHandedBackAndClearKeepsOnlyTheOrigin) {
    TraceDecoder decoder;
    FakeBlockSource source;
    std::vector<std::byte> stream = bytesOf({timeBaseWord(3), traceWord(oltbEventSpi0Rx, 5, 1)});
    stream.resize(12);  // the second word's first half only
    source.blocks = cutInto(stream, {8});
    oltbTraceEvent events[4]{};
    EXPECT_EQ(decoder.TryRead(source, events, 0, 4, 0), 0u);
    EXPECT_EQ(source.recycledBlocks, 1u);
    decoder.clear();
    EXPECT_EQ(decoder.timeBase(), 0u);
    EXPECT_EQ(decoder.firstTimestamp(), 2u * Period);
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 9, 1)}));  // the carried half is gone
    ASSERT_EQ(decoder.TryRead(source, events, 0, 4, 0), 1u);
    EXPECT_EQ(events[0].Timestamp, 9u);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
