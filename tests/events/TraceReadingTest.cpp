// Reading: a long stream cut at random places and read in random portions, late correction, words that break the
// fast path, an unsupported word in the middle of a stream, the wait rules, the failures of a call, and what clear
// keeps.
#include "tests/events/EventsTestSupport.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

namespace OLVEN::TALIX3::TraceBuffer {
namespace {

using namespace oltb::testing;

// 200,000 words of several widths with a time-base word at every period boundary, cut at random places (half of the
// cuts inside a word or close behind it) and read in random portions, down to one event: every event arrives once,
// in order, with its exact stamp, also while samples of a word wait for the next call.
TEST(TraceReading, EveryEventArrivesOnceInOrderHoweverTheStreamIsCutAndRead) {
    std::mt19937 random(20261122);
    std::vector<std::uint64_t> words;
    std::vector<std::tuple<std::uint64_t, int, std::int32_t>> expected;  // stamp, type, value
    std::uint64_t tick = Period - 4000000;
    for (std::uint32_t i = 0, period = 0; i < 200000; ++i) {
        tick += 64 + random() % 137;
        if ((tick >> 24) != period) {
            period = static_cast<std::uint32_t>(tick >> 24);
            tick = std::max<std::uint64_t>(tick, (std::uint64_t{period} << 24) + 32);
            words.push_back(timeBaseWord(period));
        }
        const auto field = static_cast<std::uint32_t>(tick);
        if (i % 4 < 2) {
            words.push_back(traceWord(oltbEventSpi0Rx, field, i));
            expected.emplace_back(tick, oltbEventSpi0Rx, i);
        } else if (i % 4 == 2) {  // two different 16-bit samples, one tick apart
            words.push_back(traceWord(oltbEventPortA, field - 16, ((i & 0xFFFFU) << 16) | ((i + 1) & 0xFFFFU)));
            expected.emplace_back(tick, oltbEventPortA, i & 0xFFFFU);
            expected.emplace_back(tick + 1, oltbEventPortA, (i + 1) & 0xFFFFU);
        } else {  // the gate blinks twice: four changes, 4 ticks apart
            words.push_back(traceWord(oltbEventGate, field - 31, 0xF0F00000));
            for (std::uint32_t edge = 0; edge < 4; ++edge) {
                expected.emplace_back(tick + 4 * edge, oltbEventGate, 1 - edge % 2);
            }
        }
    }
    const std::vector<std::byte> bytes = bytesOf(words);
    std::vector<std::size_t> cuts;
    for (std::size_t position = 0; position < bytes.size(); position += cuts.back())
        cuts.push_back(1 + random() % (random() % 2 == 0 ? 12 : 20000));
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks = cutInto(bytes, cuts);
    std::vector<oltbTraceEvent> buffer(5000);
    std::size_t received = 0;
    for (int call = 0; call < 2000000 && received < expected.size(); ++call) {
        const unsigned count =
            decoder.TryRead(source, buffer.data(), 0, 1 + random() % (random() % 2 == 0 ? 3 : 5000), 0);
        for (unsigned i = 0; i < count; ++i, ++received) {
            ASSERT_LT(received, expected.size());
            ASSERT_EQ(std::make_tuple(buffer[i].Timestamp, static_cast<int>(buffer[i].Type), buffer[i].Value),
                      expected[received])
                << "event " << received;
        }
    }
    EXPECT_EQ(received, expected.size());
}

// A word stamped before the last time-base word but arriving after it moves back into the period before.
TEST(TraceReading, LateWordIsMovedBackAPeriod) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({timeBaseWord(1), timeBaseWord(2), traceWord(oltbEventSpi0Rx, 16777200, 1),
                                     traceWord(oltbEventSpi0Rx, 16, 2)}));
    oltbTraceEvent events[2]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 2, 0), 2U);
    EXPECT_EQ(events[0].Timestamp, 2 * Period - 16);
    EXPECT_EQ(events[1].Time - events[0].Time, 32 / 64.0) << "Time recomputed with the timestamp";
}

// Runs of in-order 32-bit words take a shortcut; every word that breaks the run must still get the full treatment:
// a word behind the previous one is sorted in, a time-base word switches the period, a late word moves the event
// before it back.
TEST(TraceReading, WordsThatBreakARunOfPositionsAreOrderedAndCorrected) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 100, 1), traceWord(oltbEventSpi0Rx, 110, 2),
                                     traceWord(oltbEventSpi0Rx, 90, 3), traceWord(oltbEventSpi0Rx, 200, 4),
                                     timeBaseWord(1), traceWord(oltbEventSpi0Rx, 50, 5),
                                     traceWord(oltbEventSpi0Rx, 60, 6), traceWord(oltbEventSpi0Rx, 10, 7)}));
    oltbTraceEvent events[8]{};
    ASSERT_EQ(decoder.TryRead(source, events, 0, 8, 0), 7U);
    const std::pair<std::uint64_t, std::int32_t> expected[] = {{90, 3}, {100, 1}, {110, 2},        {200, 4},
                                                               {50, 5}, {60, 6},  {Period + 10, 7}};
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
    source.blocks =
        cutInto(bytesOf({traceWord(oltbEventSpi0Rx, 1, 1), traceWord(bad, 2, 0), traceWord(oltbEventSpi0Rx, 3, 3),
                         traceWord(bad, 4, 0), traceWord(oltbEventSpi0Rx, 5, 5)}),
                {20, 8});  // the third and the fourth word straddle a cut
    oltbTraceEvent event{};
    for (int expectedValue : {1, 0, 3, 0, 5}) {
        if (expectedValue == 0) {
            EXPECT_EQ(failureOf([&] { decoder.TryRead(source, &event, 0, 1, 0); }), "TraceEventType 27 not supported!");
        } else {
            ASSERT_EQ(decoder.TryRead(source, &event, 0, 1, 0), 1U);
            EXPECT_EQ(event.Value, expectedValue);
        }
    }
}

// The first wait takes the read timeout (none with 0, without limit when negative); once something has been
// decoded, only what is already there; a block that decodes to nothing lets the call wait on for the rest.
TEST(TraceReading, WaitRulesOfTheReadTimeout) {
    TraceDecoder decoder;
    FakeBlockSource source;
    oltbTraceEvent events[8]{};
    EXPECT_EQ(decoder.Read(source, events, 0, 8, 0), 0U) << "timeout 0: nothing is no failure";
    EXPECT_EQ(failureOf([&] { decoder.Read(source, events, 0, 8, 30); }),
              "Nothing received from trace buffer "
              "server within the specified timeout");
    EXPECT_EQ(failureOf([&] { decoder.Read(source, events, 0, 0, 30); }),
              "Nothing received from trace buffer "
              "server within the specified timeout");
    EXPECT_EQ(source.waitsUs[0], 0);
    EXPECT_EQ(source.waitsUs[1], 30000);

    source.waitsUs.clear();
    source.blocks = cutInto(
        bytesOf({timeBaseWord(0), traceWord(oltbEventSpi2Rx, 50, 5), traceWord(oltbEventSpi2Rx, 60, 6)}), {8, 8});
    EXPECT_EQ(decoder.TryRead(source, events, 0, 8, 2000), 2U);
    ASSERT_EQ(source.waitsUs.size(), 4U);
    EXPECT_EQ(source.waitsUs[0], 2000000);
    EXPECT_GT(source.waitsUs[1], 1900000) << "the time-base block ended nothing: the rest of the timeout";
    EXPECT_EQ(source.waitsUs[2], 0);
    EXPECT_EQ(source.waitsUs[3], 0);

    source.waitsUs.clear();
    source.beforeWait = [](FakeBlockSource& s) { s.blocks.push_back(bytesOf({traceWord(oltbEventSpi2Rx, 90, 7)})); };
    EXPECT_EQ(decoder.TryRead(source, events, 0, 1, -1), 1U);
    EXPECT_EQ(source.waitsUs, std::vector<std::int64_t>{-1});
}

TEST(TraceReading, NullBufferAndLostConnectionFailWithoutTakingABlock) {
    TraceDecoder decoder;
    FakeBlockSource source;
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 5, 1)}));
    oltbTraceEvent event{};
    EXPECT_EQ(failureOf([&] { decoder.TryRead(source, nullptr, 0, 1, 0); }), "buffer may not be null");
    source.connected = false;
    EXPECT_EQ(failureOf([&] { decoder.TryRead(source, &event, 0, 1, 0); }),
              "No connection to trace buffer server established.");
    EXPECT_EQ(source.blocks.size(), 1U);
}

TEST(TraceReading, UsedUpBlocksAreHandedBackAndClearKeepsOnlyTheOrigin) {
    TraceDecoder decoder;
    FakeBlockSource source;
    std::vector<std::byte> stream = bytesOf({timeBaseWord(3), traceWord(oltbEventSpi0Rx, 5, 1)});
    stream.resize(12);  // the second word's first half only
    source.blocks = cutInto(stream, {8});
    oltbTraceEvent events[4]{};
    EXPECT_EQ(decoder.TryRead(source, events, 0, 4, 0), 0U);
    EXPECT_EQ(source.recycledBlocks, 1U);
    decoder.clear();
    EXPECT_EQ(decoder.timeBase(), 0U);
    EXPECT_EQ(decoder.firstTimestamp(), 2 * Period);
    source.blocks.push_back(bytesOf({traceWord(oltbEventSpi0Rx, 9, 1)}));  // the carried half is gone
    ASSERT_EQ(decoder.TryRead(source, events, 0, 4, 0), 1U);
    EXPECT_EQ(events[0].Timestamp, 9U);
}

}  // namespace
}  // namespace OLVEN::TALIX3::TraceBuffer
